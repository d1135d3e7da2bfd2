// Starts and stops in the middle of everything: devices that answer and tell events, open actions,
// subscriptions, media on their way in both directions, and host threads that do not know of the
// end.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/streaming.h>
#include "tests/support/control_peer.h"
#include "tests/support/host_rig.h"
#include "tests/support/media_host.h"
#include "tests/support/raw_socket.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;
using vex_test::WaitUntil;
namespace streaming = vex_upnp::streaming;

constexpr int kCycles = 20;
constexpr int kDevices = 4;
constexpr int kTransfers = 4;
constexpr int kCallers = 2;
constexpr int kMediaPort = 6200;
constexpr char kHere[] = "10.77.0.1";
constexpr char kThere[] = "10.77.0.2";
// Far more than a life moves.
constexpr long long kEndless = 1LL << 32;
constexpr std::size_t kPiece = 256 * 1024;

// A thread of the network that acts over and over, and can be held between two of its acts.
class Actor {
 public:
  explicit Actor(std::function<void()> act) : act_(std::move(act)), thread_([this] { Run(); }) {}
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;
  ~Actor() {
    ended_ = true;
    thread_.join();
  }
  std::unique_lock<std::mutex> Hold() {
    ++holders_;
    std::unique_lock<std::mutex> held(mutex_);
    --holders_;
    return held;
  }

 private:
  void Run() {
    while (!ended_) {
      // Whoever waits to hold it comes first.
      if (holders_ == 0) {
        const std::lock_guard<std::mutex> acting(mutex_);
        act_();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  const std::function<void()> act_;
  std::mutex mutex_;
  std::atomic<int> holders_{0};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

// Devices and a media server, which go on whether the library lives or not.
class BusyNetwork {
 public:
  BusyNetwork()
      : media_(kThere, 0, [](const PeerRequest&) {
          // Much at once, and the rest never.
          PeerAnswer answer =
              vex_test::Text("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kEndless) +
                             "\r\n\r\n" + std::string(4 * kPiece, 'm'));
          answer.end = PeerAnswer::End::kStayOpen;
          return answer;
        }) {
    media_.KeepRequests(false);
    for (int i = 0; i < kDevices; ++i) {
      devices_.push_back(std::make_unique<ScriptedDevice>(
          "uuid:busy-" + std::to_string(i),
          std::vector<std::string>{"AVTransport", "RenderingControl"}));
      devices_.back()->OnAction([this](const PeerRequest&) { return Answer(); });
    }
    for (const auto& device : devices_) {
      actors_.push_back(std::make_unique<Actor>([&device = *device] {
        device.Notify("AVTransport", 1, "<e:property><A>1</A></e:property>");
        device.SayAlive(kHere, 5300);
      }));
    }
    actors_.push_back(std::make_unique<Actor>([this] { Fetch(); }));
  }

  std::vector<std::unique_ptr<ScriptedDevice>>& devices() { return devices_; }
  const vex_test::ControlPeer& media() const { return media_; }
  long long fetched() const { return fetched_; }

  // Nobody acts while this is held.
  std::vector<std::unique_lock<std::mutex>> Hold() {
    std::vector<std::unique_lock<std::mutex>> held;
    for (const auto& actor : actors_) held.push_back(actor->Hold());
    return held;
  }

 private:
  PeerAnswer Answer() {
    switch (turn_++ % 3) {
      case 0:
        return vex_test::Silence();
      case 1:
        return ScriptedDevice::Fault(701, "Not now");
      default:
        return ScriptedDevice::Response("Play", "<Result>1</Result>");
    }
  }

  // From the library's server, until it ends.
  void Fetch() {
    vex_test::TcpClient client(kHere, kMediaPort);
    if (!client.connected()) return;
    client.Send("GET /media HTTP/1.1\r\nHOST: x\r\n\r\n");
    for (std::string bytes = client.ReadBytes(kPiece); !bytes.empty();
         bytes = client.ReadBytes(kPiece)) {
      fetched_ += static_cast<long long>(bytes.size());
      if (bytes.size() < kPiece) return;
    }
  }

  std::vector<std::unique_ptr<ScriptedDevice>> devices_;
  vex_test::ControlPeer media_;
  std::atomic<unsigned> turn_{0};
  std::atomic<long long> fetched_{0};
  // Last, so that they end first.
  std::vector<std::unique_ptr<Actor>> actors_;
};

// The host's side of the transfers.
std::atomic<long long> received{0};
std::string& Piece() {
  static std::string piece(kPiece, 'm');
  return piece;
}

void OnClientStatus(int, int, int) {}
void OnClientResponse(int, int, streaming::ResHeaderInfo* response, void* body, unsigned length,
                      bool) {
  streaming::FreeResponseHeader(response);
  streaming::Free(body);
  received += length;
}
void OnClientData(int, int, void* data, unsigned length, bool) {
  streaming::Free(data);
  received += length;
}
void OnClientWritten(int, int, unsigned) {}

void OnConnect(int, int, int) {}
void OnServerStatus(int, int, int) {}
void OnRequest(int server, int session, streaming::ReqHeaderInfo* request, void* body, unsigned,
               bool) {
  streaming::FreeRequestHeader(request);
  streaming::Free(body);
  streaming::ResHeaderInfo response;
  streaming::InitializeResponseInfo(&response);
  response.http_version = streaming::HTTP_1_1;
  response.status_code = 200;
  response.content_length = kEndless;
  streaming::SendHTTPResponse(server, session, &response, false);
}
void OnServerData(int, int, void* data, unsigned, bool) { streaming::Free(data); }
void OnServed(int server, int session, unsigned) {
  streaming::SendHTTPPayload(server, session, Piece().data(), kPiece, false);
}

void StartTransfers(const BusyNetwork& network) {
  const streaming::ServerAppCallbacks server = {OnConnect, OnServerStatus, OnRequest, OnServerData,
                                                OnServed};
  streaming::stServer* servers = nullptr;
  int configuration = 0;
  ASSERT_EQ(0, streaming::StartServers(&server, kHere, kMediaPort, &servers, &configuration));
  streaming::FreeServerInfoList(servers);
  const streaming::ClientAppCallbacks client = {OnClientStatus, OnClientResponse, OnClientData,
                                                OnClientWritten};
  for (int i = 0; i < kTransfers; ++i) {
    int id = 0;
    ASSERT_EQ(0, streaming::StartClient(&client, kThere, network.media().port(), &id));
    streaming::ReqHeaderInfo request;
    streaming::InitializeRequestHeaderInfo(&request);
    request.request_type = vex_upnp::utils::HTTP_GET;
    request.http_version = streaming::HTTP_1_1;
    request.uri = vex_test::Literal("/media");
    streaming::SendHTTPRequest(id, &request);
  }
}

// Host threads that call on and on; the end of the library only changes what they get.
class Callers {
 public:
  Callers(int handle, const std::vector<std::string>& udns) {
    for (int i = 0; i < kCallers; ++i)
      threads_.emplace_back([this, handle, &udns, i] { Call(handle, udns, i); });
  }
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;
  ~Callers() {
    ended_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  int refused() const { return refused_; }

 private:
  void Call(int handle, const std::vector<std::string>& udns, int number) {
    for (unsigned turn = static_cast<unsigned>(number); !ended_; ++turn) {
      const std::string& udn = udns[turn % udns.size()];
      int id = 0;
      const int code = SendAction(handle, udn.c_str(), "AVTransport", "Play", nullptr, &id);
      if (code == CP_ERR_NOT_INITIALIZED) ++refused_;
      if (turn % 4 == 0) CancelAction(handle, id);
      CPDeviceInfo* list = nullptr;
      if (GetDeviceList(handle, "upnp:rootdevice", &list) == 0) FreeDeviceList(list);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  std::atomic<bool> ended_{false};
  std::atomic<int> refused_{0};
  std::vector<std::thread> threads_;
};

std::size_t Told() {
  return HostLog::Actions().size() + HostLog::Events().size() + HostLog::Devices().size();
}

// One life, which ends while all of it is under way.
void LiveOnce(BusyNetwork& network) {
  // Whoever registers is not told of devices that are listed already.
  auto held = network.Hold();
  HostRig rig;
  const int handle = rig.Register();
  held.clear();
  std::vector<std::string> udns;
  for (const auto& device : network.devices()) {
    udns.push_back(rig.Meet(*device));
    EXPECT_EQ(0, SubscribeDevice(handle, udns.back().c_str()));
  }
  received = 0;
  const long long fetched = network.fetched();
  StartTransfers(network);
  Callers callers(handle, udns);
  EXPECT_TRUE(WaitUntil([] { return HostLog::Actions().size() > 20; }));
  EXPECT_TRUE(WaitUntil([] { return HostLog::Events().size() > 20; }));
  EXPECT_TRUE(WaitUntil([] { return received > static_cast<long long>(kTransfers * kPiece); }));
  EXPECT_TRUE(
      WaitUntil([&] { return network.fetched() > fetched + static_cast<long long>(8 * kPiece); }));
  EXPECT_EQ(0, RescanNetwork(handle, nullptr));
  rig.TerminateControlPoint();
  const std::size_t told = Told();
  EXPECT_TRUE(WaitUntil([&] { return callers.refused() > 10; }));
  EXPECT_EQ(told, Told()) << "a callback behind TerminateGenericCP";
}

TEST(FrameworkCyclesUnderLoad, TwentyLivesEndInTheMiddleOfEverythingAndLeaveNothing) {
  const vex_test::Watchdog watchdog(600);
  BusyNetwork network;
  for (int i = 0; i < 2; ++i) LiveOnce(network);
  int threads = 0, descriptors = 0;
  {
    const auto held = network.Hold();
    // The devices see our ends of the connections closed.
    WaitUntil([&] {
      const int before = descriptors;
      descriptors = vex_test::DescriptorCount();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return descriptors == before;
    });
    threads = vex_test::ThreadCount();
  }
  for (int i = 0; i < kCycles; ++i) {
    LiveOnce(network);
    const auto held = network.Hold();
    EXPECT_TRUE(WaitUntil([&] {
      return vex_test::ThreadCount() <= threads && vex_test::DescriptorCount() <= descriptors;
    })) << "life "
        << i << ": " << vex_test::ThreadCount() << " threads against " << threads << ", "
        << vex_test::DescriptorCount() << " descriptors against " << descriptors;
  }
}

}  // namespace

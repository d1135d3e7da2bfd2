#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "base/scoped_fd.h"
#include "tests/support/answer_recorder.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/private_network.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using std::chrono::milliseconds;
using vex_test::AnswerRecorder;
using vex_test::AnswerWith;
using vex_test::HttpPeer;
using vex_test::LogCapture;
using vex_test::OkAnswer;
using vex_test::ScopedAddress;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
constexpr char kRequest[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kGroup[] = "239.255.255.250";
constexpr int kSsdpPort = 1900;

struct Datagram {
  std::string text;
  std::string from_ip;
  int from_port = 0;
};

sockaddr_in Address(const std::string& ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

// A UDP socket of the test's own.
class UdpPeer {
 public:
  // Without `reuse` nobody else can have the port.
  UdpPeer(const std::string& ip, int port, bool reuse) : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    const int on = 1;
    if (reuse) ::setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = Address(ip, port);
    EXPECT_EQ(0, ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)))
        << ip << ":" << port;
    socklen_t size = sizeof(address);
    ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }

  void Join(const std::string& interface_ip) {
    ip_mreq membership = {};
    ::inet_pton(AF_INET, kGroup, &membership.imr_multiaddr);
    ::inet_pton(AF_INET, interface_ip.c_str(), &membership.imr_interface);
    EXPECT_EQ(
        0, ::setsockopt(fd_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)));
  }

  int port() const { return port_; }

  // The next datagram; an empty one when none comes within the time.
  Datagram Receive(int limit_ms = 10000) {
    Datagram datagram;
    pollfd waiting = {fd_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, limit_ms) != 1) return datagram;
    char text[65536];
    sockaddr_in from = {};
    socklen_t size = sizeof(from);
    const ssize_t bytes =
        ::recvfrom(fd_.get(), text, sizeof(text), 0, reinterpret_cast<sockaddr*>(&from), &size);
    if (bytes > 0) datagram.text.assign(text, static_cast<std::size_t>(bytes));
    char ip[INET_ADDRSTRLEN];
    datagram.from_ip = ::inet_ntop(AF_INET, &from.sin_addr, ip, sizeof(ip));
    datagram.from_port = ntohs(from.sin_port);
    return datagram;
  }

 private:
  const ScopedFd fd_;
  int port_ = 0;
};

class ClientManagerTest : public testing::Test {
 protected:
  int SendTo(const std::string& ip, int port) {
    int id = 0;
    EXPECT_EQ(result::kOk, SendTCPHTTPPacket(ip, port, kRequest, 0, recorder_, id));
    return id;
  }
  // The library's interfaces are the near ends only.
  void Serve(const std::string& device, const std::string& ip) {
    EXPECT_EQ(result::kOk, NotifyNICAdded(device, ip, "255.255.255.0"));
  }

  std::unique_ptr<vex_test::NetworkRun> run_ = std::make_unique<vex_test::NetworkRun>();
  LogCapture log_;
  boost::shared_ptr<AnswerRecorder> recorder_ = AnswerRecorder::Make();
};

TEST_F(ClientManagerTest, ADatagramArrivesAsItIs) {
  UdpPeer peer("10.77.0.2", 0, false);
  const std::string data("datagram\0with a NUL", 19);
  EXPECT_EQ(result::kOk, SendUDPPacket("10.77.0.2", peer.port(), data, 3));
  EXPECT_EQ(data, peer.Receive().text);
}

TEST_F(ClientManagerTest, ADatagramToABadAddressFailsAndLeavesNoSocket) {
  const int descriptors = vex_test::DescriptorCount();
  for (const char* ip : {"", "nowhere", "1.2.3", "::1"}) {
    EXPECT_EQ(result::kConnectFailed, SendUDPPacket(ip, 9, "x", 1)) << ip;
  }
  EXPECT_EQ(result::kConnectFailed, SendUDPPacket("10.77.0.2", 65536, "x", 1));
  EXPECT_EQ(5, log_.Count(16, kTag, "Invalid remote ip"));
  EXPECT_EQ(5, log_.Count(16, kTag, "UDP Unicasting failed!"));
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
}

TEST_F(ClientManagerTest, ADatagramThatCannotBeSentFails) {
  EXPECT_EQ(result::kConnectFailed, SendUDPPacket("10.77.0.2", 9, std::string(70000, 'x'), 0));
  EXPECT_EQ(1, log_.Count("send_to failed for session id 0 [Message too long]"));
  const vex_test::ScopedDescriptorLimit none_left(0);
  EXPECT_EQ(result::kConnectFailed, SendUDPPacket("10.77.0.2", 9, "x", 1));
  EXPECT_EQ(1, log_.Count("setsockopt failed for session id 0"));
}

TEST_F(ClientManagerTest, AMulticastTakesTheFirstFreePortFrom3955Up) {
  UdpPeer peer("0.0.0.0", kSsdpPort, true);
  peer.Join("10.77.0.1");
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "10.77.0.1", "first", 5));
  Datagram heard = peer.Receive();
  EXPECT_EQ("first", heard.text);
  EXPECT_EQ("10.77.0.1", heard.from_ip);
  EXPECT_EQ(3955, heard.from_port);
  EXPECT_EQ(1, log_.Count("sent mulicast packet to 239.255.255.250, interface addr 10.77.0.1"));

  UdpPeer taken("10.77.0.1", 3955, false);
  UdpPeer taken_too("10.77.0.1", 3956, false);
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "10.77.0.1", "second", 6));
  heard = peer.Receive();
  EXPECT_EQ("second", heard.text);
  EXPECT_EQ(3957, heard.from_port);
  EXPECT_EQ(2, log_.Count("Warning: Address already in use"));
}

TEST_F(ClientManagerTest, KeptWithAllFiftyPortsTakenAMulticastGoesOutUnbound) {
  std::vector<std::unique_ptr<UdpPeer>> taken;
  for (int port = 3955; port <= 4004; ++port) {
    taken.push_back(std::make_unique<UdpPeer>("10.77.0.1", port, false));
  }
  UdpPeer peer("0.0.0.0", kSsdpPort, true);
  peer.Join("10.77.0.1");
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "10.77.0.1", "unbound", 7));
  const Datagram heard = peer.Receive();
  EXPECT_EQ("unbound", heard.text);
  EXPECT_TRUE(heard.from_port < 3955 || heard.from_port > 4004);
  EXPECT_EQ(50, log_.Count("Warning: Address already in use"));
  EXPECT_EQ(1, log_.Count("Warning sending multicast in WiFiDirect network may be failed"));
}

TEST_F(ClientManagerTest, AMulticastComesFromThePortOfTheUdpServerOnItsInterface) {
  Serve("lan0", "10.77.0.1");
  EXPECT_EQ(result::kOk, ConfigureUDPServer(45678, true));
  UdpPeer peer("0.0.0.0", kSsdpPort, true);
  peer.Join("10.77.0.1");
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "10.77.0.1", "searching", 9));
  const Datagram heard = peer.Receive();
  EXPECT_EQ("searching", heard.text);
  EXPECT_EQ("10.77.0.1", heard.from_ip);
  EXPECT_EQ(45678, heard.from_port);
}

TEST_F(ClientManagerTest, WithMulticastDisabledNothingIsSent) {
  UdpPeer peer("0.0.0.0", kSsdpPort, true);
  peer.Join("10.77.0.1");
  EXPECT_EQ(result::kOk, ConfigureMulticastSupport(false));
  {
    // Not even a socket is opened, which would fail here with another result.
    const vex_test::ScopedDescriptorLimit none_left(0);
    EXPECT_EQ(result::kFailure, SendMulticastPacket(kGroup, "10.77.0.1", "x", 1));
    EXPECT_EQ(result::kFailure, SendMulticastPacket(kGroup, "0.0.0.0", "x", 1));
  }
  EXPECT_EQ(2, log_.Count("Multicasting is disabled by application"));
  EXPECT_EQ(result::kOk, ConfigureMulticastSupport(true));
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "10.77.0.1", "y", 1));
  EXPECT_EQ("y", peer.Receive().text);
}

TEST_F(ClientManagerTest, AMulticastOnEveryInterfaceNeedsAnActiveOne) {
  EXPECT_EQ(result::kNoNetworkInterface, SendMulticastPacket(kGroup, "0.0.0.0", "x", 1));
  EXPECT_EQ(1, log_.Count("no interface found"));
}

TEST_F(ClientManagerTest, AMulticastOnEveryInterfaceGoesOutOnEachActiveOne) {
  Serve("lan0", "10.77.0.1");
  Serve("lan1", "10.77.1.1");
  UdpPeer peer("0.0.0.0", kSsdpPort, true);
  peer.Join("10.77.0.1");
  peer.Join("10.77.1.1");
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "0.0.0.0", "all", 3));
  const Datagram first = peer.Receive();
  const Datagram second = peer.Receive();
  EXPECT_EQ("all", first.text);
  EXPECT_EQ("all", second.text);
  EXPECT_THAT((std::vector<std::string>{first.from_ip, second.from_ip}),
              testing::UnorderedElementsAre("10.77.0.1", "10.77.1.1"));
}

TEST_F(ClientManagerTest, KeptOfSeveralInterfacesTheLastOnesResultCounts) {
  // An interface whose address has gone, but not from the record yet: its server cannot send.
  const auto serve_and_lose = [this] {
    ScopedAddress lost("lan1", "10.77.5.1/24");
    Serve("lost", "10.77.5.1");
  };
  EXPECT_EQ(result::kOk, ConfigureUDPServer(45678, true));
  serve_and_lose();
  EXPECT_EQ(result::kConnectFailed, SendMulticastPacket(kGroup, "0.0.0.0", "x", 1));
  EXPECT_EQ(1, log_.Count(16, kTag, "Multicasting failed!"));
  Serve("lan0", "10.77.0.1");
  EXPECT_EQ(result::kOk, SendMulticastPacket(kGroup, "0.0.0.0", "x", 1));
  EXPECT_EQ(2, log_.Count(16, kTag, "Multicasting failed!"));

  EXPECT_EQ(result::kOk, NotifyNICRemoved("lost"));
  serve_and_lose();
  EXPECT_EQ(result::kConnectFailed, SendMulticastPacket(kGroup, "0.0.0.0", "x", 1));
}

TEST_F(ClientManagerTest, BeyondTheLimitTheOldestRequestsAreDroppedInSilence) {
  run_.reset();
  {
    const vex_test::ScopedDescriptorLimit limit(100);
    run_ = std::make_unique<vex_test::NetworkRun>();
  }
  EXPECT_EQ(1, log_.Count("ClientManager::StartClientThreads[70][7]"));
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  HttpPeer peer([&](vex_test::PeerConnection& connection) {
    connection.ReadRequest();
    released.wait();
    connection.Send(OkAnswer("late"));
    connection.AwaitEnd();
  });
  std::vector<int> ids;
  for (int i = 0; i < 71; ++i) ids.push_back(SendTo(peer.ip(), peer.port()));
  EXPECT_TRUE(WaitUntil([&] { return peer.connections() == 71; }));
  EXPECT_FALSE(log_.Holds("too many outgoing session"));

  ids.push_back(SendTo(peer.ip(), peer.port()));
  EXPECT_EQ(
      1, log_.Count(16, kTag, "too many outgoing session, delete : 7 / current : 71 / limit : 70"));
  release.set_value();
  EXPECT_TRUE(WaitUntil([&] { return recorder_->count() == 65; }));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 72; }));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(i < 7 ? 0 : 1, recorder_->count(ids[i])) << i;
  }
}

TEST_F(ClientManagerTest, ManySessionsAreToldToTheLog) {
  HttpPeer silent(vex_test::StaySilent());
  for (int i = 0; i < 302; ++i) SendTo(silent.ip(), silent.port());
  EXPECT_FALSE(log_.Holds("current : 300 / limit"));
  EXPECT_TRUE(log_.Holds("current : 301 / limit"));
}

TEST_F(ClientManagerTest, ClientThreadsBearTheirCreatorsPrefix) {
  EXPECT_THAT(vex_test::ThreadNames(),
              testing::IsSupersetOf({"tstVexCliIo0", "tstVexCliIo1", "tstVexCliIo2"}));
}

TEST_F(ClientManagerTest, StoppingEndsOpenExchangesInSilenceAndReleasesTheirListeners) {
  HttpPeer silent(vex_test::StaySilent());
  HttpPeer answering(AnswerWith(OkAnswer("x")));
  const int id = SendTo(answering.ip(), answering.port());
  EXPECT_TRUE(WaitUntil([&] { return recorder_->count(id) == 1; }));
  const boost::shared_ptr<AnswerRecorder> open = AnswerRecorder::Make();
  int open_id = 0;
  for (int i = 0; i < 10; ++i) {
    SendTCPHTTPPacket(silent.ip(), silent.port(), kRequest, 0, open, open_id);
  }
  EXPECT_TRUE(WaitUntil([&] { return silent.connections() == 10; }));
  StopNetworkLayer();
  EXPECT_TRUE(WaitUntil([&] { return silent.finished() == 10; }));
  EXPECT_EQ(0, open->count());
  EXPECT_EQ(1, open.use_count());

  StartNetworkLayer();
  const int again = SendTo(answering.ip(), answering.port());
  EXPECT_TRUE(WaitUntil([&] { return recorder_->count(again) == 1; }));
}

TEST_F(ClientManagerTest, ARequestAfterTheStopLeavesNothingBehind) {
  HttpPeer peer(AnswerWith(OkAnswer("x")));
  const int threads = vex_test::ThreadCount();
  StopNetworkLayer();
  int id = 0;
  EXPECT_EQ(result::kOk, SendTCPHTTPPacket(peer.ip(), peer.port(), kRequest, 0, recorder_, id));
  run_.reset();
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == peer.connections(); }));
  EXPECT_LT(vex_test::ThreadCount(), threads);
  EXPECT_EQ(1, recorder_.use_count());
}

TEST(ClientManagerCycles, ARequestBegunWhileTheLayerStopsLeavesNothingBehind) {
  HttpPeer silent(vex_test::StaySilent());
  const auto recorder = AnswerRecorder::Make();
  int descriptors = 0;
  for (int cycle = 0; cycle < 30; ++cycle) {
    {
      vex_test::NetworkRun run;
      std::atomic<int> sent{0};
      std::atomic<bool> ended{false};
      std::thread host([&] {
        int id = 0;
        while (!ended) {
          sent += SendTCPHTTPPacket(silent.ip(), silent.port(), kRequest, 0, recorder, id) == 0;
        }
      });
      EXPECT_TRUE(WaitUntil([&] { return sent > 20; }));
      StopNetworkLayer();
      ended = true;
      host.join();
    }
    EXPECT_TRUE(WaitUntil([&] { return silent.finished() == silent.connections(); }));
    EXPECT_EQ(1, recorder.use_count());
    if (cycle == 0) descriptors = vex_test::DescriptorCount();
    EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
  }
}

TEST(ClientManagerCycles, StartAndStopUnderLoadLeavesNoThreadNoDescriptorAndNoListener) {
  HttpPeer answering(AnswerWith(OkAnswer("x")));
  HttpPeer silent(vex_test::StaySilent());
  const auto recorder = AnswerRecorder::Make();
  int threads = 0;
  int descriptors = 0;
  for (int cycle = 0; cycle < 20; ++cycle) {
    {
      vex_test::NetworkRun run;
      const int heard = recorder->count();
      int id = 0;
      for (int i = 0; i < 20; ++i) {
        const HttpPeer& peer = i % 3 == 0 ? silent : answering;
        SendTCPHTTPPacket(peer.ip(), peer.port(), kRequest, 0, recorder, id);
        if (i % 5 == 0) CancelTCPHTTPPacket(id);
      }
      EXPECT_TRUE(WaitUntil([&] { return recorder->count() > heard; }));
    }
    // What the peers had accepted ends too.
    EXPECT_TRUE(WaitUntil([&] {
      return answering.finished() == answering.connections() &&
             silent.finished() == silent.connections();
    }));
    if (cycle == 0) {
      threads = vex_test::ThreadCount();
      descriptors = vex_test::DescriptorCount();
    }
  }
  EXPECT_EQ(1, recorder.use_count());
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() <= threads; }));
}

class IsReachableTest : public ClientManagerTest {
 protected:
  using Addresses = std::map<std::string, boost::shared_ptr<valid_address_info>>;

  void Add(const std::string& udn, const std::string& ip, int port) {
    const auto info = boost::make_shared<valid_address_info>();
    info->ip = ip;
    info->port = port;
    addresses_[udn] = info;
  }
  int Check(int timeout_seconds) {
    boost::unique_lock<boost::mutex> lock(mutex_);
    const auto begin = std::chrono::steady_clock::now();
    const int outcome = IsReachable(addresses_, timeout_seconds, lock, condition_, stop_);
    EXPECT_TRUE(lock.owns_lock());
    elapsed_ = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin);
    return outcome;
  }
  void Notify(bool stop) {
    const boost::lock_guard<boost::mutex> lock(mutex_);
    stop_ = stop;
    condition_.notify_all();
  }

  vex_test::FasterTime faster_{20};
  Addresses addresses_;
  boost::mutex mutex_;
  boost::condition_variable condition_;
  bool stop_ = false;
  milliseconds elapsed_{0};
};

TEST_F(IsReachableTest, WhoAnswersIsValidAndAllTakeTheWholeTime) {
  HttpPeer peer(vex_test::StaySilent());
  HttpPeer other(vex_test::StaySilent(), "10.77.0.2");
  vex_test::Ip("neigh replace 10.77.0.99 lladdr 02:00:00:00:00:99 dev lan0 nud permanent");
  Add("uuid:1", peer.ip(), peer.port());
  Add("uuid:2", "127.0.0.1", vex_test::UnusedPort());
  Add("uuid:3", "10.77.0.99", 80);
  Add("uuid:4", other.ip(), other.port());
  Add("uuid:5", "no such host", 80);
  Add("uuid:6", "127.0.0.1", -1);
  EXPECT_EQ(result::kOk, Check(20));
  EXPECT_GE(elapsed_, milliseconds(1000));
  EXPECT_TRUE(addresses_["uuid:1"]->valid);
  EXPECT_FALSE(addresses_["uuid:2"]->valid);
  EXPECT_FALSE(addresses_["uuid:3"]->valid);
  EXPECT_TRUE(addresses_["uuid:4"]->valid);
  EXPECT_FALSE(addresses_["uuid:5"]->valid);
  EXPECT_FALSE(addresses_["uuid:6"]->valid);
  EXPECT_EQ(1, log_.Count("Sleeping for 20 sec"));
  EXPECT_EQ(1, log_.Count("Initiating connection to udn:uuid:3 10.77.0.99:80"));
  EXPECT_EQ(1, log_.Count("connect_callback: Connection refused"));
  // Nothing is sent, and the connections end with the check.
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1 && other.finished() == 1; }));
  vex_test::Ip("neigh del 10.77.0.99 dev lan0");
}

TEST_F(IsReachableTest, AnAnswerThatWasValidBeforeIsWrittenAnew) {
  Add("uuid:1", "127.0.0.1", vex_test::UnusedPort());
  addresses_["uuid:1"]->valid = true;
  EXPECT_EQ(result::kOk, Check(1));
  EXPECT_FALSE(addresses_["uuid:1"]->valid);
}

TEST_F(IsReachableTest, WithoutAddressesItStillWaits) {
  EXPECT_EQ(result::kOk, Check(2));
  EXPECT_GE(elapsed_, milliseconds(100));
}

TEST_F(IsReachableTest, AStopEndsItEarly) {
  HttpPeer peer(vex_test::StaySilent());
  Add("uuid:1", peer.ip(), peer.port());
  std::future<void> stopper = std::async(std::launch::async, [&] {
    EXPECT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
    Notify(true);
  });
  EXPECT_EQ(result::kFailure, Check(1000));
  EXPECT_LT(elapsed_, milliseconds(20000));
  EXPECT_FALSE(addresses_["uuid:1"]->valid);
  EXPECT_EQ(1, log_.Count("Stop requested for IsReachable check"));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
}

TEST_F(IsReachableTest, AStopThatCameBeforeIsNotMissed) {
  stop_ = true;
  EXPECT_EQ(result::kFailure, Check(1000));
}

TEST_F(IsReachableTest, ASpuriousWakeUpGoesBackToWaitingAndCanStillBeStopped) {
  std::future<void> waker = std::async(std::launch::async, [&] {
    // Until one of them has been noticed.
    EXPECT_TRUE(WaitUntil([&] {
      Notify(false);
      return log_.Count("Spurious wake up by system. sleep till timeout time") > 0;
    }));
    Notify(true);
  });
  EXPECT_EQ(result::kFailure, Check(1000));
  EXPECT_LT(elapsed_, milliseconds(40000));
}

TEST_F(IsReachableTest, ItLeavesNoDescriptor) {
  HttpPeer peer(vex_test::StaySilent());
  const int descriptors = vex_test::DescriptorCount();
  for (int i = 0; i < 5; ++i) {
    addresses_.clear();
    Add("uuid:1", peer.ip(), peer.port());
    Add("uuid:2", "127.0.0.1", vex_test::UnusedPort());
    Check(1);
  }
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 5; }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

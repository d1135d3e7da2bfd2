// Media that stream in both directions while their interface changes its address, flaps, or is
// taken out and put back: every transfer has one outcome or none, servers follow the interface,
// what is begun afterwards comes whole, and nothing is left behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/control_stack.h"
#include "tests/support/host_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/media_host.h"
#include "tests/support/private_network.h"
#include "tests/support/raw_socket.h"
#include "tests/support/remote_host.h"
#include "tests/support/still_works.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HttpPeer;
using vex_test::MediaHost;
using vex_test::PeerConnection;
using vex_test::RemoteHost;
using vex_test::TcpClient;
using vex_test::WaitUntil;
namespace result = vex_upnp::result;
namespace streaming = vex_upnp::streaming;

constexpr char kFirstAddress[] = "10.78.0.1";
constexpr char kFarAddress[] = "10.78.0.2";
constexpr int kPort = 21000;
constexpr int kNamedPort = 21500;
constexpr std::size_t kBlock = 64 * 1024;
constexpr std::size_t kBlocks = 24;
// Behind what comes with the header, a client is given whole blocks of 512 KiB. Of a half that
// comes first, 768 KiB, it is given so much at least, wherever the first read ends.
constexpr std::size_t kGivenOfHalf = kBlock * kBlocks / 2 - 512 * 1024;

// No two blocks of it are alike.
const std::string& Media() {
  static const std::string media = [] {
    std::string made(kBlock * kBlocks, '\0');
    unsigned number = 1;
    for (char& c : made) {
      number = number * 1664525U + 1013904223U;
      c = static_cast<char>(number >> 24);
    }
    return made;
  }();
  return media;
}

// What the host of the clients has been told, by client.
class Downloads {
 public:
  struct Told {
    std::string body;
    int finals = 0;
    std::vector<int> codes;
    int outcomes() const { return finals + static_cast<int>(codes.size()); }
  };

  static const streaming::ClientAppCallbacks* callbacks() {
    static const streaming::ClientAppCallbacks table = {OnStatus, OnResponse, OnData, OnWritten};
    return &table;
  }
  static void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    told_.clear();
  }
  static Told Of(int client) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return told_[client];
  }
  // Asks for the media there. Returns the client.
  static int Begin(const std::string& ip, int port) {
    int client = 0;
    EXPECT_EQ(0, streaming::StartClient(callbacks(), ip.c_str(), port, &client));
    streaming::ReqHeaderInfo request;
    streaming::InitializeRequestHeaderInfo(&request);
    request.request_type = vex_upnp::utils::HTTP_GET;
    request.http_version = streaming::HTTP_1_0;
    request.uri = vex_test::Literal("/media");
    EXPECT_EQ(0, streaming::SendHTTPRequest(client, &request));
    return client;
  }

 private:
  static void Add(int client, void* body, unsigned int length, bool final) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Told& told = told_[client];
    if (body != nullptr) told.body.append(static_cast<const char*>(body), length);
    if (final) ++told.finals;
    streaming::Free(body);
  }
  static void OnStatus(int, int client, int code) {
    const std::lock_guard<std::mutex> lock(mutex_);
    told_[client].codes.push_back(code);
  }
  static void OnResponse(int, int client, streaming::ResHeaderInfo* response, void* body,
                         unsigned int length, bool final) {
    streaming::FreeResponseHeader(response);
    Add(client, body, length, final);
  }
  static void OnData(int, int client, void* data, unsigned int length, bool final) {
    Add(client, data, length, final);
  }
  static void OnWritten(int, int, unsigned int) {}

  static std::mutex mutex_;
  static std::map<int, Told> told_;
};
std::mutex Downloads::mutex_;
std::map<int, Downloads::Told> Downloads::told_;

// Gives half of the media, and the rest when it is let.
class FarMedia {
 public:
  explicit FarMedia(RemoteHost& host) {
    host.Run([this] {
      peer_.reset(
          new HttpPeer([this](PeerConnection& connection) { Serve(connection); }, kFarAddress));
    });
  }
  FarMedia(const FarMedia&) = delete;
  FarMedia& operator=(const FarMedia&) = delete;
  ~FarMedia() { rest_.Open(); }

  int port() const { return peer_->port(); }
  void LetRest() { rest_.Open(); }

 private:
  void Serve(PeerConnection& connection) {
    connection.ReadRequest();
    const std::string whole = vex_test::OkAnswer(Media());
    const std::size_t half = whole.size() - Media().size() / 2;
    connection.Send(whole.substr(0, half));
    rest_.Pass();
    connection.Send(whole.substr(half));
  }

  vex_test::Gate rest_;
  std::unique_ptr<HttpPeer> peer_;
};

// The host of our servers: "/endless" is sent over and over, anything else once.
class Library {
 public:
  Library() {
    host_.DoOnRequest([this](const MediaHost::Request& got) { Begin(got); });
    host_.DoOnWritten([this](int server, int session, unsigned int) { Next(server, session); });
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    host_.DoOnRequest({});
    host_.DoOnWritten({});
    host_.DoOnStatus({});
  }

  int Start(const char* ip, int port) {
    streaming::stServer* servers = nullptr;
    int configuration = 0;
    EXPECT_EQ(0,
              streaming::StartServers(MediaHost::callbacks(), ip, port, &servers, &configuration));
    streaming::FreeServerInfoList(servers);
    return configuration;
  }
  // Events about servers themselves with this code, in order: their ids.
  std::vector<int> Servers(int code) const {
    std::vector<int> servers;
    const std::string end = " 0 " + std::to_string(code);
    for (const std::string& event : host_.Events()) {
      if (event.compare(0, 7, "status ") != 0) continue;
      const std::size_t space = event.find(' ', 7);
      if (event.substr(space) == end) servers.push_back(std::stoi(event.substr(7, space - 7)));
    }
    return servers;
  }
  // How many statuses of sessions were told; the loss of a server says nothing about its sessions.
  int SessionStatuses() const {
    int count = 0;
    for (const std::string& event : host_.Events()) {
      count +=
          event.compare(0, 7, "status ") == 0 && event.compare(event.find(' ', 7), 3, " 0 ") != 0
              ? 1
              : 0;
    }
    return count;
  }
  // The results of all sends that failed.
  std::set<int> Refusals() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return refusals_;
  }

 private:
  struct Transfer {
    bool endless = false;
    std::size_t sent = 0;
  };

  void Begin(const MediaHost::Request& got) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      transfers_[{got.server, got.session}] = {std::string(got.header.uri) == "/endless", 0};
    }
    const streaming::ResHeaderInfo response = vex_test::Response(200);
    streaming::SendHTTPResponse(got.server, got.session, &response, false);
  }
  void Next(int server, int session) {
    std::size_t block = 0;
    bool last = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      Transfer& transfer = transfers_[{server, session}];
      block = transfer.sent++ % kBlocks;
      last = !transfer.endless && block == kBlocks - 1;
    }
    const std::string piece = Media().substr(block * kBlock, kBlock);
    void* const data =
        last ? vex_test::MallocCopy(piece) : const_cast<char*>(Media().data() + block * kBlock);
    const int sent = streaming::SendHTTPPayload(server, session, data, kBlock, last);
    if (sent == 0) return;
    if (last) std::free(data);
    const std::lock_guard<std::mutex> lock(mutex_);
    refusals_.insert(sent);
  }

  mutable std::mutex mutex_;
  std::map<std::pair<int, int>, Transfer> transfers_;
  std::set<int> refusals_;
  MediaHost host_;
};

// How many sessions of clients (1) or of peers (0) are listed as running.
int Running(int type) {
  streaming::stRunningSession* sessions = nullptr;
  EXPECT_EQ(0, streaming::GetRunningSessionInfo(&sessions));
  int count = 0;
  for (const auto* one = sessions; one != nullptr; one = one->next) count += one->type == type;
  streaming::FreeRunningSession(sessions);
  return count;
}

int PortOf(int configuration, const std::string& ip) {
  int port = 0;
  EXPECT_EQ(0, streaming::GetStreamingServerPort(configuration, ip.c_str(), &port)) << ip;
  return port;
}

class FaultStreamingNetwork : public testing::Test {
 protected:
  void SetUp() override {
    Downloads::Clear();
    handle_ = rig_.Register();
    ASSERT_TRUE(WaitUntil([this] {
      all_ = all_ != 0 ? all_ : library_.Start(nullptr, kPort);
      int port = 0;
      return streaming::GetStreamingServerPort(all_, kFirstAddress, &port) == 0;
    }));
    named_ = library_.Start(kFirstAddress, kNamedPort);
    started_ = library_.Servers(streaming::STREAMING_SERVER_STARTED).size();
    // What is made at its first use is there from here on.
    ASSERT_TRUE(vex_test::StillWorks(handle_));
    ExpectWhole(kFirstAddress);
    threads_ = vex_test::ThreadCount();
    descriptors_ = vex_test::DescriptorCount();
  }
  void TearDown() override {
    viewers_.clear();
    media_.clear();
    EXPECT_TRUE(WaitUntil([] { return Running(0) == 0 && Running(1) == 0; }));
    // A check behind a search may have had its thread when they were counted.
    EXPECT_TRUE(WaitUntil([this] { return vex_test::ThreadCount() <= threads_; }))
        << vex_test::ThreadCount() << " threads instead of " << threads_;
    EXPECT_TRUE(WaitUntil([this] { return vex_test::DescriptorCount() <= descriptors_; }))
        << vex_test::DescriptorCount() << " descriptors instead of " << descriptors_;
    EXPECT_TRUE(vex_test::StillWorks(handle_));
    EXPECT_EQ(0, streaming::StopServers(all_));
    EXPECT_EQ(0, streaming::StopServers(named_));
  }

  // Somebody on the other host who asks one of our servers.
  TcpClient& View(int configuration, const std::string& ip, const std::string& path) {
    const int port = PortOf(configuration, ip);
    far_->Run([&] { viewers_.emplace_back(new TcpClient(ip, port)); });
    EXPECT_TRUE(viewers_.back()->connected());
    EXPECT_TRUE(viewers_.back()->Send("GET " + path + " HTTP/1.0\r\n\r\n"));
    return *viewers_.back();
  }
  // One transfer in each direction, in the middle: two peers of ours, and a client, which is given.
  int StreamBothWays(const std::string& ip) {
    for (const int configuration : {all_, named_}) {
      TcpClient& viewer = View(configuration, ip, "/endless");
      EXPECT_EQ(kBlock * kBlocks, viewer.ReadBytes(kBlock * kBlocks).size());
    }
    media_.emplace_back(new FarMedia(*far_));
    const int client = Downloads::Begin(kFarAddress, media_.back()->port());
    EXPECT_TRUE(WaitUntil([&] { return Downloads::Of(client).body.size() >= kGivenOfHalf; }));
    EXPECT_EQ(2, Running(0));
    EXPECT_EQ(1, Running(1));
    return client;
  }
  // Both servers of the interface have stopped and come back, `times` times by now, and nothing
  // else was told of them or of their sessions.
  void ExpectServersCameBack(std::size_t times) {
    ASSERT_TRUE(WaitUntil([&] {
      return library_.Servers(streaming::STREAMING_SERVER_STARTED).size() == started_ + 2 * times;
    }));
    const std::vector<int> stopped = library_.Servers(streaming::STREAMING_SERVER_STOPPED);
    EXPECT_EQ(2 * times, stopped.size());
    EXPECT_EQ(2 * times, std::set<int>(stopped.begin(), stopped.end()).size());
    EXPECT_EQ(0, library_.SessionStatuses());
    EXPECT_EQ(0, Running(0));
    for (const int refused : library_.Refusals()) {
      EXPECT_TRUE(refused == result::kStreamingNoServer || refused == result::kStreamingNoSession)
          << refused;
    }
  }
  // A download from the other host, and one of the other host from each of our servers.
  void ExpectWhole(const std::string& ip) {
    FarMedia media(*far_);
    media.LetRest();
    const int client = Downloads::Begin(kFarAddress, media.port());
    EXPECT_TRUE(WaitUntil([&] { return Downloads::Of(client).outcomes() > 0; }));
    const Downloads::Told told = Downloads::Of(client);
    EXPECT_EQ(1, told.finals);
    EXPECT_TRUE(told.codes.empty());
    EXPECT_TRUE(told.body == Media()) << told.body.size();
    for (const int configuration : {all_, named_}) {
      const std::string got = View(configuration, ip, "/once").ReadToEnd();
      const std::size_t header = got.find("\r\n\r\n") + 4;
      EXPECT_TRUE(got.substr(header) == Media()) << got.size();
      viewers_.pop_back();
    }
  }
  // A transfer whose address is gone waits for whoever began it, and ends without a word.
  static void ExpectSilentUntilStopped(int client) {
    EXPECT_EQ(0, Downloads::Of(client).outcomes());
    EXPECT_EQ(1, Running(1));
    const std::size_t received = Downloads::Of(client).body.size();
    EXPECT_EQ(0, streaming::StopClientTransfer(client));
    EXPECT_EQ(0, Running(1));
    EXPECT_EQ(0, Downloads::Of(client).outcomes());
    EXPECT_EQ(received, Downloads::Of(client).body.size());
  }
  // In one step where the kernel lets the second address live on without the first.
  static void ChangeAddress(const std::string& from, const std::string& to) {
    std::ofstream("/proc/sys/net/ipv4/conf/flap0/promote_secondaries") << 1;
    vex_test::Ip("addr add " + to + "/24 brd + dev flap0");
    vex_test::Ip("addr del " + from + "/24 dev flap0");
    if (std::system(("ip -4 addr show dev flap0 | grep -q '" + to + "/'").c_str()) != 0) {
      vex_test::Ip("addr add " + to + "/24 brd + dev flap0");
    }
  }

  const vex_test::Watchdog watchdog_{240};
  // Interfaces are looked at every 40 ms.
  const vex_test::FasterTime faster_{50};
  std::unique_ptr<RemoteHost> far_{new RemoteHost("flap0", kFirstAddress, kFarAddress)};
  vex_test::HostRig rig_{{5100, 0, 5300, {"lan0", "flap0"}, ""}};
  Library library_;
  int handle_ = 0;
  int all_ = 0;
  int named_ = 0;
  std::size_t started_ = 0;
  int threads_ = 0;
  int descriptors_ = 0;
  std::vector<std::unique_ptr<TcpClient>> viewers_;
  std::vector<std::unique_ptr<FarMedia>> media_;
};

TEST_F(FaultStreamingNetwork, AnAddressThatChangesTwiceStrandsWhatRanOverIt) {
  std::string address = kFirstAddress;
  std::size_t changes = 0;
  for (const std::string next : {"10.78.0.101", "10.78.0.102"}) {
    SCOPED_TRACE(next);
    const int client = StreamBothWays(address);
    ChangeAddress(address, next);
    ExpectServersCameBack(++changes);
    if (HasFatalFailure()) return;
    // There is nobody any more to whom the rest could be sent.
    media_.back()->LetRest();
    ExpectSilentUntilStopped(client);
    ExpectWhole(next);
    address = next;
  }
}

TEST_F(FaultStreamingNetwork, AnAddressThatComesBackTakesItsTransfersUpAgain) {
  const int client = StreamBothWays(kFirstAddress);
  ChangeAddress(kFirstAddress, "10.78.0.101");
  ExpectServersCameBack(1);
  ExpectWhole("10.78.0.101");
  ChangeAddress("10.78.0.101", kFirstAddress);
  ExpectServersCameBack(2);
  EXPECT_EQ(0, Downloads::Of(client).outcomes());
  media_.back()->LetRest();
  ASSERT_TRUE(WaitUntil([&] { return Downloads::Of(client).outcomes() > 0; }));
  EXPECT_EQ(1, Downloads::Of(client).finals);
  EXPECT_TRUE(Downloads::Of(client).codes.empty());
  EXPECT_TRUE(Downloads::Of(client).body == Media());
  ExpectWhole(kFirstAddress);
}

TEST_F(FaultStreamingNetwork, AFlapEndsServedTransfersAndADownloadOutlivesIt) {
  for (std::size_t flap = 1; flap <= 2; ++flap) {
    SCOPED_TRACE(flap);
    const int client = StreamBothWays(kFirstAddress);
    vex_test::Ip("link set flap0 down");
    ASSERT_TRUE(WaitUntil(
        [&] { return library_.Servers(streaming::STREAMING_SERVER_STOPPED).size() == 2 * flap; }));
    vex_test::Ip("link set flap0 up");
    ExpectServersCameBack(flap);
    if (HasFatalFailure()) return;
    // The connections were closed on our side; their peers learn it when they can be reached.
    for (const auto& viewer : viewers_) {
      viewer->ReadToEnd();
      EXPECT_TRUE(viewer->PeerCloses());
    }
    viewers_.clear();
    media_.back()->LetRest();
    ASSERT_TRUE(WaitUntil([&] { return Downloads::Of(client).outcomes() > 0; }));
    EXPECT_EQ(1, Downloads::Of(client).outcomes());
    EXPECT_TRUE(Downloads::Of(client).body == Media());
    ExpectWhole(kFirstAddress);
  }
}

TEST_F(FaultStreamingNetwork, AnInterfaceThatIsTakenOutAndPutBackServesAgain) {
  for (std::size_t round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    const int client = StreamBothWays(kFirstAddress);
    // With the other end of its cable, and whoever sat there.
    far_.reset();
    ASSERT_TRUE(WaitUntil(
        [&] { return library_.Servers(streaming::STREAMING_SERVER_STOPPED).size() == 2 * round; }));
    ExpectSilentUntilStopped(client);
    viewers_.clear();
    media_.clear();
    far_.reset(new RemoteHost("flap0", kFirstAddress, kFarAddress));
    ExpectServersCameBack(round);
    if (HasFatalFailure()) return;
    ExpectWhole(kFirstAddress);
  }
}

// The reads of a peer that was interrupted by its interface's loss end its connection: told once.
TEST_F(FaultStreamingNetwork, APeerThatResetsWhenItIsReachedAgainIsToldOnce) {
  media_.emplace_back(new FarMedia(*far_));
  std::unique_ptr<HttpPeer> resetting;
  vex_test::Gate reset;
  far_->Run([&] {
    resetting.reset(new HttpPeer(
        [&](PeerConnection& connection) {
          connection.ReadRequest();
          connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n12345");
          reset.Pass();
          connection.Reset();
        },
        kFarAddress));
  });
  const int client = Downloads::Begin(kFarAddress, resetting->port());
  EXPECT_TRUE(WaitUntil([&] { return Downloads::Of(client).body == "12345"; }));
  vex_test::Ip("link set flap0 down");
  ASSERT_TRUE(
      WaitUntil([&] { return library_.Servers(streaming::STREAMING_SERVER_STOPPED).size() == 2; }));
  EXPECT_EQ(0, Downloads::Of(client).outcomes());
  vex_test::Ip("link set flap0 up");
  ExpectServersCameBack(1);
  reset.Open();
  ASSERT_TRUE(WaitUntil([&] { return Downloads::Of(client).outcomes() > 0; }));
  EXPECT_EQ(std::vector<int>(1, streaming::STREAMING_SOCKET_FAILED), Downloads::Of(client).codes);
  EXPECT_TRUE(WaitUntil([] { return Running(1) == 0; }));
  EXPECT_EQ(1, Downloads::Of(client).outcomes());
}

}  // namespace

// Peers that say a byte a second, or nothing: they cost their own transfer and no thread, others
// are served meanwhile, and what has no time of its own ends at once when the host says so.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/control_stack.h"
#include "tests/support/host_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/media_host.h"
#include "tests/support/raw_socket.h"
#include "tests/support/still_works.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using vex_test::HttpPeer;
using vex_test::PeerConnection;
using vex_test::WaitUntil;
namespace cp_control = vex_upnp::cp_control;
namespace result = vex_upnp::result;
namespace streaming = vex_upnp::streaming;

constexpr char kLibrary[] = "10.77.0.1";
constexpr char kPeer[] = "10.77.0.2";
// A second, with the time that these tests have.
constexpr milliseconds kSecond(20);
// As many of each kind of peer, so that there are more than the pool has threads.
constexpr int kOfEach = 6;

// What a peer says at once, and how it goes on, a byte a second, without end. Nothing to go on with
// is silence.
struct Slowness {
  const char* name;
  std::string at_once;
  std::string go_on;
};

std::vector<Slowness> SlowAnswers() {
  return {
      {"Silence", "", ""},
      {"FirstLine", "", "HTTP/1.1 200 " + std::string(2000, 'O')},
      {"Header", "HTTP/1.1 200 OK\r\n", "X-Slow: " + std::string(2000, 's')},
      {"Headers", "HTTP/1.1 200 OK\r\n", "A: b\r\nC: d\r\nE: f\r\nG: h\r\nI: j\r\nK: l\r\n"},
      {"Body", "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n", std::string(2000, 'b')},
      {"BodyWithoutLength", "HTTP/1.1 200 OK\r\n\r\n", std::string(2000, 'b')},
      {"ChunkLine", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
       "5;" + std::string(2000, 'x')},
      {"Chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nF4240\r\n",
       std::string(2000, 'c')},
      {"Interim", "HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 200 " + std::string(2000, 'O')},
  };
}

// Answers every connection so, until the other side ends it; `said` counts the bytes of all.
class SlowPeer {
 public:
  explicit SlowPeer(const Slowness& slowness)
      : peer_([this, slowness](PeerConnection& connection) { Answer(connection, slowness); },
              kPeer) {}

  int port() const { return peer_.port(); }
  std::string authority() const { return peer_.authority(); }
  int connections() const { return peer_.connections(); }
  // Connections that the other side has ended.
  int ended() const { return peer_.finished(); }
  int asked() const { return asked_; }
  int said() const { return said_; }
  std::vector<std::chrono::steady_clock::time_point> times() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return times_;
  }

 private:
  void Answer(PeerConnection& connection, const Slowness& slowness) {
    connection.ReadRequest();
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      times_.push_back(std::chrono::steady_clock::now());
    }
    ++asked_;
    connection.Send(slowness.at_once);
    for (const char byte : slowness.go_on) {
      if (!connection.SendInPieces(std::string(1, byte), 1, kSecond)) return;
      ++said_;
    }
    connection.AwaitEnd();
  }

  std::atomic<int> asked_{0};
  std::atomic<int> said_{0};
  mutable std::mutex mutex_;
  std::vector<std::chrono::steady_clock::time_point> times_;
  HttpPeer peer_;
};

// All that hosts of clients are told here, and what of it ends a transfer.
std::atomic<int> told{0};
std::atomic<int> ends{0};
std::atomic<std::size_t> received{0};

void OnStatus(int, int, int) {
  ++told;
  ++ends;
}
void OnData(int, int, void* data, unsigned int length, bool final) {
  streaming::Free(data);
  received += length;
  ++told;
  if (final) ++ends;
}
void OnResponse(int handler, int client, streaming::ResHeaderInfo* response, void* body,
                unsigned int length, bool final) {
  const bool interim = response->status_code == 100;
  streaming::FreeResponseHeader(response);
  OnData(handler, client, body, length, final && !interim);
}
void OnWritten(int, int, unsigned int) {}
constexpr streaming::ClientAppCallbacks kCallbacks = {OnStatus, OnResponse, OnData, OnWritten};

streaming::ReqHeaderInfo Request() {
  streaming::ReqHeaderInfo request;
  streaming::InitializeRequestHeaderInfo(&request);
  request.request_type = vex_upnp::utils::HTTP_GET;
  request.http_version = streaming::HTTP_1_1;
  request.uri = vex_test::Literal("/media");
  return request;
}

int Begin(int port) {
  int client = 0;
  const streaming::ReqHeaderInfo request = Request();
  EXPECT_EQ(0, streaming::StartClient(&kCallbacks, kPeer, port, &client));
  EXPECT_EQ(0, streaming::SendHTTPRequest(client, &request));
  return client;
}

int Running() {
  streaming::stRunningSession* sessions = nullptr;
  EXPECT_EQ(0, streaming::GetRunningSessionInfo(&sessions));
  int count = 0;
  for (const auto* one = sessions; one != nullptr; one = one->next) ++count;
  streaming::FreeRunningSession(sessions);
  return count;
}

class FaultCrawlingPeers : public testing::Test {
 protected:
  void SetUp() override {
    handle_ = rig_.Register();
    ExpectDownload();
    ASSERT_TRUE(vex_test::StillWorks(handle_));
  }
  void TearDown() override { EXPECT_TRUE(vex_test::StillWorks(handle_)); }

  void ExpectDownload() {
    const int before = ends;
    const std::size_t bytes = received;
    Begin(good_.port());
    ASSERT_TRUE(WaitUntil([&] { return ends == before + 1; }));
    EXPECT_EQ(bytes + kGood, received);
  }

  static constexpr std::size_t kGood = 3000000;
  const vex_test::Watchdog watchdog_{240};
  // 30 s are 600 ms.
  const vex_test::FasterTime faster_{50};
  // They outlive whoever may still be telling them something.
  std::list<vex_test::EventLog> logs_;
  vex_test::HostRig rig_;
  HttpPeer good_{vex_test::AnswerAndClose(vex_test::OkAnswer(std::string(kGood, 'g'))), kPeer};
  int handle_ = 0;
};

TEST_F(FaultCrawlingPeers, ManyDownloadsThatCrawlHoldNoThreadAndEndWhenTheHostSaysSo) {
  const int descriptors = vex_test::DescriptorCount();
  const int ended_before = ends;
  std::vector<int> clients;
  {
    std::list<SlowPeer> peers;
    for (const Slowness& slowness : SlowAnswers()) {
      peers.emplace_back(slowness);
      for (int i = 0; i < kOfEach; ++i) clients.push_back(Begin(peers.back().port()));
    }
    for (const SlowPeer& peer : peers) {
      ASSERT_TRUE(WaitUntil([&] { return peer.asked() == kOfEach; }));
    }
    for (SlowPeer& peer : peers) {
      if (&peer == &peers.front()) continue;
      const int said = peer.said();
      EXPECT_TRUE(WaitUntil([&] { return peer.said() >= said + 3 * kOfEach; }));
    }
    ExpectDownload();
    EXPECT_EQ(ended_before + 1, ends);
    // The good one leaves the list behind the callback that tells its end.
    EXPECT_TRUE(WaitUntil([&] { return Running() == static_cast<int>(clients.size()); }));
    for (const int client : clients) EXPECT_EQ(0, streaming::StopClientTransfer(client));
    EXPECT_EQ(0, Running());
    for (const SlowPeer& peer : peers) {
      EXPECT_TRUE(WaitUntil([&] { return peer.ended() == kOfEach; }));
    }
    const int told_by_now = told;
    ExpectDownload();
    // A good one has few things to tell, and those that were ended none.
    EXPECT_EQ(ended_before + 2, ends);
    EXPECT_LT(told, told_by_now + 20);
  }
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
}

// The calls block for as long as it takes, and end with a stop from another thread.
TEST_F(FaultCrawlingPeers, ABlockingClientOfACrawlingPeerEndsWhenTheHostSaysSo) {
  for (const Slowness& slowness : SlowAnswers()) {
    SCOPED_TRACE(slowness.name);
    SlowPeer peer(slowness);
    int client = 0;
    ASSERT_EQ(0, streaming::StartSyncClient(&client));
    std::future<int> reading = std::async(std::launch::async, [&] {
      const streaming::ReqHeaderInfo request = Request();
      EXPECT_EQ(0, streaming::ConnectSyncClient(client, kPeer, peer.port()));
      EXPECT_EQ(0, streaming::SendSyncHTTPRequest(client, &request));
      streaming::ResHeaderInfo* response = nullptr;
      void* block = nullptr;
      unsigned int length = 0;
      bool final = false;
      int read = streaming::ReadHTTPHeader(client, &response, &block, length, final);
      streaming::FreeResponseHeader(response);
      // Behind an interim answer comes another header; nobody gets that far here.
      while (read == 0) {
        streaming::Free(block);
        block = nullptr;
        read = streaming::ReadHTTPData(client, &block, length, final);
      }
      streaming::Free(block);
      return read;
    });
    ASSERT_TRUE(WaitUntil([&] { return peer.asked() == 1; }));
    if (!slowness.go_on.empty()) {
      EXPECT_TRUE(WaitUntil([&] { return peer.said() >= 5; }));
    }
    ExpectDownload();
    EXPECT_EQ(std::future_status::timeout, reading.wait_for(milliseconds(0)));
    EXPECT_EQ(0, streaming::StopClientTransfer(client));
    ASSERT_EQ(std::future_status::ready, reading.wait_for(std::chrono::seconds(5)));
    const int read = reading.get();
    EXPECT_TRUE(read == result::kSocketFailed || read == result::kStreamingNoSession) << read;
    EXPECT_TRUE(WaitUntil([&] { return peer.ended() == 1; }));
  }
}

// Viewers that ask our server a byte at a time wait for themselves only.
TEST_F(FaultCrawlingPeers, ManyRequestsThatCrawlHoldNoThreadOfTheServer) {
  vex_test::MediaHost serving;
  serving.DoOnRequest([](const vex_test::MediaHost::Request& got) {
    const streaming::ResHeaderInfo response = vex_test::Response(200);
    streaming::SendHTTPResponse(got.server, got.session, &response, true);
  });
  streaming::stServer* servers = nullptr;
  int configuration = 0;
  ASSERT_EQ(0, streaming::StartServers(vex_test::MediaHost::callbacks(), kLibrary, 21000, &servers,
                                       &configuration));
  const int port = servers->port;
  streaming::FreeServerInfoList(servers);
  const std::string request = "GET /media HTTP/1.0\r\nX: y\r\n\r\n";
  std::list<vex_test::TcpClient> slow;
  for (int i = 0; i < 60; ++i) slow.emplace_back(kLibrary, port);
  const auto ask = [&] {
    vex_test::TcpClient viewer(kLibrary, port);
    return viewer.Send(request) && viewer.ReadToEnd().find("200") != std::string::npos;
  };
  for (std::size_t byte = 0; byte + 1 < request.size(); ++byte) {
    for (vex_test::TcpClient& one : slow) ASSERT_TRUE(one.Send(request.substr(byte, 1)));
    if (byte % 8 == 0) {
      EXPECT_TRUE(ask());
    }
  }
  // One of them comes to its end after all.
  ASSERT_TRUE(slow.front().Send("\n"));
  EXPECT_NE(std::string::npos, slow.front().ReadToEnd().find("200"));
  slow.pop_front();
  EXPECT_TRUE(ask());
  EXPECT_EQ(0, streaming::StopServers(configuration));
  for (vex_test::TcpClient& one : slow) EXPECT_TRUE(one.PeerCloses());
}

// An answer has its 30 s as a whole, however often another byte of it comes.
TEST_F(FaultCrawlingPeers, ASubscriptionAnsweredAByteASecondFailsInItsTime) {
  // What a peer has not read when its time is over is lost, so each try has 1.2 s here.
  const vex_test::FasterTime time(25);
  const std::vector<Slowness> answers = {
      {"FirstLine", "", "HTTP/1.1 200 " + std::string(2000, 'O')},
      {"Header", "HTTP/1.1 200 OK\r\nSID: uuid:slow\r\nTIMEOUT: Second-1800\r\n",
       "X-Slow: " + std::string(2000, 's')},
      {"Body",
       "HTTP/1.1 200 OK\r\nSID: uuid:slow\r\nTIMEOUT: Second-1800\r\nContent-Length: 5000\r\n\r\n",
       std::string(2000, 'b')},
      {"ChunkLine",
       "HTTP/1.1 200 OK\r\nSID: uuid:slow\r\nTIMEOUT: Second-1800\r\n"
       "Transfer-Encoding: chunked\r\n\r\n",
       "5;" + std::string(2000, 'x')},
  };
  for (const Slowness& slowness : answers) {
    SCOPED_TRACE(slowness.name);
    SlowPeer peer(slowness);
    vex_test::EventLog& log = logs_.emplace_back();
    int handler = 0;
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(0, cp_control::Subscribe("uuid:slow", "HOST:" + peer.authority(), "",
                                       std::string("http://") + kLibrary + ":5100",
                                       "http://" + peer.authority() + "/evt", &log, handler));
    EXPECT_TRUE(vex_test::StillWorks(handle_));
    ASSERT_TRUE(WaitUntil([&] { return !log.Outcomes().empty(); }));
    EXPECT_EQ(1U, log.Outcomes().size());
    EXPECT_EQ(CP_ERR_FAILURE, log.Outcomes()[0].code);
    // Three tries; the second and the third come behind the whole time of those before. A peer may
    // read its request late.
    ASSERT_TRUE(WaitUntil([&] { return peer.times().size() == 3; }));
    const auto times = peer.times();
    EXPECT_GE(times[1] - begun, milliseconds(1195));
    EXPECT_GE(times[2] - begun, milliseconds(2395));
    EXPECT_LT(times[2] - begun, std::chrono::seconds(15));
    EXPECT_TRUE(WaitUntil([&] { return peer.ended() == 3; }));
  }
}

// Nobody looks at the answer of an UNSUBSCRIBE, and nobody waits for it.
TEST_F(FaultCrawlingPeers, AnUnsubscribeAnsweredByteByByteOrNotAtAllIsOverAtOnce) {
  for (const Slowness& slowness :
       {Slowness{"Silence", "", ""},
        Slowness{"Header", "HTTP/1.1 200 OK\r\n", "X-Slow: " + std::string(2000, 's')},
        Slowness{"Body", "HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n",
                 std::string(2000, 'b')}}) {
    SCOPED_TRACE(slowness.name);
    const int descriptors = vex_test::DescriptorCount();
    {
      std::atomic<int> unsubscribed{0};
      std::atomic<int> ended{0};
      HttpPeer peer(
          [&](PeerConnection& connection) {
            if (connection.ReadRequest().compare(0, 4, "SUBS") == 0) {
              connection.Send(
                  "HTTP/1.1 200 OK\r\nSID: uuid:slow\r\nTIMEOUT: Second-1800\r\n"
                  "Content-Length: 0\r\n\r\n");
              return;
            }
            ++unsubscribed;
            connection.Send(slowness.at_once);
            connection.SendInPieces(slowness.go_on, 1, kSecond);
            connection.AwaitEnd();
            ++ended;
          },
          kPeer);
      vex_test::EventLog& log = logs_.emplace_back();
      int handler = 0;
      const std::string host = "HOST:" + peer.authority();
      ASSERT_EQ(0, cp_control::Subscribe("uuid:slow", host, "",
                                         std::string("http://") + kLibrary + ":5100",
                                         "http://" + peer.authority() + "/evt", &log, handler));
      ASSERT_TRUE(WaitUntil([&] { return log.CountOf(CP_ERR_NONE) == 1; }));
      EXPECT_EQ(0, cp_control::Unsubscribe(handler, host));
      ASSERT_TRUE(WaitUntil([&] { return unsubscribed == 1; }));
      EXPECT_EQ(0, ended);
      EXPECT_NE(0, cp_control::Unsubscribe(handler, host));
      EXPECT_TRUE(vex_test::StillWorks(handle_));
      // The exchange ends with the time of an answer.
      EXPECT_TRUE(WaitUntil([&] { return ended == 1; }));
      EXPECT_EQ(1U, log.Outcomes().size());
    }
    EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
  }
}

}  // namespace

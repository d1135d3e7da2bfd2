// Stops at any point of a transfer, calls without memory, and ids that come around.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "src/streaming_server.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/full_listener.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FullListener;
using vex_test::HttpPeer;
using vex_test::Literal;
using vex_test::LogCapture;
using vex_test::MallocCopy;
using vex_test::MediaHost;
using vex_test::PeerConnection;
using vex_test::Response;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr std::size_t kPiece = 65536;

std::atomic<std::size_t> received{0};
std::atomic<int> statuses{0};

void OnStatus(int, int, int) { ++statuses; }
void OnResponse(int, int, ResHeaderInfo* response, void* body, unsigned int length, bool) {
  FreeResponseHeader(response);
  Free(body);
  received += length;
}
void OnData(int, int, void* data, unsigned int length, bool) {
  Free(data);
  received += length;
}
void OnWritten(int, int, unsigned int) {}

constexpr ClientAppCallbacks kClient = {OnStatus, OnResponse, OnData, OnWritten};

ReqHeaderInfo Get() {
  ReqHeaderInfo request;
  InitializeRequestHeaderInfo(&request);
  request.request_type = utils::HTTP_GET;
  request.http_version = HTTP_1_1;
  request.uri = Literal("/endless");
  return request;
}

bool NothingRuns() {
  stRunningSession* sessions = nullptr;
  EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
  const bool none = sessions == nullptr;
  FreeRunningSession(sessions);
  return none;
}

class StreamingStops : public vex_test::ServingTest {
 protected:
  void SetUp() override {
    received = 0;
    statuses = 0;
  }
  // The host answers everybody with a body that never ends.
  void ServeEndless(unsigned int piece = kPiece) {
    host_.DoOnRequest([](const MediaHost::Request& request) {
      const ResHeaderInfo ok = Response(200);
      SendHTTPResponse(request.server, request.session, &ok, false);
    });
    host_.DoOnWritten([piece](int server, int session, unsigned int) {
      static char bytes[kPiece];
      SendHTTPPayload(server, session, bytes, piece, false);
    });
    Serve();
  }
  int StartGet(const std::string& ip, int port) {
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(&kClient, ip.c_str(), port, &id));
    const ReqHeaderInfo get = Get();
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &get));
    return id;
  }
};

TEST_F(StreamingStops, ADownloadIsStoppedAtEvery64KiB) {
  const int descriptors = vex_test::DescriptorCount();
  for (std::size_t pieces = 0; pieces <= 64; ++pieces) {
    received = 0;
    std::atomic<bool> asked{false};
    HttpPeer peer([&](PeerConnection& connection) {
      connection.ReadRequest();
      asked = true;
      connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n");
      // More than the client waits for at a time, to its end.
      const std::string piece(kPiece, 'd');
      while (connection.Send(piece)) {
      }
    });
    const int id = StartGet(peer.ip(), peer.port());
    ASSERT_TRUE(WaitUntil([&] { return asked && received >= pieces * kPiece; }));
    EXPECT_EQ(result::kOk, StopClientTransfer(id));
    ASSERT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  }
  EXPECT_EQ(0, statuses);
  EXPECT_TRUE(NothingRuns());
  // The pool's own: the loop's wake-up and its timer.
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors + 3; }));
}

TEST_F(StreamingStops, AnUploadIsStoppedAtEvery64KiB) {
  static std::atomic<unsigned> written{0};
  ClientAppCallbacks table = kClient;
  table.on_write_complete = [](int handler, int id, unsigned int) {
    static char piece[kPiece];
    if (++written <= 1000) SendHTTPPayload(handler, id, piece, kPiece, false);
  };
  for (unsigned pieces = 1; pieces <= 64; ++pieces) {
    written = 0;
    HttpPeer peer([](PeerConnection& connection) { connection.AwaitEnd(); });
    int id = 0;
    ASSERT_EQ(result::kOk, StartClient(&table, peer.ip().c_str(), peer.port(), &id));
    ReqHeaderInfo post = Get();
    post.request_type = utils::HTTP_POST;
    post.transfer_encoding = Literal("chunked");
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &post));
    ASSERT_TRUE(WaitUntil([&] { return written >= pieces; }));
    EXPECT_EQ(result::kOk, StopClientTransfer(id));
    ASSERT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  }
  EXPECT_EQ(0, statuses);
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StreamingStops, AServedTransferIsStoppedAtEvery64KiB) {
  ServeEndless();
  for (int pieces = 0; pieces <= 64; ++pieces) {
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send("GET / HTTP/1.1\r\n\r\n"));
    const std::size_t wanted = 19 + static_cast<std::size_t>(pieces) * kPiece;
    EXPECT_EQ(wanted, peer.ReadBytes(wanted).size());
    EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + 1 + pieces));
    peer.ReadToEnd();
  }
  EXPECT_TRUE(WaitUntil(NothingRuns));
}

// Servers, sessions and the pool that run without a reference end with one call too many.
TEST_F(StreamingStops, KeptASurplusTerminateEndsServersSessionsAndThreads) {
  ASSERT_EQ(result::kOk, TerminateStreamingManager());
  const int threads = vex_test::ThreadCount();
  const int descriptors = vex_test::DescriptorCount();
  {
    ServeEndless();
    boost::weak_ptr<StreamingManager> manager = StreamingManager::GetInstance();
    boost::weak_ptr<TCPServer> server = manager.lock()->GetServer(server_);
    TcpClient silent(ip_, port_);
    ASSERT_TRUE(Await("connect", "0", 1));
    TcpClient served(ip_, port_);
    ASSERT_TRUE(served.Send("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(kPiece, served.ReadBytes(kPiece).size());
    HttpPeer peer(vex_test::StaySilent());
    StartGet(peer.ip(), peer.port());
    ASSERT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
    LogCapture log;
    EXPECT_EQ(0, TerminateStreamingManager());
    EXPECT_EQ(
        1, log.Count(4, "VEX_CORE_STREAMING", "StreamingManager::DeleteReference Ref Count [-1]"));
    EXPECT_EQ(0, log.Count("Stopping streaming threads"));
    EXPECT_EQ(
        1, log.Count(4, "VEX_CORE_STREAMING", "StreamingManager::DestroyInstance Ref Count [-1]"));
    const std::size_t told = host_.Events().size();
    EXPECT_TRUE(silent.PeerCloses());
    served.ReadToEnd();
    EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
    EXPECT_FALSE(TcpClient(ip_, port_).connected());
    EXPECT_TRUE(manager.expired());
    EXPECT_TRUE(server.expired());
    EXPECT_EQ(told, host_.Events().size());
    EXPECT_EQ(0, statuses);
  }
  EXPECT_TRUE(vex_test::ThreadsBecome(threads));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
  // The count is below 0: the first one makes up for it.
  EXPECT_EQ(0, InitializeStreamingManager());
  EXPECT_EQ(0, InitializeStreamingManager());
}

void StopAtRandom(int times, const std::string& ip, int port) {
  std::mt19937 random(7);
  for (int i = 0; i < times; ++i) {
    int id = 0;
    ASSERT_EQ(result::kOk, StartClient(&kClient, ip.c_str(), port, &id));
    const ReqHeaderInfo get = Get();
    ASSERT_EQ(result::kOk, SendHTTPRequest(id, &get));
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 600);
    while (std::chrono::steady_clock::now() < until) std::this_thread::yield();
    ASSERT_EQ(result::kOk, StopClientTransfer(id));
  }
}

TEST_F(StreamingStops, StopsAtRandomLeaveNothing) {
  ServeEndless(2048);
  const int descriptors = vex_test::DescriptorCount();
  std::atomic<bool> stop{false};
  // Somebody looks at the sessions all the time.
  std::thread watcher([&] {
    while (!stop) NothingRuns();
  });
  StopAtRandom(500, ip_, port_);
  stop = true;
  watcher.join();
  EXPECT_EQ(0, statuses);
  ASSERT_TRUE(WaitUntil(NothingRuns));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
}

TEST_F(StreamingStops, SlowTenThousandStopsAtRandomLeaveNothing) {
  ServeEndless(2048);
  const int descriptors = vex_test::DescriptorCount();
  StopAtRandom(10000, ip_, port_);
  EXPECT_EQ(0, statuses);
  ASSERT_TRUE(WaitUntil(NothingRuns));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
}

TEST_F(StreamingStops, ServersAreStoppedUnderAcceptsAndTransfers) {
  ServeEndless();
  std::atomic<bool> stop{false};
  std::vector<std::thread> peers;
  for (int i = 0; i < 3; ++i) {
    peers.emplace_back([&] {
      while (!stop) {
        TcpClient peer(ip_, port_);
        if (peer.connected() && peer.Send("GET / HTTP/1.1\r\n\r\n")) peer.ReadBytes(100000);
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    ASSERT_TRUE(WaitUntil([&] { return host_.LastSession() > server_; }));
    ASSERT_EQ(result::kOk, StopServers(configuration_));
    FreeServerInfoList(servers_);
    servers_ = nullptr;
    ASSERT_EQ(result::kOk,
              StartServers(MediaHost::callbacks(), ip_.c_str(), port_, &servers_, &configuration_));
  }
  stop = true;
  EXPECT_EQ(result::kOk, StopServers(configuration_));
  for (std::thread& peer : peers) peer.join();
}

TEST_F(StreamingStops, TwoHundredTransfersRunAtOnce) {
  constexpr unsigned int kTransfers = 200;
  constexpr unsigned int kHalf = 1 << 18;
  static char half[kHalf];
  host_.DoOnRequest([](const MediaHost::Request& request) {
    ResHeaderInfo ok = Response(200);
    ok.content_length = 2 * kHalf;
    SendHTTPResponse(request.server, request.session, &ok, false);
  });
  // Half of each body is out before the second half of any follows.
  std::mutex mutex;
  std::vector<int> half_way;
  host_.DoOnWritten([&](int server, int session, unsigned int length) {
    if (length == 0) {
      SendHTTPPayload(server, session, half, kHalf, false);
      return;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    half_way.push_back(session);
  });
  Serve();
  for (unsigned int i = 0; i < kTransfers; ++i) StartGet(ip_, port_);
  ASSERT_TRUE(WaitUntil([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    return half_way.size() == kTransfers;
  }));
  for (const int session : half_way) {
    const std::string rest(kHalf, 'p');
    EXPECT_EQ(result::kOk, SendHTTPPayload(server_, session, MallocCopy(rest), kHalf, true));
  }
  EXPECT_TRUE(WaitUntil([&] { return received == kTransfers * 2 * kHalf; }));
  EXPECT_TRUE(WaitUntil(NothingRuns));
  EXPECT_EQ(0, statuses);
}

// The synchronous client.

TEST_F(StreamingStops, AConnectThatWaitsIsInterruptedAndHoldsNoThread) {
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  ASSERT_EQ(result::kOk, manager->ConfigureStreamingThreads(1, true));
  const FullListener full;
  int waiting = 0;
  ASSERT_EQ(result::kOk, StartSyncClient(&waiting));
  const LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  std::future<int> connecting = std::async(
      std::launch::async, [&] { return ConnectSyncClient(waiting, "127.0.0.1", full.port()); });
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Invoking Sync Connect on socket") == 1; }));
  // The one thread of the pool connects another one meanwhile.
  HttpPeer peer(vex_test::StaySilent());
  int other = 0;
  ASSERT_EQ(result::kOk, StartSyncClient(&other));
  EXPECT_EQ(result::kOk, ConnectSyncClient(other, peer.ip().c_str(), peer.port()));
  EXPECT_EQ(result::kOk, StopClientTransfer(waiting));
  EXPECT_EQ(result::kStreamingConnectFailed, connecting.get());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(1, log.Count("invoking resolver.cancel()"));
  EXPECT_EQ(1, log.Count("Error: connect failed!"));
  EXPECT_EQ(result::kOk, StopClientTransfer(other));
}

TEST_F(StreamingStops, AConnectWithoutAnAnswerIsGivenUp) {
  const vex_test::FasterTime faster(50);
  ASSERT_EQ(result::kOk, StreamingManager::GetInstance()->ConfigureStreamingThreads(2, true));
  const FullListener full;
  int id = 0;
  ASSERT_EQ(result::kOk, StartSyncClient(&id));
  const LogCapture log;
  EXPECT_EQ(result::kStreamingConnectFailed, ConnectSyncClient(id, "127.0.0.1", full.port()));
  EXPECT_GE(log.Count("Sleeping for 5 sec"), 1);
  EXPECT_EQ(1, log.Count("Error: timed_wait failed!"));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

// Ids.

TEST_F(StreamingStops, KeptAnIdThatComesAroundLeavesTheLivingSessionInPlace) {
  HttpPeer first(vex_test::StaySilent());
  int id = 0;
  ASSERT_EQ(result::kOk, StartClient(&kClient, first.ip().c_str(), first.port(), &id));
  ASSERT_TRUE(WaitUntil([&] { return first.connections() == 1; }));
  for (int i = 0; i < 898; ++i) {
    int other = 0;
    ASSERT_EQ(result::kOk, StartSyncClient(&other));
    ASSERT_NE(id, other);
    ASSERT_EQ(result::kOk, StopClientTransfer(other));
  }
  std::atomic<bool> asked{false};
  HttpPeer second([&](PeerConnection& connection) { asked = !connection.ReadRequest().empty(); });
  int again = 0;
  ASSERT_EQ(result::kOk, StartClient(&kClient, second.ip().c_str(), second.port(), &again));
  EXPECT_EQ(id, again);
  // Its connection ends with its first completion: only the listed one is driven.
  ASSERT_TRUE(WaitUntil([&] { return second.finished() == 1; }));
  EXPECT_FALSE(asked);
  const ReqHeaderInfo get = Get();
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &get));
  EXPECT_EQ(0, first.finished());
  EXPECT_EQ(0, statuses);
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  EXPECT_TRUE(WaitUntil([&] { return first.finished() == 1; }));
}

// Memory.

TEST_F(StreamingStops, WithoutMemoryCallsSaySoAndThrowNothing) {
  Serve();
  HttpPeer peer(vex_test::StaySilent());
  int id = 0;
  int code = 0;
  const auto check = [&](bool failed) {
    if (!failed) {
      EXPECT_EQ(result::kOk, code);
    }
    vex_test::SuspendFailAlloc(false);
  };
  EXPECT_GT(vex_test::EachAllocationFails(
                [&] {
                  id = 0;
                  code = StartClient(&kClient, peer.ip().c_str(), peer.port(), &id);
                },
                [&](bool failed) {
                  check(failed);
                  if (id != 0) {
                    EXPECT_EQ(result::kOk, StopClientTransfer(id));
                  }
                }),
            0);
  ASSERT_EQ(result::kOk, StartClient(&kClient, peer.ip().c_str(), peer.port(), &id));
  vex_test::EachAllocationFails([&] { code = StopClientTransfer(id); }, check);
  int sync = 0;
  vex_test::EachAllocationFails([&] { code = StartSyncClient(&sync); },
                                [&](bool failed) {
                                  check(failed);
                                  StopClientTransfer(sync);
                                });
  stRunningSession* sessions = nullptr;
  ASSERT_EQ(result::kOk, StartClient(&kClient, peer.ip().c_str(), peer.port(), &id));
  vex_test::EachAllocationFails([&] { code = GetRunningSessionInfo(&sessions); },
                                [&](bool failed) {
                                  EXPECT_EQ(failed ? result::kFailure : result::kOk, code);
                                  FreeRunningSession(sessions);
                                  sessions = nullptr;
                                });
  stServer* server = nullptr;
  vex_test::EachAllocationFails([&] { server = GetConfiguredServers(server_); },
                                [&](bool failed) {
                                  EXPECT_EQ(failed, server == nullptr);
                                  FreeServerInfoList(server);
                                });
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

// The numbers that hosts of streaming see, and how each of them comes about.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "src/streaming_server.h"
#include "src/streaming_utils.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FailAlloc;
using vex_test::HttpPeer;
using vex_test::Literal;
using vex_test::LogCapture;
using vex_test::MallocCopy;
using vex_test::MediaClient;
using vex_test::MediaHost;
using vex_test::MediaRequest;
using vex_test::Response;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kHost[] = "127.0.0.1";

// Hosts have these numbers in their own code.
static_assert(result::kOk == 0, "");
static_assert(result::kFailure == 1, "");
static_assert(result::kStreamingNotInitialized == 1000, "");
static_assert(result::kStreamingInitFailed == 1001, "");
static_assert(result::kStreamingTerminateFailed == 1002, "");
static_assert(result::kStreamingInvalidParams == 1003, "");
static_assert(result::kStreamingInvalidCallbacks == 1004, "");
static_assert(result::kStreamingNoInterface == 1005, "");
static_assert(result::kStreamingConnectFailed == 1006, "");
static_assert(result::kStreamingBindFailed == 1007, "");
static_assert(result::kStreamingInvalidPort == 1009, "");
static_assert(result::kStreamingNoServer == 1010, "");
static_assert(result::kStreamingNoSession == 1011, "");
static_assert(result::kStreamingOutOfMemory == 1012, "");
static_assert(result::kSocketFailed == 2004, "");
static_assert(result::kBadHttp == 2009, "");
static_assert(STREAMING_SERVER_STOPPED == 0, "");
static_assert(STREAMING_SOCKET_FAILED == 4, "");
static_assert(STREAMING_PARSE_FAILED == 6, "");
static_assert(STREAMING_OUT_OF_MEMORY == 8, "");
static_assert(STREAMING_SERVER_STARTED == 9, "");

TEST(StreamingCodes, WithoutAManagerCallsAre1000) {
  const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, "/");
  const ResHeaderInfo response = Response(200);
  ResHeaderInfo* header = nullptr;
  stServer* servers = nullptr;
  void* block = nullptr;
  unsigned int length = 0;
  bool final = false;
  int out = 0;
  const std::vector<std::function<int()>> calls = {
      [&] { return StartServers(MediaHost::callbacks(), kHost, 0, &servers, &out); },
      [&] { return GetStreamingServerPort(100, kHost, &out); },
      [] { return StopServers(100); },
      [] { return StopServerTransfer(1000, 1001); },
      [&] { return StartClient(MediaClient::callbacks(), kHost, 80, &out); },
      [&] { return SendHTTPRequest(101, &request); },
      [] { return StopClientTransfer(101); },
      [&] { return SendHTTPResponse(1000, 1001, &response, true); },
      [] { return SendHTTPPayload(100, 101, nullptr, 0, true); },
      [&] { return StartSyncClient(&out); },
      [] { return ConnectSyncClient(101, kHost, 80); },
      [&] { return SendSyncHTTPRequest(101, &request); },
      [] { return SendSyncHTTPPayload(101, nullptr, 0, true); },
      [&] { return ReadHTTPHeader(101, &header, &block, length, final); },
      [&] { return ReadHTTPData(101, &block, length, final); }};
  const LogCapture log;
  int lines = 0;
  for (const auto& call : calls) {
    int code = 0;
    {
      const FailAlloc fail(1);
      code = call();
    }
    EXPECT_EQ(1000, code) << lines;
    EXPECT_EQ(++lines, log.Count(16, kTag, "Streaming manager not initialized."));
  }
  stRunningSession* sessions = nullptr;
  {
    const FailAlloc fail(1);
    EXPECT_EQ(1, GetRunningSessionInfo(&sessions));
  }
  {
    const FailAlloc fail(1);
    EXPECT_EQ(nullptr, GetConfiguredServers(1000));
  }
  EXPECT_EQ(nullptr, servers);
  EXPECT_EQ(0, out);
}

TEST(StreamingCodes, AServerWithoutAllItsCallbacksIs1004) {
  io_service io;
  const ServerAppCallbacks whole = *MediaHost::callbacks();
  std::vector<ServerAppCallbacks> tables(5, whole);
  tables[0].on_connect = nullptr;
  tables[1].on_status = nullptr;
  tables[2].on_request = nullptr;
  tables[3].on_data = nullptr;
  tables[4].on_write_complete = nullptr;
  for (const ServerAppCallbacks& table : tables) {
    const boost::shared_ptr<TCPServer> server(
        new TCPServer(io, DupServerCallbacks(&table), kHost, "lo", 1000, 21000));
    int port = 21000;
    EXPECT_EQ(1004, server->Start(port));
    EXPECT_EQ(21000, port);
  }
  const boost::shared_ptr<TCPServer> without(new TCPServer(io, nullptr, kHost, "lo", 1000, 21000));
  int port = 21000;
  EXPECT_EQ(1004, without->Start(port));
}

class StreamingClientCodes : public vex_test::ServingTest {
 protected:
  MediaClient client_;
};

TEST_F(StreamingClientCodes, AnAddressThatIsNoneOfVersion4Is1006) {
  const LogCapture log;
  int id = 0;
  EXPECT_EQ(1006, StartClient(MediaClient::callbacks(), "::1", 80, &id));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: connect failed for all endpoints!"));
  EXPECT_EQ(1, log.Count(16, kTag, "Unable to connect to the server ::1"));
  // It is listed until it is stopped.
  EXPECT_EQ(0, StopClientTransfer(id));
  EXPECT_EQ(0, log.Count("No client found!!"));
  EXPECT_TRUE(client_.Events().empty());
  ASSERT_EQ(0, StartSyncClient(&id));
  EXPECT_EQ(1006, ConnectSyncClient(id, "::1", 80));
  EXPECT_TRUE(log.Holds("Resolve error ["));
  EXPECT_EQ(0, StopClientTransfer(id));
}

TEST_F(StreamingClientCodes, ATableThatCannotBeCopiedIs1012) {
  Serve();
  int id = 0;
  int code = 0;
  {
    const FailAlloc fail(1);
    code = StartClient(MediaClient::callbacks(), kHost, 80, &id);
  }
  EXPECT_EQ(1012, code);
  EXPECT_EQ(0, id);
}

TEST_F(StreamingClientCodes, APayloadThatCannotBeFramedIs1012AndTheEnd) {
  HttpPeer peer(vex_test::StaySilent());
  ReqHeaderInfo post = MediaRequest(utils::HTTP_POST, "/");
  post.transfer_encoding = Literal("chunked");
  int id = 0;
  ASSERT_EQ(0, StartClient(MediaClient::callbacks(), kHost, peer.port(), &id));
  EXPECT_EQ(0, SendHTTPRequest(id, &post));
  ASSERT_TRUE(client_.Await("written 100 " + std::to_string(id) + " 0"));
  char byte = 0;
  EXPECT_EQ(1012, SendHTTPPayload(100, id, &byte, 0xFFFFFFFFU, false));
  EXPECT_EQ(1011, SendHTTPPayload(100, id, &byte, 1, false));
  ASSERT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  ASSERT_EQ(0, StartSyncClient(&id));
  ASSERT_EQ(0, ConnectSyncClient(id, kHost, peer.port()));
  EXPECT_EQ(0, SendSyncHTTPRequest(id, &post));
  EXPECT_EQ(1012, SendSyncHTTPPayload(id, &byte, 0xFFFFFFFFU, false));
  EXPECT_EQ(1011, SendSyncHTTPPayload(id, &byte, 1, false));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 2; }));
}

// One exchange after the other on a pool of one thread. Behind the header of the request one
// allocation of that thread fails, each time a later one.
struct FailingExchange {
  std::optional<FailAlloc> fail;
  int nth = 0;
  std::atomic<int> status{0};
  std::atomic<int> ended{0};
};
FailingExchange* exchange = nullptr;

void FailBehindTheHeader(int handler, int id, unsigned int length) {
  if (length != 0) return;
  EXPECT_EQ(0, SendHTTPPayload(handler, id, MallocCopy("b"), 1, true));
  exchange->fail.emplace(exchange->nth);
}

void EndWith(int status) {
  exchange->fail.reset();
  exchange->status = status;
  ++exchange->ended;
}

TEST_F(StreamingClientCodes, AResponseWithoutMemoryIsStatus8) {
  FailingExchange state;
  exchange = &state;
  constexpr int kAnswered = 200;
  ClientAppCallbacks table = *MediaClient::callbacks();
  table.on_write_complete = FailBehindTheHeader;
  table.on_status = [](int, int, int code) { EndWith(code); };
  table.on_response = [](int, int, ResHeaderInfo* response, void* body, unsigned int, bool) {
    EndWith(kAnswered);
    FreeResponseHeader(response);
    Free(body);
  };
  ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  ReqHeaderInfo post = MediaRequest(utils::HTTP_POST, "/");
  post.content_length = 1;
  int records = 0;
  while (state.status != kAnswered && state.nth < 500) {
    const LogCapture log;
    ++state.nth;
    int id = 0;
    ASSERT_EQ(0, StartClient(&table, kHost, peer.port(), &id));
    ASSERT_EQ(0, SendHTTPRequest(id, &post));
    ASSERT_TRUE(WaitUntil([&] { return state.ended == state.nth; })) << state.nth;
    ASSERT_TRUE(WaitUntil([&] { return peer.finished() == state.nth; })) << state.nth;
    if (log.Count(16, kTag, "Alloc Failure!") == 0) continue;
    ++records;
    EXPECT_EQ(8, state.status) << state.nth;
  }
  EXPECT_GT(records, 0);
  EXPECT_EQ(kAnswered, state.status);
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

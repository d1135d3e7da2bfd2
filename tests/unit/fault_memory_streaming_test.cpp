// The exported functions of streaming, called with each of their allocations failing in turn.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/http_peer.h"
#include "tests/support/memory_table.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FailEach;
using vex_test::HttpPeer;
using vex_test::Literal;
using vex_test::MallocCopy;
using vex_test::MediaHost;
using vex_test::MemoryRow;
using vex_test::PeerConnection;
using vex_test::TcpClient;
using vex_test::WaitUntil;

std::atomic<int> responses{0};
std::atomic<int> failures{0};

void OnStatus(int, int, int) { ++failures; }
void OnResponse(int, int, ResHeaderInfo* response, void* body, unsigned int, bool) {
  FreeResponseHeader(response);
  Free(body);
  ++responses;
}
void OnData(int, int, void* data, unsigned int, bool) { Free(data); }
void OnWritten(int, int, unsigned int) {}

constexpr ClientAppCallbacks kClient = {OnStatus, OnResponse, OnData, OnWritten};

MemoryRow Row(std::vector<int> codes = {}, std::function<void(int)> after = {}) {
  codes.push_back(result::kStreamingOutOfMemory);
  codes.push_back(result::kStreamingNotInitialized);
  return {result::kOk, std::move(codes), std::move(after), false};
}

ReqHeaderInfo Get() {
  ReqHeaderInfo request;
  InitializeRequestHeaderInfo(&request);
  request.request_type = utils::HTTP_GET;
  request.http_version = HTTP_1_1;
  request.uri = Literal("/a/path/that/is/long/enough/for/a/block");
  return request;
}

constexpr char kAnswer[] =
    "HTTP/1.1 200 OK\r\nContent-Length: 40\r\nA-HEADER-WITH-A-NAME: and a value of length\r\n"
    "Content-Type: a/type-of-some-length\r\n\r\n0123456789012345678901234567890123456789";

void AnswerAndClose(PeerConnection& connection) {
  connection.ReadRequest();
  connection.Send(kAnswer);
}

class FaultMemoryStreaming : public vex_test::ServingTest {
 protected:
  // A client gets its answer and a server gives one.
  void ExpectToWork() {
    HttpPeer peer(AnswerAndClose);
    const ReqHeaderInfo request = Get();
    const int before = responses;
    int id = 0;
    ASSERT_EQ(result::kOk, StartClient(&kClient, peer.ip().c_str(), peer.port(), &id));
    ASSERT_EQ(result::kOk, SendHTTPRequest(id, &request));
    EXPECT_TRUE(WaitUntil([&] { return responses == before + 1; }));
    StopClientTransfer(id);
    host_.DoOnRequest([](const MediaHost::Request& got) {
      const ResHeaderInfo response = vex_test::Response(200);
      SendHTTPResponse(got.server, got.session, &response, true);
    });
    TcpClient client(ip_, port_);
    ASSERT_TRUE(client.Send("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_NE(std::string::npos, client.ReadToEnd().find("200"));
  }

  // A connect still has its second on a busy machine.
  const vex_test::FasterTime faster_{5};
};

TEST_F(FaultMemoryStreaming, Life) {
  FailEach("vex_upnp::streaming::InitializeStreamingManager", InitializeStreamingManager,
           Row({result::kStreamingInitFailed}, [](int code) {
             if (code == result::kOk) TerminateStreamingManager();
           }));
  InitializeStreamingManager();
  FailEach("vex_upnp::streaming::TerminateStreamingManager", TerminateStreamingManager,
           Row({result::kStreamingTerminateFailed}, [](int code) {
             if (code == result::kOk) InitializeStreamingManager();
           }));
  TerminateStreamingManager();
  Serve();
  ExpectToWork();
}

TEST_F(FaultMemoryStreaming, Servers) {
  stServer* servers = nullptr;
  int configuration = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::streaming::StartServers",
                [&] {
                  return StartServers(MediaHost::callbacks(), ip_.c_str(), kFirstPort, &servers,
                                      &configuration);
                },
                Row({result::kFailure, result::kStreamingNoInterface, result::kStreamingBindFailed},
                    [&](int code) {
                      if (code == result::kOk) {
                        EXPECT_EQ(result::kOk, StopServers(configuration));
                      }
                      FreeServerInfoList(servers);
                      servers = nullptr;
                    })),
            20);
  Serve();
  stServer* info = nullptr;
  FailEach("vex_upnp::streaming::GetConfiguredServers",
           [&] { return (info = GetConfiguredServers(server_)) != nullptr ? 1 : 0; },
           {1, {0}, [&](int) { FreeServerInfoList(info); }, false});
  info = GetConfiguredServers(server_);
  FailEach("vex_upnp::streaming::FreeServerInfoList", [&] { FreeServerInfoList(info); });
  int port = 0;
  FailEach(
      "vex_upnp::streaming::GetStreamingServerPort",
      [&] { return GetStreamingServerPort(configuration_, ip_.c_str(), &port); }, Row());
  ExpectToWork();
  FailEach(
      "vex_upnp::streaming::StopServerTransfer", [&] { return StopServerTransfer(server_, 4711); },
      Row());
  FailEach(
      "vex_upnp::streaming::StopServers", [&] { return StopServers(configuration_); },
      Row({}, [&](int) {
        FreeServerInfoList(servers_);
        servers_ = nullptr;
        Serve();
      }));
  ExpectToWork();
}

// A host that calls again after each failure answers whole in the end.
TEST_F(FaultMemoryStreaming, AnswersOfAServer) {
  const ResHeaderInfo response = vex_test::Response(200);
  std::atomic<int> header_failures{0};
  std::atomic<int> payload_failures{0};
  host_.DoOnRequest([&](const MediaHost::Request& got) {
    header_failures = FailEach(
        "vex_upnp::streaming::SendHTTPResponse",
        [&] { return SendHTTPResponse(got.server, got.session, &response, false); }, Row());
  });
  host_.DoOnWritten([&](int server, int session, unsigned int) {
    void* const data = MallocCopy("a body");
    payload_failures = FailEach(
        "vex_upnp::streaming::SendHTTPPayload",
        [&] { return SendHTTPPayload(server, session, data, 6, true); }, Row());
  });
  Serve();
  TcpClient client(ip_, port_);
  ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\n\r\n"));
  const std::string answer = client.ReadToEnd();
  EXPECT_EQ(0U, answer.find("HTTP/1.1 200")) << answer;
  EXPECT_NE(std::string::npos, answer.find("a body")) << answer;
  EXPECT_GT(header_failures, 0);
  EXPECT_GT(payload_failures, 1);
  host_.DoOnWritten({});
  ExpectToWork();
}

TEST_F(FaultMemoryStreaming, Clients) {
  Serve();
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send(kAnswer);
    connection.AwaitEnd();
  });
  int id = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::streaming::StartClient",
                [&] {
                  id = 0;
                  return StartClient(&kClient, peer.ip().c_str(), peer.port(), &id);
                },
                Row({result::kFailure, result::kStreamingConnectFailed},
                    [&](int) {
                      if (id != 0) StopClientTransfer(id);
                    })),
            3);
  const auto start = [&](int) {
    if (id != 0) StopClientTransfer(id);
    EXPECT_EQ(result::kOk, StartClient(&kClient, peer.ip().c_str(), peer.port(), &id));
  };
  start(0);
  const ReqHeaderInfo request = Get();
  int expected = responses;
  FailEach(
      "vex_upnp::streaming::SendHTTPRequest", [&] { return SendHTTPRequest(id, &request); },
      Row({result::kFailure}, [&](int code) {
        expected += code == result::kOk ? 1 : 0;
        EXPECT_TRUE(WaitUntil([&] { return responses == expected; }));
        start(0);
      }));
  stRunningSession* sessions = nullptr;
  FailEach(
      "vex_upnp::streaming::GetRunningSessionInfo",
      [&] { return GetRunningSessionInfo(&sessions); }, Row({result::kFailure}, [&](int) {
        FreeRunningSession(sessions);
        sessions = nullptr;
      }));
  FailEach("vex_upnp::streaming::FreeRunningSession", [&] { FreeRunningSession(sessions); });
  FailEach(
      "vex_upnp::streaming::StopClientTransfer", [&] { return StopClientTransfer(id); },
      Row({}, start));
  StopClientTransfer(id);
  ExpectToWork();
}

TEST_F(FaultMemoryStreaming, SynchronousClients) {
  Serve();
  const std::vector<int> codes = {result::kSocketFailed, result::kStreamingConnectFailed,
                                  result::kFailure, result::kStreamingNoSession};
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send(kAnswer);
    connection.AwaitEnd();
  });
  int id = 0;
  FailEach(
      "vex_upnp::streaming::StartSyncClient", [&] { return StartSyncClient(&id); },
      Row({}, [&](int code) {
        if (code == result::kOk) StopClientTransfer(id);
      }));
  const auto start = [&](int) {
    StopClientTransfer(id);
    EXPECT_EQ(result::kOk, StartSyncClient(&id));
  };
  const auto connect = [&](int) {
    start(0);
    EXPECT_EQ(result::kOk, ConnectSyncClient(id, peer.ip().c_str(), peer.port()));
  };
  const ReqHeaderInfo request = Get();
  const auto ask = [&](int) {
    connect(0);
    EXPECT_EQ(result::kOk, SendSyncHTTPRequest(id, &request));
  };
  start(0);
  EXPECT_GT(
      FailEach(
          "vex_upnp::streaming::ConnectSyncClient",
          [&] { return ConnectSyncClient(id, peer.ip().c_str(), peer.port()); }, Row(codes, start)),
      0);
  connect(0);
  EXPECT_GT(FailEach(
                "vex_upnp::streaming::SendSyncHTTPRequest",
                [&] { return SendSyncHTTPRequest(id, &request); }, Row(codes, connect)),
            0);
  char payload[] = "a body";
  FailEach(
      "vex_upnp::streaming::SendSyncHTTPPayload",
      [&] { return SendSyncHTTPPayload(id, payload, 6, false); }, Row(codes, connect));
  ResHeaderInfo* header = nullptr;
  void* body = nullptr;
  unsigned int length = 0;
  bool final = false;
  const auto release = [&](int) {
    FreeResponseHeader(header);
    Free(body);
    header = nullptr;
    body = nullptr;
    ask(0);
  };
  ask(0);
  std::vector<int> reading = codes;
  reading.push_back(result::kBadHttp);
  EXPECT_GT(
      FailEach(
          "vex_upnp::streaming::ReadHTTPHeader",
          [&] { return ReadHTTPHeader(id, &header, &body, length, final); }, Row(reading, release)),
      3);
  StopClientTransfer(id);
}

// The body comes in a piece of its own, behind the header.
TEST_F(FaultMemoryStreaming, SynchronousBody) {
  Serve();
  std::atomic<bool> header_read{false};
  HttpPeer peer([&](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
    WaitUntil([&] { return header_read.load(); });
    connection.Send("0123456789");
    connection.AwaitEnd();
  });
  int id = 0;
  unsigned int length = 0;
  bool final = false;
  const ReqHeaderInfo request = Get();
  const auto start = [&] {
    header_read = false;
    ASSERT_EQ(result::kOk, StartSyncClient(&id));
    ASSERT_EQ(result::kOk, ConnectSyncClient(id, peer.ip().c_str(), peer.port()));
    ASSERT_EQ(result::kOk, SendSyncHTTPRequest(id, &request));
    ResHeaderInfo* header = nullptr;
    void* none = nullptr;
    ASSERT_EQ(result::kOk, ReadHTTPHeader(id, &header, &none, length, final));
    FreeResponseHeader(header);
    Free(none);
    header_read = true;
  };
  start();
  void* data = nullptr;
  FailEach(
      "vex_upnp::streaming::ReadHTTPData", [&] { return ReadHTTPData(id, &data, length, final); },
      Row({result::kSocketFailed, result::kBadHttp}, [&](int) {
        Free(data);
        data = nullptr;
        StopClientTransfer(id);
        start();
      }));
  StopClientTransfer(id);
}

TEST(FaultMemoryStreamingRecords, NeedNoMemory) {
  FailEach("vex_upnp::streaming::Free", [] { Free(nullptr); });
  FailEach("vex_upnp::streaming::FreeAdditionalHeaders", [] { FreeAdditionalHeaders(nullptr); });
  FailEach("vex_upnp::streaming::FreeRequestHeader", [] { FreeRequestHeader(nullptr); });
  FailEach("vex_upnp::streaming::FreeResponseHeader", [] { FreeResponseHeader(nullptr); });
  ReqHeaderInfo request;
  ResHeaderInfo response;
  FailEach("vex_upnp::streaming::InitializeRequestHeaderInfo",
           [&] { InitializeRequestHeaderInfo(&request); });
  FailEach("vex_upnp::streaming::InitializeResponseInfo",
           [&] { InitializeResponseInfo(&response); });
  char text[] = "a%20b";
  FailEach("vex_upnp::streaming::UnEscapeURI", [&] { UnEscapeURI(text); });
  stArgument header = {};
  header.name = Literal("A-HEADER-WITH-A-NAME");
  header.value = Literal("and a value that is long enough for a block");
  const std::string name = header.name;
  FailEach("vex_upnp::streaming::GetResponseAdditionalHeaders",
           [&] {
             std::string value;
             return GetResponseAdditionalHeaders(&header, name, value);
           },
           {result::kYes, {result::kNo}, {}, false});
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

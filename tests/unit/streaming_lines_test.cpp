// Lines by which those who look after a host follow its streaming.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/fail_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/media_peer.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::LogCapture;
using vex_test::LogLine;
using vex_test::MediaClient;
using vex_test::MediaConnection;
using vex_test::MediaHost;
using vex_test::MediaPeer;
using vex_test::MediaRequest;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kHost[] = "127.0.0.1";
constexpr char kEnd[] = "\r\n\r\n";

class StreamingLines : public vex_test::ServingTest {
 protected:
  int Start(int port) {
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(MediaClient::callbacks(), kHost, port, &id));
    return id;
  }
  void Get(int id) {
    const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, "/");
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
  }
  // What a client logs of an exchange with a peer that answers so and closes.
  std::string ClosedBy(const std::string& answer, const std::string& last_event) {
    const LogCapture log;
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send(answer);
    });
    const int id = Start(peer.port());
    Get(id);
    const std::size_t behind_name = last_event.find(' ');
    EXPECT_TRUE(client_.Await(last_event.substr(0, behind_name) + " 100 " + std::to_string(id) +
                              last_event.substr(behind_name)));
    // One place tells it behind the callback.
    std::string places;
    EXPECT_TRUE(WaitUntil([&] {
      for (const char* const place : {"1", "2", "3"}) {
        const std::string line = std::string("Exception ") + place + ": SOCKET_CLOSED";
        for (int i = 0; i < log.Count(16, kTag, line); ++i) places += place;
      }
      return !places.empty();
    }));
    return places;
  }

  MediaClient client_;
};

// Servers.

TEST_F(StreamingLines, APoolThatCannotStartIsTold) {
  const LogCapture log;
  {
    const vex_test::FailCalls no_thread(vex_test::SystemCall::kThread, EAGAIN);
    EXPECT_EQ(result::kFailure, StartServers(MediaHost::callbacks(), ip_.c_str(), kFirstPort,
                                             &servers_, &configuration_));
  }
  EXPECT_EQ(1, log.Count(16, kTag, "Configure Server Threads failed."));
  EXPECT_TRUE(log.Holds("thread_resource_error exception:["));
  EXPECT_EQ(0, log.Count("Streaming threads initialized"));
  Serve();
  EXPECT_EQ(1, log.Count("Streaming threads initialized"));
}

TEST_F(StreamingLines, APortThatIsNoneIsTold) {
  const LogCapture log;
  EXPECT_EQ(result::kStreamingBindFailed,
            StartServers(MediaHost::callbacks(), ip_.c_str(), 65536, &servers_, &configuration_));
  EXPECT_EQ(1, log.Count(16, kTag, "Port is invalid!"));
}

TEST_F(StreamingLines, AConnectionIsTold) {
  Serve();
  const LogCapture log;
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(Await("connect", "0"));
  EXPECT_EQ(1, log.Count("Incoming connection"));
}

// What is still under way when its session goes.
TEST_F(StreamingLines, WhatCompletesBehindAStopIsTold) {
  Serve();
  {
    const LogCapture log;
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send("GET / HT"));
    ASSERT_TRUE(Await("connect", "0"));
    EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + 1));
    EXPECT_TRUE(WaitUntil([&] {
      return log.Count(16, kTag,
                       "Server " + std::to_string(server_) + "'s Session " +
                           std::to_string(server_ + 1) + " info not found") > 0;
    }));
    EXPECT_GT(log.Count(16, kTag, "Session not found on the server."), 0);
    EXPECT_EQ(0, log.Count("Server not found in the list."));
  }
  const LogCapture log;
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(Await("connect", "0", 2));
  EXPECT_EQ(result::kOk, StopServers(configuration_));
  EXPECT_TRUE(WaitUntil([&] {
    return log.Count(16, kTag,
                     "Server " + std::to_string(server_) + "'s Session " +
                         std::to_string(server_ + 2) + " info not found") > 0;
  }));
  EXPECT_GT(log.Count(16, kTag, "Server not found in the list."), 0);
}

// Clients.

TEST_F(StreamingLines, TheEndOfAConnectionIsToldByItsPlace) {
  EXPECT_EQ("1", ClosedBy("", "status 4"));
  EXPECT_EQ("1", ClosedBy("HTTP/1.1 200", "status 4"));
  EXPECT_EQ("2", ClosedBy("HTTP/1.0 200 OK\r\n\r\nall of it", "data 0 final"));
  EXPECT_EQ("3",
            ClosedBy("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", "response 200 2 final"));
}

TEST_F(StreamingLines, KeptARequestIsToldAsItIsSentWithTheOneBefore) {
  MediaPeer peer([](MediaConnection& connection) { connection.AwaitClose(); });
  const int id = Start(peer.port());
  ReqHeaderInfo post = MediaRequest(utils::HTTP_POST, "/first");
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &post));
  // It is connected when it has written.
  ASSERT_TRUE(client_.Await("written 100 " + std::to_string(id) + " 0"));
  const LogCapture log;
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &post));
  const std::string header = "POST /first HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n";
  EXPECT_EQ(1, log.Count("Sending Request: [" + header + header + "]"));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  EXPECT_EQ(1, log.Count("Closing outgoing session, client_handler_id_=[100] session_id_=[" +
                         std::to_string(id) + "]"));
}

TEST_F(StreamingLines, WhatCannotBeSentIsTold) {
  const LogCapture log;
  int id = 0;
  EXPECT_EQ(result::kStreamingInvalidPort,
            StartClient(MediaClient::callbacks(), kHost, 65536, &id));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: input string was not valid!"));
  const ReqHeaderInfo unknown = MediaRequest(utils::HTTP_UNKNOWN_REQUEST, "/");
  EXPECT_EQ(result::kFailure, SendHTTPRequest(id, &unknown));
  EXPECT_EQ(1, log.Count(16, kTag, "Failed to form request header!"));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  ASSERT_EQ(result::kOk, StartSyncClient(&id));
  EXPECT_EQ(result::kStreamingInvalidPort, ConnectSyncClient(id, kHost, -1));
  EXPECT_EQ(2, log.Count(16, kTag, "Error: input string was not valid!"));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingLines, AStopDuringAReadTellsNothingButThatTheClientIsGone) {
  std::atomic<bool> asked{false};
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    asked = true;
    connection.AwaitClose();
  });
  const int id = Start(peer.port());
  Get(id);
  ASSERT_TRUE(WaitUntil([&] { return asked.load(); }));
  // Others have had their turn, so it reads.
  ASSERT_EQ("3", ClosedBy("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", "response 200 0 final"));
  const LogCapture log;
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  const std::string ids = "client_handler_id_=[100] session_id_=[" + std::to_string(id) + "]";
  ASSERT_TRUE(WaitUntil([&] { return log.Count("~OutgoingSession, " + ids) == 1; }));
  std::vector<std::string> others;
  for (const LogLine& line : log.Lines()) {
    if (line.text == "Closing outgoing session, " + ids || line.text == "~OutgoingSession, " + ids)
      continue;
    if (line.tag == kTag && line.text.find(std::to_string(id)) != std::string::npos)
      others.push_back(line.text);
  }
  EXPECT_EQ(std::vector<std::string>(others.size(), "Client " + std::to_string(id) + " not found"),
            others);
  EXPECT_FALSE(others.empty());
  EXPECT_FALSE(log.Holds("Exception"));
  EXPECT_FALSE(log.Holds("Error"));
  EXPECT_EQ(0, client_.Count("status 100 " + std::to_string(id) + " 4"));
}

// The synchronous client.

class SyncStreamingLines : public StreamingLines {
 protected:
  // Behind the request, on a pool that a server has started.
  int Asked(const MediaPeer& peer) {
    Serve();
    int id = 0;
    EXPECT_EQ(result::kOk, StartSyncClient(&id));
    EXPECT_EQ(result::kOk, ConnectSyncClient(id, kHost, peer.port()));
    const ReqHeaderInfo get = MediaRequest(utils::HTTP_GET, "/first");
    EXPECT_EQ(result::kOk, SendSyncHTTPRequest(id, &get));
    return id;
  }

  ResHeaderInfo* header_ = nullptr;
  void* block_ = nullptr;
  unsigned int length_ = 0;
  bool final_ = false;
};

TEST_F(SyncStreamingLines, AReadThatFailsIsTold) {
  const LogCapture log;
  MediaPeer silent([](MediaConnection& connection) { connection.ReadUntil(kEnd); });
  int id = Asked(silent);
  EXPECT_EQ(result::kSocketFailed, ReadHTTPHeader(id, &header_, &block_, length_, final_));
  EXPECT_EQ(1, log.Count(16, kTag, "[OutgoingSyncSession] read_some failed! ec = [End of file]"));
  EXPECT_EQ(result::kSocketFailed, ReadHTTPData(id, &block_, length_, final_));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: Socket read failed! Error Code [End of file]"));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(SyncStreamingLines, ASecondRequestSendsNothingOfTheFirst) {
  std::string first;
  std::string second;
  {
    std::atomic<bool> has_first{false};
    MediaPeer peer([&](MediaConnection& connection) {
      first = connection.ReadUntil(kEnd);
      has_first = true;
      second = connection.ReadUntil("nothing ends with this");
    });
    const int id = Asked(peer);
    const ReqHeaderInfo head = MediaRequest(utils::HTTP_HEAD, "/second");
    EXPECT_EQ(result::kOk, SendSyncHTTPRequest(id, &head));
    EXPECT_TRUE(WaitUntil([&] { return has_first.load(); }));
    EXPECT_EQ(result::kOk, StopClientTransfer(id));
  }
  EXPECT_EQ("GET /first HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", first);
  EXPECT_EQ("HEAD /second HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", second);
}

// As servers send it: without a length.
TEST_F(SyncStreamingLines, AnInterimAnswerWithoutALengthIsFollowedByTheRealOne) {
  std::string sent;
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 100 Continue\r\n\r\n");
    sent = connection.ReadBytes(4);
    connection.Send("HTTP/1.1 201 Created\r\nContent-Length: 5\r\n\r\nthere");
    connection.AwaitClose();
  });
  const int id = Asked(peer);
  ASSERT_EQ(result::kOk, ReadHTTPHeader(id, &header_, &block_, length_, final_));
  EXPECT_EQ(100U, header_->status_code);
  EXPECT_TRUE(final_);
  EXPECT_EQ(nullptr, block_);
  FreeResponseHeader(header_);
  char body[] = "body";
  EXPECT_EQ(result::kOk, SendSyncHTTPPayload(id, body, 4, true));
  final_ = false;
  ASSERT_EQ(result::kOk, ReadHTTPHeader(id, &header_, &block_, length_, final_));
  EXPECT_EQ(201U, header_->status_code);
  EXPECT_TRUE(final_);
  EXPECT_EQ("there", std::string(static_cast<char*>(block_), length_));
  FreeResponseHeader(header_);
  Free(block_);
  EXPECT_EQ("body", sent);
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingLines, AnInterimAnswerWithoutALengthIsFollowedByTheRealOne) {
  std::string sent;
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 100 Continue\r\n\r\n");
    sent = connection.ReadBytes(4);
    connection.Send("HTTP/1.1 201 Created\r\nContent-Length: 5\r\n\r\nthere");
    connection.AwaitClose();
  });
  const int id = Start(peer.port());
  ReqHeaderInfo post = MediaRequest(utils::HTTP_POST, "/");
  post.expect = vex_test::Literal("100-continue");
  post.content_length = 4;
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &post));
  const std::string ids = " 100 " + std::to_string(id) + " ";
  ASSERT_TRUE(client_.Await("response" + ids + "100 0 final"));
  EXPECT_EQ(result::kOk, SendHTTPPayload(100, id, vex_test::MallocCopy("body"), 4, true));
  ASSERT_TRUE(client_.Await("response" + ids + "201 5 final"));
  EXPECT_EQ("there", client_.Body());
  EXPECT_EQ("body", sent);
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_peer.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::MediaConnection;
using vex_test::MediaPeer;
using vex_test::WaitUntil;

constexpr char kHost[] = "127.0.0.1";
constexpr char kEnd[] = "\r\n\r\n";

// What the client's callbacks told, in order. Plain functions have no place for it but here.
struct Told {
  std::mutex mutex;
  std::vector<std::string> events;
  std::string body;
  // Calls of on_data.
  int blocks = 0;
  int handler_id = -1;
  int client_id = -1;
  bool stop_in_response = false;
};
Told* told = nullptr;

void Note(int handler_id, int client_id, const std::string& event) {
  const std::lock_guard<std::mutex> lock(told->mutex);
  told->handler_id = handler_id;
  told->client_id = client_id;
  told->events.push_back(event);
}

void OnStatus(int handler_id, int client_id, int code) {
  Note(handler_id, client_id, "status " + std::to_string(code));
}

void OnResponse(int handler_id, int client_id, ResHeaderInfo* response, void* body,
                unsigned int length, bool final) {
  bool stop = false;
  {
    const std::lock_guard<std::mutex> lock(told->mutex);
    if (body != nullptr) told->body.append(static_cast<char*>(body), length);
    stop = told->stop_in_response;
  }
  Note(handler_id, client_id,
       "response " + std::to_string(response->status_code) + (final ? " final" : ""));
  FreeResponseHeader(response);
  Free(body);
  if (stop) StopClientTransfer(client_id);
}

void OnData(int handler_id, int client_id, void* data, unsigned int length, bool final) {
  {
    const std::lock_guard<std::mutex> lock(told->mutex);
    if (data != nullptr) told->body.append(static_cast<char*>(data), length);
    ++told->blocks;
  }
  Free(data);
  if (final) Note(handler_id, client_id, "data final");
}

void OnWritten(int handler_id, int client_id, unsigned int length) {
  Note(handler_id, client_id, "written " + std::to_string(length));
}

const ClientAppCallbacks kCallbacks = {OnStatus, OnResponse, OnData, OnWritten};

ReqHeaderInfo Request(utils::HTTPRequest type, HTTPVersion version = HTTP_1_1) {
  static char target[] = "/media";
  ReqHeaderInfo request;
  InitializeRequestHeaderInfo(&request);
  request.request_type = type;
  request.uri = target;
  request.http_version = version;
  return request;
}

void* Block(const std::string& text) {
  void* const block = std::malloc(text.size() + 1);
  std::memcpy(block, text.data(), text.size());
  return block;
}

class StreamingClient : public testing::Test {
 protected:
  void SetUp() override {
    told = &told_;
    ASSERT_EQ(result::kOk, InitializeStreamingManager());
  }
  void TearDown() override { EXPECT_EQ(result::kOk, TerminateStreamingManager()); }

  int Start(int port) {
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(&kCallbacks, kHost, port, &id));
    return id;
  }
  void Get(int id, HTTPVersion version = HTTP_1_1) {
    const ReqHeaderInfo request = Request(utils::HTTP_GET, version);
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
  }
  std::vector<std::string> Events() {
    const std::lock_guard<std::mutex> lock(told_.mutex);
    return told_.events;
  }
  std::string Body() {
    const std::lock_guard<std::mutex> lock(told_.mutex);
    return told_.body;
  }
  bool Await(const std::string& event) {
    return WaitUntil([&] {
      const std::vector<std::string> events = Events();
      return !events.empty() && events.back() == event;
    });
  }

  Told told_;
};

TEST_F(StreamingClient, AResponseInOneReadIsFinalAtOnce) {
  std::string request;
  MediaPeer peer([&](MediaConnection& connection) {
    request = connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    connection.AwaitClose();
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("response 200 final"));
  EXPECT_EQ("hello", Body());
  EXPECT_EQ(100, told_.handler_id);
  EXPECT_EQ("GET /media HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", request);
}

TEST_F(StreamingClient, ABodyOfManyReadsArrivesWhole) {
  const std::string body(3 * 1000 * 1000, 'm');
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 3000000\r\n\r\n" + body);
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(WaitUntil([&] { return Body().size() == body.size(); }));
  EXPECT_EQ(body, Body());
  ASSERT_TRUE(WaitUntil([&] { return Events().size() == 2 || Events().back() == "data final"; }));
}

TEST_F(StreamingClient, AChunkedBodyOfManyReadsArrivesWhole) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int i = 0; i < 200; ++i) connection.Send("2710\r\n" + std::string(10000, 'c') + "\r\n");
    connection.Send("0\r\n\r\n");
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("data final"));
  EXPECT_EQ(std::string(2000000, 'c'), Body());
}

TEST_F(StreamingClient, ABodyWithoutLengthEndsWithTheConnection) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.0 200 OK\r\n\r\nuntil the end");
  });
  Get(Start(peer.port()), HTTP_1_0);
  ASSERT_TRUE(Await("data final"));
  EXPECT_EQ("until the end", Body());
}

TEST_F(StreamingClient, AnEarlyCloseEndsWithStatus4) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort");
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("status 4"));
  EXPECT_EQ((std::vector<std::string>{"response 200", "status 4"}), Events());
  EXPECT_EQ("short", Body());
}

TEST_F(StreamingClient, AResetBeforeTheAnswerEndsWithStatus4) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.ResetOnClose();
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("status 4"));
  EXPECT_EQ(1U, Events().size());
}

TEST_F(StreamingClient, AnswersThatAreNoHttpEndWithStatus6) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 nonsense\r\n\r\n");
    connection.AwaitClose();
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("status 6"));
}

TEST_F(StreamingClient, AHeaderWithoutEndEndsWithStatus6) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nX: " + std::string(600000, 'x'));
    connection.AwaitClose();
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(Await("status 6"));
}

TEST_F(StreamingClient, KeptARefusedConnectionBeforeTheRequestReportsHandlerZero) {
  int port = 0;
  {
    port = MediaPeer([](MediaConnection&) {}).port();
  }
  Start(port);
  ASSERT_TRUE(Await("status 4"));
  EXPECT_EQ(0, told_.handler_id);
}

TEST_F(StreamingClient, HeadIsFinalWhateverItsLength) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n");
    connection.AwaitClose();
  });
  const ReqHeaderInfo request = Request(utils::HTTP_HEAD);
  EXPECT_EQ(result::kOk, SendHTTPRequest(Start(peer.port()), &request));
  ASSERT_TRUE(Await("response 200 final"));
}

TEST_F(StreamingClient, APostSendsItsPayloadsInChunks) {
  std::string header;
  std::string sent;
  MediaPeer peer([&](MediaConnection& connection) {
    header = connection.ReadUntil(kEnd);
    sent = connection.ReadUntil("0\r\n\r\n");
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    connection.AwaitClose();
  });
  const int id = Start(peer.port());
  ReqHeaderInfo request = Request(utils::HTTP_POST);
  char chunked[] = "chunked";
  request.transfer_encoding = chunked;
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
  ASSERT_TRUE(Await("written 0"));
  void* const first = Block("first");
  EXPECT_EQ(result::kOk, SendHTTPPayload(100, id, first, 5, false));
  ASSERT_TRUE(Await("written 5"));
  Free(first);
  EXPECT_EQ(result::kOk, SendHTTPPayload(100, id, Block("last"), 4, true));
  ASSERT_TRUE(Await("response 200 final"));
  EXPECT_EQ("POST /media HTTP/1.1\r\nAccept-Language: en-us\r\nTransfer-Encoding: chunked\r\n\r\n",
            header);
  EXPECT_EQ("5\r\nfirst\r\n4\r\nlast\r\n0\r\n\r\n", sent);
}

TEST_F(StreamingClient, AnExpectWaitsForTheInterimAnswer) {
  std::string sent;
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n");
    sent = connection.ReadBytes(4);
    connection.Send("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
    connection.AwaitClose();
  });
  const int id = Start(peer.port());
  ReqHeaderInfo request = Request(utils::HTTP_POST);
  char expect[] = "100-continue";
  request.expect = expect;
  request.content_length = 4;
  EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
  ASSERT_TRUE(Await("response 100 final"));
  EXPECT_EQ(result::kOk, SendHTTPPayload(100, id, Block("body"), 4, true));
  ASSERT_TRUE(Await("response 201 final"));
  EXPECT_EQ("body", sent);
}

TEST_F(StreamingClient, AStopFromInsideTheCallbackIsTheEnd) {
  told_.stop_in_response = true;
  std::atomic<bool> closed{false};
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nab");
    connection.AwaitClose();
    closed = true;
  });
  Get(Start(peer.port()));
  ASSERT_TRUE(WaitUntil([&] { return closed.load(); }));
  EXPECT_EQ(std::vector<std::string>{"response 200"}, Events());
}

TEST_F(StreamingClient, AStopWhileWaitingCallsNothingBack) {
  vex_test::LogCapture log;
  std::atomic<bool> asked{false};
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    asked = true;
    connection.AwaitClose();
  });
  const int id = Start(peer.port());
  Get(id);
  ASSERT_TRUE(WaitUntil([&] { return asked.load(); }));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  ASSERT_TRUE(
      WaitUntil([&] { return log.Count("Client " + std::to_string(id) + " not found") > 0; }));
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
  EXPECT_EQ(1, log.Count("No client found!!"));
}

TEST_F(StreamingClient, KeptAServerThatStaysOpenBehindAPartBlockLeavesTheClientWaiting) {
  std::atomic<bool> first_given{false};
  std::atomic<bool> all_sent{false};
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 600000\r\n\r\n");
    WaitUntil([&] { return !Events().empty(); });
    // The first read behind the header gives what there is, the next one waits for a whole block.
    connection.Send(std::string(10, 'a'));
    WaitUntil([&] { return first_given.load(); });
    connection.Send(std::string(524287, 'b'));
    all_sent = true;
    connection.AwaitClose();
  });
  vex_test::LogCapture log;
  const int id = Start(peer.port());
  Get(id);
  ASSERT_TRUE(WaitUntil([&] { return log.Count("registering for async_read") == 1; }));
  first_given = true;
  ASSERT_TRUE(WaitUntil([&] { return all_sent.load(); }));
  // Another client's whole exchange later nothing has been given yet.
  {
    MediaPeer other([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send("HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n");
      connection.AwaitClose();
    });
    Get(Start(other.port()));
    ASSERT_TRUE(Await("response 204 final"));
  }
  {
    const std::lock_guard<std::mutex> lock(told_.mutex);
    EXPECT_EQ((std::vector<std::string>{"response 200", "response 204 final"}), told_.events);
    EXPECT_EQ(1, told_.blocks);
    EXPECT_EQ(std::string(10, 'a'), told_.body);
  }
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingClient, IdsCountFrom101AndWrapBehind999) {
  int first = 0;
  EXPECT_EQ(result::kOk, StartSyncClient(&first));
  EXPECT_GE(first, 101);
  int id = first;
  for (int i = 0; i < 899; ++i) {
    const int expected = id == 999 ? 101 : id + 1;
    EXPECT_EQ(result::kOk, StopClientTransfer(id));
    EXPECT_EQ(result::kOk, StartSyncClient(&id));
    EXPECT_EQ(expected, id);
  }
  EXPECT_EQ(first, id);
}

TEST_F(StreamingClient, RunningSessionsNameThePeers) {
  MediaPeer peer([&](MediaConnection& connection) { connection.AwaitClose(); });
  const int id = Start(peer.port());
  stRunningSession* sessions = nullptr;
  EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
  ASSERT_NE(nullptr, sessions);
  EXPECT_STREQ(kHost, sessions->ip);
  EXPECT_EQ(1, sessions->type);
  EXPECT_EQ(nullptr, sessions->next);
  FreeRunningSession(sessions);
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingClient, ArgumentsAreChecked) {
  vex_test::LogCapture log;
  int id = 0;
  ClientAppCallbacks incomplete = kCallbacks;
  incomplete.on_data = nullptr;
  const ReqHeaderInfo request = Request(utils::HTTP_GET);
  EXPECT_EQ(result::kStreamingInvalidParams, StartClient(&kCallbacks, nullptr, 80, &id));
  EXPECT_EQ(result::kStreamingInvalidParams, StartClient(&kCallbacks, kHost, 80, nullptr));
  EXPECT_EQ(result::kStreamingInvalidParams, StartClient(&kCallbacks, kHost, -1, &id));
  EXPECT_EQ(result::kStreamingInvalidParams, StartClient(&incomplete, kHost, 80, &id));
  EXPECT_EQ(result::kStreamingInvalidParams, StartClient(nullptr, kHost, 80, &id));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPRequest(101, nullptr));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPRequest(-1, &request));
  EXPECT_EQ(result::kStreamingInvalidParams, StopClientTransfer(-1));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPPayload(-1, 1, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPPayload(100, -1, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPRequest(5, &request));
  EXPECT_EQ(1, log.Count("Session not found for client id 5."));
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPPayload(100, 5, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingNoServer, SendHTTPPayload(99, 5, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPPayload(100, 5, nullptr, 1, true));
  EXPECT_EQ(result::kStreamingNoServer, SendHTTPPayload(99, 5, nullptr, 1, true));
  EXPECT_EQ(result::kStreamingInvalidPort, StartClient(&kCallbacks, kHost, 70000, &id));
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingClient, ATransferStoppedAnywhereLeavesNothing) {
  for (int blocks = 0; blocks < 8; ++blocks) {
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n");
      for (int i = 0; i <= blocks; ++i) connection.Send(std::string(65536, 'x'));
      connection.AwaitClose();
    });
    const int id = Start(peer.port());
    Get(id);
    ASSERT_TRUE(WaitUntil([&] { return !Events().empty(); }));
    EXPECT_EQ(result::kOk, StopClientTransfer(id));
    const std::lock_guard<std::mutex> lock(told_.mutex);
    told_.events.clear();
  }
}

// The synchronous client.

class SyncStreamingClient : public StreamingClient {
 protected:
  void SetUp() override {
    StreamingClient::SetUp();
    StreamingManager::GetInstance()->ConfigureStreamingThreads(0, true);
    ASSERT_EQ(result::kOk, StartSyncClient(&id_));
  }
  void TearDown() override {
    EXPECT_EQ(result::kOk, StopClientTransfer(id_));
    StreamingClient::TearDown();
  }
  int SendGet() {
    const ReqHeaderInfo request = Request(utils::HTTP_GET);
    return SendSyncHTTPRequest(id_, &request);
  }

  int id_ = 0;
  ResHeaderInfo* header_ = nullptr;
  void* block_ = nullptr;
  unsigned int length_ = 0;
  bool final_ = false;
};

TEST_F(SyncStreamingClient, AWholeResponseInOneRead) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    connection.AwaitClose();
  });
  ASSERT_EQ(result::kOk, ConnectSyncClient(id_, kHost, peer.port()));
  EXPECT_EQ(result::kOk, SendGet());
  EXPECT_EQ(result::kOk, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
  EXPECT_EQ(200U, header_->status_code);
  EXPECT_TRUE(final_);
  EXPECT_EQ("hello", std::string(static_cast<char*>(block_), length_));
  FreeResponseHeader(header_);
  Free(block_);
  EXPECT_EQ(result::kOk, StopClientTransfer(id_));
}

TEST_F(SyncStreamingClient, ABodyInManyReadsAndThenTheEnd) {
  const std::string body(100000, 'b');
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n186A0\r\n" + body +
                    "\r\n0\r\n\r\n");
  });
  ASSERT_EQ(result::kOk, ConnectSyncClient(id_, kHost, peer.port()));
  EXPECT_EQ(result::kOk, SendGet());
  EXPECT_EQ(result::kOk, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
  FreeResponseHeader(header_);
  std::string got(static_cast<char*>(block_ == nullptr ? Block("") : block_), length_);
  Free(block_);
  while (!final_) {
    ASSERT_EQ(result::kOk, ReadHTTPData(id_, &block_, length_, final_));
    if (block_ != nullptr) got.append(static_cast<char*>(block_), length_);
    Free(block_);
  }
  EXPECT_EQ(body, got);
  EXPECT_EQ(result::kSocketFailed, ReadHTTPData(id_, &block_, length_, final_));
  EXPECT_EQ(result::kOk, StopClientTransfer(id_));
}

TEST_F(SyncStreamingClient, AnInterimAnswerStartsTheNextHeaderClean) {
  std::string sent;
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n");
    sent = connection.ReadBytes(4);
    connection.Send("HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n");
  });
  ASSERT_EQ(result::kOk, ConnectSyncClient(id_, kHost, peer.port()));
  ReqHeaderInfo request = Request(utils::HTTP_POST);
  EXPECT_EQ(result::kOk, SendSyncHTTPRequest(id_, &request));
  EXPECT_EQ(result::kOk, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
  EXPECT_EQ(100U, header_->status_code);
  EXPECT_TRUE(final_);
  EXPECT_EQ(nullptr, block_);
  FreeResponseHeader(header_);
  char body[] = "body";
  EXPECT_EQ(result::kOk, SendSyncHTTPPayload(id_, body, 4, true));
  EXPECT_EQ(result::kOk, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
  EXPECT_EQ(204U, header_->status_code);
  FreeResponseHeader(header_);
  EXPECT_EQ("body", sent);
  EXPECT_EQ(result::kOk, StopClientTransfer(id_));
}

TEST_F(SyncStreamingClient, NonsenseIsBadHttp) {
  MediaPeer peer([&](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 nonsense\r\n\r\n");
  });
  ASSERT_EQ(result::kOk, ConnectSyncClient(id_, kHost, peer.port()));
  EXPECT_EQ(result::kOk, SendGet());
  EXPECT_EQ(result::kBadHttp, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
  EXPECT_EQ(result::kStreamingNoSession, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
}

TEST_F(SyncStreamingClient, AStopFromAnotherThreadInterruptsARead) {
  MediaPeer peer([&](MediaConnection& connection) { connection.AwaitClose(); });
  ASSERT_EQ(result::kOk, ConnectSyncClient(id_, kHost, peer.port()));
  EXPECT_EQ(result::kOk, SendGet());
  std::thread stopper([&] { EXPECT_EQ(result::kOk, StopClientTransfer(id_)); });
  const int read = ReadHTTPHeader(id_, &header_, &block_, length_, final_);
  stopper.join();
  EXPECT_TRUE(read == result::kSocketFailed || read == result::kStreamingNoSession) << read;
}

TEST_F(SyncStreamingClient, KeptARequestWithoutConnectionIsTakenAndNotSent) {
  EXPECT_EQ(result::kOk, SendGet());
  EXPECT_EQ(result::kSocketFailed, ReadHTTPHeader(id_, &header_, &block_, length_, final_));
}

TEST_F(SyncStreamingClient, ARefusedConnectionIsTold) {
  int port = 0;
  {
    port = MediaPeer([](MediaConnection&) {}).port();
  }
  EXPECT_EQ(result::kStreamingConnectFailed, ConnectSyncClient(id_, kHost, port));
  EXPECT_EQ(result::kStreamingInvalidPort, ConnectSyncClient(id_, kHost, 65536));
  EXPECT_EQ(result::kStreamingInvalidPort, ConnectSyncClient(id_, kHost, -1));
}

TEST_F(SyncStreamingClient, KeptWithoutAPoolTheConnectRunsIntoItsLimit) {
  vex_test::FasterTime faster(50);
  StreamingManager::GetInstance()->ConfigureStreamingThreads(0, false);
  MediaPeer peer([&](MediaConnection& connection) { connection.AwaitClose(); });
  vex_test::LogCapture log;
  EXPECT_EQ(result::kStreamingConnectFailed, ConnectSyncClient(id_, kHost, peer.port()));
  EXPECT_EQ(1, log.Count("Error: timed_wait failed!"));
}

TEST_F(SyncStreamingClient, ArgumentsAreChecked) {
  bool final = false;
  unsigned int length = 0;
  EXPECT_EQ(result::kStreamingInvalidParams, StartSyncClient(nullptr));
  EXPECT_EQ(result::kStreamingInvalidParams, ConnectSyncClient(id_, nullptr, 80));
  EXPECT_EQ(result::kStreamingInvalidParams, ConnectSyncClient(-1, kHost, 80));
  EXPECT_EQ(result::kStreamingInvalidParams, SendSyncHTTPRequest(id_, nullptr));
  EXPECT_EQ(result::kStreamingInvalidParams, ReadHTTPHeader(id_, nullptr, &block_, length, final));
  EXPECT_EQ(result::kStreamingInvalidParams, ReadHTTPData(id_, nullptr, length, final));
  EXPECT_EQ(result::kStreamingInvalidParams, SendSyncHTTPPayload(-1, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingInvalidParams, SendSyncHTTPPayload(id_, nullptr, 1, true));
  EXPECT_EQ(result::kStreamingNoSession, SendSyncHTTPPayload(5, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingNoSession, ConnectSyncClient(5, kHost, 80));
  EXPECT_EQ(result::kStreamingNoSession, ReadHTTPData(5, &block_, length, final));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

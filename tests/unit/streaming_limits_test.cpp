// Headers of streaming at their bounds and one past them: those that a server reads and those that
// both clients read.

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/limits.h"
#include "src/streaming_manager.h"
#include "src/streaming_utils.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_peer.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::LogCapture;
using vex_test::MediaConnection;
using vex_test::MediaHost;
using vex_test::MediaPeer;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kEnd[] = "\r\n\r\n";
constexpr char kLocalHost[] = "127.0.0.1";

// A header that begins with this line and has exactly this size, blank line included.
std::string HeaderOfSize(const std::string& line, std::size_t size) {
  std::string header = line + "\r\nX: \r\n\r\n";
  return header.insert(header.size() - 4, std::string(size - header.size(), 'x'));
}

std::string HeaderOfLines(const std::string& line, std::size_t count) {
  std::string header = line + "\r\n";
  for (std::size_t i = 0; i < count; ++i) header += "a: b\r\n";
  return header + "\r\n";
}

// One header and, up to this count, lines that are none.
std::string HeaderOfStrayLines(const std::string& line, std::size_t count) {
  std::string header = line + "\r\na: b\r\n";
  for (std::size_t i = 1; i < count; ++i) header += "x\r\n";
  return header + "\r\n";
}

// The same bound, in bytes and in lines of either kind; how far above it.
std::vector<std::string> Headers(const std::string& line, std::size_t above) {
  return {HeaderOfSize(line, limits::kHttpHeaderBytes + above),
          HeaderOfLines(line, limits::kHttpHeaderLines + above),
          HeaderOfStrayLines(line, limits::kHttpHeaderLines + above)};
}

class StreamingServerLimits : public vex_test::ServingTest {
 protected:
  void SetUp() override {
    host_.DoOnRequest([](const MediaHost::Request& request) {
      const ResHeaderInfo answer = vex_test::Response(200);
      SendHTTPResponse(request.server, request.session, &answer, true);
    });
    Serve();
  }
};

TEST_F(StreamingServerLimits, ARequestAtItsBoundsIsServed) {
  for (const std::string& request : Headers("GET / HTTP/1.1", 0)) {
    TcpClient peer(ip_, port_);
    peer.Send(request);
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
  }
}

TEST_F(StreamingServerLimits, ARequestOnePastItsBoundsIsNot) {
  int failures = 0;
  const LogCapture log;
  std::vector<std::unique_ptr<TcpClient>> peers;
  for (const std::string& request : Headers("GET / HTTP/1.1", 1)) {
    peers.push_back(std::make_unique<TcpClient>(ip_, port_));
    peers.back()->Send(request);
    ++failures;
    EXPECT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == failures; }));
    EXPECT_TRUE(peers.back()->OpenAndSilent());
  }
  // Others are served all the same.
  TcpClient peer(ip_, port_);
  peer.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
}

// A header with a line that has no name, and more than one read of what may follow it.
std::string WithoutAName(const std::string& line) {
  return line + "\r\na: b\r\n:x\r\n\r\n" + std::string(kMediaBlock + 1, 'x');
}

TEST_F(StreamingServerLimits, RegressionARequestThatCannotEndIsRefused) {
  const LogCapture log;
  TcpClient peer(ip_, port_);
  peer.Send(WithoutAName("GET / HTTP/1.1"));
  EXPECT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == 1; }));
  EXPECT_EQ(1, log.Count("StoreHeader failed!"));
  EXPECT_TRUE(peer.OpenAndSilent());
}

// Plain functions have no other place for what they are told.
std::mutex told_mutex;
std::vector<std::string> told;

void Note(const std::string& what) {
  const std::lock_guard<std::mutex> lock(told_mutex);
  told.push_back(what);
}

std::size_t ToldCount() {
  const std::lock_guard<std::mutex> lock(told_mutex);
  return told.size();
}

void OnStatus(int, int, int code) { Note("status " + std::to_string(code)); }

void OnResponse(int, int, ResHeaderInfo* response, void* body, unsigned int, bool) {
  const unsigned int code = response->status_code;
  FreeResponseHeader(response);
  Free(body);
  Note("response " + std::to_string(code));
}

void OnData(int, int, void* data, unsigned int, bool) { Free(data); }

void OnWritten(int, int, unsigned int) {}

ReqHeaderInfo Get() {
  static char target[] = "/media";
  ReqHeaderInfo request;
  InitializeRequestHeaderInfo(&request);
  request.request_type = utils::HTTP_GET;
  request.uri = target;
  request.http_version = HTTP_1_1;
  return request;
}

class StreamingClientLimits : public testing::Test {
 protected:
  void SetUp() override {
    told.clear();
    ASSERT_EQ(result::kOk, InitializeStreamingManager());
  }
  void TearDown() override { EXPECT_EQ(result::kOk, TerminateStreamingManager()); }

  // What a client is told first of a peer that answers so and waits.
  static std::string Outcome(const std::string& answer) {
    told.clear();
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send(answer);
      connection.AwaitClose();
    });
    static const ClientAppCallbacks callbacks = {OnStatus, OnResponse, OnData, OnWritten};
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(&callbacks, kLocalHost, peer.port(), &id));
    const ReqHeaderInfo request = Get();
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
    EXPECT_TRUE(WaitUntil([] { return ToldCount() > 0; }));
    StopClientTransfer(id);
    const std::lock_guard<std::mutex> lock(told_mutex);
    return told.empty() ? "nothing" : told.front();
  }

  // The result of a blocking client's reading of such an answer.
  static int SyncOutcome(const std::string& answer) {
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send(answer);
      connection.AwaitClose();
    });
    int id = 0;
    StreamingManager::GetInstance()->ConfigureStreamingThreads(0, true);
    EXPECT_EQ(result::kOk, StartSyncClient(&id));
    EXPECT_EQ(result::kOk, ConnectSyncClient(id, kLocalHost, peer.port()));
    const ReqHeaderInfo request = Get();
    EXPECT_EQ(result::kOk, SendSyncHTTPRequest(id, &request));
    ResHeaderInfo* header = nullptr;
    void* block = nullptr;
    unsigned int length = 0;
    bool final = false;
    const int outcome = ReadHTTPHeader(id, &header, &block, length, final);
    if (outcome == result::kOk) {
      FreeResponseHeader(header);
      Free(block);
    }
    StopClientTransfer(id);
    return outcome;
  }
};

TEST_F(StreamingClientLimits, AnAnswerAtItsBoundsIsTaken) {
  for (const std::string& answer : Headers("HTTP/1.1 200 OK", 0)) {
    EXPECT_EQ("response 200", Outcome(answer)) << answer.size();
  }
}

TEST_F(StreamingClientLimits, RegressionAnAnswerOnePastItsBoundsFailsAlsoWhenItIsComplete) {
  for (const std::string& answer : Headers("HTTP/1.1 200 OK", 1)) {
    EXPECT_EQ("status 6", Outcome(answer)) << answer.size();
  }
}

TEST_F(StreamingClientLimits, RegressionAnAnswerThatCannotEndFails) {
  const LogCapture log;
  EXPECT_EQ("status 6", Outcome(WithoutAName("HTTP/1.1 200 OK")));
  EXPECT_EQ(1, log.Count("StoreHeader failed!"));
  EXPECT_EQ(result::kBadHttp, SyncOutcome(WithoutAName("HTTP/1.1 200 OK")));
  EXPECT_EQ(2, log.Count("StoreHeader failed!"));
}

TEST_F(StreamingClientLimits, ABlockingClientHasTheSameBounds) {
  for (const std::string& answer : Headers("HTTP/1.1 200 OK", 0)) {
    EXPECT_EQ(result::kOk, SyncOutcome(answer)) << answer.size();
  }
  for (const std::string& answer : Headers("HTTP/1.1 200 OK", 1)) {
    EXPECT_EQ(result::kBadHttp, SyncOutcome(answer)) << answer.size();
  }
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

// Bodies as they stand on the wire, and how connections end behind them.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/media_peer.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::Literal;
using vex_test::LogCapture;
using vex_test::MallocCopy;
using vex_test::MediaClient;
using vex_test::MediaConnection;
using vex_test::MediaHost;
using vex_test::MediaPeer;
using vex_test::MediaRequest;
using vex_test::Response;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kHost[] = "127.0.0.1";
constexpr char kEnd[] = "\r\n\r\n";
constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kChunkedPost[] =
    "POST /up HTTP/1.1\r\nAccept-Language: en-us\r\nTransfer-Encoding: chunked\r\n\r\n";

ReqHeaderInfo ChunkedPost() {
  ReqHeaderInfo request = MediaRequest(utils::HTTP_POST, "/up");
  request.transfer_encoding = Literal("chunked");
  return request;
}

// Takes a header and so many bytes of body, answers, and keeps what comes till the end.
class Taker {
 public:
  explicit Taker(std::size_t size)
      : peer_(new MediaPeer([this, size](MediaConnection& connection) {
          header_ = connection.ReadUntil(kEnd);
          body_ = connection.ReadBytes(size);
          connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
          body_ += connection.ReadUntil("nothing ends with this");
        })) {}
  int port() const { return peer_->port(); }
  // Header and body, once the other side has closed.
  std::pair<std::string, std::string> Taken() {
    peer_.reset();
    return {header_, body_};
  }

 private:
  std::string header_;
  std::string body_;
  std::unique_ptr<MediaPeer> peer_;
};

class StreamingPayloads : public vex_test::ServingTest {
 protected:
  int Start(int port) {
    int id = 0;
    EXPECT_EQ(0, StartClient(MediaClient::callbacks(), kHost, port, &id));
    return id;
  }
  int Connect(int port) {
    StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true);
    int id = 0;
    EXPECT_EQ(0, StartSyncClient(&id));
    EXPECT_EQ(0, ConnectSyncClient(id, kHost, port));
    return id;
  }
  static std::string Told(const char* what, int id, const std::string& rest) {
    return std::string(what) + " 100 " + std::to_string(id) + " " + rest;
  }
  // A chunked POST whose one payload, its last, is this; `frame` is what comes of it.
  void PostOnce(const std::string& payload, const std::string& frame) {
    Taker taker(frame.size());
    const int id = Start(taker.port());
    const ReqHeaderInfo request = ChunkedPost();
    EXPECT_EQ(0, SendHTTPRequest(id, &request));
    ASSERT_TRUE(client_.Await(Told("written", id, "0")));
    const unsigned int length = static_cast<unsigned int>(payload.size());
    EXPECT_EQ(0, SendHTTPPayload(100, id, MallocCopy(payload), length, true));
    ASSERT_TRUE(client_.Await(Told("response", id, "200 0 final")));
    EXPECT_EQ(length == 0 ? 2 : 1, client_.Count(Told("written", id, std::to_string(length))));
    const std::pair<std::string, std::string> taken = taker.Taken();
    EXPECT_EQ(kChunkedPost, taken.first);
    EXPECT_TRUE(frame == taken.second) << taken.second.size();
  }
  void Fetch(const std::string& body, const std::string& frame) {
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + frame);
    });
    const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, "/down");
    EXPECT_EQ(0, SendHTTPRequest(Start(peer.port()), &request));
    ASSERT_TRUE(client_.AwaitFinal());
    EXPECT_TRUE(body == client_.Body()) << client_.Body().size();
  }
  // Every request gets a header, and behind it this as its last payload.
  void AnswerWithOnePayload(const std::string& payload) {
    host_.DoOnRequest([](const MediaHost::Request& request) {
      const ResHeaderInfo ok = Response(200);
      EXPECT_EQ(0, SendHTTPResponse(request.server, request.session, &ok, false));
    });
    host_.DoOnWritten([payload](int server, int session, unsigned int) {
      EXPECT_EQ(0, SendHTTPPayload(server, session, MallocCopy(payload),
                                   static_cast<unsigned int>(payload.size()), true));
    });
  }

  MediaClient client_;
};

// The asynchronous client.

TEST_F(StreamingPayloads, AnEmptyLastPayloadOfAClientIsOnlyTheEnd) { PostOnce("", "0\r\n\r\n"); }

TEST_F(StreamingPayloads, ABlockOfAClientIsOneChunk) {
  const std::string block(524288, 'u');
  PostOnce(block, "80000\r\n" + block + "\r\n0\r\n\r\n");
}

TEST_F(StreamingPayloads, AByteMoreOfAClientMakesTwoChunks) {
  const std::string block(524288, 'u');
  PostOnce(block + "v", "80000\r\n" + block + "\r\n1\r\nv\r\n0\r\n\r\n");
}

TEST_F(StreamingPayloads, AClientTakesAChunkOfABlock) {
  const std::string block(524288, 'd');
  Fetch(block, "80000\r\n" + block + "\r\n0\r\n\r\n");
}

TEST_F(StreamingPayloads, AClientTakesAChunkOfABlockAndOneOfAByte) {
  const std::string block(524288, 'd');
  Fetch(block + "e", "80000\r\n" + block + "\r\n1\r\ne\r\n0\r\n\r\n");
}

TEST_F(StreamingPayloads, AClientTakesAChunkThatIsMoreThanABlock) {
  const std::string body(524289, 'd');
  Fetch(body, "80001\r\n" + body + "\r\n0\r\n\r\n");
}

TEST_F(StreamingPayloads, AnEarlyEndIsToldByDataThatIsNotFinalAndThenStatus4) {
  MediaPeer peer([](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort");
  });
  const int id = Start(peer.port());
  const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, "/down");
  EXPECT_EQ(0, SendHTTPRequest(id, &request));
  ASSERT_TRUE(client_.Await(Told("status", id, "4")));
  const std::vector<std::string> expected = {Told("response", id, "200 5"), Told("data", id, "0"),
                                             Told("status", id, "4")};
  EXPECT_EQ(expected, client_.Events());
}

TEST_F(StreamingPayloads, RegressionAPayloadOfAClientWithoutItsBytesIsRefusedAndTheNextIsSent) {
  const std::string frame = "4\r\nlast\r\n0\r\n\r\n";
  Taker taker(frame.size());
  const int id = Start(taker.port());
  const ReqHeaderInfo request = ChunkedPost();
  EXPECT_EQ(0, SendHTTPRequest(id, &request));
  ASSERT_TRUE(client_.Await(Told("written", id, "0")));
  const LogCapture log;
  EXPECT_EQ(1003, SendHTTPPayload(100, id, nullptr, 1, false));
  EXPECT_EQ(1003, SendHTTPPayload(100, id, nullptr, 1, true));
  EXPECT_EQ(2, log.Count(16, "VEX_CORE_STREAMING", "Invalid params."));
  EXPECT_EQ(0, SendHTTPPayload(100, id, MallocCopy("last"), 4, true));
  ASSERT_TRUE(client_.Await(Told("response", id, "200 0 final")));
  EXPECT_EQ(frame, taker.Taken().second);
}

// The synchronous client.

TEST_F(StreamingPayloads, ASynchronousPostGoesInChunks) {
  const std::string block(524288, 's');
  const std::string frames =
      "5\r\nfirst\r\n80000\r\n" + block + "\r\n1\r\nt\r\n4\r\nlast\r\n0\r\n\r\n";
  Taker taker(frames.size());
  const int id = Connect(taker.port());
  const ReqHeaderInfo request = ChunkedPost();
  EXPECT_EQ(0, SendSyncHTTPRequest(id, &request));
  std::string more = block + "t";
  EXPECT_EQ(0, SendSyncHTTPPayload(id, Literal("first"), 5, false));
  EXPECT_EQ(1003, SendSyncHTTPPayload(id, nullptr, 5, false));
  EXPECT_EQ(0, SendSyncHTTPPayload(id, &more[0], 524289, false));
  // All of them stay the host's, the last one too.
  EXPECT_EQ(0, SendSyncHTTPPayload(id, Literal("last"), 4, true));
  ResHeaderInfo* header = nullptr;
  void* body = nullptr;
  unsigned int length = 0;
  bool final = false;
  ASSERT_EQ(0, ReadHTTPHeader(id, &header, &body, length, final));
  EXPECT_EQ(200U, header->status_code);
  EXPECT_TRUE(final);
  FreeResponseHeader(header);
  Free(body);
  EXPECT_EQ(0, StopClientTransfer(id));
  const std::pair<std::string, std::string> taken = taker.Taken();
  EXPECT_EQ(kChunkedPost, taken.first);
  EXPECT_TRUE(frames == taken.second) << taken.second.size();
}

TEST_F(StreamingPayloads, AnEmptyLastPayloadOfASynchronousPostIsOnlyTheEnd) {
  Taker taker(5);
  const int id = Connect(taker.port());
  const ReqHeaderInfo request = ChunkedPost();
  EXPECT_EQ(0, SendSyncHTTPRequest(id, &request));
  EXPECT_EQ(0, SendSyncHTTPPayload(id, nullptr, 0, true));
  ResHeaderInfo* header = nullptr;
  void* body = nullptr;
  unsigned int length = 0;
  bool final = false;
  ASSERT_EQ(0, ReadHTTPHeader(id, &header, &body, length, final));
  FreeResponseHeader(header);
  Free(body);
  EXPECT_EQ(0, StopClientTransfer(id));
  EXPECT_EQ("0\r\n\r\n", taker.Taken().second);
}

TEST_F(StreamingPayloads, ASynchronousWriteToAPeerThatIsGoneIs2004) {
  std::unique_ptr<MediaPeer> peer(new MediaPeer([](MediaConnection& connection) {
    connection.ReadUntil(kEnd);
    connection.ResetOnClose();
  }));
  const int id = Connect(peer->port());
  ReqHeaderInfo request = MediaRequest(utils::HTTP_POST, "/up");
  request.content_length = 1000000;
  EXPECT_EQ(0, SendSyncHTTPRequest(id, &request));
  peer.reset();
  const LogCapture log;
  int code = 0;
  EXPECT_TRUE(WaitUntil([&] {
    code = SendSyncHTTPPayload(id, Literal("bytes"), 5, false);
    return code != 0;
  }));
  EXPECT_EQ(2004, code);
  EXPECT_TRUE(log.Holds("Write to socket failed! Error: ["));
  EXPECT_EQ(2004, SendSyncHTTPRequest(id, &request));
  request = ChunkedPost();
  EXPECT_EQ(2004, SendSyncHTTPRequest(id, &request));
  EXPECT_EQ(2004, SendSyncHTTPPayload(id, Literal("bytes"), 5, true));
  // The session stays until the host stops it.
  EXPECT_EQ(0, StopClientTransfer(id));
  EXPECT_EQ(0, log.Count("No client found!!"));
}

TEST_F(StreamingPayloads, ASynchronousPayloadWithoutConnectionIs2004) {
  int id = 0;
  ASSERT_EQ(0, StartSyncClient(&id));
  EXPECT_EQ(2004, SendSyncHTTPPayload(id, Literal("bytes"), 5, true));
  EXPECT_EQ(0, StopClientTransfer(id));
}

// Servers.

TEST_F(StreamingPayloads, AnEmptyLastPayloadOfAServerStartsOneWrite) {
  AnswerWithOnePayload("");
  Serve();
  const LogCapture log;
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ(1, log.Count("async_write 2 [" + std::to_string(server_) + "] [" +
                         std::to_string(server_ + 1) + "]"));
  EXPECT_EQ(1, log.Count("Closing Socket for session_id = [" + std::to_string(server_ + 1) + "]"));
}

TEST_F(StreamingPayloads, RegressionAPayloadOfAServerWithoutItsBytesIsRefused) {
  host_.DoOnRequest([](const MediaHost::Request& request) {
    ResHeaderInfo ok = Response(200);
    ok.transfer_encoding = Literal("chunked");
    EXPECT_EQ(0, SendHTTPResponse(request.server, request.session, &ok, false));
  });
  host_.DoOnWritten([](int server, int session, unsigned int) {
    EXPECT_EQ(1003, SendHTTPPayload(server, session, nullptr, 1, false));
    EXPECT_EQ(1003, SendHTTPPayload(server, session, nullptr, 1, true));
    EXPECT_EQ(0, SendHTTPPayload(server, session, nullptr, 0, true));
  });
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  EXPECT_EQ("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", peer.ReadToEnd());
}

TEST_F(StreamingPayloads, ThePauseBeforeACloseHoldsNoThread) {
  AnswerWithOnePayload("x");
  ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  Serve();
  const vex_test::SlowerTime slower(10);
  constexpr int kPeers = 200;
  std::vector<std::unique_ptr<TcpClient>> peers;
  for (int i = 0; i < kPeers; ++i) {
    peers.emplace_back(new TcpClient(ip_, port_));
    ASSERT_TRUE(peers.back()->Send(kGet));
  }
  const auto start = std::chrono::steady_clock::now();
  for (const auto& peer : peers) EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nx", peer->ReadToEnd());
  // One after the other they would take 40 s.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kPeers * 100));
}

// The pause before a close is made longer than peers wait for an end here.
TEST_F(StreamingPayloads, FinalHeadersCloseAtOnceWhileThePausesOfOthersHoldNoThread) {
  constexpr int kPausing = 30;
  constexpr int kClosing = 200;
  AnswerWithOnePayload("x");
  StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true);
  Serve();
  const vex_test::SlowerTime slower(3000);
  const LogCapture log;
  std::vector<std::unique_ptr<TcpClient>> pausing;
  for (int i = 1; i <= kPausing; ++i) {
    pausing.emplace_back(new TcpClient(ip_, port_));
    ASSERT_TRUE(pausing.back()->Send(kGet));
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nx", pausing.back()->ReadBytes(20));
    const std::string closing =
        "Closing Socket for session_id = [" + std::to_string(server_ + i) + "]";
    ASSERT_TRUE(WaitUntil([&] { return log.Count(closing) == 1; }));
  }
  host_.DoOnRequest([](const MediaHost::Request& request) {
    const ResHeaderInfo none = Response(204);
    EXPECT_EQ(0, SendHTTPResponse(request.server, request.session, &none, true));
  });
  std::vector<std::unique_ptr<TcpClient>> closing;
  for (int i = 0; i < kClosing; ++i) {
    closing.emplace_back(new TcpClient(ip_, port_));
    ASSERT_TRUE(closing.back()->Send(kGet));
  }
  for (const auto& peer : closing) {
    EXPECT_EQ("HTTP/1.1 204 No Content\r\n\r\n", peer->ReadBytes(27));
    ASSERT_TRUE(peer->PeerCloses());
  }
  for (const auto& peer : pausing) EXPECT_TRUE(peer->OpenAndSilent());
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

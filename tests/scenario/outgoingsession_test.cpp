#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/io_threads.h"
#include "base/limits.h"
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
using vex_test::AnswerAndClose;
using vex_test::AnswerRecorder;
using vex_test::AnswerWith;
using vex_test::HttpPeer;
using vex_test::LogCapture;
using vex_test::OkAnswer;
using vex_test::PeerConnection;
using vex_test::TakeBody;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
constexpr char kRequest[] = "GET /description.xml HTTP/1.1\r\nHost: device\r\n\r\n";

// What stands for a broken connection.
const std::string kMadeUpBody =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault>"
    "<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
    "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>501</errorCode>"
    "<errorDescription>Action Failed</errorDescription></UPnPError></detail></s:Fault></s:Body>"
    "</s:Envelope>";

class OutgoingSessionTest : public testing::Test {
 protected:
  int Send(const HttpPeer& peer, const std::string& request = kRequest) {
    return SendTo(peer.ip(), peer.port(), request);
  }
  int SendTo(const std::string& ip, int port, const std::string& request = kRequest) {
    int id = 0;
    EXPECT_EQ(result::kOk, SendTCPHTTPPacket(ip, port, request, 0, recorder_, id));
    EXPECT_GT(id, 0);
    return id;
  }
  bool Heard(int count = 1) {
    return WaitUntil([&] { return recorder_->count() == count; });
  }
  // After an exchange that is heard of, nothing of earlier ones is still on its way.
  void ExpectOnlyAsMany(int count) {
    const vex_test::FasterTime as_it_is(1);
    HttpPeer last(AnswerWith(OkAnswer("last")));
    Send(last);
    EXPECT_TRUE(Heard(count + 1));
  }
  // The exchange has ended on the library's side, and the requester hears nothing.
  void ExpectEndWithoutAnswer(const HttpPeer& peer, int finished = 1) {
    EXPECT_TRUE(WaitUntil([&] { return peer.finished() == finished; }));
    ExpectOnlyAsMany(0);
  }

  vex_test::NetworkRun run_;
  LogCapture log_;
  boost::shared_ptr<AnswerRecorder> recorder_ = AnswerRecorder::Make();
};

TEST_F(OutgoingSessionTest, ACompleteAnswerIsHeardOnceAndEndsTheConnection) {
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    request = connection.ReadRequest();
    connection.Send(OkAnswer("hello", "Server: test\r\n"));
    connection.AwaitEnd();
  });
  const std::string sent =
      "POST /control HTTP/1.1\r\nContent-Length: 4\r\nHost: " + peer.authority() + "\r\n\r\nbody";
  const int id = Send(peer, sent);
  ASSERT_TRUE(Heard());
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  EXPECT_EQ(sent, request);
  EXPECT_EQ(1, peer.connections());
  EXPECT_EQ(id, recorder_->session(0));

  const AnswerRecorder::Response response = recorder_->response(0);
  EXPECT_EQ(utils::MESSAGE_COMPLETE, response->GetState());
  EXPECT_EQ(200U, response->GetStatusCode());
  std::string text;
  response->GetHeaderValue("SERVER", text);
  EXPECT_EQ("test", text);
  EXPECT_EQ("hello", TakeBody(response));
  response->GetClientIpAddress(text);
  EXPECT_EQ("127.0.0.1", text);
  response->GetMyIpAddress(text);
  EXPECT_EQ("127.0.0.1", text);
  int port = 0;
  response->GetClientPort(port);
  EXPECT_EQ(peer.port(), port);
  ExpectOnlyAsMany(1);
}

TEST_F(OutgoingSessionTest, TheLocalAddressIsThatOfTheInterfaceTowardsThePeer) {
  HttpPeer peer(AnswerWith(OkAnswer("")), "10.77.1.1");
  Send(peer);
  ASSERT_TRUE(Heard());
  std::string text;
  recorder_->response(0)->GetMyIpAddress(text);
  EXPECT_EQ("10.77.1.1", text);
}

TEST_F(OutgoingSessionTest, IdsRiseFromRequestToRequest) {
  HttpPeer peer(AnswerWith(OkAnswer("")));
  const int first = Send(peer);
  EXPECT_EQ(first + 1, Send(peer));
  EXPECT_EQ(first + 2, Send(peer));
  EXPECT_TRUE(Heard(3));
}

TEST_F(OutgoingSessionTest, AnAnswerMayComeInAnyPieces) {
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "5;ext=1\r\nhello\r\n1\r\n \r\n10\r\nwonderful world!\r\n0\r\n\r\n";
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}}) {
    for (const std::string& answer : {OkAnswer("hello wonderful world!"), chunked}) {
      HttpPeer peer([&](PeerConnection& connection) {
        connection.ReadRequest();
        connection.SendInPieces(answer, piece, milliseconds(piece == 1 ? 1 : 0));
        connection.AwaitEnd();
      });
      recorder_ = AnswerRecorder::Make();
      Send(peer);
      ASSERT_TRUE(Heard());
      EXPECT_EQ(utils::MESSAGE_COMPLETE, recorder_->response(0)->GetState());
      EXPECT_EQ("hello wonderful world!", TakeBody(recorder_->response(0)));
    }
  }
}

TEST_F(OutgoingSessionTest, AFullBufferWithoutALineEndIsReadOn) {
  const std::string line = "X: " + std::string(3 * limits::kReceiveBuffer, 'x') + "\r\n";
  HttpPeer peer(AnswerWith(OkAnswer("hello", line)));
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ("hello", TakeBody(recorder_->response(0)));
}

TEST_F(OutgoingSessionTest, AnInterimAnswerIsDroppedAndTheFinalOneHeard) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 100 Continue\r\n\r\n");
    connection.AwaitRead();
    connection.Send("HTTP/1.1 103 Checkpoint\r\nLink: x\r\n\r\n");
    connection.AwaitRead();
    connection.Send(OkAnswer("final"));
    connection.AwaitEnd();
  });
  Send(peer);
  ASSERT_TRUE(Heard());
  const AnswerRecorder::Response response = recorder_->response(0);
  EXPECT_EQ(200U, response->GetStatusCode());
  EXPECT_EQ("final", TakeBody(response));
  std::string text;
  EXPECT_EQ(result::kFailure, response->GetHeaderValue("Link", text));
  int port = 0;
  response->GetClientPort(port);
  EXPECT_EQ(peer.port(), port);
}

TEST_F(OutgoingSessionTest, AnInterimAnswerCutInsideItsHeaderIsRecognisedWhenItIsComplete) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 100 Continue\r\nServer: te");
    connection.AwaitRead();
    connection.Send("st\r\n\r\n");
    connection.AwaitRead();
    connection.Send(OkAnswer("final"));
    connection.AwaitEnd();
  });
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ(200U, recorder_->response(0)->GetStatusCode());
  EXPECT_EQ("final", TakeBody(recorder_->response(0)));
}

TEST_F(OutgoingSessionTest, KeptAFinalAnswerBehindAnInterimOneInTheSameReadIsLost) {
  HttpPeer peer(AnswerAndClose("HTTP/1.1 100 Continue\r\n\r\n" + OkAnswer("final")));
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ(0U, recorder_->response(0)->GetStatusCode());
  EXPECT_EQ(utils::MESSAGE_INCOMPLETE, recorder_->response(0)->GetState());
}

TEST_F(OutgoingSessionTest, ABodyWithoutLengthEndsWithTheConnection) {
  HttpPeer peer(AnswerAndClose("HTTP/1.1 200 OK\r\nServer: test\r\n\r\nto the end"));
  const int id = Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ(
      1, log_.Count("EOF received from Peer -- Handle to UPnP for session " + std::to_string(id)));
  EXPECT_EQ(utils::MESSAGE_INCOMPLETE, recorder_->response(0)->GetState());
  EXPECT_EQ("to the end", TakeBody(recorder_->response(0)));
}

TEST_F(OutgoingSessionTest, WhatHadArrivedWhenThePeerClosedIsHeardCompleteOrNot) {
  struct Case {
    std::string answer;
    unsigned status;
    std::string body;
  };
  const Case cases[] = {
      {"", 0, ""},
      {"HTTP/1.1 2", 0, ""},
      {"HTTP/1.1 200 OK\r\nContent-Le", 200, ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", 200, "half"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nA\r\nhalf", 200, "half"},
  };
  for (const Case& given : cases) {
    recorder_ = AnswerRecorder::Make();
    HttpPeer peer(AnswerAndClose(given.answer));
    Send(peer);
    ASSERT_TRUE(Heard()) << given.answer;
    EXPECT_EQ(utils::MESSAGE_INCOMPLETE, recorder_->response(0)->GetState());
    EXPECT_EQ(given.status, recorder_->response(0)->GetStatusCode()) << given.answer;
    EXPECT_EQ(given.body, TakeBody(recorder_->response(0)));
  }
}

TEST_F(OutgoingSessionTest, APeerThatHasFinishedSendingIsDoneWith) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\n\r\nhalf closed");
    connection.FinishSending();
    connection.AwaitEnd();
  });
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ("half closed", TakeBody(recorder_->response(0)));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
}

TEST_F(OutgoingSessionTest, ABrokenConnectionIsHeardAsAMadeUpFault) {
  ASSERT_EQ(418U, kMadeUpBody.size());
  for (const std::string& begun : {std::string(), std::string("HTTP/1.1 200 OK\r\nX: y\r\n"),
                                   std::string("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nab")}) {
    recorder_ = AnswerRecorder::Make();
    HttpPeer peer([&](PeerConnection& connection) {
      connection.ReadRequest();
      connection.Send(begun);
      if (!begun.empty()) std::this_thread::sleep_for(milliseconds(30));
      connection.Reset();
    });
    const int id = Send(peer);
    ASSERT_TRUE(Heard());
    EXPECT_EQ(id, recorder_->session(0));
    const AnswerRecorder::Response response = recorder_->response(0);
    EXPECT_EQ(utils::MESSAGE_COMPLETE, response->GetState());
    EXPECT_EQ(500U, response->GetStatusCode());
    std::string header;
    response->GetHeader(header);
    EXPECT_EQ(
        "HTTP/1.0 500 Internal Server Error\r\n"
        "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
        "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\n"
        "CONTENT-LENGTH: 418\r\n\r\n",
        header);
    EXPECT_EQ(564U, header.size() + kMadeUpBody.size());
    EXPECT_EQ(kMadeUpBody, TakeBody(response));
  }
  EXPECT_EQ(3, log_.Count("CallbackRead: Connection reset by peer"));
  EXPECT_EQ(3, log_.Count("Received Response -- Handle to UPnP"));
}

TEST_F(OutgoingSessionTest, ARefusedConnectionIsNotHeardOf) {
  SendTo("127.0.0.1", vex_test::UnusedPort());
  EXPECT_TRUE(WaitUntil([&] { return log_.Count("Error Calling HandleFailureCondition") == 1; }));
  EXPECT_EQ(1, log_.Count("handle_connect exception: Connection refused"));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, BadHttpIsNotHeardOf) {
  const std::string bad[] = {"nonsense\r\n\r\n",
                             "HTTP/1.1 200\r\n\r\n",
                             "HTTP/1.1 abc OK\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n\r\n"};
  int number = 0;
  for (const std::string& answer : bad) {
    HttpPeer peer(AnswerWith(answer));
    Send(peer);
    EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; })) << answer;
    EXPECT_TRUE(WaitUntil([&] {
      return log_.Count("Error Calling HandleFailureCondition") == number + 1;
    })) << answer;
    ++number;
  }
  EXPECT_TRUE(
      log_.Holds("PARSER FAILURE for data HTTP/1.1 200\r\n\r\n and start line is "
                 "HTTP/1.1 200"));
  ExpectOnlyAsMany(0);
}

constexpr char kLineWithoutName[] = "HTTP/1.1 200 OK\r\na: b\r\n:x\r\n\r\n";

TEST_F(OutgoingSessionTest, RegressionAHeaderThatCannotEndIsNotHeardOf) {
  HttpPeer peer(AnswerWith(kLineWithoutName + std::string(3 * limits::kReceiveBuffer, 'x')));
  Send(peer);
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  EXPECT_EQ(1, log_.Count("StoreHeader failed!"));
  EXPECT_EQ(1, log_.Count("Error Calling HandleFailureCondition"));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, KeptAHeaderThatCannotEndIsHeardWhenThePeerCloses) {
  HttpPeer peer(vex_test::AnswerAndClose(kLineWithoutName));
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ(utils::HEADER_START_LINE, recorder_->response(0)->GetStatus());
  EXPECT_EQ(kLineWithoutName, TakeBody(recorder_->response(0)));
}

TEST_F(OutgoingSessionTest, ASilentPeerIsLeftAfterThirtySecondsAndNothingIsHeard) {
  vex_test::FasterTime faster(200);
  HttpPeer peer(vex_test::StaySilent());
  const auto begin = std::chrono::steady_clock::now();
  const int id = Send(peer);
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(150));
  EXPECT_EQ(1, log_.Count("TimeoutClose handler_id_ = " + std::to_string(id) + ", error = 0 "));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, ATricklingAnswerIsCutOffByTheSameTime) {
  vex_test::FasterTime faster(30);
  std::atomic<int> pieces{0};
  HttpPeer peer([&](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n");
    while (connection.Send("x")) {
      ++pieces;
      std::this_thread::sleep_for(milliseconds(10));
    }
  });
  const int id = Send(peer);
  ExpectEndWithoutAnswer(peer);
  EXPECT_GT(pieces, 3);
  EXPECT_EQ(1, log_.Count("TimeoutClose handler_id_ = " + std::to_string(id) + ", error = 0 "));
}

TEST_F(OutgoingSessionTest, AnExchangeThatHasEndedLeavesNoTimeOutBehind) {
  vex_test::FasterTime faster(30);
  HttpPeer peer(AnswerWith(OkAnswer("quick")));
  for (int i = 0; i < 5; ++i) Send(peer);
  ASSERT_TRUE(Heard(5));
  // A later one that does expire shows that the time of the others has passed.
  HttpPeer silent(vex_test::StaySilent());
  Send(silent);
  EXPECT_TRUE(WaitUntil([&] { return silent.finished() == 1; }));
  EXPECT_EQ(1, log_.Count("Error Calling HandleFailureCondition"));
}

TEST_F(OutgoingSessionTest, ATimeOutAndAnAnswerAtOnceAreReportedOnce) {
  vex_test::FasterTime faster(3000);
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    std::this_thread::sleep_for(milliseconds(10));
    connection.Send(OkAnswer("late"));
    connection.AwaitEnd();
  });
  constexpr int kExchanges = 60;
  for (int i = 0; i < kExchanges; ++i) Send(peer);
  EXPECT_TRUE(WaitUntil([&] {
    return recorder_->count() + log_.Count("Error Calling HandleFailureCondition") == kExchanges;
  }));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == kExchanges; }));
}

TEST_F(OutgoingSessionTest, ALargeRequestIsWrittenWhole) {
  const std::string body(6 * 1024 * 1024, 'r');
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    request = connection.ReadRequest();
    connection.Send(OkAnswer("taken"));
    connection.AwaitEnd();
  });
  const std::string sent =
      "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  Send(peer, sent);
  ASSERT_TRUE(Heard());
  EXPECT_TRUE(sent == request);
}

TEST_F(OutgoingSessionTest, AFailedWriteIsNotHeardOf) {
  HttpPeer peer([](PeerConnection& connection) {
    std::this_thread::sleep_for(milliseconds(30));
    connection.Reset();
  });
  Send(peer, "POST / HTTP/1.1\r\n\r\n" + std::string(16 * 1024 * 1024, 'r'));
  EXPECT_TRUE(WaitUntil([&] { return log_.Count("Error Calling HandleFailureCondition") == 1; }));
  EXPECT_EQ(
      1, log_.Count("Exception: Connection reset by peer") + log_.Count("Exception: Broken pipe"));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, AnAnswerBeforeTheRequestIsHeard) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.Send(OkAnswer("early"));
    connection.ReadRequest();
    connection.AwaitEnd();
  });
  Send(peer);
  ASSERT_TRUE(Heard());
  EXPECT_EQ("early", TakeBody(recorder_->response(0)));
}

TEST_F(OutgoingSessionTest, HeaderAndBodyAreTakenUpToTheirBoundsAndNoFurther) {
  const auto header_of = [](std::size_t size) {
    const std::string frame = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX: \r\n\r\n";
    std::string header = frame;
    return header.insert(header.size() - 4, std::string(size - frame.size(), 'x')) + "ok";
  };
  const auto lines_of = [](std::size_t count, const std::string& line = "a: b\r\n") {
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\na: b\r\n";
    for (std::size_t i = 2; i < count; ++i) answer += line;
    return answer + "\r\nok";
  };
  const std::string full(limits::kControlBody, 'b');
  const std::string fitting[] = {header_of(limits::kHttpHeaderBytes),
                                 lines_of(limits::kHttpHeaderLines),
                                 lines_of(limits::kHttpHeaderLines, "x\r\n"), OkAnswer(full)};
  for (const std::string& answer : fitting) {
    recorder_ = AnswerRecorder::Make();
    HttpPeer peer(AnswerWith(answer));
    Send(peer);
    ASSERT_TRUE(Heard());
    EXPECT_EQ(utils::MESSAGE_COMPLETE, recorder_->response(0)->GetState());
  }
  recorder_ = AnswerRecorder::Make();
  const std::string past[] = {header_of(limits::kHttpHeaderBytes + 1),
                              lines_of(limits::kHttpHeaderLines + 1),
                              lines_of(limits::kHttpHeaderLines + 1, "x\r\n"), OkAnswer(full + "b"),
                              "HTTP/1.1 200 OK\r\n\r\n" + full + "b"};
  for (const std::string& answer : past) {
    HttpPeer peer(AnswerWith(answer));
    Send(peer);
    EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  }
  EXPECT_EQ(5, log_.Count("Error Calling HandleFailureCondition"));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, AnswersWithoutEndAreCutOff) {
  const auto endless = [](const std::string& begin, const std::string& piece) {
    return [begin, piece](PeerConnection& connection) {
      connection.ReadRequest();
      connection.Send(begin);
      std::string block;
      while (block.size() < 60000) block += piece;
      while (connection.Send(block)) {
      }
    };
  };
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const HttpPeer::Script scripts[] = {
      endless("", "x"),
      endless(ok, "a: b\r\n"),
      endless(ok + "X: ", "x"),
      endless(ok + "\r\n", "body"),
      endless(ok + "Content-Length: -1\r\n\r\n", "body"),
      endless(ok + "Transfer-Encoding: chunked\r\n\r\n", "1\r\nx\r\n"),
      endless(ok + "Transfer-Encoding: chunked\r\n\r\n5;", "x"),
  };
  for (const HttpPeer::Script& script : scripts) {
    HttpPeer peer(script);
    Send(peer);
    // Megabytes in pieces of a byte take their time under a sanitizer.
    EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }, std::chrono::seconds(100)));
  }
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, InterimAnswersWithoutEndAreCutOffByTime) {
  vex_test::FasterTime faster(300);
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    while (connection.Send("HTTP/1.1 100 Continue\r\n\r\n")) {
    }
  });
  Send(peer);
  ExpectEndWithoutAnswer(peer);
}

TEST_F(OutgoingSessionTest, CancellingWhileReadingIsSilent) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf");
    connection.AwaitEnd();
  });
  const int id = Send(peer);
  EXPECT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
  EXPECT_EQ(result::kOk, CancelTCPHTTPPacket(id));
  ExpectEndWithoutAnswer(peer);
  // The peer may see the end before the session's own handler has.
  EXPECT_TRUE(WaitUntil([&] { return CancelTCPHTTPPacket(id) == result::kFailure; }));
}

TEST_F(OutgoingSessionTest, CancellingWhileWritingIsSilent) {
  HttpPeer peer([](PeerConnection& connection) {
    // Takes nothing until the other side has ended.
    std::this_thread::sleep_for(milliseconds(50));
    connection.AwaitEnd();
  });
  const int id = Send(peer, "POST / HTTP/1.1\r\n\r\n" + std::string(16 * 1024 * 1024, 'r'));
  EXPECT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
  EXPECT_EQ(result::kOk, CancelTCPHTTPPacket(id));
  ExpectEndWithoutAnswer(peer);
}

TEST_F(OutgoingSessionTest, ASlowReaderGetsALargeRequestWhole) {
  const std::string body(4 * 1024 * 1024, 'r');
  std::atomic<bool> may_read{false};
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    EXPECT_TRUE(WaitUntil([&] { return may_read.load(); }));
    request = connection.ReadRequest();
    connection.Send(OkAnswer("taken"));
    connection.AwaitEnd();
  });
  const std::string sent =
      "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  Send(peer, sent);
  EXPECT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
  // What has room is under way, and everybody else is served meanwhile.
  ExpectOnlyAsMany(0);
  may_read = true;
  ASSERT_TRUE(Heard(2));
  EXPECT_TRUE(sent == request);
}

// The writes of a large request go on while another thread closes its socket.
TEST_F(OutgoingSessionTest, CancellingAtAnyMomentOfALargeWriteIsSilentAndLeavesNothing) {
  HttpPeer peer([](PeerConnection& connection) { connection.AwaitEnd(); });
  const int descriptors = vex_test::DescriptorCount();
  const std::string request = "POST / HTTP/1.1\r\n\r\n" + std::string(8 * 1024 * 1024, 'r');
  constexpr int kRequests = 60;
  for (int i = 0; i < kRequests; ++i) {
    const int id = Send(peer, request);
    std::this_thread::sleep_for(std::chrono::microseconds((i % 30) * 100));
    EXPECT_EQ(result::kOk, CancelTCPHTTPPacket(id));
  }
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == peer.connections(); }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, CancellingWhileConnectingIsSilent) {
  // Somebody who never answers.
  vex_test::Ip("neigh replace 10.77.0.99 lladdr 02:00:00:00:00:99 dev lan0 nud permanent");
  const int id = SendTo("10.77.0.99", 80);
  EXPECT_EQ(result::kOk, CancelTCPHTTPPacket(id));
  EXPECT_TRUE(WaitUntil([&] { return CancelTCPHTTPPacket(id) == result::kFailure; }));
  EXPECT_EQ(1, log_.Count("handle_connect exception: Operation canceled"));
  ExpectOnlyAsMany(0);
  vex_test::Ip("neigh del 10.77.0.99 dev lan0");
}

TEST_F(OutgoingSessionTest, CancellingAtAnyMomentIsSilentAndLeavesNothing) {
  HttpPeer peer(AnswerWith(OkAnswer("hello")));
  const int descriptors = vex_test::DescriptorCount();
  std::vector<int> ids;
  for (int i = 0; i < 300; ++i) {
    const int id = Send(peer);
    ids.push_back(id);
    std::this_thread::sleep_for(std::chrono::microseconds((i % 30) * 10));
    const int heard = recorder_->count(id);
    CancelTCPHTTPPacket(id);
    // A call that had begun may end, another does not come.
    EXPECT_LE(recorder_->count(id), 1);
    EXPECT_GE(recorder_->count(id), heard);
  }
  const int last = Send(peer);
  EXPECT_TRUE(WaitUntil([&] { return recorder_->count(last) == 1; }));
  for (const int id : ids) EXPECT_LE(recorder_->count(id), 1) << id;
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == peer.connections(); }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
}

TEST_F(OutgoingSessionTest, CancellingWhatIsNotThereFailsAndTouchesNothing) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    std::this_thread::sleep_for(milliseconds(50));
    connection.Send(OkAnswer("hello"));
    connection.AwaitEnd();
  });
  Send(peer);
  EXPECT_EQ(result::kFailure, CancelTCPHTTPPacket(0));
  EXPECT_EQ(result::kFailure, CancelTCPHTTPPacket(-5));
  EXPECT_EQ(result::kFailure, CancelTCPHTTPPacket(1000000));
  EXPECT_TRUE(Heard());
}

TEST_F(OutgoingSessionTest, AListenerMaySendAndCancelFromInside) {
  class Chain : public ResponseListener {
   public:
    explicit Chain(const HttpPeer& peer) : peer_(peer) {}
    void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo>, const int& id) override {
      CancelTCPHTTPPacket(id);
      if (++rounds_ == 20) return;
      int next = 0;
      SendTCPHTTPPacket(peer_.ip(), peer_.port(), kRequest, 0, self_.lock(), next);
    }
    const HttpPeer& peer_;
    boost::weak_ptr<ResponseListener> self_;
    std::atomic<int> rounds_{0};
  };
  HttpPeer peer(AnswerWith(OkAnswer("x")));
  const auto chain = boost::make_shared<Chain>(peer);
  chain->self_ = chain;
  int id = 0;
  SendTCPHTTPPacket(peer.ip(), peer.port(), kRequest, 0, chain, id);
  EXPECT_TRUE(WaitUntil([&] { return chain->rounds_ == 20; }));
}

TEST_F(OutgoingSessionTest, APortThatIsNoneFailsAtOnce) {
  for (const int port : {-1, 65536, 1 << 30}) {
    int id = 0;
    EXPECT_EQ(result::kConnectFailed,
              SendTCPHTTPPacket("127.0.0.1", port, kRequest, 0, recorder_, id));
    EXPECT_GT(id, 0);
  }
  EXPECT_EQ(3, log_.Count("port number is not valid"));
  EXPECT_EQ(3, log_.Count(16, kTag, "TCP Unicasting failed!"));
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, AHostThatDoesNotResolveFailsAtOnce) {
  for (const char* host : {"", "no such host", "256.1.1.1", "1.2.3.4.5", "::1"}) {
    int id = 0;
    EXPECT_EQ(result::kConnectFailed, SendTCPHTTPPacket(host, 80, kRequest, 0, recorder_, id))
        << host;
  }
  ExpectOnlyAsMany(0);
}

TEST_F(OutgoingSessionTest, WithoutADescriptorTheRequestFailsAtOnce) {
  const vex_test::ScopedDescriptorLimit none_left(0);
  int id = 0;
  EXPECT_EQ(result::kConnectFailed, SendTCPHTTPPacket("127.0.0.1", 80, kRequest, 0, recorder_, id));
  EXPECT_EQ(1, log_.Count("Exception: open: Too many open files"));
}

TEST_F(OutgoingSessionTest, TheNextAddressOfANameIsTriedWhenOneRefuses) {
  const vex_test::ScopedHosts hosts("127.0.0.9 twofold\n10.77.0.1 twofold\n");
  HttpPeer peer(AnswerWith(OkAnswer("second")), "10.77.0.1");
  SendTo("twofold", peer.port());
  ASSERT_TRUE(Heard());
  EXPECT_EQ("second", TakeBody(recorder_->response(0)));
  std::string text;
  recorder_->response(0)->GetClientIpAddress(text);
  EXPECT_EQ("10.77.0.1", text);
}

TEST_F(OutgoingSessionTest, OnALibraryThreadANameIsResolvedWithoutWaiting) {
  const vex_test::ScopedHosts hosts("10.77.0.1 device\n");
  HttpPeer peer(AnswerWith(OkAnswer("named")), "10.77.0.1");
  int good_id = 0;
  int bad_id = 0;
  int good = -1;
  int bad = -1;
  std::unique_ptr<boost::thread> thread(StartNamedThread("tst-callback", [&] {
    good = SendTCPHTTPPacket("device", peer.port(), kRequest, 0, recorder_, good_id);
    // The failure shows later, as the failure of a connection does.
    bad = SendTCPHTTPPacket("no-such-device", peer.port(), kRequest, 0, recorder_, bad_id);
  }));
  thread->join();
  EXPECT_EQ(result::kOk, good);
  EXPECT_EQ(result::kOk, bad);
  ASSERT_TRUE(Heard());
  EXPECT_EQ(good_id, recorder_->session(0));
  EXPECT_EQ("named", TakeBody(recorder_->response(0)));
  EXPECT_TRUE(WaitUntil([&] { return log_.Count("Error Calling HandleFailureCondition") == 1; }));
  EXPECT_TRUE(WaitUntil([&] { return CancelTCPHTTPPacket(bad_id) == result::kFailure; }));
}

TEST_F(OutgoingSessionTest, ADescriptorAbove449IsWarnedOf) {
  std::vector<int> taken;
  while (taken.empty() || taken.back() <= 449) {
    taken.push_back(::dup(0));
    ASSERT_GE(taken.back(), 0);
  }
  HttpPeer peer(AnswerWith(OkAnswer("hello")));
  const int id = Send(peer);
  EXPECT_TRUE(Heard());
  EXPECT_TRUE(log_.Holds("Warning! too many sockets[id:" + std::to_string(id) + "][fd:"));
  for (const int fd : taken) ::close(fd);
}

TEST_F(OutgoingSessionTest, ManyExchangesAtOnceAreAllHeard) {
  HttpPeer peer(AnswerWith(OkAnswer("hello")));
  constexpr int kExchanges = 200;
  for (int i = 0; i < kExchanges; ++i) Send(peer);
  EXPECT_TRUE(Heard(kExchanges));
  for (std::size_t i = 0; i < kExchanges; ++i) {
    EXPECT_EQ(1, recorder_->count(recorder_->session(i)));
    EXPECT_EQ("hello", TakeBody(recorder_->response(i)));
  }
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

// Requests that block their caller.

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/limits.h"
#include "tests/support/answer_recorder.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/private_network.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using std::chrono::milliseconds;
using vex_test::AnswerAndClose;
using vex_test::AnswerWith;
using vex_test::HttpPeer;
using vex_test::LogCapture;
using vex_test::OkAnswer;
using vex_test::PeerConnection;
using vex_test::TakeBody;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
constexpr char kRequest[] = "GET / HTTP/1.1\r\n\r\n";
// Long enough for whatever is expected to end by itself.
constexpr int kLongMs = 20000;

class OutgoingSyncTest : public testing::Test {
 protected:
  int Send(const HttpPeer& peer, int timeout_ms, const std::string& request = kRequest) {
    return SendTo(peer.ip(), peer.port(), timeout_ms, request);
  }
  int SendTo(const std::string& ip, int port, int timeout_ms,
             const std::string& request = kRequest) {
    response_ = boost::make_shared<utils::HTTPInfo>();
    const auto begin = std::chrono::steady_clock::now();
    const int outcome = SendSyncTCPPacket(ip, port, request, 0, response_, timeout_ms);
    elapsed_ = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin);
    return outcome;
  }

  vex_test::NetworkRun run_;
  LogCapture log_;
  boost::shared_ptr<utils::HTTPInfo> response_;
  milliseconds elapsed_{0};
};

TEST_F(OutgoingSyncTest, ItEndsWhenThePeerCloses) {
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    request = connection.ReadRequest();
    connection.Send(OkAnswer("hello"));
  });
  EXPECT_EQ(result::kOk, Send(peer, kLongMs));
  EXPECT_EQ(kRequest, request);
  EXPECT_EQ(1, log_.Count("asio connect success"));
  EXPECT_EQ(200U, response_->GetStatusCode());
  EXPECT_EQ(utils::MESSAGE_COMPLETE, response_->GetState());
  EXPECT_EQ("hello", TakeBody(response_));
  EXPECT_EQ(0, log_.Count("sync request timed out!"));
}

TEST_F(OutgoingSyncTest, KeptACompleteAnswerIsWaitedBeyondUntilTheTimeIsUp) {
  HttpPeer peer(AnswerWith(OkAnswer("hello")));
  EXPECT_EQ(result::kSocketFailed, Send(peer, 1000));
  EXPECT_GE(elapsed_, milliseconds(900));
  EXPECT_EQ(1, log_.Count("sync request timed out!"));
  EXPECT_EQ(1, log_.Count(16, kTag, "Failed to read sync tcp response"));
  EXPECT_EQ("hello", TakeBody(response_));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
}

TEST_F(OutgoingSyncTest, ASilentPeerIsLeftWhenTheTimeIsUp) {
  HttpPeer peer(vex_test::StaySilent());
  EXPECT_EQ(result::kSocketFailed, Send(peer, 500));
  EXPECT_EQ(utils::MESSAGE_INCOMPLETE, response_->GetState());
}

TEST_F(OutgoingSyncTest, ATimeOutEndsAConnectionAttempt) {
  vex_test::Ip("neigh replace 10.77.0.99 lladdr 02:00:00:00:00:99 dev lan0 nud permanent");
  EXPECT_EQ(result::kConnectFailed, SendTo("10.77.0.99", 80, 50));
  EXPECT_LT(elapsed_, milliseconds(10000));
  EXPECT_EQ(1, log_.Count(16, kTag, "network layer connect failed."));
  vex_test::Ip("neigh del 10.77.0.99 dev lan0");
}

TEST_F(OutgoingSyncTest, ATimeOutEndsABlockedWrite) {
  std::promise<void> done;
  HttpPeer peer([&](PeerConnection& connection) {
    done.get_future().wait();
    connection.AwaitEnd();
  });
  EXPECT_EQ(result::kSocketFailed,
            Send(peer, 500, "POST / HTTP/1.1\r\n\r\n" + std::string(32 * 1024 * 1024, 'x')));
  EXPECT_EQ(1, log_.Count("Exception:Broken pipe"));
  done.set_value();
}

TEST_F(OutgoingSyncTest, ARefusedConnectionFails) {
  EXPECT_EQ(result::kConnectFailed, SendTo("127.0.0.1", vex_test::UnusedPort(), kLongMs));
  EXPECT_EQ(1, log_.Count(16, kTag, "network layer connect failed."));
}

TEST_F(OutgoingSyncTest, ABadPortOrHostFails) {
  EXPECT_EQ(result::kConnectFailed, SendTo("127.0.0.1", 65536, kLongMs));
  EXPECT_EQ(1, log_.Count(16, kTag, "Invalid port number"));
  EXPECT_EQ(result::kConnectFailed, SendTo("no such host", 80, kLongMs));
  EXPECT_TRUE(log_.Holds("Exception: resolve: "));
}

TEST_F(OutgoingSyncTest, TheNextAddressOfANameIsTriedWhenOneRefuses) {
  const vex_test::ScopedHosts hosts("127.0.0.9 twofold\n10.77.0.1 twofold\n");
  HttpPeer peer(AnswerAndClose(OkAnswer("second")), "10.77.0.1");
  EXPECT_EQ(result::kOk, SendTo("twofold", peer.port(), kLongMs));
  EXPECT_EQ(1, log_.Count("asio closing already opened socket."));
  EXPECT_EQ("second", TakeBody(response_));
}

TEST_F(OutgoingSyncTest, BadHttpFails) {
  HttpPeer peer(AnswerWith("nonsense\r\n\r\n"));
  EXPECT_EQ(result::kBadHttp, Send(peer, kLongMs));
  EXPECT_EQ(1, log_.Count(16, kTag, "HTTP Parsing failed"));
}

TEST_F(OutgoingSyncTest, AResetFails) {
  HttpPeer peer([](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Reset();
  });
  EXPECT_EQ(result::kSocketFailed, Send(peer, kLongMs));
  EXPECT_EQ(1, log_.Count(16, kTag, "Failed to read sync tcp response"));
}

TEST_F(OutgoingSyncTest, AnEndWithoutAnAnswerIsNoFailure) {
  HttpPeer peer(AnswerAndClose(""));
  EXPECT_EQ(result::kOk, Send(peer, kLongMs));
  EXPECT_EQ(0U, response_->GetStatusCode());
}

// Sends each piece for a read of its own, and closes.
HttpPeer::Script AnswerInReads(const std::vector<std::string>& pieces) {
  return [pieces](PeerConnection& connection) {
    connection.ReadRequest();
    for (const std::string& piece : pieces) {
      connection.Send(piece);
      connection.AwaitRead();
    }
  };
}

TEST_F(OutgoingSyncTest, KeptABodyBehindAHeaderThatCameInTwoReadsIsNotStored) {
  const std::string rest = std::string(96, '.') + "kept";
  HttpPeer peer(AnswerInReads({"HTTP/1.1 200 OK\r\nContent-", "Length: 104\r\n\r\nlost", rest}));
  EXPECT_EQ(result::kOk, Send(peer, kLongMs));
  EXPECT_EQ(200U, response_->GetStatusCode());
  EXPECT_EQ(utils::MESSAGE_INCOMPLETE, response_->GetState());
  EXPECT_EQ(rest, TakeBody(response_));
}

TEST_F(OutgoingSyncTest, RegressionAReadBehindALongerOneThatEndedTheHeaderIsReadWithinItsBounds) {
  struct Answer {
    std::vector<std::string> reads;
    std::string body;
  };
  const Answer answers[] = {
      {{"HTTP/1.1 200 OK\r\nContent-", "Length: 1000000\r\n\r\nx", "y"}, "y"},
      {{"HTTP/1.1 200 OK\r\nSer", "ver: as long as may be\r\n\r\nx", "y"}, "y"},
      // A size line that the third read begins.
      {{"HTTP/1.1 200 OK\r\nTransfer-", "Encoding: chunked\r\n\r\n5\r\nhe", "5"}, ""},
      // The last chunk, which is the third read's alone.
      {{"HTTP/1.1 200 OK\r\nTransfer-", "Encoding: chunked\r\n\r\n", "0\r\n"}, ""},
  };
  for (const Answer& answer : answers) {
    HttpPeer peer(AnswerInReads(answer.reads));
    EXPECT_EQ(result::kOk, Send(peer, kLongMs)) << answer.reads[1];
    EXPECT_EQ(utils::HEADER_COMPLETE, response_->GetStatus());
    EXPECT_EQ(utils::MESSAGE_INCOMPLETE, response_->GetState());
    EXPECT_EQ(answer.body, TakeBody(response_));
  }
}

TEST_F(OutgoingSyncTest, RegressionAStatusLineMayComeInTwoReads) {
  // The header is done with the read behind the one that ended it; what that read holds is lost.
  HttpPeer peer(AnswerInReads(
      {"HTTP/1.1 200", " OK\r\nContent-Length: 104\r\n\r\nbody", "lost", std::string(96, '.')}));
  EXPECT_EQ(result::kOk, Send(peer, kLongMs));
  EXPECT_EQ(200U, response_->GetStatusCode());
  EXPECT_EQ(utils::HEADER_COMPLETE, response_->GetStatus());
  EXPECT_EQ(104U, response_->GetContentLength());
  EXPECT_EQ(std::string(96, '.'), TakeBody(response_));

  HttpPeer without_body(AnswerInReads({"HTTP/1.1 200", " OK\r\nContent-Length: 0\r\n\r\n", "x"}));
  EXPECT_EQ(result::kOk, Send(without_body, kLongMs));
  EXPECT_EQ(utils::MESSAGE_COMPLETE, response_->GetState());
}

TEST_F(OutgoingSyncTest, RegressionAHeaderThatCannotEndFailsWhenMoreOfItComes) {
  const std::string bad = "HTTP/1.1 200 OK\r\na: b\r\n:x\r\n\r\n";
  HttpPeer going_on(AnswerWith(bad + std::string(3 * limits::kReceiveBuffer, 'x')));
  EXPECT_EQ(result::kBadHttp, Send(going_on, kLongMs));
  EXPECT_EQ(1, log_.Count("StoreHeader failed!"));
  EXPECT_EQ(1, log_.Count(16, kTag, "HTTP Parsing failed"));
  HttpPeer closing(AnswerAndClose(bad));
  EXPECT_EQ(result::kOk, Send(closing, kLongMs));
  EXPECT_EQ(utils::HEADER_START_LINE, response_->GetStatus());
}

TEST_F(OutgoingSyncTest, AnAnswerBeyondItsBoundsFails) {
  HttpPeer fitting(AnswerAndClose(OkAnswer(std::string(limits::kControlBody, 'b'))));
  EXPECT_EQ(result::kOk, Send(fitting, kLongMs));
  HttpPeer body(AnswerWith(OkAnswer(std::string(limits::kControlBody + 1, 'b'))));
  EXPECT_EQ(result::kBadHttp, Send(body, kLongMs));
  HttpPeer header(AnswerWith(
      "HTTP/1.1 200 OK\r\nX: " + std::string(limits::kHttpHeaderBytes + 8192, 'x') + "\r\n\r\n"));
  EXPECT_EQ(result::kBadHttp, Send(header, kLongMs));
}

TEST_F(OutgoingSyncTest, WithoutAMessageToFillItFails) {
  HttpPeer peer(AnswerWith(OkAnswer("hello")));
  boost::shared_ptr<utils::HTTPInfo> none;
  EXPECT_EQ(result::kBadHttp,
            SendSyncTCPPacket(peer.ip(), peer.port(), kRequest, 0, none, kLongMs));
}

TEST_F(OutgoingSyncTest, StoppingTheLayerEndsIt) {
  // Before it has been sent, a stop ends the connect.
  std::atomic<bool> asked{false};
  HttpPeer peer([&](PeerConnection& connection) {
    connection.ReadRequest();
    asked = true;
    connection.AwaitEnd();
  });
  std::future<int> outcome = std::async(std::launch::async, [&] { return Send(peer, kLongMs); });
  EXPECT_TRUE(WaitUntil([&] { return asked.load(); }));
  StopNetworkLayer();
  EXPECT_EQ(result::kSocketFailed, outcome.get());
  EXPECT_LT(elapsed_, milliseconds(15000));
}

TEST_F(OutgoingSyncTest, ItLeavesNoDescriptor) {
  HttpPeer closing(AnswerAndClose(OkAnswer("hello")));
  HttpPeer silent(vex_test::StaySilent());
  Send(closing, kLongMs);
  const auto connections_of = [&] { return closing.finished() + silent.finished(); };
  EXPECT_TRUE(WaitUntil([&] { return connections_of() == 1; }));
  const int descriptors = vex_test::DescriptorCount();
  for (int i = 0; i < 5; ++i) {
    Send(closing, kLongMs);
    Send(silent, 10);
    SendTo("127.0.0.1", 1, kLongMs);
  }
  // The peers' ends count as well. A caller that is held up may have no time left to connect.
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
  EXPECT_GE(connections_of(), 6);
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

// What hosts do before a connection stands, and connections that come too late.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/fail_calls.h"
#include "tests/support/full_listener.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/name_server.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FullListener;
using vex_test::HttpPeer;
using vex_test::LogCapture;
using vex_test::MediaClient;
using vex_test::MediaHost;
using vex_test::MediaRequest;
using vex_test::PeerConnection;
using vex_test::TcpClient;
using vex_test::WaitUntil;

// The pool has one thread, which a callback of a server keeps for as long as the test says.
class StreamingConnecting : public vex_test::ServingTest {
 protected:
  void SetUp() override {
    host_.DoOnRequest([this](const MediaHost::Request&) {
      held_ = true;
      released_.wait();
    });
    ASSERT_EQ(result::kOk, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
    Serve();
  }
  void TearDown() override {
    Release();
    ServingTest::TearDown();
  }
  void HoldThePool() {
    holder_.reset(new TcpClient(ip_, port_));
    ASSERT_TRUE(holder_->Send("GET / HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(WaitUntil([&] { return held_.load(); }));
  }
  void Release() {
    if (!is_released_) release_.set_value();
    is_released_ = true;
  }
  static int Start(const std::string& ip, int port) {
    int id = 0;
    EXPECT_EQ(0, StartClient(MediaClient::callbacks(), ip.c_str(), port, &id));
    return id;
  }
  static void Get(int id) {
    const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, "/early");
    EXPECT_EQ(0, SendHTTPRequest(id, &request));
  }
  static std::string NotFound(int id) { return "Client " + std::to_string(id) + " not found"; }

  MediaClient client_;

 private:
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
  std::atomic<bool> held_{false};
  bool is_released_ = false;
  std::unique_ptr<TcpClient> holder_;
};

TEST_F(StreamingConnecting, ARequestBeforeTheConnectionGoesOutWithIt) {
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    request = connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    connection.AwaitEnd();
  });
  HoldThePool();
  const LogCapture log;
  const int id = Start(peer.ip(), peer.port());
  Get(id);
  EXPECT_EQ(0, peer.connections());
  EXPECT_TRUE(client_.Events().empty());
  Release();
  const std::string answer = "response 100 " + std::to_string(id) + " 200 0 final";
  ASSERT_TRUE(client_.Await(answer));
  ASSERT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  EXPECT_EQ("GET /early HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", request);
  EXPECT_EQ(std::vector<std::string>{answer}, client_.Events());
  // Only a request that finds the connection is logged.
  EXPECT_FALSE(log.Holds("Sending Request"));
}

TEST_F(StreamingConnecting, AStopBeforeTheConnectionIsTheEnd) {
  HttpPeer never(vex_test::StaySilent());
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  HoldThePool();
  const int stopped = Start(never.ip(), never.port());
  Get(stopped);
  const int other = Start(peer.ip(), peer.port());
  Get(other);
  EXPECT_EQ(0, StopClientTransfer(stopped));
  Release();
  // The one thread has come to the other behind it.
  const std::string answer = "response 100 " + std::to_string(other) + " 200 0 final";
  ASSERT_TRUE(client_.Await(answer));
  EXPECT_EQ(std::vector<std::string>{answer}, client_.Events());
  EXPECT_EQ(0, never.connections());
  const LogCapture log;
  EXPECT_EQ(0, StopClientTransfer(stopped));
  EXPECT_EQ(1, log.Count("No client found!!"));
}

TEST_F(StreamingConnecting, AStopOfAConnectThatWaitsCallsNothingBack) {
  const FullListener full;
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  const LogCapture log;
  const int id = Start("127.0.0.1", full.port());
  Get(id);
  // The one thread has begun to connect it when it comes to the other.
  const int other = Start(peer.ip(), peer.port());
  Get(other);
  const std::string answer = "response 100 " + std::to_string(other) + " 200 0 final";
  ASSERT_TRUE(client_.Await(answer));
  EXPECT_EQ(0, log.Count(NotFound(id)));
  EXPECT_EQ(0, StopClientTransfer(id));
  ASSERT_TRUE(WaitUntil([&] { return log.Count(NotFound(id)) == 1; }));
  EXPECT_FALSE(log.Holds("Error: "));
  EXPECT_EQ(std::vector<std::string>{answer}, client_.Events());
}

TEST_F(StreamingConnecting, RegressionANameWithASecondAddressIsReachedThere) {
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  const vex_test::NameServer name("media.test", {"127.0.0.2", "127.0.0.3", "127.0.0.1"});
  const LogCapture log;
  const int id = Start("media.test", peer.port());
  Get(id);
  const std::string answer = "response 100 " + std::to_string(id) + " 200 0 final";
  ASSERT_TRUE(client_.Await(answer));
  EXPECT_EQ(std::vector<std::string>{answer}, client_.Events());
  EXPECT_FALSE(log.Holds("Error"));
}

TEST_F(StreamingConnecting, ANameWhoseAddressesAllRefuseIsOneStatus4) {
  const int port = vex_test::UnusedPort();
  const vex_test::NameServer name("media.test", {"127.0.0.2", "127.0.0.1"});
  const LogCapture log;
  // Both addresses refuse at once: the request is to be there by then.
  HoldThePool();
  const int id = Start("media.test", port);
  Get(id);
  Release();
  ASSERT_TRUE(client_.Await("status 100 " + std::to_string(id) + " 4"));
  EXPECT_EQ(1U, client_.Events().size());
  EXPECT_EQ(1, log.Count("Error: Connection refused"));
}

TEST_F(StreamingConnecting, AStopWhileTheSecondAddressIsTriedCallsNothingBack) {
  const FullListener full;
  const vex_test::NameServer name("media.test", {"127.0.0.2", "127.0.0.1"});
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  const LogCapture log;
  const int id = Start("media.test", full.port());
  // The one thread comes to the others behind it: once for each address.
  for (int i = 0; i < 2; ++i) {
    const int other = Start(peer.ip(), peer.port());
    Get(other);
    ASSERT_TRUE(client_.Await("response 100 " + std::to_string(other) + " 200 0 final"));
  }
  EXPECT_EQ(0, StopClientTransfer(id));
  ASSERT_TRUE(WaitUntil([&] { return log.Count(NotFound(id)) == 1; }));
  EXPECT_FALSE(log.Holds("Error: "));
  EXPECT_EQ(2U, client_.Events().size());
}

TEST_F(StreamingConnecting, RegressionARequestThatWasRefusedIsNotSentWithTheNext) {
  std::string request;
  HttpPeer peer([&](PeerConnection& connection) {
    request = connection.ReadRequest();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    connection.AwaitEnd();
  });
  HoldThePool();
  const int id = Start(peer.ip(), peer.port());
  // Longer than what is reserved for it.
  const std::string target = "/" + std::string(3000, 't');
  const ReqHeaderInfo wanted = MediaRequest(utils::HTTP_GET, target.c_str());
  int code = 0;
  EXPECT_GT(vex_test::EachAllocationFails([&] { code = SendHTTPRequest(id, &wanted); },
                                          [&](bool failed) { EXPECT_EQ(failed ? 1012 : 0, code); }),
            1);
  Release();
  ASSERT_TRUE(client_.Await("response 100 " + std::to_string(id) + " 200 0 final"));
  EXPECT_EQ("GET " + target + " HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", request);
}

// The synchronous client.

TEST_F(StreamingConnecting, RegressionAStopJustBeforeTheConnectIsTheEnd) {
  const FullListener full;
  int id = 0;
  ASSERT_EQ(0, StartSyncClient(&id));
  const LogCapture log;
  std::thread stopper;
  std::atomic<bool> stopped{false};
  const vex_test::BeforeConnect before([&] {
    stopper = std::thread([&] {
      EXPECT_EQ(0, StopClientTransfer(id));
      stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] {
      return log.Count("closing OutgoingSyncSession id [" + std::to_string(id) + "]") == 1;
    }));
    // A stop that is let in here would be over at once.
    WaitUntil([&] { return stopped.load(); }, std::chrono::milliseconds(200));
  });
  EXPECT_EQ(1006, ConnectSyncClient(id, "127.0.0.1", full.port()));
  EXPECT_TRUE(WaitUntil([&] { return stopped.load(); }));
  stopper.join();
  // Nobody waits for an answer that never comes.
  EXPECT_TRUE(WaitUntil(
      [&] { return log.Count("~OutgoingSyncSession id [" + std::to_string(id) + "]") == 1; }));
  EXPECT_EQ(0, log.Count("Sync Connect success"));
}

TEST_F(StreamingConnecting, ASynchronousConnectThatThePoolMakesTooLateIsNotUsed) {
  HttpPeer peer(vex_test::StaySilent());
  HoldThePool();
  int id = 0;
  ASSERT_EQ(0, StartSyncClient(&id));
  const LogCapture log;
  {
    const vex_test::FasterTime faster(50);
    EXPECT_EQ(1006, ConnectSyncClient(id, peer.ip().c_str(), peer.port()));
  }
  EXPECT_EQ(1, log.Count("Error: timed_wait failed!"));
  EXPECT_EQ(1, log.Count("Error: connect failed!"));
  EXPECT_EQ(0, log.Count("Sync Connect success"));
  Release();
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Sync Connect success") == 1; }));
  ASSERT_TRUE(WaitUntil([&] { return peer.connections() == 1; }));
  EXPECT_EQ(0, log.Count("Socket connected"));
  EXPECT_EQ(0, peer.finished());
  EXPECT_EQ(0, StopClientTransfer(id));
  EXPECT_TRUE(WaitUntil([&] { return peer.finished() == 1; }));
  EXPECT_EQ(0, StopClientTransfer(id));
  EXPECT_EQ(1, log.Count("No client found!!"));
}

TEST_F(StreamingConnecting, ASynchronousConnectThatIsAnsweredTooLateIsNotUsed) {
  FullListener full;
  int id = 0;
  ASSERT_EQ(0, StartSyncClient(&id));
  const LogCapture log;
  {
    const vex_test::FasterTime faster(50);
    EXPECT_EQ(1006, ConnectSyncClient(id, "127.0.0.1", full.port()));
  }
  EXPECT_EQ(1, log.Count("Invoking Sync Connect on socket"));
  EXPECT_EQ(0, log.Count("Sync Connect success"));
  // The system asks again by itself, after a second or three.
  ASSERT_TRUE(WaitUntil([&] {
    full.MakePlace();
    return log.Count("Sync Connect success") == 1;
  }));
  EXPECT_EQ(0, log.Count("Socket connected"));
  EXPECT_EQ(0, StopClientTransfer(id));
  // The connect that came too late may still hold it.
  EXPECT_TRUE(WaitUntil(
      [&] { return log.Count("~OutgoingSyncSession id [" + std::to_string(id) + "]") == 1; }));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

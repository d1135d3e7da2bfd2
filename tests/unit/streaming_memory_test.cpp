// What hosts and peers see of streaming when an allocation fails: answers and requests go out whole
// or not at all, and what could not be started is not there.

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <optional>
#include <string>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/media_peer.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FailAlloc;
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

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kEnd[] = "\r\n\r\n";
constexpr int kMostAllocations = 200;

class StreamingMemory : public vex_test::ServingTest {
 protected:
  static bool NothingRuns() {
    stRunningSession* sessions = nullptr;
    EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
    const bool none = sessions == nullptr;
    FreeRunningSession(sessions);
    return none;
  }
  bool Listens(const std::string& ip) const { return TcpClient(ip, kFirstPort).connected(); }

  MediaClient client_;
};

// Longer than what is reserved for it.
TEST_F(StreamingMemory, RegressionAnAnswerThatDoesNotFitIs500AndNoPartOfOne) {
  const std::string name(3000, 's');
  std::atomic<int> nth{0};
  std::atomic<int> code{-1};
  std::atomic<bool> failed{false};
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    ResHeaderInfo ok = Response(200);
    ok.server = Literal(name.c_str());
    const FailAlloc fail(++nth);
    code = SendHTTPResponse(request.server, request.session, &ok, true);
    failed = fail.Failed();
  });
  Serve();
  int failures = 0;
  do {
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send(kGet));
    const std::string answer = peer.ReadToEnd();
    if (failed) {
      ++failures;
      EXPECT_EQ(1012, code) << nth;
      EXPECT_EQ("HTTP/1.1 500 Internal Server Error\r\n\r\n", answer) << nth;
    } else {
      EXPECT_EQ(0, code);
      EXPECT_EQ("HTTP/1.1 200 OK\r\nServer: " + name + "\r\n\r\n", answer);
    }
  } while (failed && nth < kMostAllocations);
  EXPECT_GT(failures, 1);
}

TEST_F(StreamingMemory, RegressionARequestThatWasRefusedIsNotSentWithTheNext) {
  const std::string target = "/" + std::string(3000, 't');
  const ReqHeaderInfo request = MediaRequest(utils::HTTP_GET, target.c_str());
  bool failed = true;
  int nth = 0;
  int refused = 0;
  while (failed && ++nth < kMostAllocations) {
    std::string asked;
    {
      std::atomic<bool> accepted{false};
      MediaPeer peer([&](MediaConnection& connection) {
        accepted = true;
        asked = connection.ReadUntil(kEnd);
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        asked += connection.ReadUntil("nothing ends with this");
      });
      int id = 0;
      ASSERT_EQ(0, StartClient(MediaClient::callbacks(), "127.0.0.1", peer.port(), &id));
      ASSERT_TRUE(WaitUntil([&] { return accepted.load(); }));
      int code = 0;
      {
        const FailAlloc fail(nth);
        code = SendHTTPRequest(id, &request);
        failed = fail.Failed();
      }
      // Not everything that fails is needed.
      EXPECT_TRUE(code == 0 || (failed && code == 1012)) << nth << ": " << code;
      if (code != 0) {
        ++refused;
        EXPECT_EQ(0, SendHTTPRequest(id, &request));
      }
      ASSERT_TRUE(client_.Await("response 100 " + std::to_string(id) + " 200 0 final"));
    }
    EXPECT_TRUE("GET " + target + " HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n" == asked)
        << nth << ": " << asked.size();
  }
  EXPECT_GT(refused, 2);
}

// Servers.

TEST_F(StreamingMemory, RegressionAServerThatCouldNotBeStartedDoesNotListen) {
  ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  for (const char* const ip : {ip_.c_str(), static_cast<const char*>(nullptr)}) {
    int code = -1;
    int failures = 0;
    const int all = vex_test::EachAllocationFails(
        [&] {
          configuration_ = 0;
          code = StartServers(MediaHost::callbacks(), ip, kFirstPort, &servers_, &configuration_);
        },
        [&](bool) {
          if (code == result::kOk) {
            // With all interfaces those that cannot be served are left out.
            EXPECT_TRUE(servers_ != nullptr || ip == nullptr);
            EXPECT_EQ(result::kOk, StopServers(configuration_));
          } else {
            ++failures;
            EXPECT_EQ(nullptr, servers_);
            EXPECT_EQ(0, configuration_);
          }
          EXPECT_FALSE(Listens(ip_)) << code;
          FreeServerInfoList(servers_);
          servers_ = nullptr;
        });
    EXPECT_GT(failures, 5);
    EXPECT_GE(all, failures);
  }
}

TEST_F(StreamingMemory, RegressionAServerThatCouldNotFollowItsInterfaceDoesNotListen) {
  Serve();
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  std::string name = "serve0";
  manager->OnNetworkChanged(name, network_layer::NIC_REMOVED);
  ASSERT_FALSE(Listens(ip_));
  int left_out = 0;
  vex_test::EachAllocationFails(
      [&] {
        try {
          manager->OnNetworkChanged(name, network_layer::NIC_ADDED);
        } catch (const std::bad_alloc&) {
        }
      },
      [&](bool) {
        int port = 0;
        const bool listed = GetStreamingServerPort(configuration_, ip_.c_str(), &port) == 0;
        EXPECT_EQ(listed, Listens(ip_));
        left_out += listed ? 0 : 1;
        manager->OnNetworkChanged(name, network_layer::NIC_REMOVED);
        EXPECT_FALSE(Listens(ip_));
      });
  EXPECT_GT(left_out, 3);
}

// Connections, on a pool of one thread. The callbacks keep nothing that needs memory.
struct Connections {
  std::optional<FailAlloc> fail;
  int nth = 0;
  std::atomic<int> connected{0};
  std::atomic<int> answered{0};
  std::atomic<int> statuses{0};
  std::atomic<int> last_status{0};
};
Connections* connections = nullptr;

ServerAppCallbacks ConnectionCallbacks() {
  ServerAppCallbacks table = {};
  table.on_connect = [](int, int, int) {
    ++connections->connected;
    connections->fail.reset();
  };
  table.on_status = [](int, int, int code) {
    connections->fail.reset();
    connections->last_status = code;
    ++connections->statuses;
  };
  table.on_request = [](int, int, ReqHeaderInfo* request, void* body, unsigned int, bool) {
    connections->fail.reset();
    FreeRequestHeader(request);
    Free(body);
  };
  table.on_data = [](int, int, void* data, unsigned int, bool) { Free(data); };
  table.on_write_complete = [](int, int, unsigned int) {};
  return table;
}

TEST_F(StreamingMemory, RegressionAConnectionThatFindsNoMemoryEndsWithAStatus) {
  Connections state;
  connections = &state;
  ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  ServerAppCallbacks table = ConnectionCallbacks();
  table.on_connect = [](int, int, int) {
    ++connections->connected;
    connections->fail.emplace(connections->nth);
  };
  table.on_request = [](int server, int session, ReqHeaderInfo* request, void* body, unsigned int,
                        bool) {
    connections->fail.reset();
    const ResHeaderInfo ok = Response(200);
    if (SendHTTPResponse(server, session, &ok, true) == 0) ++connections->answered;
    FreeRequestHeader(request);
    Free(body);
  };
  ASSERT_EQ(0, StartServers(&table, ip_.c_str(), kFirstPort, &servers_, &configuration_));
  while (state.answered == 0 && state.nth < kMostAllocations) {
    ++state.nth;
    TcpClient peer(ip_, servers_->port);
    ASSERT_TRUE(peer.connected());
    peer.Send(kGet);
    const std::string answer = peer.ReadToEnd();
    ASSERT_TRUE(WaitUntil([&] { return state.statuses + state.answered == state.nth; }))
        << state.nth;
    EXPECT_EQ(state.answered == 1 ? "HTTP/1.1 200 OK\r\n\r\n" : "", answer);
    EXPECT_TRUE(state.statuses == 0 || state.last_status == 4) << state.last_status;
  }
  EXPECT_GT(state.statuses, 2);
  EXPECT_EQ(1, state.answered);
}

// One peer's request makes another one's fail: it is read by the thread that handles the first,
// which is the only one. It fails for want of one block, or of that and the next ones.
struct FailingRequest {
  std::optional<FailAlloc> fail;
  int nth = 0;
  int count = 1;
  std::atomic<TcpClient*> victim{nullptr};
  std::atomic<int> last_session{0};
  std::atomic<int> asked{0};
  std::atomic<int> failed_behind{0};
  std::atomic<int> statuses{0};
};
FailingRequest* failing = nullptr;

ServerAppCallbacks FailingCallbacks() {
  ServerAppCallbacks table = ConnectionCallbacks();
  table.on_connect = [](int, int session, int) { failing->last_session = session; };
  table.on_status = [](int, int, int code) {
    failing->fail.reset();
    EXPECT_EQ(4, code);
    ++failing->statuses;
  };
  table.on_request = [](int server, int session, ReqHeaderInfo* request, void* body, unsigned int,
                        bool) {
    if (request->request_type == utils::HTTP_HEAD) {
      // What it sends is there when this thread looks next.
      failing->victim.load()->Send(kGet);
      failing->fail.emplace(failing->nth, failing->count);
    } else {
      failing->failed_behind = failing->fail->Failed() ? 1 : 0;
      failing->fail.reset();
      const ResHeaderInfo ok = Response(200);
      EXPECT_EQ(0, SendHTTPResponse(server, session, &ok, true));
      ++failing->asked;
    }
    FreeRequestHeader(request);
    Free(body);
  };
  return table;
}

class StreamingRequestMemory : public StreamingMemory {
 protected:
  void SetUp() override {
    failing = &state_;
    ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
    const ServerAppCallbacks table = FailingCallbacks();
    ASSERT_EQ(0, StartServers(&table, ip_.c_str(), kFirstPort, &servers_, &configuration_));
  }
  bool IsListed(int session) const {
    return StreamingManager::GetInstance()->GetSessionInfo(servers_->server_id, session) != nullptr;
  }
  // Fails the n-th allocation behind the arrival of a request, and perhaps the next. False when
  // there are no more.
  bool Fail(int count) {
    ++state_.nth;
    state_.count = count;
    const LogCapture log;
    const int statuses = state_.statuses;
    const int asked = state_.asked;
    const auto refused = [&] {
      return log.Count(16, kTag, "Parsing Failure!") + log.Count(16, kTag, "Alloc Failure!");
    };
    TcpClient other(ip_, servers_->port);
    EXPECT_TRUE(WaitUntil([&] { return state_.last_session != 0; }));
    const int other_session = state_.last_session.exchange(0);
    {
      TcpClient victim(ip_, servers_->port);
      EXPECT_TRUE(WaitUntil([&] { return state_.last_session != 0; }));
      state_.victim = &victim;
      EXPECT_TRUE(other.Send("HEAD / HTTP/1.1\r\n\r\n"));
      EXPECT_TRUE(WaitUntil(
          [&] { return state_.statuses > statuses || state_.asked > asked || refused() == 1; }));
      if (refused() == 1) {
        EXPECT_TRUE(victim.OpenAndSilent()) << state_.nth;
        EXPECT_TRUE(IsListed(state_.last_session)) << state_.nth;
        ++refused_;
      } else {
        EXPECT_EQ(state_.asked > asked ? "HTTP/1.1 200 OK\r\n\r\n" : "", victim.ReadToEnd());
      }
      records_ += log.Count(16, kTag, "Alloc Failure!");
      registers_ += log.Count(16, kTag, "Register Write failed.");
    }
    // Whatever it was, nothing of it is left behind the peer.
    const int victim_session = state_.last_session.exchange(0);
    EXPECT_TRUE(WaitUntil([&] { return !IsListed(victim_session); })) << state_.nth;
    EXPECT_EQ(refused() + state_.asked - asked == 1 ? statuses : statuses + 1, state_.statuses);
    EXPECT_EQ(0, StopServerTransfer(servers_->server_id, other_session));
    return state_.asked == asked || state_.failed_behind != 0;
  }

  FailingRequest state_;
  // Requests that were refused in silence; those among them without a record, and those of these
  // without an answer that could be formed.
  int refused_ = 0;
  int records_ = 0;
  int registers_ = 0;
};

TEST_F(StreamingRequestMemory, KeptARequestWithoutARecordIsRefusedInSilenceAndLeavesNothing) {
  const int descriptors = vex_test::DescriptorCount();
  while (!HasFailure() && Fail(1) && state_.nth < kMostAllocations) {
  }
  EXPECT_GT(refused_, records_);
  EXPECT_GT(records_, 1);
  EXPECT_EQ(0, registers_);
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
}

TEST_F(StreamingRequestMemory, AnAnswerToTheRefusedThatFindsNoMemoryEitherIsLogged) {
  while (!HasFailure() && Fail(2) && state_.nth < kMostAllocations) {
  }
  EXPECT_GT(registers_, 0);
}

// Behind the payload that ends an answer one allocation fails, each time a later one.
TEST_F(StreamingMemory, RegressionAnAnswerThatCameWholeIsNotToldAsFailed) {
  Connections state;
  connections = &state;
  ASSERT_EQ(0, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  ServerAppCallbacks table = ConnectionCallbacks();
  table.on_request = [](int server, int session, ReqHeaderInfo* request, void* body, unsigned int,
                        bool) {
    const ResHeaderInfo ok = Response(200);
    EXPECT_EQ(0, SendHTTPResponse(server, session, &ok, false));
    FreeRequestHeader(request);
    Free(body);
  };
  table.on_write_complete = [](int server, int session, unsigned int) {
    EXPECT_EQ(0, SendHTTPPayload(server, session, MallocCopy("body"), 4, true));
    connections->fail.emplace(connections->nth);
  };
  ASSERT_EQ(0, StartServers(&table, ip_.c_str(), kFirstPort, &servers_, &configuration_));
  for (state.nth = 1; state.nth < 12; ++state.nth) {
    const int before = state.statuses;
    TcpClient peer(ip_, servers_->port);
    ASSERT_TRUE(peer.Send(kGet));
    const std::string answer = peer.ReadToEnd();
    // The end is told before the session goes.
    ASSERT_TRUE(WaitUntil(NothingRuns));
    const bool whole = answer == "HTTP/1.1 200 OK\r\n\r\nbody";
    EXPECT_EQ(before + (whole ? 0 : 1), state.statuses) << state.nth;
  }
  EXPECT_EQ(0, StopServers(configuration_));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

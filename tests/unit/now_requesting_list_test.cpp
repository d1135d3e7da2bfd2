#include "src/now_requesting_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

#include "base/limits.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/fake_device.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using vex_test::WaitUntil;

using Request = boost::shared_ptr<NowRequesting>;

Request ForDevice(const std::string& udn, int port = 1) {
  return Request(new NowRequesting(udn, "http://127.0.0.1:1/d.xml", "127.0.0.1", port,
                                   "http://127.0.0.1:1", "agent"));
}

Request ForService(const std::string& udn, const std::string& service, int port = 1) {
  return Request(new NowRequesting(udn, service, "/s.xml", "127.0.0.1", port, "agent"));
}

TEST(NowRequesting, ForADevice) {
  const Request request = ForDevice("uuid:a", 80);
  EXPECT_EQ("uuid:a", request->udn);
  EXPECT_EQ("http://127.0.0.1:1/d.xml", request->request_target);
  EXPECT_EQ("127.0.0.1", request->ip);
  EXPECT_EQ(80, request->port);
  EXPECT_EQ("http://127.0.0.1:1", request->base_url);
  EXPECT_EQ("agent", request->user_agent);
  EXPECT_EQ("", request->service_id);
  EXPECT_FALSE(request->IsForService());
  EXPECT_EQ(0, request->session_id);
  EXPECT_EQ(0, request->timer_id);
  EXPECT_EQ(2, request->retry_count);
}

TEST(NowRequesting, ForAService) {
  const Request request = ForService("uuid:a", "id", 80);
  EXPECT_EQ("/s.xml", request->request_target);
  EXPECT_EQ("", request->base_url);
  EXPECT_EQ("id", request->service_id);
  EXPECT_TRUE(request->IsForService());
  EXPECT_EQ(2, request->retry_count);
}

TEST(NowRequestingList, ADeviceDescriptionIsADuplicateOfAnyRequestOfItsDevice) {
  NowRequestingList list;
  EXPECT_EQ(0, list.Add(ForDevice("uuid:a")));
  EXPECT_EQ(1, list.Add(ForDevice("uuid:a")));
  EXPECT_EQ(0, list.Add(ForDevice("uuid:b")));
  EXPECT_EQ(0, list.Add(ForService("uuid:c", "one")));
  EXPECT_EQ(1, list.Add(ForDevice("uuid:c")));
}

TEST(NowRequestingList, AServiceDescriptionIsADuplicateOfItsOwnServiceOnly) {
  NowRequestingList list;
  EXPECT_EQ(0, list.Add(ForDevice("uuid:a")));
  EXPECT_EQ(0, list.Add(ForService("uuid:a", "two")));
  EXPECT_EQ(0, list.Add(ForService("uuid:a", "one")));
  EXPECT_EQ(0, list.Add(ForService("uuid:a", "three")));
  EXPECT_EQ(1, list.Add(ForService("uuid:a", "one")));
  EXPECT_EQ(0, list.Add(ForService("uuid:b", "one")));
}

TEST(NowRequestingList, RemovingADeviceTakesAllItsRequestsAndNoOthers) {
  NowRequestingList list;
  const Request device = ForDevice("uuid:a");
  const Request service = ForService("uuid:a", "one");
  const Request other = ForDevice("uuid:a2");
  for (const Request& request : {device, service, other}) ASSERT_EQ(0, list.Add(request));
  list.RemoveByUdn("uuid:a");
  EXPECT_EQ(1, device.use_count());
  EXPECT_EQ(1, service.use_count());
  EXPECT_EQ(2, other.use_count());
  EXPECT_EQ(0, list.Add(device));
  list.RemoveByUdn("uuid:unknown");
  list.RemoveAll();
  EXPECT_EQ(1, other.use_count());
}

TEST(NowRequestingList, TakesAsManyAsTheBound) {
  NowRequestingList list;
  const int bound = static_cast<int>(limits::kDescriptionRequests);
  for (int i = 0; i < bound; ++i) {
    ASSERT_EQ(0, list.Add(ForService("uuid:a", std::to_string(i))));
  }
  EXPECT_EQ(1, list.Add(ForDevice("uuid:b")));
  list.RemoveByUdn("uuid:a");
  EXPECT_EQ(0, list.Add(ForDevice("uuid:b")));
}

// Requests of `bytes` in all but their records.
Request Large(const std::string& udn, std::size_t bytes) {
  const std::string location(bytes / 2, 'l');
  return Request(new NowRequesting(udn, location, "127.0.0.1", 1, location, "agent"));
}

// Fills the list until not another byte has room. Returns what the requests were given.
std::size_t Fill(NowRequestingList& list) {
  std::size_t given = 0;
  int number = 0;
  for (std::size_t step = limits::kDescriptionRequestBytes; step > 1; step /= 2) {
    while (list.Add(Large("uuid:" + std::to_string(number), step)) == 0) {
      given += step;
      ++number;
    }
  }
  return given;
}

TEST(NowRequestingList, RequestsHoldAsMuchAsTheBoundTogetherAndNoMore) {
  NowRequestingList list;
  const std::size_t given = Fill(list);
  EXPECT_LE(given, limits::kDescriptionRequestBytes);
  EXPECT_GT(given, limits::kDescriptionRequestBytes - 64 * 1024);
  EXPECT_EQ(1, list.Add(Large("uuid:more", 0)));
  // Whatever takes a request out gives back what it held.
  list.RemoveByUdn("uuid:1");
  EXPECT_EQ(0, list.Add(Large("uuid:more", 0)));
  list.RemoveAll();
  EXPECT_EQ(given, Fill(list));
}

TEST(NowRequestingList, TakesNothingOnceClosed) {
  NowRequestingList list;
  list.Close();
  EXPECT_EQ(1, list.Add(ForDevice("uuid:a")));
}

TEST(NowRequestingList, UnknownNumbersFindNothing) {
  NowRequestingList list;
  ASSERT_EQ(0, list.Add(ForDevice("uuid:a")));
  EXPECT_FALSE(list.FindBySession(1));
  EXPECT_FALSE(list.FindBySession(0));
  EXPECT_FALSE(list.FindByTimer(1));
  EXPECT_FALSE(list.FindByTimer(0));
  list.RemoveBySession(1);
  EXPECT_EQ(1, list.Add(ForDevice("uuid:a")));
}

TEST(NowRequestingList, AStartedTimerFindsItsRequestUntilItIsStopped) {
  utils::Timer::InitializeManager();
  {
    NowRequestingList list;
    const Request request = ForDevice("uuid:a");
    // A request that is not listed gets no timer.
    list.StartTimer(request);
    EXPECT_EQ(0, request->timer_id);
    ASSERT_EQ(0, list.Add(request));
    list.StartTimer(request);
    const int first = request->timer_id;
    EXPECT_GT(first, 0);
    EXPECT_EQ(request, list.FindByTimer(first));
    list.StartTimer(request);
    EXPECT_NE(first, request->timer_id);
    EXPECT_FALSE(list.FindByTimer(first));
    const int second = request->timer_id;
    EXPECT_EQ(request, list.FindByTimer(second));
    utils::Timer::Cancel(first, nullptr);
    request->Stop();
    EXPECT_EQ(0, request->timer_id);
    EXPECT_FALSE(list.FindByTimer(second));
    list.StartTimer(request);
    const int third = request->timer_id;
    list.RemoveByUdn("uuid:a");
    EXPECT_FALSE(list.FindByTimer(third));
  }
  utils::Timer::TerminateManager();
}

// Answers by looking the request up at once, as the description listener does.
class LookingUp : public network_layer::ResponseListener {
 public:
  explicit LookingUp(NowRequestingList& list) : list_(list) {}
  void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo>, const int& session_id) override {
    if (list_.FindBySession(session_id)) ++found;
    ++answered;
  }
  std::atomic<int> found{0};
  std::atomic<int> answered{0};

 private:
  NowRequestingList& list_;
};

class SentRequests : public testing::Test {
 protected:
  SentRequests() {
    network_layer::InitializeNetworkLayer();
    utils::Timer::InitializeManager();
    network_layer::StartNetworkLayer();
    server_.Serve("/", "x");
  }
  ~SentRequests() override {
    network_layer::StopNetworkLayer();
    list_.RemoveAll();
    utils::Timer::TerminateManager();
    network_layer::TerminateNetworkLayer();
  }

  vex_test::DescriptionServer server_{"127.0.0.1"};
  NowRequestingList list_;
  const boost::shared_ptr<LookingUp> listener_{new LookingUp(list_)};
};

TEST_F(SentRequests, AreFoundByTheirAnswersHoweverFastThoseAre) {
  constexpr int kSenders = 4;
  constexpr int kEach = 100;
  boost::thread_group senders;
  for (int sender = 0; sender < kSenders; ++sender) {
    senders.create_thread([this, sender] {
      for (int i = 0; i < kEach; ++i) {
        const Request request =
            ForDevice("uuid:" + std::to_string(sender * kEach + i), server_.port());
        EXPECT_EQ(0, list_.Add(request));
        EXPECT_EQ(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
      }
    });
  }
  senders.join_all();
  EXPECT_TRUE(WaitUntil([&] { return listener_->answered == kSenders * kEach; }));
  EXPECT_EQ(kSenders * kEach, listener_->found);
}

TEST_F(SentRequests, OnlyTheNewestSessionFindsItsRequest) {
  server_.Hold("/");
  const Request request = ForDevice("uuid:a", server_.port());
  ASSERT_EQ(0, list_.Add(request));
  ASSERT_EQ(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
  const int first = request->session_id;
  EXPECT_EQ(request, list_.FindBySession(first));
  ASSERT_EQ(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
  EXPECT_NE(first, request->session_id);
  EXPECT_FALSE(list_.FindBySession(first));
  EXPECT_EQ(request, list_.FindBySession(request->session_id));
  list_.RemoveBySession(first);
  EXPECT_EQ(2, request.use_count() - 1);
  list_.RemoveBySession(request->session_id);
  EXPECT_EQ(1, request.use_count());
}

TEST_F(SentRequests, RemovedByTheirSessionsGiveBackWhatTheyHeld) {
  server_.Hold("/");
  const std::string location(limits::kDescriptionRequestBytes / 3, 'l');
  for (int i = 0; i < 2; ++i) {
    const Request request(
        new NowRequesting("uuid:a", location, "127.0.0.1", server_.port(), location, "agent"));
    ASSERT_EQ(0, list_.Add(request));
    ASSERT_EQ(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
    list_.RemoveBySession(request->session_id);
  }
}

TEST_F(SentRequests, DroppingTheLastReferenceCancelsTheSession) {
  server_.Hold("/");
  {
    const Request request = ForDevice("uuid:a", server_.port());
    ASSERT_EQ(0, list_.Add(request));
    ASSERT_EQ(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
    ASSERT_TRUE(WaitUntil([&] { return server_.Requests().size() == 1; }));
    // Removed while somebody still holds it: cancelled when that one lets go.
    list_.RemoveByUdn("uuid:a");
    EXPECT_EQ(1, request.use_count());
  }
  server_.Release("/");
  // A second exchange shows that the first would have been answered by now.
  const Request other = ForDevice("uuid:b", server_.port());
  ASSERT_EQ(0, list_.Add(other));
  ASSERT_EQ(0, list_.Send(other, "GET / HTTP/1.1\r\n\r\n", listener_));
  ASSERT_TRUE(WaitUntil([&] { return listener_->answered >= 1; }));
  EXPECT_EQ(1, listener_->answered);
}

TEST_F(SentRequests, ASendThatFailsLeavesNoSession) {
  const Request request = ForDevice("uuid:a", 70000);
  ASSERT_EQ(0, list_.Add(request));
  EXPECT_NE(0, list_.Send(request, "GET / HTTP/1.1\r\n\r\n", listener_));
  EXPECT_EQ(0, request->session_id);
}

// A request that stayed listed without a timer stood in the way of its device for ever.
TEST(NowRequestingList, RegressionWithoutMemoryARequestHasItsTimerOrNone) {
  utils::Timer::InitializeManager();
  NowRequestingList list;
  const Request request = ForDevice("uuid:a device with a name that is allocated");
  ASSERT_EQ(0, list.Add(request));
  vex_test::EachAllocationFails(
      [&] {
        try {
          list.StartTimer(request);
        } catch (const std::bad_alloc&) {
        }
      },
      [&](bool failed) {
        const int timer_id = request->timer_id;
        EXPECT_EQ(failed, timer_id == 0);
        EXPECT_EQ(failed, list.FindByTimer(timer_id) == nullptr);
      });
  const std::string udn = request->udn;
  {
    const vex_test::FailAlloc fail(1);
    list.RemoveByUdn(udn);
    EXPECT_FALSE(fail.Failed());
  }
  EXPECT_EQ(0, list.Add(request));
  list.RemoveAll();
  utils::Timer::TerminateManager();
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

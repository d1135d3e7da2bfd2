// What subscriptions do that nobody owns any more, and who waits while an owner is told.

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>

#include "src/event_callback.h"
#include "src/subscribe_info.h"
#include "src/subscribe_requestor.h"
#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using std::chrono::milliseconds;
using testing::IsEmpty;
using testing::SizeIs;
using vex_test::ControlPeer;
using vex_test::EventLog;
using vex_test::Gate;
using vex_test::LogCapture;
using vex_test::NotifyRequest;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::SubscribeOutcome;
using vex_test::Text;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPCONTROL";
constexpr char kAccepted[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";

PeerAnswer Granted(const std::string& sid) {
  return Text("HTTP/1.1 200 OK\r\nSID: " + sid +
              "\r\nTIMEOUT: Second-1800\r\nCONTENT-LENGTH: 0\r\n\r\n");
}

PeerAnswer Refused() { return Text("HTTP/1.1 503 Busy Today\r\nCONTENT-LENGTH: 0\r\n\r\n"); }

class ControlOwners : public testing::Test {
 protected:
  // Answers the n-th request by the n-th answer, and what comes after with the last one.
  void RunPeer(const std::vector<PeerAnswer>& answers) {
    peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0, [answers](const PeerRequest& request) {
      const std::size_t number = static_cast<std::size_t>(request.number);
      return answers[std::min(number, answers.size() - 1)];
    }));
  }
  int Subscribe(EventLog& log) {
    int handle = 0;
    EXPECT_EQ(0, cp_control::Subscribe("uuid:dev", peer_->HostLine(), "", stack_.CallbackUrl(),
                                       peer_->Url("/evt"), &log, handle));
    return handle;
  }
  // Waits until the device has granted it.
  int Subscribed(EventLog& log) {
    const int handle = Subscribe(log);
    EXPECT_TRUE(WaitUntil([&] { return log.Outcomes().size() == 1; }));
    return handle;
  }
  // As a record is that has left the list while somebody holds it.
  static void TakeOwner(int handle) {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->get_by_handlerid(handle)->listener = nullptr;
  }

  // Destroyed last, so that no listener goes before the library is quiet.
  EventLog log_;
  EventLog second_log_;
  std::unique_ptr<ControlPeer> peer_;
  vex_test::ControlStack stack_;
};

TEST_F(ControlOwners, AnOutcomeHoldsUpUnsubscribeAndTheEventsOfOthers) {
  RunPeer({Granted("uuid:s1"), Granted("uuid:s2")});
  Gate gate;
  std::atomic<bool> left{false};
  log_.on_outcome = [&](const SubscribeOutcome&) {
    gate.Pass();
    left = true;
  };
  std::atomic<bool> left_before_event{false};
  second_log_.on_event = [&](const std::string&) { left_before_event = left.load(); };
  const int other = Subscribed(second_log_);
  const int handle = Subscribe(log_);
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  std::atomic<bool> left_before_end{false};
  std::atomic<int> done{0};
  std::thread owner([&] {
    EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
    left_before_end = left.load();
    ++done;
  });
  std::thread device([&] {
    EXPECT_EQ(kAccepted, stack_.Notify(NotifyRequest(other, "uuid:s1", 0)));
    ++done;
  });
  EXPECT_TRUE(WaitUntil([&] { return peer_->CountOf("UNSUBSCRIBE") == 1; }));
  // What does not wait has been seen by then.
  EXPECT_FALSE(WaitUntil([&] { return done > 0; }, milliseconds(50)));
  gate.Open();
  owner.join();
  device.join();
  EXPECT_TRUE(left_before_end);
  EXPECT_TRUE(left_before_event);
  EXPECT_THAT(second_log_.Events(), SizeIs(1));
}

TEST_F(ControlOwners, AGoodAnswerWithoutAnOwnerIsLoggedOnly) {
  RunPeer({Granted("uuid:s1")});
  const int handle = Subscribed(log_);
  TakeOwner(handle);
  LogCapture log;
  EXPECT_TRUE(SubscribeRequestor::Resubscribe(handle));
  EXPECT_TRUE(WaitUntil([&] { return log.Count(16, kTag, "Subscribe callback is null!!!") == 1; }));
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
}

TEST_F(ControlOwners, TheLastFailedAnswerWithoutAnOwnerEndsTheSubscription) {
  RunPeer({Granted("uuid:s1"), Refused()});
  const int handle = Subscribed(log_);
  TakeOwner(handle);
  LogCapture log;
  EXPECT_TRUE(SubscribeRequestor::Resubscribe(handle));
  EXPECT_TRUE(WaitUntil([&] { return log.Count(16, kTag, "Subscribe callback is null!!!") == 1; }));
  EXPECT_EQ(1 + 3, peer_->Count());
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
  EXPECT_EQ(5000, Unsubscribe(handle, peer_->HostLine()));
}

TEST_F(ControlOwners, AnEventWithoutAnOwnerCountsAsDelivered) {
  RunPeer({Granted("uuid:s1")});
  const int handle = Subscribed(log_);
  TakeOwner(handle);
  LogCapture log;
  EXPECT_EQ(kAccepted, stack_.Notify(NotifyRequest(handle, "uuid:s1", 0)));
  EXPECT_EQ(1, log.Count(16, kTag, "Event callback is null!!!"));
  EXPECT_EQ(0, log.Count("Event Received, notifying OnEventReceived"));
  EXPECT_THAT(log_.Events(), IsEmpty());
}

TEST_F(ControlOwners, AnAnswerToAnEventThatCannotBeSentIsLogged) {
  RunPeer({Granted("uuid:s1")});
  const int handle = Subscribed(log_);
  LogCapture log;
  // Without a session there is nobody to answer.
  const auto receive = [](const std::string& text) {
    boost::shared_ptr<utils::HTTPInfo> request(new utils::HTTPInfo);
    utils::HTTPParser::Parse(text.c_str(), static_cast<unsigned int>(text.size()), request);
    EventCallback::GetInstance()->OnTCPRequestReceived(request, nullptr);
  };
  receive(NotifyRequest(handle, "uuid:s1", 0));
  EXPECT_EQ(1, log.Count(16, kTag, " Event response packet sending error!!!"));
  EXPECT_THAT(log_.Events(), SizeIs(1));
  receive(NotifyRequest(handle, "uuid:other", 0));
  EXPECT_EQ(1, log.Count(16, kTag, "Error Event response packet sending error!!!"));
}

TEST_F(ControlOwners, TheEndOfARecordCancelsItsExchange) {
  RunPeer({vex_test::Silence()});
  const int handle = Subscribe(log_);
  ASSERT_TRUE(WaitUntil([&] { return peer_->Count() == 1; }));
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  int session_id = 0;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    session_id = list->get_by_handlerid(handle)->nwsession_id;
  }
  LogCapture log;
  EXPECT_EQ(5001, Unsubscribe(handle, peer_->HostLine()));
  EXPECT_EQ(1, log.Count(4, kTag,
                         "CancelTCPHTTPPacket - Session ID [" + std::to_string(session_id) + "]"));
  EXPECT_EQ(0, log.Count("Cancel TCP HTTP Packet failed. "));
  EXPECT_TRUE(WaitUntil([&] { return peer_->Open() == 0; }));
  {
    SubscribeInfo gone;
    gone.nwsession_id = 987654;
  }
  EXPECT_EQ(1, log.Count(4, kTag, "CancelTCPHTTPPacket - Session ID [987654]"));
  EXPECT_EQ(1, log.Count(16, kTag, "Cancel TCP HTTP Packet failed. "));
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

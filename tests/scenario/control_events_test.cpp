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
#include <vexupnpcp/network_layer.h>

#include "src/event_callback.h"
#include "src/subscribe_info.h"
#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/log_capture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vex_test::ControlPeer;
using vex_test::ControlStack;
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
constexpr char k200[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
constexpr char k400[] = "HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n";
constexpr char k412[] = "HTTP/1.1 412 Precondition Failed\r\nConnection: close\r\n\r\n";
constexpr char kSid[] = "uuid:s1";
constexpr char kGranted[] =
    "HTTP/1.1 200 OK\r\nSID: uuid:s1\r\nTIMEOUT: Second-1800\r\nCONTENT-LENGTH: 0\r\n\r\n";
// What an event that is not kept takes at most where one that is kept takes 20 s.
constexpr milliseconds kFarBelowTheWait{10000};

class ControlEvents : public testing::Test {
 protected:
  void RunPeer(ControlPeer::Script script) {
    peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0, std::move(script)));
  }
  int Subscribe(EventLog& log) {
    int handle = 0;
    EXPECT_EQ(0, cp_control::Subscribe("uuid:dev", peer_->HostLine(), "", stack_.CallbackUrl(),
                                       peer_->Url("/evt"), &log, handle));
    return handle;
  }
  // A subscription that the device has granted as uuid:s1.
  int Subscribed() {
    RunPeer([](const PeerRequest&) { return Text(kGranted); });
    const int handle = Subscribe(log_);
    EXPECT_TRUE(WaitUntil([&] { return log_.Outcomes().size() == 1; }));
    return handle;
  }

  // Destroyed last, so that no listener goes before the library is quiet.
  EventLog log_;
  EventLog second_log_;
  vex_test::ActionLog actions_;
  std::unique_ptr<ControlPeer> peer_;
  ControlStack stack_;
};

// One request and what it is answered with. Header lines that a row leaves out are empty.
struct EventRow {
  const char* name;
  const char* sid;
  const char* nt;
  const char* nts;
  const char* seq;
  const char* body;
  const char* answer;
  const char* line;
};

void PrintTo(const EventRow& row, std::ostream* out) { *out << row.name; }

constexpr char kGoodSid[] = "SID: uuid:s1\r\n";
constexpr char kOtherSid[] = "SID: uuid:other\r\n";
constexpr char kGoodNt[] = "NT: upnp:event\r\n";
constexpr char kGoodNts[] = "NTS: upnp:propchange\r\n";
constexpr char kGoodSeq[] = "SEQ: 0\r\n";

class EventAnswers : public ControlEvents, public testing::WithParamInterface<EventRow> {};

TEST_P(EventAnswers, FollowTheFirstRuleThatFails) {
  const EventRow& row = GetParam();
  const int handle = Subscribed();
  LogCapture log;
  const std::string body = row.body;
  EXPECT_EQ(row.answer, stack_.Notify("NOTIFY /eventing_" + std::to_string(handle) +
                                      "/ HTTP/1.1\r\nHOST: 10.77.0.1:5100\r\n" + row.nt + row.nts +
                                      row.sid + row.seq + "CONTENT-LENGTH: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body));
  EXPECT_TRUE(log.Holds(row.line)) << row.line;
  const bool delivered = std::string(row.answer) == k200;
  EXPECT_THAT(log_.Events(), SizeIs(delivered ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EventAnswers,
    testing::Values(
        EventRow{"Good", kGoodSid, kGoodNt, kGoodNts, kGoodSeq, "<e/>", k200,
                 "Event Received, notifying OnEventReceived"},
        EventRow{"NoSid", "", kGoodNt, kGoodNts, kGoodSeq, "<e/>", k412,
                 "No SID header of event!!! "},
        EventRow{"NoSidNorAnything", "", "", "", "", "", k412, "No SID header of event!!! "},
        EventRow{"NoNt", kGoodSid, "", kGoodNts, kGoodSeq, "<e/>", k400,
                 "No NT header of event!!! "},
        EventRow{"NoNts", kGoodSid, kGoodNt, "", kGoodSeq, "<e/>", k400,
                 "No NTS header of event!!!"},
        EventRow{"NoSeq", kGoodSid, kGoodNt, kGoodNts, "", "<e/>", k400,
                 " No SEQ header of event!!! "},
        EventRow{"NoSeqAndAWrongNt", kGoodSid, "NT: upnp:rootdevice\r\n", kGoodNts, "", "<e/>",
                 k400, "Invalid Event => error response !!!"},
        EventRow{"WrongNt", kGoodSid, "NT: upnp:events\r\n", kGoodNts, kGoodSeq, "<e/>", k412,
                 "Invalid NT header of event!!! "},
        EventRow{"NtInCapitals", kGoodSid, "NT: UPNP:EVENT\r\n", kGoodNts, kGoodSeq, "<e/>", k412,
                 "Invalid NT header of event!!! "},
        EventRow{"WrongNts", kGoodSid, kGoodNt, "NTS: upnp:propchang\r\n", kGoodSeq, "<e/>", k412,
                 "Invalid NTS header of event!!! "},
        EventRow{"EmptySid", "SID: \r\n", kGoodNt, kGoodNts, kGoodSeq, "<e/>", k400,
                 "Invalid Event => ignore !!!"},
        EventRow{"EmptyBody", kGoodSid, kGoodNt, kGoodNts, kGoodSeq, "", k400,
                 "Invalid Event => ignore !!!"},
        EventRow{"UnknownSid", kOtherSid, kGoodNt, kGoodNts, kGoodSeq, "<e/>", k412,
                 "__LookupAndNotfiy failed for event, SID=uuid:other !!!"},
        EventRow{"UnknownSidAndAWrongNt", kOtherSid, "NT: x\r\n", kGoodNts, kGoodSeq, "<e/>", k412,
                 "Invalid NT header of event!!! "},
        EventRow{"UnknownSidAndNoSeq", kOtherSid, kGoodNt, kGoodNts, "", "<e/>", k400,
                 " No SEQ header of event!!! "},
        EventRow{"SidThatIsAPrefix", "SID: uuid:s\r\n", kGoodNt, kGoodNts, kGoodSeq, "<e/>", k412,
                 "info is null."},
        EventRow{"SidThatIsLonger", "SID: uuid:s12\r\n", kGoodNt, kGoodNts, kGoodSeq, "<e/>", k412,
                 "info is null."},
        EventRow{"SidInCapitals", "SID: UUID:S1\r\n", kGoodNt, kGoodNts, kGoodSeq, "<e/>", k412,
                 "info is null."},
        EventRow{"SeqThatIsNoNumber", kGoodSid, kGoodNt, kGoodNts, "SEQ: never read\r\n", "<e/>",
                 k200, "Event Received, notifying OnEventReceived"}),
    [](const testing::TestParamInfo<EventRow>& row) { return std::string(row.param.name); });

TEST_F(ControlEvents, ABodyWithANulCountsAsEmpty) {
  const int handle = Subscribed();
  EXPECT_EQ(k400, stack_.Notify(NotifyRequest(handle, kSid, 0, std::string("<e>\0</e>", 8))));
  EXPECT_THAT(log_.Events(), IsEmpty());
}

TEST_F(ControlEvents, NeitherTheMethodNorTheOrderOfEventsIsLookedAt) {
  const int handle = Subscribed();
  for (int seq : {5, 4, 4, 0}) {
    EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, seq, std::to_string(seq))));
  }
  std::string post = NotifyRequest(handle, kSid, 6, "post");
  post.replace(0, 6, "POST");
  EXPECT_EQ(k200, stack_.Notify(post));
  EXPECT_THAT(log_.Events(), ElementsAre("5", "4", "4", "0", "post"));
}

TEST_F(ControlEvents, TheCallbackPathMatchesWithAndWithoutItsSlash) {
  const int handle = Subscribed();
  std::string request = NotifyRequest(handle, kSid, 0, "<bare/>");
  const std::string path = "/eventing_" + std::to_string(handle);
  request.replace(request.find(path + "/"), path.size() + 1, path);
  EXPECT_EQ(k200, stack_.Notify(request));
  // The path of handle 1 is found in that of handle 12 as well; the SID decides.
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(12, kSid, 1, "<twelve/>")));
  EXPECT_THAT(log_.Events(), ElementsAre("<bare/>", "<twelve/>"));
}

TEST_F(ControlEvents, AfterUnsubscribeTheSidAndThenThePathAreUnknown) {
  const int handle = Subscribed();
  // The path of a second one, 2, and of the twelfth keep the first token's neighbours apart.
  const int other = Subscribe(second_log_);
  EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
  EXPECT_EQ(0U, stack_.Notify(NotifyRequest(handle, kSid, 1))
                    .find("HTTP/1.0 400 Bad Request \r\nCONTENT-TYPE: text/xml"));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  EXPECT_EQ(0, Unsubscribe(other, peer_->HostLine()));
  EXPECT_THAT(log_.Events(), IsEmpty());
}

TEST_F(ControlEvents, AfterUnsubscribeTheSidIsUnknownWhileTheRecordLives) {
  const int handle = Subscribed();
  SubscribeInfoList::Pointer record;
  {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_handlerid(handle);
  }
  ASSERT_TRUE(record);
  EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
  // The path goes with the record.
  EXPECT_EQ(k412, stack_.Notify(NotifyRequest(handle, kSid, 1)));
  record.reset();
  EXPECT_EQ(0U,
            stack_.Notify(NotifyRequest(handle, kSid, 2)).find("HTTP/1.0 400 Bad Request \r\n"));
  EXPECT_THAT(log_.Events(), IsEmpty());
}

TEST_F(ControlEvents, TheDeviceIsAnsweredAfterTheListenerHasReturned) {
  const int handle = Subscribed();
  Gate gate;
  std::atomic<bool> answered{false};
  log_.on_event = [&](const std::string&) { gate.Pass(); };
  std::thread device([&] {
    EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 0)));
    answered = true;
  });
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_FALSE(answered);
  gate.Open();
  device.join();
  EXPECT_TRUE(answered);
}

TEST_F(ControlEvents, EventsOfAllSubscriptionsComeOneAtATime) {
  RunPeer([](const PeerRequest& request) {
    return Text("HTTP/1.1 200 OK\r\nSID: uuid:s" + std::to_string(request.number + 1) +
                "\r\nTIMEOUT: Second-1800\r\nCONTENT-LENGTH: 0\r\n\r\n");
  });
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  const auto busy = [&](const std::string&) {
    most = std::max(most.load(), ++inside);
    std::this_thread::sleep_for(milliseconds(5));
    --inside;
  };
  log_.on_event = busy;
  second_log_.on_event = busy;
  const int first = Subscribe(log_);
  ASSERT_TRUE(WaitUntil([&] { return log_.Outcomes().size() == 1; }));
  const int second = Subscribe(second_log_);
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  std::thread one([&] {
    for (int i = 0; i < 10; ++i) stack_.Notify(NotifyRequest(first, "uuid:s1", i));
  });
  std::thread two([&] {
    for (int i = 0; i < 10; ++i) stack_.Notify(NotifyRequest(second, "uuid:s2", i));
  });
  one.join();
  two.join();
  EXPECT_EQ(1, most);
  EXPECT_THAT(log_.Events(), SizeIs(10));
  EXPECT_THAT(second_log_.Events(), SizeIs(10));
}

TEST_F(ControlEvents, TheListenerMayEndItsSubscriptionInsideAnEvent) {
  const int handle = Subscribed();
  std::atomic<int> result{-1};
  log_.on_event = [&](const std::string&) { result = Unsubscribe(handle, peer_->HostLine()); };
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 0)));
  EXPECT_EQ(0, result);
  ASSERT_TRUE(WaitUntil([&] { return peer_->CountOf("UNSUBSCRIBE") == 1; }));
  EXPECT_NE(k200, stack_.Notify(NotifyRequest(handle, kSid, 1)));
  EXPECT_THAT(log_.Events(), SizeIs(1));
}

TEST_F(ControlEvents, AListenerMayEndAnotherSubscriptionAndStartOneInsideAnEvent) {
  const int handle = Subscribed();
  const int other = Subscribe(second_log_);
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  log_.on_event = [&](const std::string&) {
    EXPECT_EQ(0, Unsubscribe(other, peer_->HostLine()));
    EXPECT_EQ(other + 1, Subscribe(second_log_));
  };
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 0)));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 2; }));
}

TEST_F(ControlEvents, UnsubscribeWaitsForAnEventThatIsBeingDelivered) {
  const int handle = Subscribed();
  Gate gate;
  std::atomic<bool> delivered{false};
  log_.on_event = [&](const std::string&) {
    gate.Pass();
    delivered = true;
  };
  std::thread device([&] { stack_.Notify(NotifyRequest(handle, kSid, 0)); });
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  std::atomic<bool> ended{false};
  std::thread owner([&] {
    EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
    EXPECT_TRUE(delivered);
    ended = true;
  });
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_FALSE(ended);
  gate.Open();
  owner.join();
  device.join();
}

TEST_F(ControlEvents, AListenerThatThrowsHasHadItsEvent) {
  const int handle = Subscribed();
  log_.on_event = [](const std::string&) { throw 1; };
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 0)));
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 1)));
}

// The first event of a subscription, sent by the device some time behind its answer.
class FirstEvent : public ControlEvents, public testing::WithParamInterface<int> {};

TEST_P(FirstEvent, BehindTheAnswerIsDelivered) {
  const int rounds = GetParam() == 0 ? 50 : 5;
  std::atomic<int> good{0};
  RunPeer([&](const PeerRequest& request) {
    const std::string number = std::to_string(request.number + 1);
    PeerAnswer answer = Text("HTTP/1.1 200 OK\r\nSID: uuid:s" + number +
                             "\r\nTIMEOUT: Second-1800\r\nCONTENT-LENGTH: 0\r\n\r\n");
    const std::string event = NotifyRequest(request.number + 1, "uuid:s" + number, 0);
    answer.after_text = [&, event] {
      std::this_thread::sleep_for(milliseconds(GetParam()));
      if (stack_.Notify(event) == k200) ++good;
    };
    return answer;
  });
  for (int round = 1; round <= rounds; ++round) {
    Subscribe(log_);
    ASSERT_TRUE(WaitUntil([&] { return log_.Events().size() == static_cast<std::size_t>(round); }))
        << round;
  }
  EXPECT_TRUE(WaitUntil([&] { return good == rounds; }));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, FirstEvent, testing::Values(0, 1, 50));

TEST_F(ControlEvents, AnEventBeforeTheAnswerIsRefusedAtOnce) {
  const vex_test::SlowerTime slower(20);
  std::string answer_to_event;
  std::chrono::steady_clock::duration took{};
  RunPeer([&](const PeerRequest&) {
    const auto start = std::chrono::steady_clock::now();
    answer_to_event = stack_.Notify(NotifyRequest(1, kSid, 0));
    took = std::chrono::steady_clock::now() - start;
    return Text(kGranted);
  });
  const int handle = Subscribe(log_);
  ASSERT_TRUE(WaitUntil([&] { return log_.Outcomes().size() == 1; }));
  EXPECT_EQ(k412, answer_to_event);
  EXPECT_LT(took, kFarBelowTheWait);
  // It is not kept, either.
  EXPECT_THAT(log_.Events(), IsEmpty());
  EXPECT_EQ(k200, stack_.Notify(NotifyRequest(handle, kSid, 1)));
}

// Keeps all five response threads busy, so that a SUBSCRIBE answer has to wait for its turn.
class QueuedAnswer : public ControlEvents {
 protected:
  void OccupyResponseThreads() {
    actions_.on_result = [this](const vex_test::ActionResult&) { gate_.Pass(); };
    for (int i = 0; i < 5; ++i) {
      int id = 0;
      ASSERT_EQ(0, SendAction("uuid:1", peer_->HostLine(), "S", peer_->Url("/ctl"), "", "",
                              &actions_, nullptr, id));
    }
    ASSERT_TRUE(WaitUntil([&] { return gate_.waiting() == 5; }));
  }
  void RunDevice() {
    RunPeer([](const PeerRequest& request) {
      if (request.Begins("POST")) {
        return Text("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n");
      }
      return Text(kGranted);
    });
  }
  // The answer has arrived and waits in the queue.
  void WaitUntilQueued(int handle) {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    ASSERT_TRUE(WaitUntil([&] {
      boost::lock_guard<boost::mutex> lock(list->mutex);
      return list->get_by_handlerid(handle)->answered_session_id != 0;
    }));
    ASSERT_THAT(log_.Outcomes(), IsEmpty());
  }
  void TearDown() override {
    gate_.Open();
    stack_.TerminateControl();
  }

  Gate gate_;
};

TEST_F(QueuedAnswer, IsHandledBeforeAnEventBehindItIsJudged) {
  RunDevice();
  OccupyResponseThreads();
  const int handle = Subscribe(log_);
  WaitUntilQueued(handle);
  std::string answer;
  std::atomic<bool> returned{false};
  std::thread device([&] {
    answer = stack_.Notify(NotifyRequest(handle, kSid, 0));
    returned = true;
  });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(returned);
  gate_.Open();
  device.join();
  EXPECT_EQ(k200, answer);
  EXPECT_THAT(log_.Events(), SizeIs(1));
}

TEST_F(QueuedAnswer, KeepsAnEventForASecondAtMost) {
  RunDevice();
  OccupyResponseThreads();
  const int handle = Subscribe(log_);
  WaitUntilQueued(handle);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(k412, stack_.Notify(NotifyRequest(handle, kSid, 0)));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, milliseconds(990));
  EXPECT_LT(took, milliseconds(15000));
}

TEST_F(QueuedAnswer, KeepsNoEventAtTermination) {
  const vex_test::SlowerTime slower(20);
  RunDevice();
  OccupyResponseThreads();
  const int handle = Subscribe(log_);
  WaitUntilQueued(handle);
  std::string answer;
  std::thread device([&] { answer = stack_.Notify(NotifyRequest(handle, kSid, 0)); });
  std::this_thread::sleep_for(milliseconds(500));
  const auto start = std::chrono::steady_clock::now();
  std::thread terminator([&] { stack_.TerminateControl(); });
  device.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kFarBelowTheWait);
  EXPECT_EQ(k412, answer);
  gate_.Open();
  terminator.join();
}

TEST_F(QueuedAnswer, OfAnUnsubscribedOneKeepsNoEvent) {
  const vex_test::SlowerTime slower(20);
  RunDevice();
  OccupyResponseThreads();
  const int handle = Subscribe(log_);
  const int other = Subscribe(second_log_);
  WaitUntilQueued(handle);
  WaitUntilQueued(other);
  EXPECT_EQ(5001, Unsubscribe(handle, peer_->HostLine()));
  EXPECT_EQ(5001, Unsubscribe(other, peer_->HostLine()));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_NE(k200, stack_.Notify(NotifyRequest(handle, kSid, 0)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, kFarBelowTheWait);
}

TEST_F(ControlEvents, AfterTerminationAnEventIsDroppedWithoutAnAnswer) {
  Subscribed();
  // The listener stays within reach of the network by a path of its own.
  const boost::shared_ptr<network_layer::TCPRequestListener> late = EventCallback::GetInstance();
  int id = 0;
  ASSERT_EQ(0, network_layer::RegisterTCPRequestListener({"/late"}, late, id));
  stack_.TerminateControl();
  LogCapture log;
  std::string request = NotifyRequest(1, kSid, 0);
  request.replace(request.find("/eventing_1"), 11, "/late");
  std::string answer = "?";
  std::atomic<bool> closed{false};
  std::thread device([&] {
    answer = stack_.Notify(request);
    closed = true;
  });
  ASSERT_TRUE(WaitUntil([&] { return log.Count(16, kTag, "Received after CP termination") == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(closed);
  // The connection ends with its server.
  stack_.StopNetwork();
  device.join();
  EXPECT_EQ("", answer);
  EXPECT_THAT(log_.Events(), IsEmpty());
}

TEST_F(ControlEvents, AfterTerminationThePathIsClosed) {
  const int handle = Subscribed();
  stack_.TerminateControl();
  EXPECT_EQ(0U, stack_.Notify(NotifyRequest(handle, kSid, 0)).find("HTTP/1.0 400 Bad Request "));
  EXPECT_THAT(log_.Events(), IsEmpty());
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

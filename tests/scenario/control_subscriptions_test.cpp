#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/httpinfo.h>

#include "src/resubscribe_timer_callback.h"
#include "src/subscribe_info.h"
#include "src/subscribe_requestor.h"
#include "src/subscribe_response_callback.h"
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
using vex_test::FasterTime;
using vex_test::Gate;
using vex_test::LogCapture;
using vex_test::NotifyRequest;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::SlowerTime;
using vex_test::SubscribeOutcome;
using vex_test::Text;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPCONTROL";
constexpr char kOk[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
constexpr char kUnknownSid[] = "HTTP/1.1 412 Precondition Failed\r\nConnection: close\r\n\r\n";

PeerAnswer Granted(const std::string& sid, const std::string& timeout) {
  return Text("HTTP/1.1 200 OK\r\nSERVER: x\r\nSID: " + sid + "\r\nTIMEOUT: " + timeout +
              "\r\nCONTENT-LENGTH: 0\r\n\r\n");
}

PeerAnswer Refused() { return Text("HTTP/1.1 503 Busy Today\r\nCONTENT-LENGTH: 0\r\n\r\n"); }

// The library's thread writes its last lines behind what the peer or the listener has seen.
bool ComesOnce(const LogCapture& log, const std::string& text) {
  return WaitUntil([&] { return log.Count(text) == 1; });
}

class ControlSubscriptions : public testing::Test {
 protected:
  void RunPeer(ControlPeer::Script script) {
    peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0, std::move(script)));
  }
  // Answers the n-th request by the n-th answer, and what comes after with the last one.
  void RunPeer(const std::vector<PeerAnswer>& answers) {
    RunPeer([answers](const PeerRequest& request) {
      const std::size_t number = static_cast<std::size_t>(request.number);
      return answers[std::min(number, answers.size() - 1)];
    });
  }
  int Subscribe(int& handle, EventLog& log, const std::string& agent = "agent/1.0") {
    subscribed_ = std::chrono::steady_clock::now();
    return cp_control::Subscribe("uuid:dev", peer_->HostLine(), agent, stack_.CallbackUrl(),
                                 peer_->Url("/evt"), &log, handle);
  }
  int Subscribe(int& handle) { return Subscribe(handle, log_); }
  // From the call of Subscribe; the two clocks of a test and of a timer differ by a little. A busy
  // peer sees a request late, never early, so what lies between two requests tells nothing.
  milliseconds After(const PeerRequest& request) const {
    return std::chrono::duration_cast<milliseconds>(request.at - subscribed_);
  }
  bool WaitForOutcomes(std::size_t count) {
    return WaitUntil([&] { return log_.Outcomes().size() >= count; });
  }
  bool WaitForRequests(int count) {
    return WaitUntil([&] { return peer_->Count() >= count; });
  }
  // What a subscription ended by its third failed answer looks like from outside.
  void ExpectEnded(int handle, const std::string& message) {
    ASSERT_TRUE(WaitUntil([&] { return log_.CountOf(CP_ERR_FAILURE) == 1; }));
    const SubscribeOutcome last = log_.Outcomes().back();
    EXPECT_EQ(handle, last.handler_id);
    EXPECT_EQ(1, last.code);
    EXPECT_EQ(message, last.message);
    EXPECT_EQ(5000, Unsubscribe(handle, "HOST:h:1"));
  }
  std::string CallbackLine(int handle) const {
    return "<http://10.77.0.1:" + std::to_string(stack_.event_port()) + "/eventing_" +
           std::to_string(handle) + "/>";
  }

  // Destroyed last, so that no listener goes before the library is quiet.
  EventLog log_;
  EventLog second_log_;
  std::unique_ptr<ControlPeer> peer_;
  ControlStack stack_;
  std::chrono::steady_clock::time_point subscribed_;
};

TEST_F(ControlSubscriptions, SubscribeOnTheWireByteForByte) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  LogCapture log;
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  EXPECT_EQ(1, handle);
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_EQ("SUBSCRIBE /evt HTTP/1.1\r\nCALLBACK: <http://10.77.0.1:" +
                std::to_string(stack_.event_port()) +
                "/eventing_1/>\r\nNT: upnp:event\r\nTIMEOUT: Second-1800\r\nHOST:10.77.0.2:" +
                std::to_string(peer_->port()) + "\r\nUSER-AGENT: agent/1.0\r\n\r\n",
            peer_->Requests()[0].text);
  const SubscribeOutcome outcome = log_.Outcomes()[0];
  EXPECT_EQ(1, outcome.handler_id);
  EXPECT_EQ(0, outcome.code);
  EXPECT_EQ("no error", outcome.message);
  EXPECT_EQ(1, log.Count("Sending subscribe to device [uuid:dev] Index [1]"));
  EXPECT_EQ(1, log.Count("OnSubscribeResponseReceived Enter (OnSuccess)"));
  EXPECT_TRUE(ComesOnce(log, "OnSubscribeResponseReceived  Exit"));
}

TEST_F(ControlSubscriptions, TheConstantAgentTheDefaultAndTheArgument) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle, log_, ""));
  ASSERT_TRUE(WaitForRequests(1));
  SetDefaultUserAgent("default/2");
  ASSERT_EQ(0, Subscribe(handle, log_, ""));
  ASSERT_TRUE(WaitForRequests(2));
  ASSERT_EQ(0, Subscribe(handle, log_, "mine/3"));
  ASSERT_TRUE(WaitForRequests(3));
  const std::vector<PeerRequest> requests = peer_->Requests();
  EXPECT_EQ("DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0", requests[0].Header("USER-AGENT"));
  EXPECT_EQ("default/2", requests[1].Header("USER-AGENT"));
  EXPECT_EQ("mine/3", requests[2].Header("USER-AGENT"));
}

TEST_F(ControlSubscriptions, RenewalAndUnsubscribeOnTheWireByteForByte) {
  const FasterTime faster(20);
  RunPeer({Granted("uuid:s1", "Second-40"), Granted("uuid:s2", "Second-1800")});
  LogCapture log;
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(2));
  const std::string host = "HOST:10.77.0.2:" + std::to_string(peer_->port());
  const std::string renewal = "SUBSCRIBE /evt HTTP/1.1\r\n" + host +
                              "\r\nSID: uuid:s1\r\nTIMEOUT: Second-1800\r\nUSER-AGENT: "
                              "agent/1.0\r\n\r\n";
  EXPECT_EQ(renewal, peer_->Requests()[1].text);
  EXPECT_EQ(1, log.Count("resubscribe packet\n" + renewal));
  EXPECT_TRUE(ComesOnce(log, "resubscribe SENT!!!"));
  EXPECT_EQ(0, log_.Outcomes()[1].code);
  // The SID of the renewal's answer has taken the place of the first one.
  EXPECT_EQ(0, Unsubscribe(handle, "HOST:of the caller"));
  ASSERT_TRUE(WaitForRequests(3));
  EXPECT_EQ("UNSUBSCRIBE /evt HTTP/1.1\r\nHOST:of the caller\r\nSID: uuid:s2\r\n\r\n",
            peer_->Requests()[2].text);
  EXPECT_EQ(5000, Unsubscribe(handle, host));
  EXPECT_EQ(1, log.Count(16, kTag, "There is no matched subscription 1!"));
}

TEST_F(ControlSubscriptions, RenewalsComeAtThreeQuartersOfEachGrant) {
  const FasterTime faster(20);
  RunPeer({Granted("uuid:s1", "Second-40"), Granted("uuid:s1", "20"),
           Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForRequests(3));
  const std::vector<PeerRequest> requests = peer_->Requests();
  EXPECT_GE(After(requests[1]), milliseconds(1475));
  EXPECT_GE(After(requests[2]), milliseconds(2225));
  // The third grant's renewal would come after 67.5 s.
  EXPECT_LT(After(requests[2]), milliseconds(60000));
}

TEST_F(ControlSubscriptions, NoListenerIsRefused) {
  RunPeer({Refused()});
  LogCapture log;
  int handle = 77;
  EXPECT_EQ(5000, cp_control::Subscribe("uuid:dev", "H", "", stack_.CallbackUrl(),
                                        peer_->Url("/evt"), nullptr, handle));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid argument - upperlayer_callback"));
  EXPECT_EQ(77, handle);
}

TEST_F(ControlSubscriptions, UnreadableUrlsFailAndLeaveTheRecordForUnsubscribe) {
  RunPeer({Refused()});
  LogCapture log;
  int handle = 0;
  EXPECT_EQ(5001, cp_control::Subscribe("uuid:dev", "H", "", stack_.CallbackUrl(), "http://h/evt",
                                        &log_, handle));
  EXPECT_EQ(1, handle);
  EXPECT_EQ(5001, cp_control::Subscribe("uuid:dev", "H", "", "http://10.77.0.1", peer_->Url("/e"),
                                        &log_, handle));
  EXPECT_EQ(2, handle);
  EXPECT_EQ(2, log.Count(16, kTag, "ParseURI failed."));
  EXPECT_EQ(5001, Unsubscribe(1, "H"));
  EXPECT_EQ(5001, Unsubscribe(2, "H"));
  EXPECT_EQ(5000, Unsubscribe(2, "H"));
  EXPECT_EQ(0, peer_->Count());
}

TEST_F(ControlSubscriptions, ASendThatFailsLeavesAStrandedRecord) {
  LogCapture log;
  int handle = 0;
  EXPECT_EQ(5001, cp_control::Subscribe("uuid:dev", "H", "", stack_.CallbackUrl(),
                                        "http://300.300.300.300:80/e", &log_, handle));
  EXPECT_EQ(1, handle);
  EXPECT_EQ(1, log.Count(16, kTag, "Subscribe packet sending failed!!!"));
  EXPECT_EQ(5001, Unsubscribe(handle, "H"));
  EXPECT_EQ(1, log.Count(16, kTag, "Subscription is invalid."));
  EXPECT_EQ(1, log.Count(16, kTag, "subscription cannot be canceled for SID 1!"));
  EXPECT_EQ(5000, Unsubscribe(handle, "H"));
  EXPECT_THAT(log_.Outcomes(), IsEmpty());
}

// Every answer that counts as a failed one.
struct FailureRow {
  const char* name;
  PeerAnswer answer;
  // What the listener is told in the end, and the line that says why.
  const char* message;
  const char* line;
};

void PrintTo(const FailureRow& row, std::ostream* out) { *out << row.name; }

class FailedAnswers : public ControlSubscriptions,
                      public testing::WithParamInterface<FailureRow> {};

TEST_P(FailedAnswers, AreMadeUpForAtOnceAndTheThirdEndsTheSubscription) {
  RunPeer({GetParam().answer});
  LogCapture log;
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ExpectEnded(handle, GetParam().message);
  const std::vector<PeerRequest> requests = peer_->Requests();
  ASSERT_EQ(3U, requests.size());
  EXPECT_EQ(requests[0].text, requests[1].text);
  EXPECT_EQ(requests[0].text, requests[2].text);
  // Not after the thirty seconds of an answer that does not come.
  EXPECT_LT(After(requests[2]), milliseconds(15000));
  EXPECT_EQ(3, log.Count(16, kTag, GetParam().line)) << GetParam().line;
  EXPECT_EQ(2, log.Count("Resending Subscription to Device [uuid:dev]"));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: Subscription failed Three times!!"));
  EXPECT_EQ(1, log.Count("OnSubscribeResponseReceived Enter (OnError)"));
  EXPECT_TRUE(ComesOnce(log, "OnSubscribeResponseReceived Exit"));
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, FailedAnswers,
    testing::Values(
        FailureRow{"Status503", Refused(), "HTTP/1.1 503 Busy Today",
                   "subscription failed with 503 code!!!"},
        FailureRow{"Status300",
                   Text("HTTP/1.1 300 X\r\nSID: uuid:1\r\nTIMEOUT: Second-9\r\nCONTENT-LENGTH: "
                        "0\r\n\r\n"),
                   "HTTP/1.1 300 X", "subscription failed with 300 code!!!"},
        FailureRow{"NoSid",
                   Text("HTTP/1.1 200 OK\r\nTIMEOUT: Second-9\r\nCONTENT-LENGTH: 0\r\n\r\n"),
                   "HTTP/1.1 200 OK", "no SID!!!"},
        // What MiniDLNA 1.3.0 answers for a path that it doesn't know.
        FailureRow{"NoSidOfARealDevice",
                   Text("HTTP/1.1 200 OK\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
                        "Connection: close\r\nContent-Length: 0\r\n"
                        "Server: Debian DLNADOC/1.50 UPnP/1.0 MiniDLNA/1.3.0\r\n"
                        "Timeout: Second-1800\r\nDate: Sat, 21 Nov 2026 00:29:06 GMT\r\nEXT:\r\n"
                        "\r\n"),
                   "HTTP/1.1 200 OK", "no SID!!!"},
        FailureRow{"SidWithALineEnd",
                   Text("HTTP/1.1 200 OK\r\nSID: uuid:1\rX-Evil: 1\r\nTIMEOUT: Second-9\r\n"
                        "CONTENT-LENGTH: 0\r\n\r\n"),
                   "HTTP/1.1 200 OK", "no SID!!!"},
        FailureRow{"NoTimeout", Text("HTTP/1.1 200 OK\r\nSID: uuid:1\r\nCONTENT-LENGTH: 0\r\n\r\n"),
                   "HTTP/1.1 200 OK", "no TIMEOUT!!!"},
        FailureRow{"SecondInfinite", Granted("uuid:1", "Second-infinite"), "HTTP/1.1 200 OK",
                   "Invalid TIMEOUT value = Second-infinite !!!"},
        FailureRow{"Infinite", Granted("uuid:1", "infinite"), "HTTP/1.1 200 OK",
                   "Invalid TIMEOUT value = infinite !!!"},
        FailureRow{"TooLong", Granted("uuid:1", "Second-99999999999"), "HTTP/1.1 200 OK",
                   "Invalid TIMEOUT value = Second-99999999999 !!!"},
        FailureRow{"Reset", vex_test::Reset(), "HTTP/1.0 500 Internal Server Error",
                   "subscription failed with 500 code!!!"}),
    [](const testing::TestParamInfo<FailureRow>& row) { return std::string(row.param.name); });

// Answers that do not come, of which the network layer says nothing.
class MissingAnswers : public ControlSubscriptions,
                       public testing::WithParamInterface<FailureRow> {};

TEST_P(MissingAnswers, CountAsFailedOnesAfterThirtySeconds) {
  const FasterTime faster(20);
  RunPeer({GetParam().answer});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ExpectEnded(handle, "error");
  const std::vector<PeerRequest> requests = peer_->Requests();
  ASSERT_EQ(3U, requests.size());
  EXPECT_EQ(requests[0].text, requests[1].text);
  EXPECT_EQ(requests[0].text, requests[2].text);
  EXPECT_GE(After(requests[1]), milliseconds(1475));
  EXPECT_GE(After(requests[2]), milliseconds(2975));
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(Answers, MissingAnswers,
                         testing::Values(FailureRow{"Silence", vex_test::Silence(), "", ""},
                                         FailureRow{"BadHttp", Text("BLA BLA\r\n\r\n"), "", ""}),
                         [](const testing::TestParamInfo<FailureRow>& row) {
                           return std::string(row.param.name);
                         });

TEST_F(ControlSubscriptions, ARefusedConnectionCountsAsAFailedAnswer) {
  const FasterTime faster(100);
  RunPeer({Refused()});
  const std::string url = peer_->Url("/evt");
  peer_.reset();
  LogCapture log;
  int handle = 0;
  ASSERT_EQ(0,
            cp_control::Subscribe("uuid:dev", "H", "", stack_.CallbackUrl(), url, &log_, handle));
  ExpectEnded(handle, "error");
  EXPECT_EQ(2, log.Count("Resending Subscription to Device [uuid:dev]"));
}

TEST_F(ControlSubscriptions, ADeviceThatGoesAwayLosesItsSubscription) {
  const FasterTime faster(200);
  RunPeer({Granted("uuid:s1", "Second-20")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  peer_.reset();
  ExpectEnded(handle, "error");
}

TEST_F(ControlSubscriptions, AnAnswerAfterSilenceGoesOn) {
  const FasterTime faster(20);
  RunPeer({vex_test::Silence(), vex_test::Silence(), Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_EQ(0, log_.Outcomes()[0].code);
  EXPECT_EQ(3, peer_->Count());
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(handle, "uuid:s1", 0)));
}

TEST_F(ControlSubscriptions, AFailedRenewalLeadsToAFullSubscribe) {
  const FasterTime faster(20);
  RunPeer({Granted("uuid:s1", "Second-10"), Refused(), Granted("uuid:s2", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(2));
  const std::vector<PeerRequest> requests = peer_->Requests();
  ASSERT_EQ(3U, requests.size());
  EXPECT_EQ("uuid:s1", requests[1].Header("SID"));
  EXPECT_EQ("", requests[1].Header("CALLBACK"));
  EXPECT_EQ(requests[0].text, requests[2].text);
}

TEST_F(ControlSubscriptions, KeptTheThirdFailureOfAWholeLifeEndsIt) {
  const FasterTime faster(20);
  const PeerAnswer good = Granted("uuid:s1", "Second-4");
  RunPeer({good, good, Refused(), good, Refused(), good, good, Refused(),
           Granted("uuid:next", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ExpectEnded(handle, "HTTP/1.1 503 Busy Today");
  EXPECT_EQ(8, peer_->Count());
  EXPECT_EQ(5, log_.CountOf(CP_ERR_NONE));
  // Where an open path lets its events in, their SID is unknown.
  int next = 0;
  ASSERT_EQ(0, Subscribe(next, second_log_));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  EXPECT_EQ(kUnknownSid, stack_.Notify(NotifyRequest(next, "uuid:s1", 7)));
}

TEST_F(ControlSubscriptions, KeptASidStandsThoughItsTimeoutIsUnusable) {
  const PeerAnswer none = Text("HTTP/1.1 200 OK\r\nSID: uuid:first\r\nCONTENT-LENGTH: 0\r\n\r\n");
  std::size_t events = 0;
  for (const PeerAnswer& answer : {Granted("uuid:first", "infinite"), none}) {
    RunPeer({answer, vex_test::Silence()});
    int handle = 0;
    ASSERT_EQ(0, Subscribe(handle));
    ASSERT_TRUE(WaitForRequests(2));
    EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(handle, "uuid:first", 0)));
    EXPECT_THAT(log_.Events(), SizeIs(++events));
    EXPECT_THAT(log_.Outcomes(), IsEmpty());
    Unsubscribe(handle, peer_->HostLine());
  }
}

TEST_F(ControlSubscriptions, GrantsOfNothingAreRenewedAtOnceTwiceAndThenSpaced) {
  for (const char* timeout : {"Second-0", "Second--5", "Second-2863312"}) {
    // Spaced, the second renewal would come after two seconds, which are twenty here until it has.
    std::optional<SlowerTime> slower(10);
    RunPeer([&slower, timeout](const PeerRequest& request) {
      if (request.number == 2) slower.reset();
      return Granted("uuid:s1", timeout);
    });
    int handle = 0;
    ASSERT_EQ(0, Subscribe(handle));
    ASSERT_TRUE(WaitForRequests(5)) << timeout;
    EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
    const std::vector<PeerRequest> requests = peer_->Requests();
    EXPECT_LT(After(requests[2]), milliseconds(10000)) << timeout;
    EXPECT_GE(After(requests[3]), milliseconds(990)) << timeout;
    EXPECT_GE(After(requests[4]), milliseconds(1990)) << timeout;
  }
}

TEST_F(ControlSubscriptions, AGrantOfOneSecondIsRenewedAfterThreeQuartersOfIt) {
  RunPeer({Granted("uuid:s1", "Second-1")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForRequests(2));
  const std::vector<PeerRequest> requests = peer_->Requests();
  EXPECT_GE(After(requests[1]), milliseconds(745));
}

TEST_F(ControlSubscriptions, UnsubscribeBeforeTheFirstAnswerFailsAndTheRecordIsGone) {
  const auto unsubscribed = std::make_shared<std::atomic<bool>>(false);
  RunPeer([unsubscribed](const PeerRequest&) {
    WaitUntil([&] { return unsubscribed->load(); });
    return Granted("uuid:s1", "Second-1800");
  });
  LogCapture log;
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForRequests(1));
  EXPECT_EQ(5001, Unsubscribe(handle, peer_->HostLine()));
  EXPECT_EQ(1, log.Count(16, kTag, "Subscription is invalid."));
  EXPECT_EQ(1, log.Count(16, kTag, "Subscription is invalid uuid:dev!!!"));
  EXPECT_EQ(1, log.Count(16, kTag, "subscription cannot be canceled for SID 1!"));
  EXPECT_EQ(5000, Unsubscribe(handle, peer_->HostLine()));
  *unsubscribed = true;
  // The next subscription shows that the late answer had its time.
  ASSERT_EQ(0, Subscribe(handle, second_log_));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  EXPECT_THAT(log_.Outcomes(), IsEmpty());
  EXPECT_EQ(0, peer_->CountOf("UNSUBSCRIBE"));
}

TEST_F(ControlSubscriptions, TwoSubscriptionsOfOneDeviceKeepApart) {
  RunPeer([](const PeerRequest& request) {
    return Granted("uuid:s" + std::to_string(request.number + 1), "Second-1800");
  });
  int first = 0;
  int second = 0;
  ASSERT_EQ(0, Subscribe(first));
  ASSERT_TRUE(WaitForOutcomes(1));
  ASSERT_EQ(0, Subscribe(second, second_log_));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  EXPECT_EQ(1, first);
  EXPECT_EQ(2, second);
  EXPECT_EQ(CallbackLine(1), peer_->Requests()[0].Header("CALLBACK"));
  EXPECT_EQ(CallbackLine(2), peer_->Requests()[1].Header("CALLBACK"));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(1, "uuid:s1", 0, "<one/>")));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(2, "uuid:s2", 0, "<two/>")));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(1, "uuid:s2", 1, "<cross/>")));
  EXPECT_THAT(log_.Events(), ElementsAre("<one/>"));
  EXPECT_THAT(second_log_.Events(), ElementsAre("<two/>", "<cross/>"));
  EXPECT_EQ(0, Unsubscribe(first, peer_->HostLine()));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(2, "uuid:s2", 2, "<three/>")));
  EXPECT_EQ(kUnknownSid, stack_.Notify(NotifyRequest(2, "uuid:s1", 1)));
}

TEST_F(ControlSubscriptions, HandlesAndPathsAreNeverGivenTwice) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  for (int expected = 1; expected <= 3; ++expected) {
    int handle = 0;
    ASSERT_EQ(0, Subscribe(handle));
    EXPECT_EQ(expected, handle);
    ASSERT_TRUE(WaitForOutcomes(static_cast<std::size_t>(expected)));
    EXPECT_EQ(0, Unsubscribe(handle, peer_->HostLine()));
    ASSERT_TRUE(WaitForRequests(2 * expected));
  }
}

TEST_F(ControlSubscriptions, ASidLikeAnothersLeavesTheOlderSubscriptionItsEvents) {
  RunPeer({Granted("uuid:same", "Second-1800")});
  int first = 0;
  int second = 0;
  ASSERT_EQ(0, Subscribe(first));
  ASSERT_TRUE(WaitForOutcomes(1));
  ASSERT_EQ(0, Subscribe(second, second_log_));
  ASSERT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(second, "uuid:same", 0, "<a/>")));
  EXPECT_THAT(log_.Events(), ElementsAre("<a/>"));
  EXPECT_EQ(0, Unsubscribe(first, peer_->HostLine()));
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(second, "uuid:same", 1, "<b/>")));
  EXPECT_THAT(second_log_.Events(), ElementsAre("<b/>"));
  EXPECT_EQ(0, Unsubscribe(second, peer_->HostLine()));
}

TEST_F(ControlSubscriptions, TheLastAnswersOfAnEndedSubscriptionAreDropped) {
  LogCapture log;
  RunPeer({Granted("uuid:s1", "Second-1800")});
  const boost::shared_ptr<network_layer::ResponseListener> callback =
      SubscribeResponseCallback::GetInstance();
  const boost::shared_ptr<utils::HTTPInfo> answer(new utils::HTTPInfo);
  callback->OnResponseReceived(answer, 987654);
  EXPECT_EQ(1, log.Count("Subscription response for session_id [987654]"));
  EXPECT_EQ(1, log.Count(16, kTag, "There is no subscribe info!!!"));
  stack_.TerminateControl();
  callback->OnResponseReceived(answer, 987654);
  EXPECT_EQ(1, log.Count(16, kTag, "Subscribe response received after CP termination"));
}

TEST_F(ControlSubscriptions, UnknownHandlesOfTheInnerCallsAreLogged) {
  LogCapture log;
  EXPECT_FALSE(SubscribeRequestor::Resubscribe(55));
  EXPECT_EQ(1, log.Count(16, kTag, "Subscribe info is null."));
  EXPECT_EQ(1, log.Count(16, kTag, "No subscribe info!!!"));
  EXPECT_FALSE(SubscribeRequestor::ResendSubscribeOnFailure(55));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: subscribe info is null."));
  log.Clear();
  ResubscribeTimerCallback::OnTimerExpired(99, nullptr);
  EXPECT_EQ(1, log.Count("Subscription expired for timer id 99"));
  EXPECT_EQ(1, log.Count(16, kTag, "subscribe info is null."));
  EXPECT_EQ(0, log.Count("resubscribe SENT!!!"));
  ResubscribeTimerCallback::OnTimerExpired(99, reinterpret_cast<void*>(55));
  EXPECT_EQ(1, log.Count("resubscribe SENT!!!"));
}

TEST_F(ControlSubscriptions, ATimerWithoutAnArgumentFindsItsSubscription) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  int timer_id = 0;
  ASSERT_TRUE(WaitUntil([&] {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    timer_id = list->get_by_handlerid(handle)->timer_id;
    return timer_id != 0;
  }));
  ResubscribeTimerCallback::OnTimerExpired(timer_id, nullptr);
  ASSERT_TRUE(WaitForRequests(2));
  EXPECT_EQ("uuid:s1", peer_->Requests()[1].Header("SID"));
  ASSERT_TRUE(WaitForOutcomes(2));
}

TEST_F(ControlSubscriptions, ARenewalThatCannotBeSentStrandsTheSubscription) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->get_by_handlerid(handle)->event_url = "http://300.300.300.300:80/e";
  }
  LogCapture log;
  EXPECT_FALSE(SubscribeRequestor::Resubscribe(handle));
  EXPECT_EQ(1, log.Count(16, kTag, "resubscribe packet sending failed!!!"));
  EXPECT_EQ(1, log.Count(16, kTag, "Resubscription failed!!!"));
  EXPECT_FALSE(SubscribeRequestor::ResendSubscribeOnFailure(handle));
  EXPECT_EQ(1, log.Count(16, kTag, "Subscribe packet sending failed!!!"));
  EXPECT_EQ(1, log.Count(16, kTag, "Error: Resending subscription request failed!"));
  {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->get_by_handlerid(handle)->event_url = "nowhere";
  }
  EXPECT_FALSE(SubscribeRequestor::Resubscribe(handle));
  EXPECT_EQ(1, log.Count(16, kTag, "URI parsing error!"));
  // It still takes events, and only an end by its owner takes it away.
  EXPECT_EQ(kOk, stack_.Notify(NotifyRequest(handle, "uuid:s1", 1)));
  EXPECT_EQ(5001, Unsubscribe(handle, "H"));
  EXPECT_EQ(1, log.Count(16, kTag, "URI parsing error."));
  EXPECT_EQ(1, log.Count(16, kTag, "URI parsing error nowhere!!!"));
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
}

TEST_F(ControlSubscriptions, AnUnsubscribeThatCannotBeSentFails) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->get_by_handlerid(handle)->event_url = "http://300.300.300.300:80/e";
  }
  LogCapture log;
  EXPECT_EQ(5001, Unsubscribe(handle, "H"));
  EXPECT_EQ(1, log.Count(16, kTag, "unsubscribe packet sending failed!"));
  EXPECT_EQ(5000, Unsubscribe(handle, "H"));
}

TEST_F(ControlSubscriptions, TheOwnerMayEndItsSubscriptionInsideAnOutcome) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  std::atomic<int> result{-1};
  log_.on_outcome = [&](const SubscribeOutcome& outcome) {
    result = Unsubscribe(outcome.handler_id, peer_->HostLine());
  };
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForRequests(2));
  EXPECT_EQ("uuid:s1", peer_->Requests()[1].Header("SID"));
  stack_.TerminateControl();
  EXPECT_EQ(0, result);
}

TEST_F(ControlSubscriptions, AnOwnerThatThrowsKeepsItsSubscription) {
  const FasterTime faster(20);
  RunPeer({Granted("uuid:s1", "Second-4")});
  log_.on_outcome = [](const SubscribeOutcome&) { throw 1; };
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(3));
}

TEST_F(ControlSubscriptions, TerminateTellsNeitherTheDeviceNorTheOwner) {
  RunPeer({Granted("uuid:s1", "Second-1800")});
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  stack_.TerminateControl();
  EXPECT_EQ(1, peer_->Count());
  EXPECT_THAT(log_.Outcomes(), SizeIs(1));
  EXPECT_EQ(5000, Unsubscribe(handle, peer_->HostLine()));
  EXPECT_EQ(5001, Subscribe(handle));
  EXPECT_EQ(1, peer_->Count());
}

TEST_F(ControlSubscriptions, TheThirdMissingAnswerDoesNotHoldUpTheTimersBehindABusyListener) {
  RunPeer([](const PeerRequest& request) {
    return request.number == 0 ? Granted("uuid:s1", "Second-180000") : vex_test::Silence();
  });
  Gate gate;
  log_.on_event = [&](const std::string&) { gate.Pass(); };
  int handle = 0;
  ASSERT_EQ(0, Subscribe(handle));
  ASSERT_TRUE(WaitForOutcomes(1));
  const FasterTime faster(1000);
  std::thread event([&] { stack_.Notify(NotifyRequest(handle, "uuid:s1", 0)); });
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  int silent = 0;
  ASSERT_EQ(0, Subscribe(silent, second_log_));
  ASSERT_TRUE(WaitForRequests(4));
  // An action's time-out comes while the end of the silent one waits for the listener.
  vex_test::ActionLog actions;
  int id = 0;
  ASSERT_EQ(0, SendAction("uuid:1", peer_->HostLine(), "S", peer_->Url("/ctl"), "", "", &actions,
                          nullptr, id));
  EXPECT_TRUE(WaitUntil([&] { return actions.ResultCount() == 1; }));
  EXPECT_THAT(second_log_.Outcomes(), IsEmpty());
  gate.Open();
  event.join();
  EXPECT_TRUE(WaitUntil([&] { return second_log_.Outcomes().size() == 1; }));
  stack_.TerminateControl();
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

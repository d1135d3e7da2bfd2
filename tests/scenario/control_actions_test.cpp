#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/result_codes.h>

#include "src/action_request_timer_callback.h"
#include "src/control_info.h"
#include "src/control_requestor.h"
#include "src/control_response_callback.h"
#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {

// Reaches the step behind the sending, which no test can hold up from outside.
struct ControlRequestorProbe {
  static void RunTimer(int action_id) { ControlRequestor::__RunTimer(action_id); }
};

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vex_test::ActionLog;
using vex_test::ActionResult;
using vex_test::ControlPeer;
using vex_test::ControlStack;
using vex_test::FasterTime;
using vex_test::Gate;
using vex_test::LogCapture;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::Text;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPCONTROL";
constexpr char kSoapAction[] = "SOAPACTION: \"urn:schemas-upnp-org:service:X:1#Go\"";

constexpr char kTimeoutFault[] =
    "<?xml version=\"1.0\"?><s:Envelopexmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/"
    "\"s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault><faultcode>"
    "s:Client</faultcode><faultstring>UPnPError</faultstring><detail><UPnPError xmlns=\"urn:"
    "schemas-upnp-org:control-1-0\"><errorCode>801</errorCode><errorDescription>Action Timeout"
    "</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>";

constexpr char kBrokenFault[] =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/"
    "\" s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault><faultcode>"
    "s:Client</faultcode><faultstring>UPnPError</faultstring><detail><UPnPError xmlns=\"urn:"
    "schemas-upnp-org:control-1-0\"><errorCode>501</errorCode><errorDescription>Action Failed"
    "</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>";

PeerAnswer Reply(int status, const std::string& body) {
  return Text("HTTP/1.1 " + std::to_string(status) +
              " Whatever\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

PeerAnswer Late(PeerAnswer answer, int milliseconds) {
  answer.delay = std::chrono::milliseconds(milliseconds);
  return answer;
}

int Send(const ControlPeer& peer, ActionLog& log, void* context, int& id,
         const std::string& body = "<x/>", const std::string& agent = "agent/1.0") {
  return SendAction("uuid:1", peer.HostLine(), kSoapAction, peer.Url("/ctl"), body, agent, &log,
                    context, id);
}

class ControlActions : public testing::Test {
 protected:
  void RunPeer(ControlPeer::Script script) {
    peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0, std::move(script)));
  }
  // A port that nobody listens on.
  std::string RefusingUrl() {
    RunPeer([](const PeerRequest&) { return PeerAnswer(); });
    const std::string url = peer_->Url("/ctl");
    peer_.reset();
    return url;
  }
  bool WaitForResults(std::size_t count) {
    return WaitUntil([&] { return log_.ResultCount() >= count; });
  }

  // Destroyed last, so that no listener goes before the library is quiet.
  ActionLog log_;
  std::unique_ptr<ControlPeer> peer_;
  int context_ = 0;
  ControlStack stack_;
};

TEST_F(ControlActions, TheRequestOnTheWireByteForByte) {
  RunPeer([](const PeerRequest&) { return Reply(200, "<ok/>"); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id, "<a>\xc3\xa4</a>", "agent/1.0"));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ("POST /ctl HTTP/1.1\r\nHOST:10.77.0.2:" + std::to_string(peer_->port()) +
                "\r\nAccept: */*\r\nCONTENT-LENGTH: 9\r\nCONTENT-TYPE: text/xml; "
                "charset=\"utf-8\"\r\nUSER-AGENT: agent/1.0\r\n"
                "SOAPACTION: \"urn:schemas-upnp-org:service:X:1#Go\"\r\nConnection: close\r\n\r\n"
                "<a>\xc3\xa4</a>",
            peer_->Requests().at(0).text);
}

TEST_F(ControlActions, AnEmptyBodyIsSentWithALengthOfZero) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id, ""));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ("0", peer_->Requests().at(0).Header("CONTENT-LENGTH"));
  EXPECT_EQ("", peer_->Requests().at(0).Body());
}

TEST_F(ControlActions, TheConstantAgentTheDefaultAndTheArgument) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  std::string agent = "?";
  GetDefaultUserAgent(agent);
  EXPECT_EQ("", agent);
  int id = 0;
  Send(*peer_, log_, &context_, id, "", "");
  ASSERT_TRUE(WaitForResults(1));
  SetDefaultUserAgent("default/2");
  GetDefaultUserAgent(agent);
  EXPECT_EQ("default/2", agent);
  Send(*peer_, log_, &context_, id, "", "");
  ASSERT_TRUE(WaitForResults(2));
  Send(*peer_, log_, &context_, id, "", "mine/3");
  ASSERT_TRUE(WaitForResults(3));
  const std::vector<PeerRequest> requests = peer_->Requests();
  EXPECT_EQ("DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0", requests[0].Header("USER-AGENT"));
  EXPECT_EQ("default/2", requests[1].Header("USER-AGENT"));
  EXPECT_EQ("mine/3", requests[2].Header("USER-AGENT"));
}

TEST_F(ControlActions, EveryStatusReachesTheListener) {
  const std::vector<int> statuses = {200, 299, 302, 404, 500, 503};
  RunPeer([&](const PeerRequest& request) {
    const int status = statuses[static_cast<std::size_t>(request.number)];
    return Reply(status, "<s" + std::to_string(status) + "/>");
  });
  for (std::size_t i = 0; i < statuses.size(); ++i) {
    int id = 0;
    ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
    ASSERT_TRUE(WaitForResults(i + 1));
    const ActionResult got = log_.Results()[i];
    EXPECT_EQ(id, got.action_id);
    EXPECT_EQ(statuses[i], got.status);
    EXPECT_EQ("<s" + std::to_string(statuses[i]) + "/>", got.body);
    EXPECT_EQ(&context_, got.context);
  }
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, ABodyWithANulIsEmpty) {
  RunPeer([](const PeerRequest&) { return Reply(200, std::string("<a>\0</a>", 8)); });
  int id = 0;
  Send(*peer_, log_, &context_, id);
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(200, log_.Results()[0].status);
  EXPECT_EQ("", log_.Results()[0].body);
}

TEST_F(ControlActions, NoListenerIsRefused) {
  LogCapture log;
  int id = 77;
  EXPECT_EQ(5000, SendAction("uuid:1", "HOST:h:1", kSoapAction, "http://h:1/", "", "", nullptr,
                             &context_, id));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid argument - upperlayer_callback"));
  EXPECT_EQ(77, id);
}

TEST_F(ControlActions, AnUnreadableControlUrlFails) {
  LogCapture log;
  int id = 77;
  for (const char* url : {"", "http://10.77.0.2/ctl", "10.77.0.2:80/ctl", "http://h:80a/"}) {
    log.Clear();
    EXPECT_EQ(5001,
              SendAction("uuid:1", "HOST:h:1", kSoapAction, url, "", "", &log_, &context_, id))
        << url;
    EXPECT_EQ(1, log.Count(16, kTag, "Unable to form Absolute URI from Control URI"));
    EXPECT_EQ(1, log.Count(16, kTag, "Request registration failed!!!"));
  }
  EXPECT_EQ(77, id);
  EXPECT_THAT(log_.Results(), IsEmpty());
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, ASendThatFailsLeavesTheContextWithTheCaller) {
  LogCapture log;
  int id = 77;
  EXPECT_EQ(5001, SendAction("uuid:1", "HOST:h:1", kSoapAction, "http://300.300.300.300:80/ctl", "",
                             "", &log_, &context_, id));
  EXPECT_EQ(1, log.Count(16, kTag, "Action Request packet sending failed!!!"));
  EXPECT_EQ(1, log.Count(16, kTag, "Request registration failed!!!"));
  EXPECT_EQ(77, id);
  EXPECT_THAT(log_.Results(), IsEmpty());
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, SilenceEndsInTheFixedFaultAfterThirtySeconds) {
  const FasterTime faster(100);
  LogCapture log;
  RunPeer([](const PeerRequest&) { return vex_test::Silence(); });
  int id = 0;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(300));
  EXPECT_LT(took, std::chrono::milliseconds(15000));
  const ActionResult got = log_.Results()[0];
  EXPECT_EQ(id, got.action_id);
  EXPECT_EQ(500, got.status);
  EXPECT_EQ(kTimeoutFault, got.body);
  EXPECT_EQ(417U, got.body.size());
  EXPECT_EQ(&context_, got.context);
  EXPECT_EQ(1, log.Count("Action timeout for action id " + std::to_string(id)));
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, ARefusedConnectionIsToldByTheTimeOut) {
  const FasterTime faster(100);
  const std::string url = RefusingUrl();
  int id = 0;
  ASSERT_EQ(0, SendAction("uuid:1", "HOST:h:1", kSoapAction, url, "", "", &log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(500, log_.Results()[0].status);
  EXPECT_EQ(kTimeoutFault, log_.Results()[0].body);
}

TEST_F(ControlActions, BadHttpIsToldByTheTimeOut) {
  const FasterTime faster(100);
  RunPeer([](const PeerRequest&) { return Text("BLA BLA BLA\r\n\r\n"); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(kTimeoutFault, log_.Results()[0].body);
}

TEST_F(ControlActions, ABrokenConnectionIsAFault501) {
  RunPeer([](const PeerRequest&) { return vex_test::Reset(); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(500, log_.Results()[0].status);
  EXPECT_EQ(kBrokenFault, log_.Results()[0].body);
  EXPECT_EQ(418U, log_.Results()[0].body.size());
  EXPECT_EQ(&context_, log_.Results()[0].context);
}

TEST_F(ControlActions, APeerThatClosesWithoutAWordGivesAnEmptyResult) {
  RunPeer([](const PeerRequest&) { return PeerAnswer(); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(0, log_.Results()[0].status);
  EXPECT_EQ("", log_.Results()[0].body);
}

TEST_F(ControlActions, ABodyThatTheDeviceBreaksOffComesAsFarAsItGot) {
  RunPeer([](const PeerRequest&) {
    return Text("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 100\r\n\r\n<half");
  });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(200, log_.Results()[0].status);
  EXPECT_EQ("<half", log_.Results()[0].body);
}

TEST_F(ControlActions, ATimeOutOfAnActionThatHasEndedIsLoggedOnly) {
  LogCapture log;
  ActionRequestTimerCallback::OnTimerExpired(1, new int(987654));
  EXPECT_EQ(1, log.Count(16, kTag, "There is no control info!!!"));
  EXPECT_THAT(log_.Results(), IsEmpty());
}

TEST_F(ControlActions, ACancelGivesTheContextBackAndNothingElseComes) {
  RunPeer([](const PeerRequest&) { return Late(Reply(200, "<late/>"), 50); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitUntil([&] { return peer_->Count() == 1; }));
  EXPECT_EQ(0, CancelAction(id));
  EXPECT_THAT(log_.GivenBack(), ElementsAre(&context_));
  // A second action shows that the first one's answer had its time.
  int second = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, second));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(second, log_.Results()[0].action_id);
  EXPECT_THAT(log_.GivenBack(), SizeIs(1));
}

TEST_F(ControlActions, CancellingNothingReturnsZeroAndCallsNothing) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  EXPECT_EQ(0, CancelAction(0));
  EXPECT_EQ(0, CancelAction(123456));
  EXPECT_EQ(0, CancelAction(-1));
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  EXPECT_EQ(0, CancelAction(id));
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
  EXPECT_THAT(log_.Results(), SizeIs(1));
}

TEST_F(ControlActions, ALateAnswerToATimedOutActionIsSilence) {
  const FasterTime faster(20);
  RunPeer([](const PeerRequest&) { return Late(Reply(200, "<late/>"), 2500); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  int second = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, second));
  ASSERT_TRUE(WaitForResults(2));
  EXPECT_EQ(kTimeoutFault, log_.Results()[0].body);
  EXPECT_EQ(kTimeoutFault, log_.Results()[1].body);
}

TEST_F(ControlActions, ATimeOutEndsItsActionWithoutMemoryToo) {
  constexpr std::size_t kActions = 20;
  const FasterTime faster(100);
  RunPeer([](const PeerRequest&) { return vex_test::Silence(); });
  for (std::size_t i = 0; i < kActions; ++i) {
    int id = 0;
    ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  }
  {
    const vex_test::FailOnLibraryThreads every_other(2, 1);
    ASSERT_TRUE(WaitForResults(kActions));
  }
  EXPECT_EQ(kTimeoutFault, log_.Results()[0].body);
  EXPECT_EQ(&context_, log_.Results()[0].context);
}

TEST_F(ControlActions, AnAnswerForAnUnknownSessionIsLoggedOnly) {
  LogCapture log;
  const boost::shared_ptr<utils::HTTPInfo> answer(new utils::HTTPInfo);
  ControlResponseCallback::GetInstance()->OnResponseReceived(answer, 987654);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid control info!"));
}

TEST_F(ControlActions, AnAnswerThatBeatsItsTimerLeavesNoTimeOut) {
  const FasterTime faster(30);
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(1));
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  ASSERT_TRUE(WaitUntil([&] {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    return !list->get_by_action_id(id);
  }));
  LogCapture log;
  ControlRequestorProbe::RunTimer(id);
  EXPECT_EQ(1, log.Count(16, kTag, "get_by_action_id failed!"));
  int second = 0;
  ASSERT_EQ(0, SendAction("uuid:1", "HOST:h:1", kSoapAction, RefusingUrl(), "", "", &log_,
                          &context_, second));
  ASSERT_TRUE(WaitForResults(2));
  EXPECT_EQ(0, log.Count("Action timeout for action id " + std::to_string(id)));
  EXPECT_EQ(1, log.Count("Action timeout for action id " + std::to_string(second)));
}

TEST_F(ControlActions, AListenerMayStartAnotherActionAndCancelOne) {
  RunPeer([](const PeerRequest& request) {
    return request.number < 2 ? Reply(200, "") : vex_test::Silence();
  });
  int third = 0;
  log_.on_result = [&](const ActionResult& got) {
    int id = 0;
    if (log_.ResultCount() == 1) {
      EXPECT_EQ(0, Send(*peer_, log_, &context_, id));
    } else {
      EXPECT_EQ(0, Send(*peer_, log_, &context_, third));
      EXPECT_EQ(0, CancelAction(third));
      EXPECT_EQ(0, CancelAction(got.action_id));
    }
  };
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitUntil([&] { return log_.GivenBack().size() == 1; }));
  EXPECT_THAT(log_.Results(), SizeIs(2));
  stack_.TerminateControl();
}

TEST_F(ControlActions, DeleteContextMayCallBack) {
  RunPeer([](const PeerRequest&) { return vex_test::Silence(); });
  int first = 0;
  int second = 0;
  log_.on_delete = [&](void*) { CancelAction(second); };
  ASSERT_EQ(0, Send(*peer_, log_, &context_, first));
  ASSERT_EQ(0, Send(*peer_, log_, &context_, second));
  CancelAction(first);
  EXPECT_THAT(log_.GivenBack(), SizeIs(2));
}

TEST_F(ControlActions, ACancelDuringTheResultFindsTheContextGone) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  Gate gate;
  log_.on_result = [&](const ActionResult&) { gate.Pass(); };
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  EXPECT_EQ(0, CancelAction(id));
  gate.Open();
  stack_.TerminateControl();
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
  EXPECT_THAT(log_.Results(), SizeIs(1));
}

TEST_F(ControlActions, KeptASecondEndOfAClaimedActionComesWithANullContext) {
  const FasterTime faster(20);
  RunPeer([](const PeerRequest&) { return Reply(200, "<ok/>"); });
  // The answer's listener stays until the time-out has come as well.
  log_.on_result = [&](const ActionResult& got) {
    if (got.context != nullptr) WaitForResults(2);
  };
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(2));
  const std::vector<ActionResult> results = log_.Results();
  EXPECT_EQ(200, results[0].status);
  EXPECT_EQ(&context_, results[0].context);
  EXPECT_EQ(id, results[1].action_id);
  EXPECT_EQ(500, results[1].status);
  EXPECT_EQ(nullptr, results[1].context);
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, AListenerThatThrowsHarmsNobody) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  log_.on_result = [](const ActionResult&) { throw 1; };
  int id = 0;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitForResults(3));
}

TEST_F(ControlActions, KeptTerminateGivesNoOpenActionItsContextBack) {
  RunPeer([](const PeerRequest&) { return vex_test::Silence(); });
  int id = 0;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitUntil([&] { return peer_->Count() == 3; }));
  stack_.TerminateControl();
  EXPECT_EQ(0, CancelAction(id));
  EXPECT_THAT(log_.Results(), IsEmpty());
  EXPECT_THAT(log_.GivenBack(), IsEmpty());
}

TEST_F(ControlActions, TerminateWaitsForAResultThatIsBeingDelivered) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  Gate gate;
  std::atomic<bool> delivered{false};
  log_.on_result = [&](const ActionResult&) {
    gate.Pass();
    delivered = true;
  };
  int id = 0;
  ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
  ASSERT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  std::atomic<bool> terminated{false};
  std::thread terminator([&] {
    stack_.TerminateControl();
    terminated = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(terminated);
  gate.Open();
  terminator.join();
  EXPECT_TRUE(delivered);
}

TEST_F(ControlActions, AfterTerminateAnAnswerIsTurnedAwayAndAnActionRefused) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  const boost::shared_ptr<ControlResponseCallback> callback =
      ControlResponseCallback::GetInstance();
  stack_.TerminateControl();
  LogCapture log;
  const boost::shared_ptr<utils::HTTPInfo> answer(new utils::HTTPInfo);
  callback->OnResponseReceived(answer, 1);
  EXPECT_EQ(1, log.Count(16, kTag, "Received after CP termination"));
  int id = 77;
  EXPECT_EQ(5001, Send(*peer_, log_, &context_, id));
  EXPECT_EQ(77, id);
  EXPECT_EQ(0, peer_->Count());
}

TEST_F(ControlActions, ControlStartsAgainAfterItsEnd) {
  RunPeer([](const PeerRequest&) { return Reply(200, ""); });
  for (std::size_t round = 1; round <= 3; ++round) {
    SetDefaultUserAgent("round/" + std::to_string(round));
    int id = 0;
    ASSERT_EQ(0, Send(*peer_, log_, &context_, id));
    ASSERT_TRUE(WaitForResults(round));
    Terminate();
    std::string agent = "?";
    GetDefaultUserAgent(agent);
    EXPECT_EQ("", agent);
    Initialize();
  }
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/generic_cp.h>
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::LogCapture;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;
using vex_test::ToldAction;
using vex_test::WaitUntil;
using vex_test::Watchdog;

constexpr char kTag[] = "VEX_CORE_GENERIC_CP";

class GenericActions : public testing::Test {
 protected:
  GenericActions() {
    handle_ = rig_.Register();
    udn_ = rig_.Meet(device_);
  }

  int Send(const char* action, CPArgument* arguments = nullptr,
           const char* service_type = "AVTransport") {
    int id = 0;
    EXPECT_EQ(0, SendAction(handle_, udn_.c_str(), service_type, action, arguments, &id));
    return id;
  }
  ToldAction Outcome(int id) {
    ToldAction outcome = {};
    EXPECT_TRUE(WaitUntil([&] {
      for (const ToldAction& told : HostLog::Actions()) {
        if (told.action_id != id) continue;
        outcome = told;
        return true;
      }
      return false;
    }));
    return outcome;
  }
  // Sends actions that the device never answers, and waits until it has them.
  std::vector<int> SendToASilentDevice(std::size_t count) {
    device_.OnAction([](const PeerRequest&) { return vex_test::Silence(); });
    std::vector<int> ids;
    while (ids.size() < count) ids.push_back(Send("Play"));
    EXPECT_TRUE(WaitUntil([&] { return device_.Actions().size() == count; }));
    return ids;
  }
  // By itself the library gives an unanswered action up after 30 s only.
  bool HasLeftTheDevice() {
    return WaitUntil([&] { return device_.peer().Open() == 0; });
  }

  const Watchdog watchdog_;
  ScriptedDevice device_{"uuid:dev-1", {"AVTransport"}};
  HostRig rig_;
  int handle_ = 0;
  std::string udn_;
};

TEST_F(GenericActions, TheRequestIsTheDevicesOwn) {
  GenericCPSetUserAgent("After/1.0");
  char instance_name[] = "InstanceID";
  char instance[] = "0";
  char speed_name[] = "Speed";
  char speed[] = "";
  CPArgument second = {speed_name, speed, nullptr};
  CPArgument first = {instance_name, instance, &second};
  Outcome(Send("Play", &first));
  ASSERT_THAT(device_.Actions(), SizeIs(1));
  const std::string body =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
      "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n"
      "<s:Body>\r\n"
      "<u:Play xmlns:u=\"urn:schemas-upnp-org:service:AVTransport:1\">\r\n"
      "<InstanceID>0</InstanceID>\r\n"
      "<Speed/>\r\n"
      "</u:Play>\r\n"
      "</s:Body>\r\n"
      "</s:Envelope>";
  EXPECT_EQ(
      "POST /ctl/AVTransport HTTP/1.1\r\n"
      "HOST:10.77.0.2:" +
          std::to_string(device_.port()) +
          "\r\n"
          "Accept: */*\r\n"
          "CONTENT-LENGTH: " +
          std::to_string(body.size()) +
          "\r\n"
          "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
          "USER-AGENT: After/1.0\r\n"
          "SOAPACTION: \"urn:schemas-upnp-org:service:AVTransport:1#Play\"\r\n"
          "Connection: close\r\n\r\n" +
          body,
      device_.Actions()[0].text);
  // The caller's list stays as it was.
  EXPECT_STREQ("InstanceID", first.name);
  EXPECT_EQ(&second, first.next);
}

TEST_F(GenericActions, OutputArgumentsComeInOrder) {
  device_.OnAction([](const PeerRequest&) {
    return ScriptedDevice::Response("GetPositionInfo",
                                    "<Track>1</Track><RelTime>0:00:01</RelTime>");
  });
  const ToldAction told = Outcome(Send("GetPositionInfo"));
  EXPECT_EQ(CP_ERR_NONE, told.code);
  EXPECT_EQ("Track=1,RelTime=0:00:01", told.output);
  EXPECT_EQ("null", told.description);
}

TEST_F(GenericActions, AFaultComesWithItsWords) {
  device_.OnAction([](const PeerRequest&) { return ScriptedDevice::Fault(714, "Illegal MIME"); });
  const ToldAction told = Outcome(Send("Play"));
  EXPECT_EQ(CP_ERR_ACTION_FAILED, told.code);
  EXPECT_EQ("none", told.output);
  EXPECT_EQ("'Illegal MIME'", told.description);
}

TEST_F(GenericActions, AFaultWithoutWordsIsActionFailed) {
  device_.OnAction([](const PeerRequest&) { return ScriptedDevice::Fault(501, ""); });
  EXPECT_EQ("'Action Failed'", Outcome(Send("Play")).description);
}

TEST_F(GenericActions, KeptASuccessWithoutOutputArgumentsReachesTheHostAsFailed) {
  device_.OnAction([](const PeerRequest&) { return ScriptedDevice::Response("Stop", ""); });
  const ToldAction told = Outcome(Send("Stop"));
  EXPECT_EQ(CP_ERR_ACTION_FAILED, told.code);
  EXPECT_EQ("none", told.output);
  EXPECT_EQ("null", told.description);
}

TEST_F(GenericActions, ADeviceThatSaysNothingTimesOut) {
  device_.OnAction([](const PeerRequest&) { return vex_test::Silence(); });
  const vex_test::FasterTime faster(100);
  const ToldAction told = Outcome(Send("Play"));
  EXPECT_EQ(CP_ERR_ACTION_FAILED, told.code);
  EXPECT_EQ("'Action Timeout'", told.description);
}

TEST_F(GenericActions, ACancelledActionTellsNothing) {
  const int id = SendToASilentDevice(1).front();
  CancelAction(handle_, id);
  EXPECT_TRUE(HasLeftTheDevice());
  CancelAction(handle_, id);
  device_.OnAction([](const PeerRequest&) { return ScriptedDevice::Response("Play", "<A>1</A>"); });
  const int second = Send("Play");
  Outcome(second);
  ASSERT_THAT(HostLog::Actions(), SizeIs(1));
  EXPECT_EQ(second, HostLog::Actions()[0].action_id);
}

TEST_F(GenericActions, AnyHandleCancels) {
  const std::vector<int> ids = SendToASilentDevice(2);
  CancelAction(rig_.Register(), ids[0]);
  LogCapture log;
  CancelAction(handle_ + 100, ids[1]);
  EXPECT_EQ(1, log.Count(4, kTag, "Invalid cp handle"));
  EXPECT_TRUE(HasLeftTheDevice());
  EXPECT_THAT(HostLog::Actions(), IsEmpty());
}

TEST_F(GenericActions, UnregisteringCancelsWhatIsOpen) {
  SendToASilentDevice(2);
  LogCapture log;
  EXPECT_EQ(0, UnRegisterCP(handle_));
  EXPECT_TRUE(HasLeftTheDevice());
  EXPECT_THAT(HostLog::Actions(), IsEmpty());
  // Nor has anything come that was dropped.
  EXPECT_EQ(0, log.Count("Registered cp list for given context is empty."));
}

TEST_F(GenericActions, AnUnknownDeviceAndAServiceThatItLacksFail) {
  for (const std::string& udn : {std::string("uuid:none+lan0"), udn_}) {
    const char* const service = udn == udn_ ? "ContentDirectory" : "AVTransport";
    LogCapture log;
    int id = -7;
    EXPECT_EQ(15004, SendAction(handle_, udn.c_str(), service, "Play", nullptr, &id)) << udn;
    EXPECT_EQ(-7, id);
    EXPECT_EQ(1, log.Count(16, kTag, "GetHostAndControlUri Operation failed."));
  }
  EXPECT_THAT(device_.Actions(), IsEmpty());
}

TEST_F(GenericActions, ResultsAreSerialisedWithTheCallsOfTheHost) {
  std::atomic<bool> inside{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> left{false};
  HostLog::OnAction([&](const ToldAction&) {
    inside = true;
    WaitUntil([&] { return go_on.load(); });
    left = true;
  });
  Send("Play");
  ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
  std::atomic<bool> calling{false};
  std::atomic<bool> returned{false};
  bool left_before = false;
  std::thread host([&] {
    calling = true;
    rig_.Register();
    left_before = left;
    returned = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return calling.load(); }));
  // What does not wait has returned by then.
  EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(50)));
  go_on = true;
  host.join();
  EXPECT_TRUE(left_before);
}

TEST_F(GenericActions, TheEndWaitsForARunningActionCallback) {
  std::atomic<bool> inside{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> left{false};
  HostLog::OnAction([&](const ToldAction&) {
    inside = true;
    WaitUntil([&] { return go_on.load(); });
    left = true;
  });
  Send("Play");
  ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
  std::atomic<bool> ending{false};
  std::atomic<bool> returned{false};
  bool left_before = false;
  std::thread host([&] {
    ending = true;
    rig_.TerminateControlPoint();
    left_before = left;
    returned = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return ending.load(); }));
  // What does not wait has returned by then.
  EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(50)));
  go_on = true;
  host.join();
  EXPECT_TRUE(left_before);
}

TEST_F(GenericActions, TheEndWithOpenActionsTellsNothingMore) {
  device_.OnAction([](const PeerRequest&) { return vex_test::Silence(); });
  for (int i = 0; i < 10; ++i) Send("Play");
  rig_.TerminateControlPoint();
  EXPECT_THAT(HostLog::Actions(), IsEmpty());
}

}  // namespace

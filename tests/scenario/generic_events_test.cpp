#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <vexupnpcp/generic_cp.h>
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait_until.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::HostRigOptions;
using vex_test::LogCapture;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;
using vex_test::ToldAction;
using vex_test::ToldEvent;
using vex_test::WaitUntil;
using vex_test::Watchdog;

constexpr char kTag[] = "VEX_CORE_GENERIC_CP";
constexpr char kAccepted[] = "HTTP/1.1 200 OK";
constexpr char kProperty[] = "<e:property><State>1</State></e:property>";
constexpr char kShort[] = "AVTransport";
constexpr char kLong[] = "urn:schemas-upnp-org:service:AVTransport:1";

class GenericEvents : public testing::Test {
 protected:
  GenericEvents() {
    handle_ = rig_.Register();
    udn_ = rig_.Meet(device_);
  }

  int Subscribe(const char* service_type = kShort) {
    return SubscribeService(handle_, udn_.c_str(), service_type);
  }
  int Unsubscribe(const char* service_type = kShort) {
    return UnSubscribeService(handle_, udn_.c_str(), service_type);
  }
  // The first event waits for the answer to the subscription, so once it has passed the service is
  // known to be subscribed.
  void ExpectSubscribed(const char* service = kShort) {
    ASSERT_TRUE(WaitUntil([&] { return device_.Notify(service, 0, kProperty) == kAccepted; }));
  }

  const Watchdog watchdog_;
  ScriptedDevice device_{"uuid:dev-1", {"AVTransport", "RenderingControl"}};
  HostRig rig_;
  int handle_ = 0;
  std::string udn_;
};

TEST_F(GenericEvents, EventsReachTheHost) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  HostLog::Clear();
  EXPECT_EQ(kAccepted, device_.Notify(kShort, 1, kProperty));
  EXPECT_EQ(kAccepted, device_.Notify(kShort, 2, "broken"));
  ASSERT_THAT(HostLog::Events(), SizeIs(2));
  EXPECT_EQ(udn_, HostLog::Events()[0].udn);
  EXPECT_EQ(CP_ERR_NONE, HostLog::Events()[0].code);
  EXPECT_EQ("State=1", HostLog::Events()[0].variables);
  EXPECT_EQ(CP_ERR_EVENT_PARSE, HostLog::Events()[1].code);
  EXPECT_EQ("none", HostLog::Events()[1].variables);
}

TEST_F(GenericEvents, TheRequestNamesTheEventServerThatFacesTheDevice) {
  GenericCPSetUserAgent("Agent/1.0");
  ASSERT_EQ(0, Subscribe());
  ASSERT_TRUE(WaitUntil([&] { return device_.Subscribes(kShort) == 1; }));
  for (const PeerRequest& request : device_.peer().Requests()) {
    if (!request.Begins("SUBSCRIBE ")) continue;
    EXPECT_EQ(
        "SUBSCRIBE /evt/AVTransport HTTP/1.1\r\n"
        "CALLBACK: <http://10.77.0.1:5100/eventing_1/>\r\n"
        "NT: upnp:event\r\n"
        "TIMEOUT: Second-1800\r\n"
        "HOST:10.77.0.2:" +
            std::to_string(device_.port()) +
            "\r\n"
            "USER-AGENT: Agent/1.0\r\n\r\n",
        request.text);
  }
}

TEST_F(GenericEvents, ASecondSubscriptionOfTheSamePairIsRefusedAndTheFirstStays) {
  LogCapture log;
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  EXPECT_EQ(15009, Subscribe());
  EXPECT_EQ(1,
            log.Count(16, kTag, "Cannot subscribe service again. Service is already subscribed."));
  EXPECT_EQ(kAccepted, device_.Notify(kShort, 1, kProperty));
  EXPECT_EQ(1, device_.Subscribes(kShort));
}

TEST_F(GenericEvents, PairsAreComparedLetterForLetter) {
  ASSERT_EQ(0, Subscribe(kShort));
  // The same service under its whole type is another pair.
  EXPECT_EQ(0, Subscribe(kLong));
  ExpectSubscribed();
  EXPECT_EQ(15010, Unsubscribe("AVTransport:1"));
  EXPECT_EQ(0, Unsubscribe(kShort));
  EXPECT_TRUE(WaitUntil([&] { return device_.Subscribes(kShort) == 2; }));
}

TEST_F(GenericEvents, UnsubscribingTellsTheDeviceAndEndsTheEvents) {
  LogCapture log;
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  HostLog::Clear();
  EXPECT_EQ(0, Unsubscribe());
  EXPECT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
  EXPECT_NE(kAccepted, device_.Notify(kShort, 1, kProperty));
  EXPECT_THAT(HostLog::Events(), IsEmpty());
  EXPECT_EQ(15010, Unsubscribe());
  EXPECT_EQ(1, log.Count(16, kTag, "Cannot unsubscribe service. Service is not subscribed."));
  EXPECT_EQ(0, Subscribe());
}

TEST_F(GenericEvents, AnUnknownServiceCannotBeSubscribed) {
  EXPECT_EQ(15004, Subscribe("ContentDirectory"));
  EXPECT_EQ(15010, Unsubscribe("ContentDirectory"));
  EXPECT_EQ(15000, SubscribeService(handle_, "uuid:none+lan0", kShort));
}

TEST_F(GenericEvents, AWholeDeviceIsSubscribedServiceByService) {
  EXPECT_EQ(0, SubscribeDevice(handle_, udn_.c_str()));
  ExpectSubscribed("AVTransport");
  ExpectSubscribed("RenderingControl");
  EXPECT_EQ(15009, Subscribe(kLong));
  EXPECT_EQ(0, UnSubscribeDevice(handle_, udn_.c_str()));
  EXPECT_TRUE(WaitUntil([&] {
    return device_.Unsubscribes("AVTransport") == 1 &&
           device_.Unsubscribes("RenderingControl") == 1;
  }));
  // Nothing is left, and that is no failure.
  EXPECT_EQ(0, UnSubscribeDevice(handle_, udn_.c_str()));
}

TEST_F(GenericEvents, TheFirstServiceWhoseTypeHoldsTheTextIsSubscribed) {
  ScriptedDevice device("uuid:dev-2", {"AVTransportX", "AVTransport"});
  const std::string udn = rig_.Meet(device);
  // Capitals count, other than with actions.
  EXPECT_EQ(15004, SubscribeService(handle_, udn.c_str(), "avtransport"));
  ASSERT_EQ(0, SubscribeService(handle_, udn.c_str(), "AVTransport"));
  EXPECT_TRUE(WaitUntil([&] { return device.Subscribes("AVTransportX") == 1; }));
  ASSERT_EQ(0, SubscribeService(handle_, udn.c_str(), "AVTransport:1"));
  EXPECT_TRUE(WaitUntil([&] { return device.Subscribes("AVTransport") == 1; }));
  EXPECT_EQ(1, device.Subscribes("AVTransportX"));
}

// Of its three services the middle one tells no events.
class GenericEventsOfThree : public GenericEvents {
 protected:
  GenericEventsOfThree() {
    three_.HasNoEvents("ConnectionManager");
    three_udn_ = rig_.Meet(three_);
  }
  int SubscribeOne(const std::string& name) {
    const std::string type = "urn:schemas-upnp-org:service:" + name + ":1";
    return SubscribeService(handle_, three_udn_.c_str(), type.c_str());
  }

  ScriptedDevice three_{"uuid:dev-3", {"AVTransport", "ConnectionManager", "RenderingControl"}};
  std::string three_udn_;
};

TEST_F(GenericEventsOfThree, TheFirstFailureEndsTheSubscriptionOfADevice) {
  EXPECT_EQ(3001, SubscribeOne("ConnectionManager"));
  EXPECT_EQ(3001, SubscribeDevice(handle_, three_udn_.c_str()));
  // What came before it stays, and what comes behind it has not been tried.
  EXPECT_EQ(15009, SubscribeOne("AVTransport"));
  EXPECT_EQ(0, SubscribeOne("RenderingControl"));
}

TEST_F(GenericEventsOfThree, TheEndOfADevicePassesOverWhatFails) {
  ASSERT_EQ(0, SubscribeOne("AVTransport"));
  ASSERT_EQ(0, SubscribeOne("RenderingControl"));
  for (const char* service : {"AVTransport", "RenderingControl"}) {
    ASSERT_TRUE(WaitUntil([&] { return three_.Notify(service, 0, kProperty) == kAccepted; }));
  }
  EXPECT_EQ(0, UnSubscribeDevice(handle_, three_udn_.c_str()));
  EXPECT_TRUE(WaitUntil([&] {
    return three_.Unsubscribes("AVTransport") == 1 && three_.Unsubscribes("RenderingControl") == 1;
  }));
}

TEST_F(GenericEvents, AnUnknownDeviceIsLogged) {
  for (const auto call : {SubscribeDevice, UnSubscribeDevice}) {
    LogCapture log;
    EXPECT_EQ(15000, call(handle_, "uuid:none+lan0"));
    EXPECT_EQ(1, log.Count(16, kTag, "GetDeviceDetailInfo failed."));
  }
}

TEST_F(GenericEvents, KeptARefusedSubscriptionCountsAsSubscribed) {
  device_.OnSubscribe([](const PeerRequest&) {
    return vex_test::Text("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n");
  });
  LogCapture log;
  ASSERT_EQ(0, Subscribe());
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("Subscription failed Three times!!"); }));
  EXPECT_EQ(15009, Subscribe());
  EXPECT_NE(0, Unsubscribe());
  EXPECT_NE(0, Unsubscribe());
  EXPECT_EQ(15009, Subscribe());
  EXPECT_EQ(0, UnRegisterCP(handle_));
}

TEST_F(GenericEvents, UnregisteringEndsTheSubscriptions) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  HostLog::Clear();
  EXPECT_EQ(0, UnRegisterCP(handle_));
  EXPECT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
  EXPECT_NE(kAccepted, device_.Notify(kShort, 1, kProperty));
  EXPECT_THAT(HostLog::Events(), IsEmpty());
}

TEST_F(GenericEvents, TheEndOfTheControlPointEndsTheSubscriptionsOfAll) {
  const int other = rig_.Register();
  ASSERT_EQ(0, Subscribe());
  ASSERT_EQ(0, SubscribeService(other, udn_.c_str(), "RenderingControl"));
  ExpectSubscribed("AVTransport");
  ExpectSubscribed("RenderingControl");
  rig_.TerminateControlPoint();
  EXPECT_TRUE(WaitUntil([&] {
    return device_.Unsubscribes("AVTransport") == 1 &&
           device_.Unsubscribes("RenderingControl") == 1;
  }));
}

// Callbacks and the calls that wait for them.

TEST_F(GenericEvents, AnEventCallbackMayUnsubscribeItself) {
  ASSERT_EQ(0, Subscribe());
  std::atomic<int> code{-1};
  HostLog::OnEvent([&](const ToldEvent&) { code = Unsubscribe(); });
  ExpectSubscribed();
  EXPECT_EQ(0, code);
  EXPECT_EQ(15010, Unsubscribe());
}

TEST_F(GenericEvents, AnEventCallbackMayUnregisterItsControlPoint) {
  ASSERT_EQ(0, Subscribe());
  std::atomic<int> code{-1};
  HostLog::OnEvent([&](const ToldEvent&) { code = UnRegisterCP(handle_); });
  ExpectSubscribed();
  EXPECT_EQ(0, code);
  EXPECT_EQ(15000, Unsubscribe());
}

// One event held inside the host's callback, from here to Release or the end of the scope.
class HeldEvent {
 public:
  HeldEvent(
      ScriptedDevice& device, std::function<void()> on_release,
      const std::function<void()>& on_entry = [] {})
      : on_release_(std::move(on_release)) {
    HostLog::OnEvent([this, on_entry](const ToldEvent&) {
      on_entry();
      inside_ = true;
      WaitUntil([this] { return released_.load(); });
      on_release_();
      left_ = true;
    });
    network_ = std::thread([&device] { device.Notify(kShort, 1, kProperty); });
    EXPECT_TRUE(WaitUntil([this] { return inside_.load(); }));
  }
  ~HeldEvent() {
    Release();
    network_.join();
    HostLog::OnEvent(nullptr);
  }
  void Release() { released_ = true; }
  bool left() const { return left_; }

 private:
  const std::function<void()> on_release_;
  std::atomic<bool> inside_{false};
  std::atomic<bool> released_{false};
  std::atomic<bool> left_{false};
  std::thread network_;
};

TEST_F(GenericEvents, UnsubscribingWaitsForAnEventWhoseCallbackSendsAnAction) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  std::atomic<int> sent{-1};
  bool left_before = false;
  std::thread host;
  {
    HeldEvent event(device_, [&] {
      int id = 0;
      sent = SendAction(handle_, udn_.c_str(), kShort, "Play", nullptr, &id);
    });
    LogCapture log;
    host = std::thread([&] {
      EXPECT_EQ(0, Unsubscribe());
      left_before = event.left();
    });
    // It has marked the handle and told the device by now, and waits.
    EXPECT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
    event.Release();
    host.join();
  }
  EXPECT_TRUE(left_before);
  EXPECT_EQ(0, sent);
}

// A thread that unsubscribes waits for an event in progress; what `second` gives that is called
// meanwhile, and whether it waited as well.
class SecondCaller : public GenericEvents {
 protected:
  void Call(const std::function<int()>& second) {
    ASSERT_EQ(0, Subscribe());
    ExpectSubscribed();
    HeldEvent event(device_, [] {});
    std::thread first([&] { EXPECT_EQ(0, Unsubscribe()); });
    EXPECT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
    std::atomic<bool> calling{false};
    std::atomic<bool> returned{false};
    std::thread other([&] {
      calling = true;
      code_ = second();
      left_before_ = event.left();
      returned = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return calling.load(); }));
    // What does not wait has returned by then.
    EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(50)));
    event.Release();
    first.join();
    other.join();
  }

  int code_ = -1;
  bool left_before_ = false;
};

TEST_F(SecondCaller, ThatUnsubscribesWaitsAndFindsNothingLeft) {
  Call([&] { return Unsubscribe(); });
  EXPECT_EQ(15010, code_);
  EXPECT_TRUE(left_before_);
}

TEST_F(SecondCaller, ThatSubscribesWaitsAndSubscribesAnew) {
  Call([&] { return Subscribe(); });
  EXPECT_EQ(0, code_);
  EXPECT_TRUE(left_before_);
  EXPECT_TRUE(WaitUntil([&] { return device_.Subscribes(kShort) == 2; }));
}

TEST_F(GenericEvents, InsideACallbackNobodyWaitsForALeavingHandle) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  std::atomic<int> unsubscribed{-1};
  std::atomic<int> subscribed{-1};
  std::thread host;
  {
    HeldEvent event(device_, [&] {
      unsubscribed = Unsubscribe();
      subscribed = Subscribe();
    });
    host = std::thread([&] { EXPECT_EQ(0, Unsubscribe()); });
    ASSERT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
    event.Release();
    host.join();
  }
  EXPECT_EQ(15010, unsubscribed);
  EXPECT_EQ(15009, subscribed);
}

TEST_F(GenericEvents, UnregisteringWaitsForAnEventThatAnotherThreadIsEnding) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  bool left_before = false;
  std::thread first;
  std::thread second;
  {
    HeldEvent event(device_, [] {});
    first = std::thread([&] { EXPECT_EQ(0, Unsubscribe()); });
    ASSERT_TRUE(WaitUntil([&] { return device_.Unsubscribes(kShort) == 1; }));
    second = std::thread([&] {
      EXPECT_EQ(0, UnRegisterCP(handle_));
      left_before = event.left();
    });
    EXPECT_TRUE(WaitUntil([&] { return RescanNetwork(handle_, nullptr) == 1; }));
    event.Release();
    first.join();
    second.join();
  }
  EXPECT_TRUE(left_before);
}

TEST_F(GenericEvents, UnregisteringWaitsForTheEventThatHasEndedItsOwnSubscription) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  std::atomic<bool> returned{false};
  std::atomic<bool> returned_early{false};
  std::thread host;
  {
    // The window in which nothing may happen.
    HeldEvent event(
        device_,
        [&] {
          returned_early =
              WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(200));
        },
        [&] { EXPECT_EQ(0, Unsubscribe()); });
    host = std::thread([&] {
      EXPECT_EQ(0, UnRegisterCP(handle_));
      returned = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return RescanNetwork(handle_, nullptr) == 1; }));
    event.Release();
    host.join();
  }
  EXPECT_FALSE(returned_early);
}

TEST_F(GenericEvents, TheEndWaitsForARunningEventCallback) {
  ASSERT_EQ(0, Subscribe());
  ExpectSubscribed();
  bool left_before = false;
  std::thread host;
  {
    HeldEvent event(device_, [&] { RescanNetwork(handle_, nullptr); });
    host = std::thread([&] {
      rig_.TerminateControlPoint();
      left_before = event.left();
    });
    EXPECT_TRUE(WaitUntil([&] { return RescanNetwork(handle_, nullptr) == 1; }));
    event.Release();
    host.join();
  }
  EXPECT_TRUE(left_before);
}

// Two interfaces, or none that can be reached.

TEST(GenericEventsOnTwoInterfaces, TheCallbackIsOnTheInterfaceThatFacesTheDevice) {
  const Watchdog watchdog;
  ScriptedDevice near_first("uuid:dev-1", {"AVTransport"}, "10.77.0.2");
  ScriptedDevice near_second("uuid:dev-2", {"AVTransport"}, "10.77.1.2");
  HostRigOptions options;
  options.interfaces = {"lan0", "lan1"};
  HostRig rig(options);
  const int handle = rig.Register();
  const std::string first = rig.Meet(near_first, "lan0");
  const std::string second = rig.Meet(near_second, "lan1");
  EXPECT_EQ(0, SubscribeService(handle, first.c_str(), kShort));
  EXPECT_EQ(0, SubscribeService(handle, second.c_str(), kShort));
  const auto callback_of = [](const ScriptedDevice& device) {
    std::string callback;
    WaitUntil([&] { return device.Subscribes(kShort) == 1; });
    for (const PeerRequest& request : device.peer().Requests()) {
      if (request.Begins("SUBSCRIBE ")) callback = request.Header("CALLBACK");
    }
    return callback;
  };
  EXPECT_EQ("<http://10.77.0.1:5100/eventing_1/>", callback_of(near_first));
  EXPECT_EQ("<http://10.77.1.1:5100/eventing_2/>", callback_of(near_second));
}

TEST(GenericEventsWithoutAServer, NothingCanBeSubscribed) {
  const Watchdog watchdog;
  ScriptedDevice device("uuid:dev-1", {"AVTransport"});
  HostRigOptions options;
  options.tcp_port = 0;
  HostRig rig(options);
  const int handle = rig.Register();
  // No event server to wait for tells that the datagram server is up; it is announced to until met.
  const std::string name = "uuid:dev-1+lan0";
  ASSERT_TRUE(WaitUntil([&] {
    device.SayAlive("10.77.0.1", options.udp_port);
    return !HostLog::Devices().empty();
  }));
  EXPECT_EQ(15004, SubscribeService(handle, name.c_str(), kShort));
  EXPECT_EQ(15000, SubscribeService(handle, "uuid:none+lan0", kShort));
  EXPECT_EQ(0, device.Subscribes(kShort));
}

}  // namespace

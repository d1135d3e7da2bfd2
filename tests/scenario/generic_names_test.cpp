// Devices that announce themselves under a host name, seen by the host.

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/name_server.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::LogCapture;
using vex_test::NameServer;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;
using vex_test::ToldAction;
using vex_test::ToldDevice;
using vex_test::WaitUntil;
using vex_test::Watchdog;

constexpr char kName[] = "tv.example";
constexpr char kService[] = "AVTransport";
constexpr char kTag[] = "VEX_CORE_GENERIC_CP";
constexpr char kAccepted[] = "HTTP/1.1 200 OK";
constexpr char kProperty[] = "<e:property><State>1</State></e:property>";

class GenericNames : public testing::Test {
 protected:
  GenericNames() : names_(new NameServer(kName, {"10.77.0.2"})) {
    handle_ = rig_.Register();
    near_ = rig_.Meet(near_device_);
    const std::string udn = named_device_.udn();
    const std::string location =
        std::string("http://") + kName + ":" + std::to_string(named_device_.port()) + "/desc.xml";
    vex_test::SsdpPeer("10.77.0.2")
        .Send(vex_test::AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", location),
              "10.77.0.1", vex_test::HostRigOptions().udp_port);
    named_ = udn + "+lan0";
    EXPECT_TRUE(WaitUntil([this] { return IsTold(named_); }));
  }

  static bool IsTold(const std::string& udn) {
    for (const ToldDevice& told : HostLog::Devices()) {
      if (told.udn == udn) return true;
    }
    return false;
  }
  static bool IsTold(int action_id) {
    for (const ToldAction& told : HostLog::Actions()) {
      if (told.action_id == action_id) return true;
    }
    return false;
  }
  int Subscribe(const std::string& udn) { return SubscribeService(handle_, udn.c_str(), kService); }
  int Unsubscribe(const std::string& udn) {
    return UnSubscribeService(handle_, udn.c_str(), kService);
  }
  int Send(const std::string& udn, int& id) {
    return SendAction(handle_, udn.c_str(), kService, "Play", nullptr, &id);
  }
  // Replaces the answers of the name server.
  void Rename(const std::vector<std::string>& addresses) {
    names_.reset();
    names_.reset(new NameServer(kName, addresses));
  }

  const Watchdog watchdog_;
  std::unique_ptr<NameServer> names_;
  ScriptedDevice near_device_{"uuid:near", {kService}};
  ScriptedDevice named_device_{"uuid:named", {kService}};
  HostRig rig_;
  int handle_ = 0;
  std::string near_;
  std::string named_;
};

TEST_F(GenericNames, ANamedDeviceIsUsedLikeAnyOther) {
  ASSERT_EQ(0, Subscribe(named_));
  EXPECT_TRUE(WaitUntil([&] { return named_device_.Notify(kService, 0, kProperty) == kAccepted; }));
  int id = 0;
  ASSERT_EQ(0, Send(named_, id));
  EXPECT_TRUE(WaitUntil([&] { return IsTold(id); }));
  EXPECT_EQ(0, Unsubscribe(named_));
  EXPECT_TRUE(WaitUntil([&] { return named_device_.Unsubscribes(kService) == 1; }));
}

TEST_F(GenericNames, EachCallAsksOnce) {
  const int before = names_->Asked();
  int id = 0;
  ASSERT_EQ(0, Send(named_, id));
  EXPECT_EQ(before + 1, names_->Asked());
  ASSERT_EQ(0, Subscribe(named_));
  EXPECT_EQ(before + 2, names_->Asked());
  // A pair that is subscribed is refused without asking.
  EXPECT_EQ(15009, Subscribe(named_));
  EXPECT_EQ(before + 2, names_->Asked());
}

TEST_F(GenericNames, WhoWaitsForANameServerHoldsUpNoAnswerNoTimerAndNoCall) {
  names_->Hold();
  int named_id = 0;
  std::thread subscriber([&] { EXPECT_EQ(0, Subscribe(named_)); });
  std::thread actor([&] { EXPECT_EQ(0, Send(named_, named_id)); });
  EXPECT_TRUE(WaitUntil([&] { return names_->Waiting() == 2; }));

  ASSERT_EQ(0, Subscribe(near_));
  EXPECT_TRUE(WaitUntil([&] { return near_device_.Notify(kService, 0, kProperty) == kAccepted; }));
  int id = 0;
  ASSERT_EQ(0, Send(near_, id));
  EXPECT_TRUE(WaitUntil([&] { return IsTold(id); }));
  near_device_.OnAction([](const PeerRequest&) { return vex_test::Silence(); });
  {
    const vex_test::FasterTime faster(100);
    ASSERT_EQ(0, Send(near_, id));
  }
  EXPECT_TRUE(WaitUntil([&] { return IsTold(id); }));
  EXPECT_EQ(0, Unsubscribe(near_));
  ScriptedDevice late("uuid:late", {kService});
  rig_.Meet(late);
  EXPECT_EQ(0, UnRegisterCP(rig_.Register()));

  EXPECT_EQ(2, names_->Waiting());
  names_->Release();
  subscriber.join();
  actor.join();
  EXPECT_TRUE(WaitUntil([&] { return named_device_.Notify(kService, 0, kProperty) == kAccepted; }));
  EXPECT_TRUE(WaitUntil([&] { return IsTold(named_id); }));
}

TEST_F(GenericNames, OfTwoThatSubscribeOnePairOneIsRefused) {
  names_->Hold();
  std::atomic<int> first{-1};
  std::atomic<int> second{-1};
  std::thread one([&] { first = Subscribe(named_); });
  std::thread two([&] { second = Subscribe(named_); });
  EXPECT_TRUE(WaitUntil([&] { return names_->Waiting() == 2; }));
  LogCapture log;
  names_->Release();
  one.join();
  two.join();
  EXPECT_EQ(15009, first + second);
  EXPECT_EQ(1,
            log.Count(16, kTag, "Cannot subscribe service again. Service is already subscribed."));
  EXPECT_TRUE(WaitUntil([&] { return named_device_.Notify(kService, 0, kProperty) == kAccepted; }));
  EXPECT_EQ(1, named_device_.Subscribes(kService));
}

TEST_F(GenericNames, AControlPointThatGoesDuringALookUpSendsNothing) {
  names_->Hold();
  int id = -7;
  std::thread subscriber([&] { EXPECT_EQ(15000, Subscribe(named_)); });
  std::thread actor([&] { EXPECT_EQ(15000, Send(named_, id)); });
  EXPECT_TRUE(WaitUntil([&] { return names_->Waiting() == 2; }));
  EXPECT_EQ(0, UnRegisterCP(handle_));
  EXPECT_EQ(2, names_->Waiting());
  names_->Release();
  subscriber.join();
  actor.join();
  EXPECT_EQ(-7, id);
  // What comes behind on another road has arrived, and nothing before it.
  handle_ = rig_.Register();
  ASSERT_EQ(0, Send(named_, id));
  EXPECT_TRUE(WaitUntil([&] { return IsTold(id); }));
  EXPECT_EQ(1U, named_device_.Actions().size());
  EXPECT_EQ(0, named_device_.Subscribes(kService));
}

TEST_F(GenericNames, ANameThatIsNoLongerKnownFailsAtOnce) {
  Rename({});
  LogCapture log;
  int id = -7;
  EXPECT_EQ(15004, Send(named_, id));
  EXPECT_EQ(-7, id);
  EXPECT_EQ(1, log.Count(16, kTag, "SendAction Operation failed."));
  EXPECT_EQ(5001, Subscribe(named_));
  EXPECT_EQ(2, names_->Asked());
  // Nothing stays of either: both are there again with the name.
  Rename({"10.77.0.2"});
  ASSERT_EQ(0, Subscribe(named_));
  EXPECT_TRUE(WaitUntil([&] { return named_device_.Notify(kService, 0, kProperty) == kAccepted; }));
  ASSERT_EQ(0, Send(named_, id));
  EXPECT_TRUE(WaitUntil([&] { return IsTold(id); }));
}

}  // namespace

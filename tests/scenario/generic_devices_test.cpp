#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include "base/host_memory.h"
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::HostRigOptions;
using vex_test::ScriptedDevice;
using vex_test::ToldDevice;
using vex_test::WaitUntil;
using vex_test::Watchdog;
using vex_upnp::FreePtr;

class GenericDevices : public testing::Test {
 protected:
  const Watchdog watchdog_;
  ScriptedDevice device_{"uuid:dev-1", {"AVTransport", "RenderingControl"}};
};

TEST_F(GenericDevices, ADeviceComesAndGoes) {
  HostRig rig;
  rig.Register();
  const std::string udn = rig.Meet(device_);
  EXPECT_EQ("uuid:dev-1+lan0", udn);
  ASSERT_THAT(HostLog::Devices(), SizeIs(1));
  EXPECT_EQ("lan0", HostLog::Devices()[0].interface_name);
  // Only GetDeviceList fills it.
  EXPECT_EQ("", HostLog::Devices()[0].display_name);
  device_.SayByebye("10.77.0.1", 5300);
  ASSERT_TRUE(WaitUntil([] { return HostLog::Devices().size() == 2; }));
  EXPECT_EQ(2, HostLog::Devices()[1].event);
  EXPECT_EQ(udn, HostLog::Devices()[1].udn);
}

TEST_F(GenericDevices, TheListHoldsWhatIsReady) {
  HostRig rig;
  const int handle = rig.Register();
  rig.Meet(device_);
  CPDeviceInfo* list = nullptr;
  // Any type may be asked for, not only those registered, and older versions find newer ones.
  ASSERT_EQ(0, GetDeviceList(handle, "urn:schemas-upnp-org:device:MediaServer:1", &list));
  EXPECT_STREQ("Hall", list->friendly_name);
  EXPECT_STREQ("Hall", list->display_name);
  EXPECT_STREQ("uuid:dev-1+lan0", list->udn);
  EXPECT_STREQ("urn:schemas-upnp-org:device:MediaServer:1", list->device_type);
  EXPECT_STREQ("lan0", list->interface_name);
  EXPECT_EQ(nullptr, list->next);
  EXPECT_EQ(0, FreeDeviceList(list));
  list = nullptr;
  EXPECT_EQ(1, GetDeviceList(handle, "urn:schemas-upnp-org:device:MediaServer:2", &list));
  EXPECT_EQ(nullptr, list);
}

TEST_F(GenericDevices, TheListIsInOrder) {
  ScriptedDevice second("uuid:dev-2", {});
  HostRig rig;
  const int handle = rig.Register();
  rig.Meet(device_);
  rig.Meet(second);
  CPDeviceInfo* list = nullptr;
  ASSERT_EQ(0, GetDeviceList(handle, "upnp:rootdevice", &list));
  EXPECT_STREQ("uuid:dev-1+lan0", list->udn);
  ASSERT_NE(nullptr, list->next);
  EXPECT_STREQ("uuid:dev-2+lan0", list->next->udn);
  EXPECT_EQ(nullptr, list->next->next);
  EXPECT_EQ(0, FreeDeviceList(list));
}

TEST_F(GenericDevices, AllIsToldOfOneDevice) {
  HostRig rig;
  const int handle = rig.Register();
  const std::string udn = rig.Meet(device_);
  CPDetailedDeviceInfo* info = nullptr;
  ASSERT_EQ(0, GetDetailedDeviceInfo(handle, udn.c_str(), &info));
  EXPECT_STREQ("Hall", info->friendly_name);
  EXPECT_STREQ("10.77.0.2", info->device_ip);
  EXPECT_STREQ("10.77.0.1", info->local_ip);
  EXPECT_EQ(device_.port(), info->device_port);
  EXPECT_EQ(2, info->device_domain);
  EXPECT_STREQ(device_.peer().Url("/desc.xml").c_str(), info->location);
  ASSERT_NE(nullptr, info->services);
  EXPECT_STREQ("urn:schemas-upnp-org:service:AVTransport:1", info->services->service_type);
  EXPECT_STREQ("/evt/AVTransport", info->services->event_sub_url);
  ASSERT_NE(nullptr, info->services->next);
  EXPECT_EQ(nullptr, info->services->next->next);
  EXPECT_EQ(0, FreeDetailedDeviceInfo(info));
}

TEST_F(GenericDevices, AShortServiceNameFindsItsDescription) {
  HostRig rig;
  const int handle = rig.Register();
  const std::string udn = rig.Meet(device_);
  char* text = nullptr;
  ASSERT_EQ(0, GetServiceDescription(handle, udn.c_str(), "RenderingControl", &text));
  const FreePtr<char> owned(text);
  EXPECT_STREQ("<?xml version=\"1.0\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"></scpd>",
               text);
  char* none = nullptr;
  EXPECT_EQ(1, GetServiceDescription(handle, udn.c_str(), "ContentDirectory", &none));
  EXPECT_EQ(nullptr, none);
}

TEST_F(GenericDevices, WhoRegistersLaterIsNotToldOfKnownDevices) {
  HostRig rig;
  rig.Register();
  rig.Meet(device_);
  rig.Register();
  device_.SayAlive("10.77.0.1", 5300);
  device_.SayByebye("10.77.0.1", 5300);
  ASSERT_TRUE(WaitUntil([] { return HostLog::Devices().size() >= 3; }));
  const std::vector<ToldDevice> told = HostLog::Devices();
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(1, told[0].event);
  EXPECT_EQ(2, told[1].event);
  EXPECT_EQ(2, told[2].event);
}

TEST_F(GenericDevices, RescanWithoutATypeSearchesForEachRegisteredOne) {
  // The search of the start holds up others until its check, five seconds later.
  const vex_test::FasterTime faster(1000);
  vex_test::GroupWatcher group("239.255.255.250", "10.77.0.1");
  HostRig rig;
  const int handle =
      rig.Register({"urn:schemas-upnp-org:device:MediaServer:1", "urn:x-y:device:Foo:2"});
  const auto searched = [&](const std::string& type) {
    return group.Count("M-SEARCH * HTTP/1.1\r\nST: " + type + "\r\n") > 0;
  };
  EXPECT_TRUE(WaitUntil([&] {
    EXPECT_EQ(0, RescanNetwork(handle, nullptr));
    return searched("urn:schemas-upnp-org:device:MediaServer:1") &&
           searched("urn:x-y:device:Foo:2");
  }));
  EXPECT_FALSE(searched("urn:x-y:device:Bar:1"));
  EXPECT_TRUE(WaitUntil([&] {
    EXPECT_EQ(0, RescanNetwork(handle, "urn:x-y:device:Bar:1"));
    return searched("urn:x-y:device:Bar:1");
  }));
}

TEST_F(GenericDevices, TheUserAgentOfDescriptionsIsTheOneSetBeforeTheStart) {
  HostRigOptions options;
  options.user_agent = "Before/1.0";
  HostRig rig(options);
  rig.Register();
  GenericCPSetUserAgent("After/1.0");
  rig.Meet(device_);
  for (const vex_test::PeerRequest& request : device_.peer().Requests()) {
    if (!request.Begins("GET /desc.xml ")) continue;
    EXPECT_EQ("Before/1.0", request.Header("USER-AGENT"));
  }
  EXPECT_EQ(1, device_.peer().CountOf("GET /desc.xml "));
}

// Who may be called when.

TEST_F(GenericDevices, UnregisteringWaitsForARunningDeviceCallback) {
  HostRig rig;
  const int handle = rig.Register();
  std::atomic<bool> inside{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> left{false};
  HostLog::OnDevice([&](const ToldDevice&) {
    inside = true;
    WaitUntil([&] { return go_on.load(); });
    left = true;
  });
  device_.SayAlive("10.77.0.1", 5300);
  ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
  std::atomic<bool> unregistering{false};
  bool left_before = false;
  std::thread host([&] {
    unregistering = true;
    EXPECT_EQ(0, UnRegisterCP(handle));
    left_before = left;
  });
  // The handle is gone at once; the call itself is not over.
  EXPECT_TRUE(WaitUntil([&] { return unregistering && RescanNetwork(handle, nullptr) == 1; }));
  go_on = true;
  host.join();
  EXPECT_TRUE(left_before);
  HostLog::Clear();
  device_.SayByebye("10.77.0.1", 5300);
  rig.TerminateControlPoint();
  EXPECT_THAT(HostLog::Devices(), IsEmpty());
}

TEST_F(GenericDevices, ADeviceCallbackMayCallBack) {
  HostRig rig;
  const int handle = rig.Register();
  std::atomic<int> codes{0};
  std::atomic<bool> done{false};
  HostLog::OnDevice([&](const ToldDevice& told) {
    CPDeviceInfo* list = nullptr;
    if (GetDeviceList(handle, "upnp:rootdevice", &list) == 0) FreeDeviceList(list);
    codes += RescanNetwork(handle, "urn:x-y:device:Foo:1");
    int id = 0;
    codes += SendAction(handle, told.udn.c_str(), "AVTransport", "Play", nullptr, &id);
    codes += SubscribeService(handle, told.udn.c_str(), "AVTransport");
    codes += UnRegisterCP(handle);
    done = true;
  });
  device_.SayAlive("10.77.0.1", 5300);
  ASSERT_TRUE(WaitUntil([&] { return done.load(); }));
  EXPECT_EQ(0, codes);
}

TEST_F(GenericDevices, AfterTheEndNoDeviceCallbackComes) {
  HostRig rig;
  rig.Register();
  std::atomic<bool> ended{false};
  std::atomic<int> late{0};
  std::atomic<bool> stop{false};
  HostLog::OnDevice([&](const ToldDevice&) { late += ended ? 1 : 0; });
  std::thread network([&] {
    while (!stop) {
      device_.SayAlive("10.77.0.1", 5300);
      device_.SayByebye("10.77.0.1", 5300);
    }
  });
  EXPECT_TRUE(WaitUntil([] { return HostLog::Devices().size() > 4; }));
  rig.TerminateControlPoint();
  ended = true;
  const std::size_t told = HostLog::Devices().size();
  device_.SayAlive("10.77.0.1", 5300);
  stop = true;
  network.join();
  EXPECT_EQ(0, late);
  EXPECT_EQ(told, HostLog::Devices().size());
}

}  // namespace

// Devices and searches when interfaces come, go and change. Runs in a private network namespace.

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>

#include "src/cp_discovery_manager.h"
#include "src/cp_network_state_listener.h"
#include "src/device_list.h"
#include "src/now_requesting.h"
#include "tests/support/discovery_rig.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/fake_device.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using network_layer::NIC_ADDED;
using network_layer::NIC_IPCHANGED;
using network_layer::NIC_REMOVED;
using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::DescriptionServer;
using vex_test::DiscoveryRig;
using vex_test::FakeDevice;
using vex_test::FasterTime;
using vex_test::GroupWatcher;
using vex_test::LogCapture;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";
constexpr char kMediaServer[] = "urn:schemas-upnp-org:device:MediaServer:1";

FakeDevice Plain(const std::string& udn, int services = 0) {
  FakeDevice device;
  device.udn = udn;
  device.services = vex_test::FakeServices(services, "/" + udn.substr(5));
  return device;
}

std::string Alive(const std::string& udn, const std::string& url) {
  return vex_test::AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", url);
}

bool HasEvents(std::size_t count) {
  return WaitUntil([count] { return DiscoveryRig::EventLog().size() >= count; });
}

void Change(std::string name, network_layer::NicEvent event) {
  CPNetworkStateListener::GetInstance()->OnNetworkChanged(name, event);
}

std::size_t ListSize() {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  const auto all = list->GetAllDevices();
  return all ? all->size() : 0;
}

class NetworkChange : public testing::Test {
 protected:
  GroupWatcher watcher_{"239.255.255.250", "10.77.0.1"};
  DiscoveryRig rig_{{"lan0", "lan1"}};
  DescriptionServer first_{"10.77.0.1"};
  DescriptionServer second_{"10.77.1.1"};
};

TEST_F(NetworkChange, ADeviceOnTwoInterfacesIsTwoEntriesWithTheirOwnRequestsAndEvents) {
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(first_, "/d.xml", Plain("uuid:a", 1))),
                        "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(second_, "/d.xml", Plain("uuid:a", 1))),
                        "10.77.1.2");
  ASSERT_TRUE(HasEvents(2));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+lan0", "+uuid:a+lan1"));
  EXPECT_EQ(2U, first_.Requests().size());
  EXPECT_EQ(2U, second_.Requests().size());
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a+lan1", &info));
  EXPECT_EQ("10.77.1.1", info.local_ip);
  EXPECT_EQ("lan1", info.interface_name);
  EXPECT_EQ(1, info.device_domain);
}

TEST_F(NetworkChange, ALostInterfaceTakesItsDevicesInListOrder) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root");
  root.embedded = {Plain("uuid:embedded")};
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(first_, "/a.xml", Plain("uuid:a"))),
                        "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(first_, "/r.xml", root)), "10.77.0.2");
  ASSERT_TRUE(HasEvents(3));
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(second_, "/a.xml", Plain("uuid:a"))),
                        "10.77.1.2");
  ASSERT_TRUE(HasEvents(4));
  // One that is not ready goes silently, and with it what is asked for it.
  const std::string half = ServeDevice(first_, "/h.xml", Plain("uuid:half", 1));
  first_.Hold("/half/scpd0.xml");
  DiscoveryRig::Receive(Alive("uuid:half", half), "10.77.0.2");
  ASSERT_TRUE(WaitUntil([&] { return first_.Count("/half/scpd0.xml") == 1; }));
  DiscoveryRig::ClearEvents();
  LogCapture log;
  Change("lan0", NIC_REMOVED);
  EXPECT_EQ(1, log.Count(16, kTag, "Received NIC change event [1] for [lan0]"));
  EXPECT_EQ(4, log.Count(2, kTag, "For Remove - Device Interface IP [10.77.0.1], Name [lan0]"));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("-uuid:a+lan0", "-uuid:root+lan0", "-uuid:embedded+lan0"));
  EXPECT_EQ(1U, ListSize());
  const boost::shared_ptr<NowRequesting> again(
      new NowRequesting("uuid:half+lan0", "", "10.77.0.1", 1, "", ""));
  EXPECT_EQ(0, CPDiscoveryManager::GetInstance()->AddNowRequesting(again));
  // KEPT: no search follows a loss.
  EXPECT_FALSE(log.Holds("Sending Rescan for"));
}

TEST_F(NetworkChange, KeptADeviceOnNoInterfaceGoesWithEveryOne) {
  DiscoveryRig::Register("upnp:rootdevice");
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    boost::shared_ptr<Device> device(new Device);
    device->udn = "uuid:nowhere";
    ASSERT_TRUE(list->Add(device));
    device->services_ready = true;
  }
  Change("lan7", NIC_REMOVED);
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("-uuid:nowhere"));
}

TEST_F(NetworkChange, ANewInterfaceBringsASearchAndTouchesNoDevice) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(first_, "/a.xml", Plain("uuid:a"))),
                        "10.77.0.2");
  ASSERT_TRUE(HasEvents(2));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 4; }));
  watcher_.Clear();
  Change("lan2", NIC_ADDED);
  EXPECT_EQ(1, log.Count(16, kTag, "Received NIC change event [0] for [lan2]"));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 2; }));
  EXPECT_NE(std::string::npos,
            watcher_.Received()[0].bytes.find("ST: " + std::string(kMediaServer)));
  EXPECT_EQ(2U, DiscoveryRig::EventLog().size());
}

TEST_F(NetworkChange, AnAddressChangeRemovesBeforeItSearches) {
  static GroupWatcher* watcher = nullptr;
  static std::size_t searches_at_removal = 0;
  watcher = &watcher_;
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(first_, "/a.xml", Plain("uuid:a"));
  DiscoveryRig::Receive(Alive("uuid:a", url), "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 2; }));
  DiscoveryRig::OnEvent(
      [](const vex_test::DeviceEvent&) { searches_at_removal = watcher->Received().size(); });
  LogCapture log;
  Change("lan0", NIC_IPCHANGED);
  EXPECT_EQ(1, log.Count(16, kTag, "Received NIC change event [2] for [lan0]"));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 4; }));
  EXPECT_EQ(2U, searches_at_removal);
  // So the device can come back.
  DiscoveryRig::Receive(Alive("uuid:a", url), "10.77.0.2");
  ASSERT_TRUE(HasEvents(3));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("+uuid:a+lan0", "-uuid:a+lan0", "+uuid:a+lan0"));
}

// What the host threw at the first one went up through the loop: the rest was never told, and the
// new search was left out.
TEST_F(NetworkChange, RegressionAHostThatThrowsIsToldOfEveryLossAndTheSearchGoesOut) {
  DiscoveryRig::Register(kMediaServer);
  for (const char* udn : {"uuid:a", "uuid:b", "uuid:c"}) {
    const std::string url = ServeDevice(first_, std::string("/") + udn + ".xml", Plain(udn));
    DiscoveryRig::Receive(Alive(udn, url), "10.77.0.2");
  }
  ASSERT_TRUE(HasEvents(3));
  DiscoveryRig::ClearEvents();
  DiscoveryRig::OnEvent([](const vex_test::DeviceEvent&) { throw 1; });
  LogCapture log;
  Change("lan0", NIC_IPCHANGED);
  EXPECT_EQ(3U, DiscoveryRig::EventLog().size());
  EXPECT_EQ(1, log.Count("Sending Rescan for [" + std::string(kMediaServer) + "]"));
}

// The removal itself may find no memory; the search goes out all the same, unless it is the one
// that finds none.
TEST_F(NetworkChange, RegressionWithoutMemoryForTheRemovalTheSearchGoesOut) {
  DiscoveryRig::Register(kMediaServer);
  LogCapture log;
  {
    const vex_test::FailAlloc fail(1);
    Change("lan0", NIC_IPCHANGED);
    EXPECT_TRUE(fail.Failed());
  }
  EXPECT_EQ(1, log.Count(16, kTag, "Exception in OnNetworkChanged: std::bad_alloc"));
  EXPECT_EQ(1, log.Count("Sending Rescan for [" + std::string(kMediaServer) + "]"));
}

TEST_F(NetworkChange, AnUnknownChangeIsLoggedAndNoMore) {
  LogCapture log;
  Change("lan0", static_cast<network_layer::NicEvent>(3));
  EXPECT_EQ(1, log.Count(16, kTag, "Unknown change in network!"));
  EXPECT_FALSE(log.Holds("Sending Rescan for"));
}

TEST_F(NetworkChange, ALinkThatGoesDownAndUpIsFollowed) {
  FasterTime faster(20);
  DiscoveryRig::Register(kMediaServer);
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(first_, "/a.xml", Plain("uuid:a"))),
                        "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  LogCapture log;
  ASSERT_EQ(0, std::system("ip link set lan0 down"));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+lan0", "-uuid:a+lan0"));
  ASSERT_EQ(0, std::system("ip link set lan0 up && ip route add 239.0.0.0/8 dev lan0"));
  EXPECT_TRUE(WaitUntil([&] {
    return log.Count("Received NIC change event [0] for [lan0]") == 1 &&
           log.Holds("Sending Rescan for [" + std::string(kMediaServer) + "]");
  }));
}

TEST(DiscoveryLife, AfterTerminationNothingReachesTheListener) {
  DiscoveryRig rig({"lan0"});
  LogCapture log;
  rig.TerminateDiscovery();
  log.Clear();
  network_layer::NotifyNICAdded("lan9", "10.99.0.1", "255.255.255.0");
  EXPECT_FALSE(log.Holds("Received NIC change event"));
}

// The first registration stayed behind with a listener that was gone.
TEST(DiscoveryLife, RegressionASecondStartTakesThePlaceOfTheFirst) {
  DiscoveryRig rig({"lan0"});
  EXPECT_EQ(0, Initialize());
  LogCapture log;
  network_layer::NotifyNICAdded("lan8", "10.98.0.1", "255.255.255.0");
  // Discovery's and streaming's.
  EXPECT_EQ(1, log.Count("2 event listeners are notified!!!"));
  log.Clear();
  rig.TerminateDiscovery();
  EXPECT_EQ(1, log.Count("StreamingManager::DeleteReference Ref Count [0]"));
  network_layer::NotifyNICAdded("lan9", "10.99.0.1", "255.255.255.0");
  EXPECT_EQ(1, log.Count("event listener vector is empty!!"));
}

TEST(DiscoveryLife, RegressionStartsThatFoundNoMemoryLeaveNoRegistration) {
  DiscoveryRig rig({"lan0"});
  EXPECT_GT(vex_test::EachAllocationFails([] { Initialize(); }, [](bool) {}), 3);
  LogCapture log;
  rig.TerminateDiscovery();
  network_layer::NotifyNICAdded("lan9", "10.99.0.1", "255.255.255.0");
  EXPECT_EQ(1, log.Count("event listener vector is empty!!"));
}

TEST(DiscoveryLife, TwentyRoundsLeaveNothingBehind) {
  FasterTime faster(20);
  DescriptionServer server("10.77.0.1");
  const std::string url = ServeDevice(server, "/d.xml", Plain("uuid:a", 2));
  const std::string held = ServeDevice(server, "/held.xml", Plain("uuid:held", 1));
  server.Hold("/held/scpd0.xml");
  server.Hold("/silent.xml");
  int threads = 0;
  int descriptors = 0;
  for (int round = 0; round < 20; ++round) {
    {
      DiscoveryRig rig({"lan0"});
      DiscoveryRig::Register(kMediaServer);
      DiscoveryRig::Register("upnp:rootdevice");
      EnableAutoRescanFeature();
      DiscoveryRig::Receive(Alive("uuid:a", url), "10.77.0.2");
      DiscoveryRig::Receive(Alive("uuid:held", held), "10.77.0.2");
      DiscoveryRig::Receive(Alive("uuid:silent", server.Url("/silent.xml")), "10.77.0.2");
      ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:a+lan0") == 2; }));
      Rescan("ssdp:all");
      if (round % 2 == 0) rig.TerminateDiscovery();
    }
    EXPECT_FALSE(CPDiscoveryManager::ExistingInstance());
    EXPECT_EQ(0U, ListSize());
    DeviceList::Terminate();
    // The peer closes its side of what was cancelled when it hears of it.
    if (round == 0) {
      threads = vex_test::ThreadCount();
      WaitUntil([&] { return (descriptors = vex_test::DescriptorCount()) > 0; });
    }
    // A joined thread may stay in the kernel's list for a moment.
    EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() == threads; })) << round;
  }
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() <= descriptors; }));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

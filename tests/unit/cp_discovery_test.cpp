// The functions that hosts see, over a list that is filled by hand.

#include <vexupnpcp/cp_discovery.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/timer.h>

#include "src/cp_discovery_manager.h"
#include "src/device_list.h"
#include "src/discovery_delivery.h"
#include "src/networkinterface.h"
#include "src/rescan.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";

std::vector<std::string> events;

// The record of the last event, which lives only for its call.
DeviceInfo last_told;

void Record(int id, DeviceEventType event, DeviceInfo* device) {
  events.push_back(std::to_string(id) + (event == DEVICE_ADDED ? "+" : "-") + device->udn);
  last_told = *device;
}

// With no network layer up, searches fail and are only noted.
class Discovery : public testing::Test {
 protected:
  Discovery() { events.clear(); }
  ~Discovery() override { Terminate(); }

  static boost::shared_ptr<Device> Add(const std::string& udn, bool ready = true) {
    boost::shared_ptr<Device> device(new Device);
    device->udn = udn;
    device->device_type = "urn:x-y:device:Foo:2";
    device->friendly_name = "Hall";
    device->ip = "192.0.2.7";
    device->port = 80;
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    list->Add(device);
    if (ready) list->MarkReady(device);
    return device;
  }

  static int Register(const std::string& type, const std::string& agent = "") {
    int handle = 0;
    EXPECT_EQ(0, RegisterCP(type, agent, Record, &handle));
    return handle;
  }

  static void Notify(DeviceStatus_ status, const std::string& type) {
    boost::shared_ptr<Device> device(new Device);
    device->udn = type;
    device->device_type = type;
    CPDiscoveryManager::GetInstance()->NotifyToDeviceChangeListener(status, device);
  }

  static std::string AgentFor(const std::string& type) {
    std::string agent = "before";
    CPDiscoveryManager::GetInstance()->GetUserAgentByDeviceType(type, agent);
    return agent;
  }
};

TEST_F(Discovery, AListOfNothingIsAFailure) {
  LogCapture log;
  std::list<DeviceInfo> list(1);
  EXPECT_EQ(1, GetDeviceList("urn:x-y:device:Foo:1", &list));
  EXPECT_EQ(1, log.Count("interesting device list empty"));
  EXPECT_EQ(1U, list.size());
  EXPECT_EQ(1, GetDeviceList("", &list));
  EXPECT_EQ(1, GetDeviceList("urn:x-y:device:Foo:1", nullptr));
  EXPECT_EQ(2, log.Count("Device Type is Empty and hence Getting Device List failed"));
}

TEST_F(Discovery, ListsCarryTheDisplayNameAndIconsAsTheyStand) {
  const boost::shared_ptr<Device> device = Add("uuid:a");
  device->icons.emplace_back(new DeviceIcon{"image/png", "48", "32", "24", "icon.png", ""});
  device->icons.emplace_back(new DeviceIcon{"image/png", "1", "2", "3", "", ""});
  device->interface_name = "eth0";
  std::list<DeviceInfo> list;
  ASSERT_EQ(0, GetDeviceList("urn:x-y:device:Foo:1", &list));
  ASSERT_EQ(1U, list.size());
  const DeviceInfo& info = list.front();
  EXPECT_EQ("uuid:a", info.udn);
  EXPECT_EQ("Hall", info.friendly_name);
  EXPECT_EQ("Hall", info.display_name);
  EXPECT_EQ("urn:x-y:device:Foo:2", info.device_type);
  EXPECT_EQ("eth0", info.interface_name);
  ASSERT_EQ(2U, info.icons.size());
  EXPECT_EQ("icon.png", info.icons.front().url);
}

TEST_F(Discovery, ADeviceThatIsNotReadyCannotBeFound) {
  const boost::shared_ptr<Device> device = Add("uuid:a", false);
  device->description_xml.reset(new std::string("<root/>"));
  device->services.emplace_back(new ServiceInfo);
  device->additional_fields.emplace_back(new AdditionalFieldInfo{"tmk:ProductCap", "x"});
  DetailedDeviceInfo info;
  std::list<DeviceInfo> list;
  std::string text;
  EXPECT_EQ(1, GetDeviceList("upnp:rootdevice", &list));
  EXPECT_EQ(1, GetDeviceDetailInfo("uuid:a", &info));
  EXPECT_EQ(1, GetDeviceDescription("uuid:a", text));
  EXPECT_EQ(1, GetServiceDescription("uuid:a", "x", text));
  EXPECT_EQ(1, GetProductCap("uuid:a", text));
  EXPECT_EQ("", text);
}

TEST_F(Discovery, DetailsHaveEveryField) {
  const boost::shared_ptr<Device> device = Add("uuid:a");
  device->interface_ip = "192.0.2.1";
  device->interface_name = "eth0";
  device->url_base = "http://base:1/";
  device->description_url = "http://192.0.2.7:80/dir/d.xml";
  device->serial_number = "serial";
  device->manufacturer = "maker";
  device->model_name = "name";
  device->model_number = "number";
  device->model_description = "description";
  device->base_url = "http://192.0.2.7:80/dir";
  device->description_xml.reset(new std::string("<root/>"));
  device->icons.emplace_back(new DeviceIcon{"image/png", "48", "32", "24", "/icon.png", ""});
  device->icons.emplace_back(new DeviceIcon{"image/png", "48", "32", "24", "", ""});
  device->services.emplace_back(
      new ServiceInfo{"", "", "type", "id", "s.xml", "c", "e", "<scpd/>"});
  DetailedDeviceInfo info;
  LogCapture log;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a", &info));
  EXPECT_EQ("Hall", info.friendly_name);
  EXPECT_EQ("uuid:a", info.udn);
  EXPECT_EQ("192.0.2.7", info.device_ip);
  EXPECT_EQ("192.0.2.1", info.local_ip);
  EXPECT_EQ("eth0", info.interface_name);
  EXPECT_EQ("http://base:1/", info.url_base);
  EXPECT_EQ(80, info.device_port);
  EXPECT_EQ("http://192.0.2.7:80/dir/d.xml", info.location);
  EXPECT_EQ("serial", info.serial_number);
  EXPECT_EQ("maker", info.manufacturer);
  EXPECT_EQ("name", info.model_name);
  EXPECT_EQ("number", info.model_number);
  EXPECT_EQ("urn:x-y:device:Foo:2", info.device_type);
  EXPECT_EQ("http://192.0.2.7:80/dir", info.description_path);
  EXPECT_EQ("<root/>", info.description_xml);
  EXPECT_EQ("Hall", info.display_name);
  EXPECT_EQ("description", info.model_description);
  EXPECT_EQ(3, info.device_domain);
  // The icon without a URL is left out here, not in the list of devices.
  ASSERT_EQ(1U, info.icons.size());
  EXPECT_EQ("http://base:1/icon.png", info.icons.front().url);
  EXPECT_EQ(1, log.Count(2, kTag, "Error in forming control URI"));
  std::list<DeviceInfo> list;
  ASSERT_EQ(0, GetDeviceList("upnp:rootdevice", &list));
  EXPECT_EQ(2U, list.front().icons.size());
  ASSERT_EQ(1U, info.services.size());
  EXPECT_EQ("type", info.services.front().service_type);
  EXPECT_EQ("id", info.services.front().service_id);
  EXPECT_EQ("s.xml", info.services.front().scpd_url);
  EXPECT_EQ("c", info.services.front().control_url);
  EXPECT_EQ("e", info.services.front().event_sub_url);
}

TEST_F(Discovery, DetailsOfNothing) {
  LogCapture log;
  DetailedDeviceInfo info;
  EXPECT_EQ(1, GetDeviceDetailInfo("", &info));
  EXPECT_EQ(1, GetDeviceDetailInfo("uuid:a", nullptr));
  EXPECT_EQ(2, log.Count(16, kTag, "INVALID PARAMS!"));
  EXPECT_EQ(1, GetDeviceDetailInfo("uuid:a", &info));
  EXPECT_EQ(1, log.Count(16, kTag, "Device not present for given udn."));
}

TEST_F(Discovery, ADeviceWithoutAnAddressIsNowhere) {
  LogCapture log;
  Add("uuid:a")->ip = "";
  DetailedDeviceInfo info;
  info.device_domain = 9;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a", &info));
  EXPECT_EQ(0, info.device_domain);
  EXPECT_EQ(1, log.Count(16, kTag, "device ip is null/empty."));
  std::string local_ip;
  EXPECT_EQ(1, getDeviceInterface("", local_ip));
}

TEST_F(Discovery, Descriptions) {
  const boost::shared_ptr<Device> device = Add("uuid:a");
  LogCapture log;
  std::string xml;
  EXPECT_EQ(1, GetDeviceDescription("uuid:a", xml));
  EXPECT_EQ(1, log.Count(16, kTag, "Empty description!"));
  device->description_xml.reset(new std::string("<root/>"));
  EXPECT_EQ(0, GetDeviceDescription("uuid:a", xml));
  EXPECT_EQ("<root/>", xml);
  EXPECT_EQ(1, GetDeviceDescription("", xml));
  EXPECT_EQ(1, log.Count(16, kTag, "INVALID PARAMS!"));
  EXPECT_EQ(1, GetDeviceDescription("uuid:b", xml));
  EXPECT_EQ(1, log.Count(2, kTag, "Cannot find device for UDN uuid:b!"));
}

TEST_F(Discovery, ServiceDescriptionsByAPartOfTheType) {
  LogCapture log;
  const boost::shared_ptr<Device> device = Add("uuid:a");
  std::string xml;
  EXPECT_EQ(1, GetServiceDescription("uuid:a", "Switch", xml));
  EXPECT_EQ(1, log.Count("Service List of Device Empty"));
  const std::string prefix = "urn:schemas-upnp-org:service:";
  device->services.emplace_back(
      new ServiceInfo{"", "", prefix + "SwitchPower:1", "1", "", "", "", "<switch/>"});
  device->services.emplace_back(
      new ServiceInfo{"", "", prefix + "Dimming:1", "2", "", "", "", "<dim/>"});
  EXPECT_EQ(0, GetServiceDescription("uuid:a", "Dimming", xml));
  EXPECT_EQ("<dim/>", xml);
  EXPECT_EQ(1, log.Count(2, kTag, "Found service description <dim/>"));
  // The first that holds it.
  EXPECT_EQ(0, GetServiceDescription("uuid:a", ":1", xml));
  EXPECT_EQ("<switch/>", xml);
  EXPECT_EQ(1, GetServiceDescription("uuid:a", "dimming", xml));
  EXPECT_EQ(1, log.Count("Service description not found for uuid:a dimming"));
  EXPECT_EQ(1, GetServiceDescription("", "Dimming", xml));
  EXPECT_EQ(1, GetServiceDescription("uuid:a", "", xml));
  EXPECT_EQ(2, log.Count(4, kTag, "Devcie udn and Service type Empty"));
  EXPECT_EQ(1, GetServiceDescription("uuid:b", "x", xml));
  EXPECT_EQ(1, log.Count("Not able to get device by its UDN"));
}

TEST_F(Discovery, ProductCapabilities) {
  LogCapture log;
  const boost::shared_ptr<Device> device = Add("uuid:a");
  std::string value;
  EXPECT_EQ(1, GetProductCap("uuid:a", value));
  EXPECT_EQ(1, log.Count(4, kTag, "Cannot find Product cap!"));
  for (const char* name :
       {"tmk:Product", "xtmk:ProductCap", "tmk:ProductCapabilities", "tmk:ProductCap"}) {
    device->additional_fields.emplace_back(new AdditionalFieldInfo{name, name});
  }
  EXPECT_EQ(0, GetProductCap("uuid:a", value));
  EXPECT_EQ("tmk:ProductCapabilities", value);
  EXPECT_EQ(1, GetProductCap("", value));
  EXPECT_EQ(1, log.Count("INVALID PARAMS!"));
  EXPECT_EQ(1, GetProductCap("uuid:b", value));
  EXPECT_EQ(1, log.Count(2, kTag, "Cannot find device for UDN uuid:b!"));
}

TEST_F(Discovery, RegistrationsGetRisingHandles) {
  LogCapture log;
  EXPECT_EQ(1, Register("urn:x-y:device:Foo:1"));
  EXPECT_EQ(2, Register("urn:x-y:device:Foo:1"));
  EXPECT_EQ(0, UnRegisterCP(1));
  EXPECT_EQ(3, Register("upnp:rootdevice"));
  EXPECT_EQ(3, log.Count(4, kTag, "Registering CP Success"));
  EXPECT_EQ(0, UnRegisterCP(77));
  EXPECT_EQ(2, log.Count(4, kTag, "UnRegistering CP Success"));
  int handle = 9;
  EXPECT_EQ(1, RegisterCP("", "", Record, &handle));
  EXPECT_EQ(9, handle);
  EXPECT_EQ(1, log.Count(16, kTag, "Device Type Empty"));
  EXPECT_EQ(0, RegisterCP("upnp:rootdevice", "", Record, nullptr));
}

TEST_F(Discovery, RegisteringAConcreteTypeNarrowsWhatIsListedForGood) {
  const int handle = Register("urn:x-y:device:Foo:1");
  UnRegisterCP(handle);
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  EXPECT_TRUE(list->IsAcceptedDevice("urn:x-y:device:Foo:1"));
  EXPECT_FALSE(list->IsAcceptedDevice("urn:x-y:device:Bar:1"));
}

TEST_F(Discovery, EventsGoByTypeAndVersionInOrderOfRegistration) {
  for (const char* type : {"urn:x-y:device:Foo:1", "urn:x-y:device:Foo:2", "urn:x-y:device:Foo:3",
                           "urn:x-y:device:Foo:any", "upnp:rootdevice", "urn:x-y:device:Fo:1"}) {
    Register(type);
  }
  const auto told = [](const std::string& type) {
    events.clear();
    Notify(DEVICE_ADDED, type);
    std::string ids;
    for (const std::string& event : events) ids += event.substr(0, event.find('+'));
    return ids;
  };
  EXPECT_EQ("12456", told("urn:x-y:device:Foo:2"));
  EXPECT_EQ("1456", told("urn:x-y:device:Foo:1"));
  EXPECT_EQ("123456", told("urn:x-y:device:Foo:7"));
  // Without a readable version it is for everybody.
  EXPECT_EQ("123456", told("urn:x-y:device:Foo:new"));
  EXPECT_EQ("123456", told("urn:x-y:device:Foo:"));
  // KEPT: only the beginning counts.
  EXPECT_EQ("12456", told("urn:x-y:device:FooBar:2"));
  EXPECT_EQ("56", told("urn:x-y:device:Fo:1"));
  EXPECT_EQ("5", told("urn:other:device:Foo:1"));
  EXPECT_EQ("5", told(""));
}

TEST_F(Discovery, KeptAnObserverOfEverythingSearchedForGetsNoEvent) {
  Register("ssdp:all");
  Notify(DEVICE_ADDED, "urn:x-y:device:Foo:1");
  Notify(DEVICE_REMOVED, "urn:x-y:device:Foo:1");
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(Discovery, BothEventsAreTold) {
  Register("urn:x-y:device:Foo:1");
  Notify(DEVICE_ADDED, "urn:x-y:device:Foo:1");
  Notify(DEVICE_REMOVED, "urn:x-y:device:Foo:1");
  EXPECT_THAT(events, ElementsAre("1+urn:x-y:device:Foo:1", "1-urn:x-y:device:Foo:1"));
}

// What one observer threw went up through the loop, and nobody behind it was told.
TEST_F(Discovery, RegressionAnObserverThatThrowsKeepsNothingFromTheOthers) {
  LogCapture log;
  const DeviceCallback thrower = [](int, DeviceEventType, DeviceInfo*) {
    throw std::runtime_error("of a host");
  };
  ASSERT_EQ(0, RegisterCP("upnp:rootdevice", "", thrower, nullptr));
  Register("upnp:rootdevice");
  Notify(DEVICE_ADDED, "urn:x-y:device:Foo:1");
  Notify(DEVICE_REMOVED, "urn:x-y:device:Foo:1");
  EXPECT_THAT(events, ElementsAre("2+urn:x-y:device:Foo:1", "2-urn:x-y:device:Foo:1"));
  EXPECT_EQ(2, log.Count(16, kTag, "Exception: of a host"));
}

TEST_F(Discovery, RegressionWithoutMemoryNoMoreThanOneRemovalIsMissed) {
  Register("upnp:rootdevice");
  const DeviceList::Devices removed{Add("uuid:a"), Add("uuid:b"), Add("uuid:c")};
  const auto manager = CPDiscoveryManager::GetInstance();
  const int failures =
      vex_test::EachAllocationFails([&] { manager->NotifyRemovedDevices(removed); },
                                    [](bool failed) {
                                      EXPECT_GE(events.size(), failed ? 2U : 3U);
                                      events.clear();
                                    });
  EXPECT_GT(failures, 3);
}

// It stayed enabled without a timer, never searched and could not be enabled again.
TEST_F(Discovery, RegressionAnAutomaticRescanThatFoundNoMemoryCanBeEnabledLater) {
  Register("urn:x-y:device:Foo:1");
  int code = 0;
  const int failures =
      vex_test::EachAllocationFails([&] { code = EnableAutoRescanFeature(); },
                                    [&](bool) {
                                      LogCapture log;
                                      if (code != 0) {
                                        EXPECT_EQ(0, EnableAutoRescanFeature());
                                        EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan started"));
                                      }
                                      EXPECT_EQ(0, DisableAutoRescanFeature());
                                      EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan stopped "));
                                    });
  EXPECT_GT(failures, 3);
  utils::Timer::TerminateManager();
}

TEST_F(Discovery, EventsCarryIconsAsTheyStandAndNoDisplayName) {
  Register("upnp:rootdevice");
  const boost::shared_ptr<Device> device = Add("uuid:a");
  device->interface_name = "eth0";
  device->icons.emplace_back(new DeviceIcon{"image/png", "48", "32", "24", "icon.png", ""});
  device->icons.emplace_back(new DeviceIcon{"image/gif", "1", "2", "3", "", ""});
  CPDiscoveryManager::GetInstance()->NotifyToDeviceChangeListener(DEVICE_ADDED, device);
  ASSERT_THAT(events, ElementsAre("1+uuid:a"));
  EXPECT_EQ("Hall", last_told.friendly_name);
  EXPECT_EQ("", last_told.display_name);
  EXPECT_EQ("urn:x-y:device:Foo:2", last_told.device_type);
  EXPECT_EQ("eth0", last_told.interface_name);
  ASSERT_EQ(2U, last_told.icons.size());
  const DeviceIconInfo& icon = last_told.icons.front();
  EXPECT_EQ("image/png", icon.mimetype);
  EXPECT_EQ("icon.png", icon.url);
  EXPECT_EQ("48", icon.width);
  EXPECT_EQ("32", icon.height);
  EXPECT_EQ("24", icon.depth);
  EXPECT_EQ("", last_told.icons.back().url);
}

TEST_F(Discovery, UserAgents) {
  const std::string type = "urn:x-y:device:Foo:1";
  const std::string built_in = "DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0";
  LogCapture log;
  EXPECT_EQ("", AgentFor(""));
  EXPECT_EQ(1, log.Count(2, kTag, "Invalid param!"));
  EXPECT_EQ("", AgentFor(type));
  EXPECT_EQ(1, log.Count(2, kTag, "No control points!"));
  Register(type);
  EXPECT_EQ(built_in, AgentFor(type));
  Register(type, "first");
  Register(type, "second");
  EXPECT_EQ("first", AgentFor(type));
  // The type must be exactly the same.
  EXPECT_EQ(built_in, AgentFor("urn:x-y:device:Foo:2"));
  SetDefaultUserAgent("default");
  EXPECT_EQ("default", AgentFor("urn:x-y:device:Foo:2"));
  EXPECT_EQ("default", AgentFor(""));
  EXPECT_EQ("first", AgentFor(type));
  std::string agent;
  GetDefaultUserAgent(agent);
  EXPECT_EQ("default", agent);
}

TEST_F(Discovery, TheDefaultAgentIsEmptyAtStart) {
  std::string agent = "before";
  GetDefaultUserAgent(agent);
  EXPECT_EQ("", agent);
}

TEST_F(Discovery, WaitingForDeliveryBuildsNothing) {
  Terminate();
  WaitForDelivery();
  EXPECT_FALSE(CPDiscoveryManager::ExistingInstance());
  CPDiscoveryManager::GetInstance();
  WaitForDelivery();
}

TEST_F(Discovery, InitializeWithoutANetworkLayerFailsAndLeavesNothing) {
  LogCapture log;
  EXPECT_EQ(1, Initialize());
  EXPECT_EQ(1, log.Count(16, kTag, "CP Discovery Initialization Failure"));
  EXPECT_EQ(1, log.Count(4, kTag, "RegisterNetworkEventListener failed"));
}

TEST_F(Discovery, InitializeWithoutACallbackHandlerFailsAndLeavesNothing) {
  LogCapture log;
  const auto interfaces = network_layer::NetworkInterface::GetInstance();
  EXPECT_EQ(1, Initialize());
  EXPECT_EQ(1, log.Count(4, kTag, "RegisterUDPRequestListener failed"));
  interfaces->NotifyNICIfEvent(network_layer::NIC_ADDED, "lan9");
  EXPECT_EQ(1, log.Count("event listener vector is empty!!"));
  network_layer::NetworkInterface::DestroyInstance();
}

TEST_F(Discovery, ACheckOfNoSearchIsLogged) {
  LogCapture log;
  CPDiscoveryManager::GetInstance()->RescanTimerExpired(4711, nullptr);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid timer id..!!"));
}

TEST_F(Discovery, NoCheckBeginsOnceChecksHaveBeenStopped) {
  Rescans rescans;
  rescans.StopChecks();
  LogCapture log;
  boost::recursive_mutex mutex;
  boost::unique_lock<boost::recursive_mutex> delivery(mutex, boost::defer_lock);
  EXPECT_EQ(nullptr, rescans.TakeUnreachable("urn:x-y:device:Foo:1", delivery));
  EXPECT_FALSE(delivery.owns_lock());
  EXPECT_EQ(1, log.Count(4, kTag, "Rescan connect check has been stopped."));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

#include "src/device_list.h"

#include <gmock/gmock.h>

#include <ctime>
#include <functional>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/streaming.h>

#include "base/limits.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_peer.h"
#include "tests/support/sanitizers.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";
constexpr char kForum[] = "urn:schemas-upnp-org:device:";

using DevicePtr = boost::shared_ptr<Device>;

DevicePtr MakeDevice(const std::string& udn, const std::string& type = "urn:x-y:device:Foo:1") {
  DevicePtr device(new Device);
  device->udn = udn;
  device->device_type = type;
  return device;
}

class DeviceListTest : public testing::Test {
 protected:
  DeviceListTest() : list_(DeviceList::GetInstance()) {}
  ~DeviceListTest() override { DeviceList::Terminate(); }

  DevicePtr Add(const std::string& udn, const std::string& type = "urn:x-y:device:Foo:1") {
    DevicePtr device = MakeDevice(udn, type);
    EXPECT_TRUE(list_->Add(device));
    return device;
  }

  DevicePtr AddReady(const std::string& udn, const std::string& type = "urn:x-y:device:Foo:1") {
    DevicePtr device = Add(udn, type);
    EXPECT_TRUE(list_->MarkReady(device));
    return device;
  }

  static std::vector<std::string> Keys(const std::unique_ptr<DeviceList::Devices>& devices) {
    std::vector<std::string> keys;
    if (devices) {
      for (const DevicePtr& device : *devices) keys.push_back(device->udn);
    }
    return keys;
  }

  std::string DisplayName(const std::string& model_description, const std::string& name) {
    DevicePtr device = MakeDevice("uuid:n");
    device->model_description = model_description;
    device->friendly_name = name;
    list_->Add(device);
    list_->Remove(device);
    return device->display_name;
  }

  bool Accepts(const std::string& type) const { return list_->IsAcceptedDevice(type); }

  const boost::shared_ptr<DeviceList> list_;
};

// An index that still named a device after its entry had gone was followed into freed memory.
TEST_F(DeviceListTest, RegressionADeviceThatFindsNoMemoryIsInNoIndex) {
  AddReady("uuid:before");
  const int failures = vex_test::EachAllocationFails(
      [&] {
        try {
          DevicePtr device = MakeDevice("uuid:a device with a name that is allocated");
          list_->Add(device);
        } catch (const std::bad_alloc&) {
        }
      },
      [&](bool failed) {
        const DevicePtr removed = list_->RemoveByUdn("uuid:a device with a name that is allocated");
        EXPECT_EQ(!failed, removed != nullptr);
        EXPECT_FALSE(list_->RemoveByUdn("uuid:a device with a name that is allocated"));
      });
  EXPECT_GT(failures, 5);
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("uuid:before"));
}

TEST_F(DeviceListTest, DisplayNames) {
  EXPECT_EQ("[TV]Hall", DisplayName("Tolmark TV X", "Hall"));
  EXPECT_EQ("[TV]", DisplayName("Tolmark TV X", ""));
  EXPECT_EQ("[TV]Hall", DisplayName("Tolmark TV ", "Hall"));
  EXPECT_EQ("[Blu-ray]Hall", DisplayName("Tolmark Blu-ray Player X", "Hall"));
  // One character, nothing behind, a blank at once, another maker, no blank behind the maker.
  EXPECT_EQ("Hall", DisplayName("Tolmark Y Z", "Hall"));
  EXPECT_EQ("Hall", DisplayName("Tolmark TV", "Hall"));
  EXPECT_EQ("Hall", DisplayName("Tolmark  TV X", "Hall"));
  EXPECT_EQ("Hall", DisplayName("tolmark TV X", "Hall"));
  EXPECT_EQ("Hall", DisplayName("TolmarkTV X Y", "Hall"));
  EXPECT_EQ("Hall", DisplayName("Tolmark ", "Hall"));
  EXPECT_EQ("", DisplayName("", ""));
}

TEST_F(DeviceListTest, ANameIsWantedForTheLineOfAnAddition) {
  LogCapture log;
  DevicePtr device = MakeDevice("uuid:a");
  device->model_description = "Tolmark TV X";
  ASSERT_TRUE(list_->Add(device));
  EXPECT_EQ("[TV]", device->display_name);
  EXPECT_FALSE(log.Holds("DEVICE_ADDED"));
  EXPECT_EQ(1, log.Count(" the size of device list : 1"));
  DevicePtr named = MakeDevice("uuid:b");
  named->friendly_name = "Hall";
  ASSERT_TRUE(list_->Add(named));
  EXPECT_EQ(1, log.Count("DEVICE_ADDED [Hall][urn:x-y:device:Foo:1]"));
  EXPECT_EQ(1, log.Count(" the size of device list : 2"));
}

TEST_F(DeviceListTest, AddingSetsTheFlags) {
  DevicePtr device = MakeDevice("uuid:a");
  device->is_valid = false;
  device->services_ready = true;
  ASSERT_TRUE(list_->Add(device));
  EXPECT_TRUE(device->is_valid);
  EXPECT_FALSE(device->services_ready);
}

TEST_F(DeviceListTest, ANullDeviceIsLogged) {
  LogCapture log;
  DevicePtr none;
  EXPECT_FALSE(list_->Add(none));
  EXPECT_EQ(1, log.Count(16, kTag, "Error, invalid device in DeviceList::Add"));
  EXPECT_FALSE(list_->GetAllDevices());
}

TEST_F(DeviceListTest, ADeviceThatIsListedAgainKeepsItsName) {
  DevicePtr device = MakeDevice("uuid:a");
  device->friendly_name = "Hall";
  list_->Add(device);
  list_->Remove(device);
  list_->Add(device);
  EXPECT_EQ("Hall", device->display_name);
}

TEST_F(DeviceListTest, OnlyReadyDevicesCanBeFound) {
  LogCapture log;
  const DevicePtr device = Add("uuid:a");
  EXPECT_EQ(device, list_->IsDeviceAdded("uuid:a"));
  EXPECT_FALSE(list_->GetDeviceByUdn("uuid:a"));
  EXPECT_FALSE(list_->LockAndGetDeviceByUdn("uuid:a"));
  EXPECT_THAT(Keys(list_->GetDeviceListByType("upnp:rootdevice")), IsEmpty());
  EXPECT_TRUE(list_->MarkReady(device));
  EXPECT_FALSE(list_->MarkReady(device));
  EXPECT_EQ(0, log.Count("device udn matched"));
  EXPECT_EQ(device, list_->GetDeviceByUdn("uuid:a"));
  EXPECT_EQ(1, log.Count(4, kTag, "device udn matched"));
  EXPECT_EQ(device, list_->LockAndGetDeviceByUdn("uuid:a"));
  EXPECT_EQ(1, log.Count("device udn matched"));
  EXPECT_FALSE(list_->IsDeviceAdded("uuid:"));
  EXPECT_FALSE(list_->IsDeviceAdded("uuid:ab"));
  EXPECT_FALSE(list_->IsDeviceAdded(""));
}

TEST_F(DeviceListTest, ADeviceThatHasLeftIsNotMadeReady) {
  const DevicePtr device = Add("uuid:a");
  list_->Remove(device);
  EXPECT_FALSE(list_->MarkReady(device));
  EXPECT_FALSE(device->services_ready);
}

TEST_F(DeviceListTest, RemovingByKeyTakesTheFirst) {
  const DevicePtr first = Add("uuid:a");
  const DevicePtr second = Add("uuid:a");
  Add("uuid:b");
  EXPECT_EQ(first, list_->IsDeviceAdded("uuid:a"));
  EXPECT_EQ(first, list_->RemoveByUdn("uuid:a"));
  EXPECT_EQ(second, list_->IsDeviceAdded("uuid:a"));
  EXPECT_EQ(second, list_->RemoveByUdn("uuid:a"));
  EXPECT_FALSE(list_->RemoveByUdn("uuid:a"));
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("uuid:b"));
}

TEST_F(DeviceListTest, RemovingByRecordTakesEveryEntryOfIt) {
  DevicePtr twice = Add("uuid:a");
  list_->Add(twice);
  const DevicePtr other = Add("uuid:a");
  list_->Remove(twice);
  EXPECT_FALSE(list_->IsListed(twice));
  EXPECT_EQ(other, list_->IsDeviceAdded("uuid:a"));
  list_->Remove(twice);
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("uuid:a"));
}

TEST_F(DeviceListTest, TheListKeepsItsOrder) {
  for (const char* key : {"c", "a", "b", "d"}) Add(key);
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("c", "a", "b", "d"));
  list_->RemoveByUdn("a");
  Add("a");
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("c", "b", "d", "a"));
  list_->ClearDeviceList();
  EXPECT_FALSE(list_->GetAllDevices());
  EXPECT_FALSE(list_->IsDeviceAdded("c"));
}

TEST_F(DeviceListTest, AHierarchyGoesAsAWhole) {
  const DevicePtr root = MakeDevice("root");
  root->embedded_devices = {MakeDevice("one"), MakeDevice("two")};
  root->embedded_devices.front()->embedded_devices = {MakeDevice("deep")};
  DevicePtr listed = root;
  list_->Add(listed);
  list_->Add(root->embedded_devices.front());
  list_->Add(root->embedded_devices.front()->embedded_devices.front());
  Add("stranger");
  list_->RemoveDeviceHierarchy(root);
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("stranger"));
}

TEST_F(DeviceListTest, AnInterfaceTakesItsDevicesAndThoseOnNone) {
  const auto on = [&](const std::string& key, const std::string& interface_name) {
    const DevicePtr device = Add(key);
    device->interface_name = interface_name;
    return device;
  };
  const DevicePtr root = on("root", "eth0");
  on("other", "eth1");
  DevicePtr embedded = on("embedded", "eth0");
  root->embedded_devices = {embedded};
  on("nowhere", "");
  on("alike", "eth00");
  EXPECT_THAT(Keys(list_->RemoveAndGetDevicesByInterface("eth0")),
              ElementsAre("root", "embedded", "nowhere"));
  EXPECT_THAT(Keys(list_->GetAllDevices()), ElementsAre("other", "alike"));
  const auto none = list_->RemoveAndGetDevicesByInterface("eth9");
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
}

TEST_F(DeviceListTest, DevicesByType) {
  AddReady("1", "urn:x-y:device:Foo:1");
  AddReady("2", "urn:x-y:device:Foo:2");
  AddReady("none", "urn:x-y:device:Foo:");
  AddReady("odd", "urn:x-y:device:Foo:x");
  AddReady("longer", "urn:x-y:device:FooBar:3");
  Add("unready", "urn:x-y:device:Foo:3");
  const auto keys = [&](const std::string& type) { return Keys(list_->GetDeviceListByType(type)); };
  EXPECT_THAT(keys("urn:x-y:device:Foo:1"), ElementsAre("1", "2", "none", "odd"));
  EXPECT_THAT(keys("urn:x-y:device:Foo:2"), ElementsAre("2", "none", "odd"));
  EXPECT_THAT(keys("urn:x-y:device:Foo:3"), ElementsAre("none", "odd"));
  EXPECT_THAT(keys("urn:x-y:device:Foo:"), ElementsAre("1", "2", "none", "odd"));
  EXPECT_THAT(keys("urn:x-y:device:Foo:any"), ElementsAre("1", "2", "none", "odd"));
  EXPECT_THAT(keys("urn:x-y:device:Fo:1"), IsEmpty());
  EXPECT_THAT(keys("upnp:rootdevice"), ElementsAre("1", "2", "none", "odd", "longer"));
  EXPECT_THAT(keys("ssdp:all"), IsEmpty());
}

TEST_F(DeviceListTest, EverythingIsAcceptedBeforeATypeIsEntered) {
  EXPECT_TRUE(Accepts("urn:x-y:device:Foo:1"));
  EXPECT_TRUE(Accepts(""));
  LogCapture log;
  list_->AddAcceptedDevice("upnp:rootdevice");
  EXPECT_EQ(1, log.Count("it's root device"));
  list_->AddAcceptedDevice("");
  list_->AddAcceptedDevice("ssdp:all");
  EXPECT_TRUE(Accepts("anything"));
  EXPECT_FALSE(log.Holds("accepted device_type"));
}

TEST_F(DeviceListTest, KeptAcceptanceLooksAtTheBeginningOfAnEntryOnly) {
  list_->AddAcceptedDevice("urn:x-y:device:FooBar:1");
  EXPECT_TRUE(Accepts("urn:x-y:device:FooBar:1"));
  EXPECT_TRUE(Accepts("urn:x-y:device:FooBar:3"));
  EXPECT_TRUE(Accepts("urn:x-y:device:FooBar:12"));
  EXPECT_TRUE(Accepts("urn:x-y:device:Foo:1"));
  EXPECT_TRUE(Accepts("u:1"));
  EXPECT_FALSE(Accepts("urn:x-y:device:FooBarBaz:1"));
  EXPECT_FALSE(Accepts("urn:x-y:device:Other:1"));
  EXPECT_FALSE(Accepts(""));
  EXPECT_FALSE(Accepts(":1"));
}

struct TypeCase {
  std::string type;
  bool entered;
};

TEST_F(DeviceListTest, TypesThatAreEntered) {
  const std::string forum = kForum;
  const std::vector<TypeCase> cases = {
      {forum + "MediaServer:1", true},
      {forum + "MediaServer:12", true},
      {forum + "Media.Server", true},
      {forum, true},
      {"urn:x-y:device:Foo:1", true},
      {"urn:tolmark:device:FileTransferServer:1", true},
      // KEPT: the bar stands in the sets as it is.
      {"urn:a|b:device:Fo|o:1", true},
      {"urn:x-y:device:Foo:12", false},
      {"urn:x.y:device:Foo:1", false},
      {"urn:schemas-example-com2:device:Foo:1", false},
      {"urn:x-y:device:Foo", false},
      {"urn:x-y:device:Foo:", false},
      {"urn:x-y:device:Foo-Bar:1", false},
      {"urn:x-y:device:Foo2:1", false},
      {"urn:x-y:service:Foo:1", false},
      {"urn::device:Foo:1", false},
      {" urn:x-y:device:Foo:1", false},
      {"urn:x-y:device:Foo:1 ", false},
      {"URN:x-y:device:Foo:1", false},
      {"ssdp:all", false},
      {"uuid:1", false},
  };
  for (const TypeCase& row : cases) {
    LogCapture log;
    list_->AddAcceptedDevice(row.type);
    EXPECT_EQ(row.entered ? 1 : 0, log.Count("accepted device_type:[" + row.type + "]"))
        << row.type;
  }
}

// The rule for other types, as an expression.
TEST_F(DeviceListTest, VendorTypesAreEnteredByOneExpression) {
  const std::regex expression("urn:[a-z|A-Z|-]+:device:[a-z|A-Z]+:[0-9]");
  const std::string valid = "urn:a-Z:device:Fo|o:1";
  const std::string letters("azAZ09:|-. u\0", 13);
  LogCapture log;
  for (std::size_t at = 0; at <= valid.size(); ++at) {
    for (const char letter : letters) {
      for (std::size_t replaced = 0; replaced <= 2; ++replaced) {
        std::string type = valid;
        type.replace(at, replaced, 1, letter);
        log.Clear();
        list_->AddAcceptedDevice(type);
        EXPECT_EQ(std::regex_match(type, expression), log.Holds("accepted device_type:")) << type;
      }
    }
  }
}

TEST_F(DeviceListTest, RegisteringForVersionOneAcceptsVersionThree) {
  list_->AddAcceptedDevice("urn:schemas-upnp-org:device:MediaServer:1");
  EXPECT_TRUE(Accepts("urn:schemas-upnp-org:device:MediaServer:3"));
  EXPECT_FALSE(Accepts("urn:schemas-upnp-org:device:MediaRenderer:1"));
}

TEST_F(DeviceListTest, AsManyAsTheBoundAreListedAndNoMore) {
  for (std::size_t i = 0; i < limits::kListedDevices; ++i) Add("uuid:" + std::to_string(i));
  LogCapture log;
  DevicePtr more = MakeDevice("uuid:more");
  EXPECT_FALSE(list_->Add(more));
  EXPECT_FALSE(list_->Add(more));
  EXPECT_LE(log.Count(16, kTag, "Device list is full, device not listed [uuid:more]"), 1);
  EXPECT_FALSE(list_->IsListed(more));
  list_->RemoveByUdn("uuid:7");
  EXPECT_TRUE(list_->Add(more));
}

TEST_F(DeviceListTest, WhatDevicesHoldIsBounded) {
  DevicePtr device = Add("uuid:a");
  // The record itself takes its share.
  EXPECT_FALSE(list_->Reserve(device, limits::kHeldDeviceBytes));
  const std::size_t most = limits::kHeldDeviceBytes - 64 * 1024;
  EXPECT_TRUE(list_->Reserve(device, most));
  EXPECT_FALSE(list_->Reserve(device, 128 * 1024));
  DevicePtr large = MakeDevice("uuid:large");
  large->description_xml.reset(new std::string(128 * 1024, 'x'));
  EXPECT_FALSE(list_->Add(large));
  // It is given back when the device goes, wherever it was.
  list_->Remove(device);
  EXPECT_FALSE(list_->Reserve(device, 1));
  EXPECT_FALSE(list_->Add(large));
  device.reset();
  EXPECT_TRUE(list_->Add(large));
  // A description that two devices share is counted once.
  DevicePtr embedded = MakeDevice("uuid:embedded");
  embedded->description_xml = large->description_xml;
  embedded->description_held = large->description_held;
  ASSERT_TRUE(list_->Add(embedded));
  EXPECT_TRUE(list_->Reserve(embedded, limits::kHeldDeviceBytes - 192 * 1024));
}

// Fills all room but this much.
DevicePtr LeaveRoom(DeviceList& list, std::size_t bytes) {
  DevicePtr full = MakeDevice("uuid:full");
  EXPECT_TRUE(list.Add(full));
  for (std::size_t step = limits::kHeldDeviceBytes; step > 0; step /= 2) {
    while (list.Reserve(full, step)) {
    }
  }
  DevicePtr room = MakeDevice("uuid:room");
  list.Remove(full);
  full.reset();
  EXPECT_TRUE(list.Add(room));
  EXPECT_TRUE(list.Reserve(room, limits::kHeldDeviceBytes - bytes - 4096));
  return room;
}

TEST_F(DeviceListTest, RegressionEveryTextOfADeviceCounts) {
  constexpr std::size_t kText = 1024 * 1024;
  const DevicePtr room = LeaveRoom(*list_, kText);
  const std::string text(kText + 4096, 't');
  const auto has_room = [&](const std::function<void(Device&)>& fill) {
    DevicePtr device = MakeDevice("uuid:a");
    fill(*device);
    const bool added = list_->Add(device);
    list_->Remove(device);
    return added;
  };
  EXPECT_TRUE(has_room([](Device&) {}));
  for (std::string Device::*const field :
       {&Device::description_url,  &Device::spec_minor,        &Device::spec_major,
        &Device::dlna_cap,         &Device::device_type,       &Device::manufacturer,
        &Device::manufacturer_url, &Device::model_description, &Device::model_name,
        &Device::model_number,     &Device::model_url,         &Device::udn,
        &Device::base_url,         &Device::url_base,          &Device::upc,
        &Device::serial_number,    &Device::presentation_url,  &Device::ip,
        &Device::interface_ip,     &Device::interface_name}) {
    EXPECT_FALSE(has_room([&](Device& device) { device.*field = text; }));
  }
  // It is there twice, and so is a key.
  const std::string half(kText / 2 + 4096, 't');
  EXPECT_FALSE(has_room([&](Device& device) { device.friendly_name = half; }));
  EXPECT_FALSE(has_room([&](Device& device) { device.udn = half; }));
  EXPECT_TRUE(has_room([&](Device& device) { device.model_name = half; }));
  for (std::string ServiceInfo::*const field :
       {&ServiceInfo::service_key, &ServiceInfo::service_owner, &ServiceInfo::service_type,
        &ServiceInfo::service_id, &ServiceInfo::scpd_url, &ServiceInfo::control_url,
        &ServiceInfo::event_sub_url, &ServiceInfo::scpd_xml}) {
    EXPECT_FALSE(has_room([&](Device& device) {
      device.services.emplace_back(new ServiceInfo);
      (*device.services.back()).*field = text;
    }));
  }
  for (std::string DeviceIcon::*const field :
       {&DeviceIcon::mimetype, &DeviceIcon::width, &DeviceIcon::height, &DeviceIcon::depth,
        &DeviceIcon::url, &DeviceIcon::reserved}) {
    EXPECT_FALSE(has_room([&](Device& device) {
      device.icons.emplace_back(new DeviceIcon);
      (*device.icons.back()).*field = text;
    }));
  }
  for (std::string AdditionalFieldInfo::*const field :
       {&AdditionalFieldInfo::name, &AdditionalFieldInfo::value}) {
    EXPECT_FALSE(has_room([&](Device& device) {
      device.additional_fields.emplace_back(new AdditionalFieldInfo);
      (*device.additional_fields.back()).*field = text;
    }));
  }
}

TEST_F(DeviceListTest, ADeviceThatComesBackCountsOnce) {
  const DevicePtr room = LeaveRoom(*list_, 1024 * 1024);
  DevicePtr device = MakeDevice("uuid:a");
  device->services.emplace_back(new ServiceInfo);
  ASSERT_TRUE(list_->Add(device));
  ASSERT_TRUE(list_->Reserve(device, 700 * 1024));
  device->services.back()->scpd_xml.assign(700 * 1024, 's');
  for (int i = 0; i < 3; ++i) {
    list_->Remove(device);
    EXPECT_TRUE(list_->Add(device));
  }
}

TEST_F(DeviceListTest, RegressionWhatAListedDeviceKeepsAliveGoesOnCounting) {
  constexpr std::size_t kText = 200 * 1024 * 1024;
  DevicePtr root = Add("root");
  DevicePtr embedded = MakeDevice("embedded");
  root->embedded_devices = {embedded};
  ASSERT_TRUE(list_->Add(embedded));
  ASSERT_TRUE(list_->Reserve(embedded, kText));
  // Its record stays in the tree of its root, with all that it holds.
  list_->Remove(embedded);
  embedded.reset();
  const DevicePtr other = Add("other");
  EXPECT_FALSE(list_->Reserve(other, kText));
  list_->Remove(root);
  root.reset();
  EXPECT_TRUE(list_->Reserve(other, kText));
}

TEST_F(DeviceListTest, RegressionADescriptionCountsAsLongAsOneOfItsDevices) {
  constexpr std::size_t kText = 1024 * 1024;
  const DevicePtr room = LeaveRoom(*list_, kText);
  DevicePtr root = MakeDevice("root");
  root->description_xml.reset(new std::string(kText - 64 * 1024, 'x'));
  ASSERT_TRUE(list_->Add(root));
  DevicePtr embedded = MakeDevice("embedded");
  embedded->description_xml = root->description_xml;
  embedded->description_held = root->description_held;
  ASSERT_TRUE(list_->Add(embedded));
  list_->Remove(root);
  root.reset();
  const DevicePtr other = Add("other");
  EXPECT_FALSE(list_->Reserve(other, kText / 2));
  list_->Remove(embedded);
  embedded.reset();
  EXPECT_TRUE(list_->Reserve(other, kText / 2));
}

// Devices that had left the list and were not told as removed were lost to everybody.
TEST_F(DeviceListTest, RegressionWithoutMemoryAHierarchyStaysAsAWhole) {
  DevicePtr root = MakeDevice("root");
  root->embedded_devices = {MakeDevice("one"), MakeDevice("two")};
  const auto list_all = [&] {
    for (DevicePtr device : {root, root->embedded_devices.front(), root->embedded_devices.back()}) {
      if (!list_->IsListed(device)) list_->Add(device);
    }
  };
  for (const bool by_interface : {false, true}) {
    list_all();
    const int failures = vex_test::EachAllocationFails(
        [&] {
          try {
            if (by_interface) {
              list_->RemoveAndGetDevicesByInterface("eth0");
            } else {
              list_->RemoveDeviceHierarchy(root);
            }
          } catch (const std::bad_alloc&) {
          }
        },
        [&](bool failed) {
          const auto all = list_->GetAllDevices();
          EXPECT_EQ(failed ? 3U : 0U, all ? all->size() : 0U);
        });
    EXPECT_GT(failures, 2);
  }
}

TEST_F(DeviceListTest, RegressionADeviceThatIsReadyIsNotTakenForALostOne) {
  const DevicePtr ready = AddReady("uuid:a");
  EXPECT_FALSE(list_->RemoveUnreadyByUdn("uuid:a"));
  const DevicePtr unready = Add("uuid:a");
  const DevicePtr later = Add("uuid:a");
  Add("uuid:b");
  EXPECT_EQ(unready, list_->RemoveUnreadyByUdn("uuid:a"));
  EXPECT_EQ(later, list_->RemoveUnreadyByUdn("uuid:a"));
  EXPECT_FALSE(list_->RemoveUnreadyByUdn("uuid:a"));
  EXPECT_EQ(ready, list_->IsDeviceAdded("uuid:a"));
  EXPECT_TRUE(list_->IsDeviceAdded("uuid:b"));
}

TEST_F(DeviceListTest, LookUpsDoNotDependOnTheNumberOfDevices) {
  for (int i = 0; i < 10000; ++i) AddReady("uuid:" + std::to_string(i));
  const std::clock_t before = std::clock();
  for (int i = 0; i < 10000; ++i) {
    EXPECT_TRUE(list_->IsDeviceAdded("uuid:" + std::to_string(i)));
    EXPECT_FALSE(list_->IsDeviceAdded("uuid:unknown" + std::to_string(i)));
  }
  for (int i = 0; i < 10000; ++i) list_->RemoveByUdn("uuid:" + std::to_string(i));
  EXPECT_LT(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC, vex_test::kLittleCpuTime);
}

TEST_F(DeviceListTest, EqualKeysByTheThousandsAreRemovedInTime) {
  const DevicePtr root = MakeDevice("same");
  DevicePtr parent = root;
  for (int i = 0; i < 10000; ++i) {
    list_->Add(parent);
    parent->embedded_devices = {MakeDevice("same")};
    parent = parent->embedded_devices.front();
  }
  const std::clock_t before = std::clock();
  EXPECT_EQ(10000U, list_->RemoveAndGetDevicesByInterface("eth0")->size());
  EXPECT_LT(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC, vex_test::kLittleCpuTime);
  EXPECT_FALSE(list_->GetAllDevices());
}

TEST_F(DeviceListTest, ASearchUnconfirmsReadyDevicesOfExactlyItsType) {
  const DevicePtr first = AddReady("1", "urn:x-y:device:Foo:1");
  const DevicePtr second = AddReady("2", "urn:x-y:device:Foo:2");
  const DevicePtr unready = Add("3", "urn:x-y:device:Foo:1");
  list_->ResetDeviceListValidity("urn:x-y:device:Foo:1");
  EXPECT_FALSE(first->is_valid);
  EXPECT_TRUE(second->is_valid);
  EXPECT_TRUE(unready->is_valid);
  for (const char* global : {"ssdp:all", "upnp:rootdevice"}) {
    second->is_valid = true;
    list_->ResetDeviceListValidity(global);
    EXPECT_FALSE(second->is_valid) << global;
    EXPECT_TRUE(unready->is_valid) << global;
  }
}

void NoStatus(int, int, int) {}
void NoResponse(int, int, streaming::ResHeaderInfo*, void*, unsigned int, bool) {}
void NoData(int, int, void*, unsigned int, bool) {}
void NothingWritten(int, int, unsigned int) {}

TEST_F(DeviceListTest, ADeviceThatIsStreamingIsNeverUnconfirmed) {
  ASSERT_EQ(0, streaming::InitializeStreamingManager());
  {
    vex_test::MediaPeer silent([](vex_test::MediaConnection& peer) { peer.AwaitClose(); });
    const streaming::ClientAppCallbacks callbacks = {NoStatus, NoResponse, NoData, NothingWritten};
    int transfer = 0;
    ASSERT_EQ(0, streaming::StartClient(&callbacks, "127.0.0.1", silent.port(), &transfer));
    const DevicePtr streaming_device = AddReady("1");
    streaming_device->ip = "127.0.0.1";
    const DevicePtr idle_device = AddReady("2");
    idle_device->ip = "127.0.0.2";
    for (const char* type : {"urn:x-y:device:Foo:1", "upnp:rootdevice", "ssdp:all"}) {
      idle_device->is_valid = true;
      list_->ResetDeviceListValidity(type);
      EXPECT_TRUE(streaming_device->is_valid) << type;
      EXPECT_FALSE(idle_device->is_valid) << type;
    }
    // What was found of the sessions goes with every failure.
    vex_test::EachAllocationFails(
        [&] {
          try {
            list_->ResetDeviceListValidity("ssdp:all");
          } catch (const std::bad_alloc&) {
          }
        },
        [](bool) {});
    streaming_device->is_valid = true;
    EXPECT_EQ(0, streaming::StopClientTransfer(transfer));
    list_->ResetDeviceListValidity("ssdp:all");
    EXPECT_FALSE(streaming_device->is_valid);
  }
  EXPECT_EQ(0, streaming::TerminateStreamingManager());
}

TEST_F(DeviceListTest, WhoHoldsTheListMayUseItAfterItsEnd) {
  const boost::shared_ptr<DeviceList> held = list_;
  AddReady("uuid:a");
  DeviceList::Terminate();
  EXPECT_FALSE(held->LockAndGetDeviceByUdn("uuid:a"));
  EXPECT_NE(held, DeviceList::GetInstance());
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

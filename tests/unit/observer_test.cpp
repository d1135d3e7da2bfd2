#include "src/observer.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

int called_id = 0;
DeviceEventType called_event = DEVICE_REMOVED;
DeviceInfo called_info;
int calls = 0;

void Record(int id, DeviceEventType event, DeviceInfo* device) {
  called_id = id;
  called_event = event;
  called_info = *device;
  ++calls;
}

boost::shared_ptr<Device> SomeDevice() {
  boost::shared_ptr<Device> device(new Device);
  device->udn = "uuid:a+eth0";
  device->friendly_name = "Hall";
  device->device_type = "urn:x:device:Foo:1";
  device->display_name = "[TV]Hall";
  device->interface_name = "eth0";
  device->icons.emplace_back(new DeviceIcon{"image/png", "48", "32", "24", "/icon.png", ""});
  return device;
}

TEST(Observer, AsksForEverythingUnlessToldOtherwise) {
  Observer observer;
  std::string text;
  observer.GetDeviceType(text);
  EXPECT_EQ("ssdp:all", text);
  observer.SetDeviceType("urn:x:device:Foo:1");
  observer.GetDeviceType(text);
  EXPECT_EQ("urn:x:device:Foo:1", text);
  observer.SetUserAgent("agent");
  observer.GetUserAgent(text);
  EXPECT_EQ("agent", text);
}

TEST(Observer, IsEqualToItselfOnly) {
  Observer one;
  Observer other;
  EXPECT_TRUE(one == one);
  EXPECT_FALSE(one == other);
}

TEST(Observer, DoesNothingWithAnEvent) {
  Observer observer;
  boost::shared_ptr<Device> device = SomeDevice();
  observer.Update(DEVICE_ADDED, device);
  EXPECT_EQ(1, device.use_count());
}

TEST(ControlPoint, HandsTheShortRecordToItsFunction) {
  calls = 0;
  ControlPoint control_point(Record);
  control_point.SetId(7);
  boost::shared_ptr<Device> device = SomeDevice();
  control_point.Update(DEVICE_ADDED, device);
  EXPECT_EQ(1, calls);
  EXPECT_EQ(7, called_id);
  EXPECT_EQ(DEVICE_ADDED, called_event);
  EXPECT_EQ("uuid:a+eth0", called_info.udn);
  EXPECT_EQ("Hall", called_info.friendly_name);
  EXPECT_EQ("urn:x:device:Foo:1", called_info.device_type);
  EXPECT_EQ("eth0", called_info.interface_name);
  ASSERT_EQ(1U, called_info.icons.size());
  const DeviceIconInfo& icon = called_info.icons.front();
  EXPECT_EQ("image/png", icon.mimetype);
  EXPECT_EQ("/icon.png", icon.url);
  EXPECT_EQ("48", icon.width);
  EXPECT_EQ("32", icon.height);
  EXPECT_EQ("24", icon.depth);
}

TEST(ControlPoint, KeptTheDisplayNameStaysEmptyInEvents) {
  ControlPoint control_point(Record);
  boost::shared_ptr<Device> device = SomeDevice();
  control_point.Update(DEVICE_REMOVED, device);
  EXPECT_EQ(DEVICE_REMOVED, called_event);
  EXPECT_EQ("", called_info.display_name);
}

TEST(ControlPoint, LogsANullDevice) {
  vex_test::LogCapture log;
  calls = 0;
  ControlPoint control_point(Record);
  boost::shared_ptr<Device> none;
  control_point.Update(DEVICE_ADDED, none);
  EXPECT_EQ(0, calls);
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_CPDISCOVERY", "DevicePtr NULL"));
}

TEST(ControlPoint, MayHaveNoFunction) {
  ControlPoint control_point(nullptr);
  boost::shared_ptr<Device> device = SomeDevice();
  control_point.Update(DEVICE_ADDED, device);
  EXPECT_EQ(1, device.use_count());
}

TEST(DeviceEvents, HaveTheirValues) {
  EXPECT_EQ(1, static_cast<int>(DEVICE_ADDED));
  EXPECT_EQ(2, static_cast<int>(DEVICE_REMOVED));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

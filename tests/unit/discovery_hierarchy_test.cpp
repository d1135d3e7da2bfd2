#include "src/discovery_hierarchy.h"

#include <gmock/gmock.h>

#include <list>
#include <new>
#include <string>
#include <vector>

#include "base/limits.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;

using DevicePtr = boost::shared_ptr<Device>;

DevicePtr MakeDevice(const std::string& udn, const std::list<DevicePtr>& embedded = {}) {
  DevicePtr device(new Device);
  device->udn = udn;
  device->embedded_devices = embedded;
  return device;
}

class Hierarchy : public testing::Test {
 protected:
  ~Hierarchy() override { DeviceList::Terminate(); }

  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    const auto all = list_->GetAllDevices();
    if (all) {
      for (const DevicePtr& device : *all) keys.push_back(device->udn);
    }
    return keys;
  }

  const boost::shared_ptr<DeviceList> list_ = DeviceList::GetInstance();
  std::list<DevicePtr> dropped_;
  std::list<DevicePtr> listed_;
};

TEST_F(Hierarchy, EmbeddedDevicesAreCompletedFromTheirParents) {
  DevicePtr root = MakeDevice("root+eth0", {MakeDevice("one", {MakeDevice("deep")})});
  root->interface_ip = "10.0.0.1";
  root->interface_name = "eth0";
  root->ip = "10.0.0.9";
  root->port = 80;
  root->base_url = "http://10.0.0.9:80";
  root->description_url = "http://10.0.0.9:80/d.xml";
  root->url_base = "http://other/";
  root->description_xml.reset(new std::string("<root/>"));
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  EXPECT_THAT(Keys(), ElementsAre("root+eth0", "one+eth0", "deep+eth0"));
  const DevicePtr deep = list_->IsDeviceAdded("deep+eth0");
  EXPECT_EQ("10.0.0.1", deep->interface_ip);
  EXPECT_EQ("eth0", deep->interface_name);
  EXPECT_EQ("10.0.0.9", deep->ip);
  EXPECT_EQ(80, deep->port);
  EXPECT_EQ("http://10.0.0.9:80", deep->base_url);
  EXPECT_EQ("http://10.0.0.9:80/d.xml", deep->description_url);
  EXPECT_EQ("<root/>", *deep->description_xml);
  // KEPT: the base of all URLs stays with the root.
  EXPECT_EQ("", deep->url_base);
  EXPECT_TRUE(dropped_.empty());
}

TEST_F(Hierarchy, WithoutAnInterfaceTheKeysStayBare) {
  vex_test::LogCapture log;
  DevicePtr root = MakeDevice("root", {MakeDevice("one", {MakeDevice("deep")})});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  EXPECT_THAT(Keys(), ElementsAre("root", "one", "deep"));
  // Of the first level nothing is said.
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_CPDISCOVERY", "interface name not avaliable..NULL"));
}

TEST_F(Hierarchy, ParentsStandBeforeTheirChildrenAndSiblingsInOrder) {
  DevicePtr root = MakeDevice(
      "0", {MakeDevice("1", {MakeDevice("2"), MakeDevice("3")}), MakeDevice("4"), MakeDevice("5")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  EXPECT_THAT(Keys(), ElementsAre("0", "1", "2", "3", "4", "5"));
}

TEST_F(Hierarchy, WhatHasNoRoomLeavesTheTree) {
  for (std::size_t i = 3; i < limits::kListedDevices; ++i) {
    DevicePtr filler = MakeDevice("filler");
    ASSERT_TRUE(list_->Add(filler));
  }
  DevicePtr root =
      MakeDevice("0", {MakeDevice("1", {MakeDevice("2"), MakeDevice("3")}), MakeDevice("4")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  EXPECT_EQ(1U, root->embedded_devices.size());
  EXPECT_EQ(1U, root->embedded_devices.front()->embedded_devices.size());
  EXPECT_EQ(2U, dropped_.size());
  DevicePtr late = MakeDevice("late");
  EXPECT_FALSE(ListDeviceHierarchy(*list_, late, dropped_, listed_));
}

// A description's devices, all with its text.
DevicePtr Described(const std::string& udn, const std::list<DevicePtr>& embedded) {
  DevicePtr root = MakeDevice(udn, embedded);
  root->description_xml.reset(new std::string("<root/>"));
  return root;
}

TEST_F(Hierarchy, RegressionADeviceThatOutlivedItsRootIsListedOnce) {
  const DevicePtr one = MakeDevice("one", {MakeDevice("deep")});
  DevicePtr root = Described("root", {one});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  for (int i = 0; i < 3; ++i) {
    list_->Remove(root);
    listed_.clear();
    root = Described("root", {MakeDevice("zero"), MakeDevice("one"), MakeDevice("two")});
    ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
    EXPECT_EQ(one, FindEmbeddedDevice(root, "one"));
    EXPECT_EQ(one->embedded_devices.front(), FindEmbeddedDevice(root, "deep"));
    EXPECT_EQ(3U, root->embedded_devices.size());
    EXPECT_EQ(i == 0 ? 3U : 1U, listed_.size());
    EXPECT_EQ(5U, Keys().size());
  }
  list_->RemoveDeviceHierarchy(root);
  EXPECT_THAT(Keys(), ElementsAre());
}

// A record in two trees, or twice in one, would be told twice; and a walk over trees that share
// their parts may have no end in time.
TEST_F(Hierarchy, RegressionADeviceOfAnotherTreeStaysThere) {
  DevicePtr first = Described("first", {MakeDevice("one")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, first, dropped_, listed_));
  DevicePtr second = Described("second", {MakeDevice("first"), MakeDevice("one"), MakeDevice("a")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, second, dropped_, listed_));
  EXPECT_EQ(2U, dropped_.size());
  EXPECT_EQ(1U, second->embedded_devices.size());
  EXPECT_THAT(Keys(), ElementsAre("first", "one", "second", "a"));
  // Twice in one description, it is there once when it had been there before.
  list_->Remove(first);
  listed_.clear();
  first = Described("first", {MakeDevice("one"), MakeDevice("one")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, first, dropped_, listed_));
  EXPECT_EQ(1U, first->embedded_devices.size());
  EXPECT_THAT(Keys(), ElementsAre("one", "second", "a", "first"));
}

TEST_F(Hierarchy, EqualKeysOfOneDescriptionAreAllListed) {
  DevicePtr root =
      Described("same", {MakeDevice("same", {MakeDevice("same")}), MakeDevice("same")});
  ASSERT_TRUE(ListDeviceHierarchy(*list_, root, dropped_, listed_));
  EXPECT_THAT(Keys(), ElementsAre("same", "same", "same", "same"));
}

// A device with half of its places could never be removed, and none like it ever be listed.
TEST_F(Hierarchy, RegressionWithoutMemoryNothingIsListed) {
  const int failures = vex_test::EachAllocationFails(
      [this] {
        try {
          std::list<DevicePtr> dropped;
          std::list<DevicePtr> listed;
          DevicePtr root = MakeDevice("0", {MakeDevice("1", {MakeDevice("2")}), MakeDevice("3")});
          ListDeviceHierarchy(*list_, root, dropped, listed);
        } catch (const std::bad_alloc&) {
        }
      },
      [this](bool failed) {
        EXPECT_EQ(failed ? 0U : 4U, Keys().size());
        for (const char* const key : {"0", "1", "2", "3"}) {
          EXPECT_EQ(!failed, list_->IsDeviceAdded(key) != nullptr);
        }
      });
  EXPECT_GT(failures, 8);
}

TEST_F(Hierarchy, FindsTheFirstBelowTheRoot) {
  const DevicePtr first = MakeDevice("same");
  const DevicePtr root =
      MakeDevice("root", {MakeDevice("one", {first}), MakeDevice("same"), MakeDevice("last")});
  EXPECT_EQ(first, FindEmbeddedDevice(root, "same"));
  EXPECT_EQ(root->embedded_devices.back(), FindEmbeddedDevice(root, "last"));
  EXPECT_FALSE(FindEmbeddedDevice(root, "root"));
  EXPECT_FALSE(FindEmbeddedDevice(root, "none"));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

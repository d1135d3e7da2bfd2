#include "src/device_key.h"

#include <gtest/gtest.h>

namespace vex_upnp {
namespace {

TEST(DeviceKey, IsUdnPlusInterface) {
  EXPECT_EQ("uuid:abc+eth0", MakeDeviceKey("uuid:abc", "eth0"));
  EXPECT_EQ("uuid:abc+localhost", MakeDeviceKey("uuid:abc", kLoopbackName));
}

TEST(DeviceKey, IsTheUdnAloneWithoutAnInterface) {
  EXPECT_EQ("uuid:abc", MakeDeviceKey("uuid:abc", ""));
}

TEST(DeviceKey, AnEmptyUdnKeepsItsInterface) { EXPECT_EQ("+eth0", MakeDeviceKey("", "eth0")); }

}  // namespace
}  // namespace vex_upnp

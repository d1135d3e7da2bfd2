#include "src/device_type.h"

#include <gtest/gtest.h>

#include <string>

namespace vex_upnp {
namespace {

struct TypeCase {
  const char* type;
  const char* stem;
  int version;
};

TEST(DeviceType, IsCutAtItsLastColon) {
  const TypeCase cases[] = {
      {"urn:schemas-upnp-org:device:MediaServer:1", "urn:schemas-upnp-org:device:MediaServer", 1},
      {"urn:x:device:Foo:12", "urn:x:device:Foo", 12},
      {"urn:x:device:Foo:", "urn:x:device:Foo", 0},
      {"urn:x:device:Foo:two", "urn:x:device:Foo", 0},
      {"urn:x:device:Foo:1x", "urn:x:device:Foo", 0},
      {"urn:x:device:Foo: 1", "urn:x:device:Foo", 0},
      {"urn:x:device:Foo:99999999999", "urn:x:device:Foo", 0},
      {"urn:x:device:Foo:-1", "urn:x:device:Foo", -1},
      {"upnp:rootdevice", "upnp", 0},
      {"plain", "plain", 0},
      {":1", "", 1},
      {":", "", 0},
      {"", "", 0},
  };
  for (const TypeCase& row : cases) {
    const DeviceTypeParts parts = SplitDeviceType(row.type);
    EXPECT_EQ(row.stem, parts.stem) << row.type;
    EXPECT_EQ(row.version, parts.version) << row.type;
  }
}

TEST(DeviceType, ManyColonsAreNoProblem) {
  const DeviceTypeParts parts = SplitDeviceType(std::string(8000, ':') + "3");
  EXPECT_EQ(7999U, parts.stem.size());
  EXPECT_EQ(3, parts.version);
}

TEST(DeviceType, ADeviceServesItsOwnVersionAndOlderOnes) {
  EXPECT_TRUE(VersionAccepted(2, 1));
  EXPECT_TRUE(VersionAccepted(2, 2));
  EXPECT_FALSE(VersionAccepted(2, 3));
  EXPECT_TRUE(VersionAccepted(1, 0));
}

TEST(DeviceType, ADeviceWithoutAReadableVersionServesEverybody) {
  EXPECT_TRUE(VersionAccepted(0, 3));
  EXPECT_TRUE(VersionAccepted(0, 0));
}

}  // namespace
}  // namespace vex_upnp

#include <gtest/gtest.h>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "src/networkinterface.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_NETWORK";

// A registry that "knows" the given interfaces.
class NetworkAddressesTest : public testing::Test {
 protected:
  void SetUp() override { NetworkInterface::GetInstance(); }
  void TearDown() override { NetworkInterface::DestroyInstance(); }

  static void Know(const std::vector<std::vector<std::string>>& interfaces) {
    std::vector<NetInfo> found;
    for (const std::vector<std::string>& entry : interfaces) {
      NetInfo info;
      info.name = entry[0];
      info.ip_address = entry[1];
      info.subnet_mask = entry[2];
      found.push_back(info);
    }
    NetworkInterface::GetInstance()->ScanAvailableNetworkInterface(found);
  }
  static void Select(const std::string& name) {
    NetworkInterface::GetInstance()->SelectNetworkInterface(name);
  }
  static bool SameSubnet(const std::string& ip1, const std::string& ip2, std::string mask) {
    return IsSameSubnet(ip1, ip2, mask);
  }
};

TEST_F(NetworkAddressesTest, ALoopbackAddressIsOnTheSubnetOfEverything) {
  std::string mask;
  EXPECT_TRUE(IsSameSubnet("127.0.0.1", "192.168.1.5", mask));
  EXPECT_TRUE(IsSameSubnet("192.168.1.5", "127.9.9.9", mask));
  EXPECT_TRUE(IsSameSubnet("127.", "nothing at all", mask));
  EXPECT_EQ("", mask);
  mask = "bad";
  EXPECT_TRUE(IsSameSubnet("127.0.0.1", "192.168.1.5", mask));
  EXPECT_EQ("bad", mask);
}

TEST_F(NetworkAddressesTest, AddressesAreComparedUnderTheMask) {
  EXPECT_TRUE(SameSubnet("192.168.1.5", "192.168.1.9", "255.255.255.0"));
  EXPECT_FALSE(SameSubnet("192.168.1.5", "192.168.1.9", "255.255.255.252"));
  EXPECT_FALSE(SameSubnet("192.168.1.5", "192.168.2.5", "255.255.255.0"));
  EXPECT_TRUE(SameSubnet("192.168.1.5", "192.168.2.5", "255.255.0.0"));
  EXPECT_TRUE(SameSubnet("192.168.1.5", "10.0.0.1", "0.0.0.0"));
  // Cut at blanks as well.
  EXPECT_TRUE(SameSubnet("192 168.1 5", "192.168.1.9", "255 255 255 0"));
}

TEST_F(NetworkAddressesTest, AnEmptyAddressIsOnNoSubnet) {
  EXPECT_FALSE(SameSubnet("", "127.0.0.1", "255.0.0.0"));
  EXPECT_FALSE(SameSubnet("127.0.0.1", "", "255.0.0.0"));
}

TEST_F(NetworkAddressesTest, WrongValuesAreLoggedAndOnNoSubnet) {
  LogCapture log;
  EXPECT_FALSE(SameSubnet("1.2.3", "1.2.3.4", "255.0.0.0"));
  EXPECT_FALSE(SameSubnet("1.2.3.4", "1.2.3", "255.0.0.0"));
  EXPECT_FALSE(SameSubnet("1.2.3.x", "1.2.3.4", "255.0.0.0"));
  EXPECT_FALSE(SameSubnet("1.2.3.99999999999", "1.2.3.4", "255.0.0.0"));
  EXPECT_EQ(4, log.Count(16, kTag, "IP address is invalid : wrong value!"));
  EXPECT_FALSE(SameSubnet("1.2.3.4", "1.2.3.4", "255.0.0"));
  EXPECT_EQ(1, log.Count(16, kTag, "Subnet mask is invalid : wrong value!"));
}

TEST_F(NetworkAddressesTest, WithoutMaskAndInterfacesNothingIsOnTheSameSubnet) {
  std::string mask;
  EXPECT_FALSE(IsSameSubnet("192.168.1.5", "192.168.1.5", mask));
  EXPECT_EQ("", mask);
}

TEST_F(NetworkAddressesTest, KeptAnEmptyMaskIsFilledFromAnyInterfaceThatMakesThemAgree) {
  Know({{"a", "10.0.0.1", "255.255.255.252"},
        {"b", "10.0.1.1", ""},
        {"c", "10.0.2.1", "255.255.255.0"},
        {"d", "10.0.3.1", "255.0.0.0"}});
  std::string mask;
  EXPECT_TRUE(IsSameSubnet("192.168.1.5", "192.168.1.9", mask));
  EXPECT_EQ("255.255.255.0", mask);
  mask.clear();
  EXPECT_FALSE(IsSameSubnet("192.168.1.5", "11.168.1.9", mask));
  EXPECT_EQ("255.0.0.0", mask);
}

TEST_F(NetworkAddressesTest, AWrongMaskOfAnInterfaceEndsTheSearch) {
  Know({{"a", "10.0.0.1", "255"}, {"b", "10.0.1.1", "255.255.255.0"}});
  LogCapture log;
  std::string mask;
  EXPECT_FALSE(IsSameSubnet("192.168.1.5", "192.168.1.9", mask));
  EXPECT_EQ("255", mask);
  EXPECT_EQ(1, log.Count(16, kTag, "Subnet mask is invalid : wrong value!"));
}

TEST_F(NetworkAddressesTest, TheLocalAddressTowardsAPeerIsThatOfTheFirstActiveMatch) {
  Know({{"a", "10.0.0.1", "255.255.255.0"},
        {"b", "10.0.0.2", "255.255.255.0"},
        {"c", "10.0.1.1", "255.255.255.0"}});
  Select("b");
  Select("c");
  std::string local = "before";
  EXPECT_EQ(result::kOk, GetOutgoingIPaddress("10.0.0.9", local));
  EXPECT_EQ("10.0.0.2", local);
  EXPECT_EQ(result::kOk, GetOutgoingIPaddress("10.0.1.9", local));
  EXPECT_EQ("10.0.1.1", local);
  EXPECT_EQ(result::kOk, GetOutgoingIPaddress("127.0.0.1", local));
  EXPECT_EQ("10.0.0.2", local);
  EXPECT_EQ(result::kNoNetworkInterface, GetOutgoingIPaddress("10.0.2.9", local));
  EXPECT_EQ("10.0.0.2", local);
}

TEST_F(NetworkAddressesTest, WithoutAnActiveInterfaceThereIsNoLocalAddress) {
  Know({{"a", "10.0.0.1", "255.255.255.0"}});
  std::string local = "before";
  EXPECT_EQ(result::kNoNetworkInterface, GetOutgoingIPaddress("10.0.0.9", local));
  EXPECT_EQ("before", local);
  NetworkInterface::DestroyInstance();
  EXPECT_EQ(result::kFailure, GetOutgoingIPaddress("10.0.0.9", local));
  EXPECT_EQ("before", local);
}

TEST_F(NetworkAddressesTest, AnInterfaceExistsUnderTheBeginningOfItsName) {
  Know({{"eth0", "10.0.0.1", "255.255.255.0"}});
  EXPECT_TRUE(IsInterfaceExisting("10.0.0.1", "eth0"));
  EXPECT_TRUE(IsInterfaceExisting("10.0.0.1", "eth"));
  EXPECT_TRUE(IsInterfaceExisting("10.0.0.1", ""));
  EXPECT_FALSE(IsInterfaceExisting("10.0.0.1", "eth01"));
  EXPECT_FALSE(IsInterfaceExisting("10.0.0.1", "th0"));
  EXPECT_FALSE(IsInterfaceExisting("10.0.0.2", "eth0"));
}

TEST_F(NetworkAddressesTest, ThisMachineIsOneLoopbackTextAndItsInterfaces) {
  Know({{"eth0", "10.0.0.1", "255.255.255.0"}});
  EXPECT_TRUE(IsLocalMachine("127.0.0.1"));
  EXPECT_FALSE(IsLocalMachine("127.0.0.2"));
  EXPECT_TRUE(IsLocalMachine("10.0.0.1"));
  EXPECT_FALSE(IsLocalMachine("10.0.0.2"));
  EXPECT_FALSE(IsLocalMachine(""));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

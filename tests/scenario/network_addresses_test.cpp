#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/emulated.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_network.h"
#include "tests/support/thread_count.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_NETWORK";

constexpr char kNoCache[] = "emulators of other processors do not pass the question on";

TEST(GetMacAddress, APeerInTheCacheReadsInUpperCaseWithHyphens) {
  vex_test::Ip("neigh replace 10.77.0.50 lladdr 00:1a:2b:3c:4d:5e dev lan0 nud permanent");
  LogCapture log;
  std::string mac;
  const int descriptors = vex_test::DescriptorCount();
  const int outcome = GetMacAddress("10.77.0.50", mac);
  vex_test::Ip("neigh del 10.77.0.50 dev lan0");
  if (vex_test::kEmulated) GTEST_SKIP() << kNoCache;
  EXPECT_EQ(result::kOk, outcome);
  EXPECT_EQ("00-1A-2B-3C-4D-5E", mac);
  EXPECT_EQ(1, log.Count("[GetMacAddressFromArpCache] Mac address found "));
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
}

TEST(GetMacAddress, EveryInterfaceIsAskedUpToTheTenth) {
  vex_test::Ip("neigh replace 10.77.1.50 lladdr 00:1a:2b:3c:4d:5e dev lan1 nud permanent");
  std::string mac;
  const int found = GetMacAddress("10.77.1.50", mac);
  // Entries come in the order of the interfaces: with these lan1 is not among the first ten.
  int missed = result::kOk;
  {
    std::vector<std::unique_ptr<vex_test::ScopedAddress>> aliases;
    for (int i = 1; i <= 10; ++i) {
      aliases.push_back(std::make_unique<vex_test::ScopedAddress>(
          "lo", "10.79." + std::to_string(i) + ".1/32", "lo:" + std::to_string(i)));
    }
    missed = GetMacAddress("10.77.1.50", mac);
  }
  vex_test::Ip("neigh del 10.77.1.50 dev lan1");
  if (vex_test::kEmulated) GTEST_SKIP() << kNoCache;
  EXPECT_EQ(result::kOk, found);
  EXPECT_EQ(result::kNotInArpCache, missed);
}

TEST(GetMacAddress, EachFailureHasItsOwnCodeAndLeavesTheText) {
  LogCapture log;
  std::string mac = "before";
  EXPECT_EQ(result::kEmptyAddress, GetMacAddress("", mac));
  EXPECT_EQ(result::kSocketFailed, GetMacAddress("no address", mac));
  EXPECT_EQ(1, log.Count(16, kTag, "inet_aton is failed"));
  EXPECT_EQ(result::kNotInArpCache, GetMacAddress("10.77.0.51", mac));
  EXPECT_EQ(1, log.Count(16, kTag, "ioctl failed for SIOCGARP!"));
  const vex_test::ScopedDescriptorLimit none_left(0);
  EXPECT_EQ(result::kSocketFailed, GetMacAddress("10.77.0.51", mac));
  EXPECT_EQ(1, log.Count(16, kTag, "socket creation failed"));
  EXPECT_EQ("before", mac);
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

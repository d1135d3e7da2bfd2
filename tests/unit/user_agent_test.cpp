#include "src/user_agent.h"

#include <gtest/gtest.h>

namespace vex_upnp {
namespace {

TEST(UserAgent, TheOneGivenWins) { EXPECT_EQ("mine", ChooseUserAgent("mine", "default")); }

TEST(UserAgent, ThenTheDefault) { EXPECT_EQ("default", ChooseUserAgent("", "default")); }

TEST(UserAgent, ThenTheBuiltInOne) {
  EXPECT_EQ("DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0", ChooseUserAgent("", ""));
}

}  // namespace
}  // namespace vex_upnp

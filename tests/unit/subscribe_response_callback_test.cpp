#include "src/subscribe_response_callback.h"

#include <gtest/gtest.h>

#include <string>

namespace vex_upnp {
namespace cp_control {
namespace {

struct TimeoutRow {
  const char* value;
  bool good;
  int seconds;
};

class GrantedSeconds : public testing::TestWithParam<TimeoutRow> {};

TEST_P(GrantedSeconds, AreWhatStandsBehindTheFirstDash) {
  int seconds = 4711;
  EXPECT_EQ(GetParam().good, ReadGrantedSeconds(GetParam().value, seconds)) << GetParam().value;
  EXPECT_EQ(GetParam().good ? GetParam().seconds : 4711, seconds) << GetParam().value;
}

INSTANTIATE_TEST_SUITE_P(
    Values, GrantedSeconds,
    testing::Values(TimeoutRow{"Second-1800", true, 1800}, TimeoutRow{"1800", true, 1800},
                    TimeoutRow{"Second-0", true, 0}, TimeoutRow{"Second-1", true, 1},
                    TimeoutRow{"Second--5", true, -5}, TimeoutRow{"-5", true, 5},
                    TimeoutRow{"second-300", true, 300}, TimeoutRow{"x-+7", true, 7},
                    TimeoutRow{"Second-2147483647", true, 2147483647},
                    TimeoutRow{"Second-2147483648", false, 0},
                    TimeoutRow{"Second-99999999999", false, 0},
                    TimeoutRow{"Second-infinite", false, 0}, TimeoutRow{"infinite", false, 0},
                    TimeoutRow{"Second-", false, 0}, TimeoutRow{"Second-18 00", false, 0},
                    TimeoutRow{"Second- 1800", false, 0}, TimeoutRow{"Second-1800-2", false, 0},
                    TimeoutRow{"Second-1800.5", false, 0}, TimeoutRow{"", false, 0}));

int FirstDelay(int seconds) {
  int quick_renewals = 0;
  return RenewalDelayMs(seconds, quick_renewals);
}

TEST(RenewalDelay, IsThreeQuartersOfTheGrant) {
  EXPECT_EQ(1350000, FirstDelay(1800));
  EXPECT_EQ(225000, FirstDelay(300));
  EXPECT_EQ(1500, FirstDelay(2));
  EXPECT_EQ(750, FirstDelay(1));
  EXPECT_EQ(2147483250, FirstDelay(2863311));
}

TEST(RenewalDelay, ANegativeGrantIsRenewedAtOnce) {
  EXPECT_EQ(0, FirstDelay(0));
  EXPECT_EQ(0, FirstDelay(-5));
  EXPECT_EQ(0, FirstDelay(-2863311));
}

TEST(RenewalDelay, KeptGrantsBeyondThirtyTwoBitsWrapAround) {
  EXPECT_EQ(0, FirstDelay(2863312));
  EXPECT_EQ(704, FirstDelay(5726624));
  EXPECT_EQ(0, FirstDelay(2147483647));
}

TEST(RenewalDelay, TheThirdQuickOneInARowAndAllBehindItAreSpaced) {
  int quick_renewals = 0;
  EXPECT_EQ(0, RenewalDelayMs(0, quick_renewals));
  EXPECT_EQ(750, RenewalDelayMs(1, quick_renewals));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(1000, RenewalDelayMs(0, quick_renewals));
  EXPECT_EQ(1000, RenewalDelayMs(1, quick_renewals));
  EXPECT_EQ(1000, RenewalDelayMs(-5, quick_renewals));
}

TEST(RenewalDelay, AProperGrantStartsTheRowAnew) {
  int quick_renewals = 0;
  RenewalDelayMs(0, quick_renewals);
  RenewalDelayMs(0, quick_renewals);
  EXPECT_EQ(1500, RenewalDelayMs(2, quick_renewals));
  EXPECT_EQ(0, RenewalDelayMs(0, quick_renewals));
  EXPECT_EQ(0, RenewalDelayMs(0, quick_renewals));
  EXPECT_EQ(1000, RenewalDelayMs(0, quick_renewals));
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

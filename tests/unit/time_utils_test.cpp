#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/time_utils.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/fail_calls.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

// The text of a second, put together by hand.
std::string HttpDate(std::time_t second) {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm at;
  gmtime_r(&second, &at);
  char text[64];
  std::snprintf(text, sizeof(text), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[at.tm_wday],
                at.tm_mday, kMonths[at.tm_mon], at.tm_year + 1900, at.tm_hour, at.tm_min,
                at.tm_sec);
  return text;
}

TEST(TimeUtils, DateIsTheHttpFormOfNow) {
  std::string date = "before";
  const std::time_t earliest = std::time(nullptr);
  ASSERT_EQ(result::kOk, Generate_CurrentDate(date));
  const std::time_t latest = std::time(nullptr);
  bool matches = false;
  for (std::time_t second = earliest; second <= latest; ++second) {
    matches = matches || date == HttpDate(second);
  }
  EXPECT_TRUE(matches) << date;
}

TEST(TimeUtils, DateWithoutMemoryFailsAndLeavesTheOutput) {
  const vex_test::LogCapture log;
  std::string date = "before";
  int code = 0;
  {
    const vex_test::FailAlloc fail(1);
    code = Generate_CurrentDate(date);
  }
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ("before", date);
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "malloc failed!"));
  EXPECT_EQ("time_utils.cpp", log.Lines()[0].file);
}

void ExpectNoDate(const std::string& line) {
  const vex_test::LogCapture log;
  std::string date = "before";
  EXPECT_EQ(3003, Generate_CurrentDate(date));
  EXPECT_EQ("before", date);
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", line));
  EXPECT_EQ(1U, log.Lines().size());
}

TEST(TimeUtils, WithoutTheTimeThereIsNoDate) {
  const vex_test::FailCalls no_time(vex_test::SystemCall::kTime, EOVERFLOW, 1, 1);
  ExpectNoDate("Error in getting the time");
  EXPECT_EQ(1, no_time.Failed());
}

// Behind the year two thousand million the C library has no calendar.
TEST(TimeUtils, WithoutACalendarThereIsNoDate) {
  if (sizeof(std::time_t) < 8) GTEST_SKIP() << "every time has its year";
  const vex_test::ShiftedClock far_away(std::chrono::hours(1LL << 50));
  ExpectNoDate("Error in getting the local time");
}

TEST(TimeUtils, WithoutItsTextThereIsNoDate) {
  const vex_test::FailCalls no_text(vex_test::SystemCall::kDateText, ERANGE, 1, 1);
  ExpectNoDate("strftime failed!");
  EXPECT_EQ(1, no_text.Failed());
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

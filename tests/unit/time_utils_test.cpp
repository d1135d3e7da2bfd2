#include <gmock/gmock.h>

#include <cstdio>
#include <ctime>
#include <string>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/time_utils.h>

#include "tests/support/fail_alloc.h"
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

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

#include <vexupnpcp/time_utils.h>

#include <cstdlib>
#include <ctime>
#include <new>

#include <vexupnpcp/result_codes.h>

#include "base/host_memory.h"
#include "base/log.h"

namespace vex_upnp {
namespace utils {
namespace {

constexpr const char* kTag = log::kTagUtils;
constexpr std::size_t kBlockSize = 128;
constexpr std::size_t kTextLimit = 80;
constexpr char kDateFormat[] = "%a, %d %b %Y %H:%M:%S GMT";

}  // namespace

int Generate_CurrentDate(std::string& date) {
  const std::time_t now = std::time(nullptr);
  if (now == static_cast<std::time_t>(-1)) {
    VEX_LOG(kLogMajor, kTag, "Error in getting the time");
    return result::kTimeUnavailable;
  }
  std::tm calendar;
  if (gmtime_r(&now, &calendar) == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Error in getting the local time");
    return result::kTimeUnavailable;
  }
  const FreePtr<char> text(static_cast<char*>(std::malloc(kBlockSize)));
  if (!text) {
    VEX_LOG(kLogMajor, kTag, "malloc failed!");
    return result::kFailure;
  }
  const std::size_t length = std::strftime(text.get(), kTextLimit, kDateFormat, &calendar);
  if (length == 0) {
    VEX_LOG(kLogMajor, kTag, "strftime failed!");
    return result::kTimeUnavailable;
  }
  try {
    date.assign(text.get(), length);
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "malloc failed!");
    return result::kFailure;
  }
  return result::kOk;
}

}  // namespace utils
}  // namespace vex_upnp

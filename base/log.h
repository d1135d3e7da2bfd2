#ifndef VEXUPNPCP_BASE_LOG_H_
#define VEXUPNPCP_BASE_LOG_H_

#include <atomic>

// The platform's log sink. The library only refers to it: whoever provides the symbol in the
// process (the host or any of its libraries) gets the lines.
extern "C" int __dlog_print(int log_id, int level, const char* tag, const char* format, ...)
    __attribute__((weak, format(printf, 4, 5)));

namespace vex_upnp {
namespace log {

// Errors and important progress; entry, exit and progress; detail.
constexpr int kLogMajor = 16;
constexpr int kLogStep = 4;
constexpr int kLogDetail = 2;

constexpr char kTagFrameworkController[] = "VEX_CORE_FRAMEWORK_CONTROLLER";
constexpr char kTagGenericCp[] = "VEX_CORE_GENERIC_CP";
constexpr char kTagNetwork[] = "VEX_CORE_NETWORK";
constexpr char kTagUtils[] = "VEX_CORE_UTILS";
constexpr char kTagDiscovery[] = "VEX_CORE_CPDISCOVERY";
constexpr char kTagControl[] = "VEX_CORE_CPCONTROL";
constexpr char kTagCpUtils[] = "VEX_CORE_CP_UTILS";
constexpr char kTagStreaming[] = "VEX_CORE_STREAMING";

// The place a line speaks for. Shared pieces that log for their caller take one, so that file,
// function and line in the log are the caller's.
struct LogSite {
  const char* file;
  const char* function;
  int line;
};

enum class Sink : int { kUnknown, kNobody, kPlatform, kFallback };

extern std::atomic<Sink> current_sink;

// Nobody listening is the common case in a product; it costs a load and a branch.
inline bool IsOpen() { return current_sink.load(std::memory_order_relaxed) != Sink::kNobody; }

// Looks for the sink anew; a provider that was loaded after the library is found at the next start
// of the framework.
void FindSink();

// Writes one line: "file: function(line) > " and the formatted text.
void WriteLine(const LogSite& site, int level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace log

using log::kLogDetail;
using log::kLogMajor;
using log::kLogStep;
using log::LogSite;

}  // namespace vex_upnp

#define VEX_LOG_SITE (::vex_upnp::log::LogSite{__FILE_NAME__, __func__, __LINE__})

// VEX_LOG_AT(site, level, tag, ...) is for lambdas, whose own name says nothing: they hand on the
// place of the function around them.
#define VEX_LOG_AT(site, level, tag, ...)                              \
  do {                                                                 \
    if (::vex_upnp::log::IsOpen())                                     \
      ::vex_upnp::log::WriteLine((site), (level), (tag), __VA_ARGS__); \
  } while (false)

// VEX_LOG(kLogMajor, kTag, "Bind Error : %s!", text): arguments are not evaluated when nobody
// listens. Text from outside goes through "%s" only.
#define VEX_LOG(level, tag, ...) VEX_LOG_AT(VEX_LOG_SITE, level, tag, __VA_ARGS__)

#endif  // VEXUPNPCP_BASE_LOG_H_

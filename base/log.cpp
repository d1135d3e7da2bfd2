#include "base/log.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vex_upnp {
namespace log {

std::atomic<Sink> current_sink{Sink::kUnknown};

namespace {

using SinkFunction = int (*)(int, int, const char*, const char*, ...);

constexpr char kFilterVariable[] = "VEXUPNPCP_LOG";
constexpr std::size_t kStackText = 512;

std::atomic<SinkFunction> platform_sink{nullptr};

SinkFunction LookUpPlatformSink() {
  if (__dlog_print != nullptr) return __dlog_print;
  // The weak reference was settled when the library was loaded; a provider that came later is seen
  // by name only.
  return reinterpret_cast<SinkFunction>(dlsym(RTLD_DEFAULT, "__dlog_print"));
}

// One entry of the filter: a number opens all lines of at least that level, a word one tag.
bool EntryOpens(const char* entry, std::size_t length, int level, const char* tag) {
  char* end = nullptr;
  const long wanted = std::strtol(entry, &end, 10);
  if (end == entry + length && length > 0) return level >= wanted;
  return std::strlen(tag) == length && std::strncmp(tag, entry, length) == 0;
}

bool FilterOpens(int level, const char* tag) {
  const char* entry = std::getenv(kFilterVariable);
  while (entry != nullptr && *entry != '\0') {
    const std::size_t length = std::strcspn(entry, ", ");
    if (EntryOpens(entry, length, level, tag)) return true;
    entry += length;
    entry += std::strspn(entry, ", ");
  }
  return false;
}

void Print(const LogSite& site, int level, const char* tag, const char* text) {
  const SinkFunction sink = platform_sink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    sink(0, level, tag, "%s: %s(%d) > %s", site.file, site.function, site.line, text);
  } else if (FilterOpens(level, tag)) {
    std::fprintf(stderr, "%s %d %s: %s(%d) > %s\n", tag, level, site.file, site.function, site.line,
                 text);
  }
}

}  // namespace

void FindSink() {
  const SinkFunction sink = LookUpPlatformSink();
  platform_sink.store(sink, std::memory_order_release);
  if (sink != nullptr) {
    current_sink = Sink::kPlatform;
  } else {
    current_sink = std::getenv(kFilterVariable) != nullptr ? Sink::kFallback : Sink::kNobody;
  }
}

void WriteLine(const LogSite& site, int level, const char* tag, const char* format, ...) {
  if (current_sink.load(std::memory_order_acquire) == Sink::kUnknown) FindSink();
  if (!IsOpen()) return;

  char text[kStackText];
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is two lines above.
  const int length = std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (length < 0) return;
  if (static_cast<std::size_t>(length) < sizeof(text)) {
    Print(site, level, tag, text);
    return;
  }
  // A long line (a whole packet) is worth one allocation; without memory its beginning must do.
  const std::size_t size = static_cast<std::size_t>(length) + 1;
  const std::unique_ptr<char, decltype(&std::free)> whole(static_cast<char*>(std::malloc(size)),
                                                          &std::free);
  if (whole) {
    va_start(arguments, format);
    std::vsnprintf(whole.get(), size, format, arguments);
    va_end(arguments);
  }
  Print(site, level, tag, whole ? whole.get() : text);
}

}  // namespace log
}  // namespace vex_upnp

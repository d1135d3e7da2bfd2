#include "tests/support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "tests/support/no_failures.h"
#include "tests/support/stumble.h"

namespace vex_test {
namespace {

std::mutex lines_mutex;
std::vector<LogLine> lines;
std::atomic<bool> capturing{false};

LogLine TakeApart(int level, const char* tag, const std::string& whole) {
  LogLine line{level, tag, "", "", 0, ""};
  const std::size_t colon = whole.find(": ");
  const std::size_t close = whole.find(") > ", colon);
  // A function's own name may end in parentheses ("operator()").
  const std::size_t open = whole.rfind('(', close);
  if (colon == std::string::npos || close == std::string::npos || open < colon) {
    line.text = "MALFORMED " + whole;
    return line;
  }
  line.file = whole.substr(0, colon);
  line.function = whole.substr(colon + 2, open - colon - 2);
  line.line = std::stoi(whole.substr(open + 1, close - open - 1));
  line.text = whole.substr(close + 4);
  return line;
}

}  // namespace

LogCapture::LogCapture() {
  Clear();
  capturing = true;
}

LogCapture::~LogCapture() { capturing = false; }

std::vector<LogLine> LogCapture::Lines() const {
  const std::lock_guard<std::mutex> lock(lines_mutex);
  return lines;
}

int LogCapture::Count(int level, const std::string& tag, const std::string& text) const {
  const std::vector<LogLine> all = Lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
    return line.level == level && line.tag == tag && line.text == text;
  }));
}

int LogCapture::Count(const std::string& text) const {
  const std::vector<LogLine> all = Lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(),
                                        [&](const LogLine& line) { return line.text == text; }));
}

bool LogCapture::Holds(const std::string& piece) const {
  const std::vector<LogLine> all = Lines();
  return std::any_of(all.begin(), all.end(), [&](const LogLine& line) {
    return line.text.find(piece) != std::string::npos;
  });
}

void LogCapture::Clear() {
  const std::lock_guard<std::mutex> lock(lines_mutex);
  lines.clear();
}

}  // namespace vex_test

extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int log_id, int level, const char* tag, const char* format, ...);

// The platform's log sink, as a test program has it.
extern "C" int __dlog_print(int log_id, int level, const char* tag, const char* format, ...) {
  (void)log_id;
  // For whoever looks for the reason of a failing test.
  static const bool shown = std::getenv("VEXUPNPCP_LOG") != nullptr;
  if (!vex_test::capturing && !shown) return 0;
  // What the capture itself allocates is no allocation of the code under test.
  const vex_test::NoFailures no_failures;
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, again);
  va_end(again);
  text.pop_back();
  if (shown) std::fprintf(stderr, "%d %s %s\n", level, tag, text.c_str());
  if (vex_test::capturing) {
    const std::lock_guard<std::mutex> lock(vex_test::lines_mutex);
    vex_test::lines.push_back(vex_test::TakeApart(level, tag, text));
  }
  vex_test::Stumble();
  return 0;
}

#include "report.h"

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace soak {

namespace {

constexpr std::int64_t kSecond = 1000000000;
constexpr std::int64_t kMicrosecond = 1000;
constexpr std::size_t kMostValues = 16384;
constexpr long long kViolationsTold = 100;

std::mutex output_mutex;
std::atomic<std::size_t> heap_peak{0};

}  // namespace

Counts counts;
Latencies action_latencies;
Latencies event_latencies;

std::int64_t Now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

void Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  {
    const std::lock_guard<std::mutex> lock(output_mutex);
    std::vprintf(format, arguments);
    std::putchar('\n');
    std::fflush(stdout);
  }
  va_end(arguments);
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return quoted + "\"";
}

void Violation(const std::string& text) {
  if (counts.violations++ >= kViolationsTold) return;
  Print("{\"e\": \"violation\", \"t\": %lld, \"text\": %s}", static_cast<long long>(Now()),
        Quoted(text).c_str());
}

Latencies::Latencies() { values_.reserve(kMostValues); }

void Latencies::Add(std::int64_t nanoseconds) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (values_.size() < kMostValues) values_.push_back(nanoseconds);
}

std::string Latencies::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (values_.empty()) return "[0]";
  std::sort(values_.begin(), values_.end());
  std::string text = "[" + std::to_string(values_.size());
  for (const std::size_t percent : {50U, 95U, 99U, 100U}) {
    const std::size_t place = std::min(values_.size() * percent / 100, values_.size() - 1);
    text += ", " + std::to_string(values_[place] / kMicrosecond);
  }
  values_.clear();
  return text + "]";
}

void WatchHeap() {
  const std::size_t used = mallinfo2().uordblks;
  if (used > heap_peak) heap_peak = used;
}

void PrintWindow() {
  const auto all = {std::make_pair("actions", &counts.actions),
                    std::make_pair("outcomes", &counts.outcomes),
                    std::make_pair("cancelled", &counts.cancelled),
                    std::make_pair("failures", &counts.failures),
                    std::make_pair("events", &counts.events),
                    std::make_pair("changes", &counts.changes),
                    std::make_pair("subscriptions", &counts.subscriptions),
                    std::make_pair("left", &counts.left),
                    std::make_pair("stuck", &counts.stuck),
                    std::make_pair("added", &counts.added),
                    std::make_pair("removed", &counts.removed),
                    std::make_pair("rescans", &counts.rescans),
                    std::make_pair("control_points", &counts.control_points),
                    std::make_pair("downloads", &counts.downloads),
                    std::make_pair("lost_downloads", &counts.lost_downloads),
                    std::make_pair("served", &counts.served),
                    std::make_pair("violations", &counts.violations)};
  std::string text;
  for (const auto& [name, count] : all)
    text += ", \"" + std::string(name) + "\": " + std::to_string(count->load());
  const struct mallinfo2 heap = mallinfo2();
  Print(
      "{\"e\": \"window\", \"t\": %lld, \"heap\": [%zu, %zu, %zu], \"action_us\": %s, "
      "\"event_us\": %s%s}",
      static_cast<long long>(Now()), heap.uordblks + heap.hblkhd, heap.fordblks,
      heap_peak.exchange(0), action_latencies.Take().c_str(), event_latencies.Take().c_str(),
      text.c_str());
}

}  // namespace soak

#ifndef VEXUPNPCP_TESTS_SOAK_REPORT_H_
#define VEXUPNPCP_TESTS_SOAK_REPORT_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

// Nanoseconds of the clock that Python calls monotonic_ns: both sides' times can be compared.
std::int64_t Now();

// Writes one line, a JSON object, to standard output.
void Print(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A text as a JSON string.
std::string Quoted(const std::string& text);

// Tells of a broken promise. The first hundred are told, all are counted.
void Violation(const std::string& text);

// What has happened since the start.
struct Counts {
  std::atomic<long long> actions{0};
  std::atomic<long long> outcomes{0};
  std::atomic<long long> cancelled{0};
  // Of actions to devices that had gone.
  std::atomic<long long> failures{0};
  std::atomic<long long> events{0};
  // Events that told a numbered change.
  std::atomic<long long> changes{0};
  std::atomic<long long> subscriptions{0};
  // Subscriptions that had ended with their device before they were ended here: their pairs count
  // as subscribed until the control point goes.
  std::atomic<long long> left{0};
  // Of those, met again.
  std::atomic<long long> stuck{0};
  std::atomic<long long> added{0};
  std::atomic<long long> removed{0};
  std::atomic<long long> rescans{0};
  std::atomic<long long> control_points{0};
  std::atomic<long long> downloads{0};
  std::atomic<long long> lost_downloads{0};
  std::atomic<long long> served{0};
  std::atomic<long long> violations{0};
};
extern Counts counts;

// Latencies of one window. Room is taken once, so that measuring does not move the memory measured.
class Latencies {
 public:
  Latencies();
  void Add(std::int64_t nanoseconds);
  // "[count, p50, p95, p99, longest]" in microseconds, and begins a new window.
  std::string Take();

 private:
  std::mutex mutex_;
  std::vector<std::int64_t> values_;
};
extern Latencies action_latencies;
extern Latencies event_latencies;

// Looks how much the heap has given out just now; the window tells the most that was seen.
void WatchHeap();

// A window's latencies, the bytes that the heap has given out, those it keeps for later and the
// most it had given out, and all counts, as one line.
void PrintWindow();

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_REPORT_H_

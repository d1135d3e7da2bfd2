#ifndef VEXUPNPCP_BASE_LOG_LIMIT_H_
#define VEXUPNPCP_BASE_LOG_LIMIT_H_

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vex_upnp {

// Lets one log line a second through for one cause, so that whoever floods us does not flood the
// log as well. One static object for each cause, beside its log line.
class LogLimit {
 public:
  bool Due() {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    std::int64_t next = next_ms_.load(std::memory_order_relaxed);
    return now >= next && next_ms_.compare_exchange_strong(next, now + kIntervalMs);
  }

 private:
  static constexpr std::int64_t kIntervalMs = 1000;
  std::atomic<std::int64_t> next_ms_{0};
};

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_LOG_LIMIT_H_

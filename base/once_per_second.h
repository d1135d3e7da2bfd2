#ifndef VEXUPNPCP_BASE_ONCE_PER_SECOND_H_
#define VEXUPNPCP_BASE_ONCE_PER_SECOND_H_

#include <atomic>
#include <chrono>

namespace vex_upnp {

// Keeps what hostile input may repeat without end to one log line a second. Safe from any thread.
class OncePerSecond {
 public:
  // True at most once in a second.
  bool Allows() {
    using std::chrono::steady_clock;
    const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                              steady_clock::now().time_since_epoch())
                              .count();
    long long next = next_.load(std::memory_order_relaxed);
    return now >= next &&
           next_.compare_exchange_strong(next, now + 1000, std::memory_order_relaxed);
  }

 private:
  std::atomic<long long> next_{0};
};

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_ONCE_PER_SECOND_H_

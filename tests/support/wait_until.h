#ifndef VEXUPNPCP_TESTS_SUPPORT_WAIT_UNTIL_H_
#define VEXUPNPCP_TESTS_SUPPORT_WAIT_UNTIL_H_

#include <chrono>
#include <thread>

namespace vex_test {

// Waits for a state, never for a time: true as soon as `condition` holds, false when `limit` has
// passed without it. Limits are generous, since they are only reached by a failing test.
template <typename Condition>
bool WaitUntil(Condition condition,
               std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_WAIT_UNTIL_H_

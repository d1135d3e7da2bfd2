#ifndef VEXUPNPCP_TESTS_SUPPORT_NO_FAILURES_H_
#define VEXUPNPCP_TESTS_SUPPORT_NO_FAILURES_H_

namespace vex_test {

// Only there in programs in which allocations can fail.
__attribute__((weak)) bool SuspendFailAlloc(bool suspended);

// To the end of the scope no allocation of this thread is failed: what tests themselves allocate,
// on the library's threads as well, is no allocation of the code under test.
class NoFailures {
 public:
  NoFailures() : was_suspended_(Suspend(true)) {}
  NoFailures(const NoFailures&) = delete;
  NoFailures& operator=(const NoFailures&) = delete;
  ~NoFailures() { Suspend(was_suspended_); }

 private:
  static bool Suspend(bool suspended) {
    return SuspendFailAlloc != nullptr && SuspendFailAlloc(suspended);
  }

  const bool was_suspended_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_NO_FAILURES_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_CPU_SECONDS_H_
#define VEXUPNPCP_TESTS_SUPPORT_CPU_SECONDS_H_

#include <ctime>

namespace vex_test {

// Processor time of this thread since the object was made: what a piece of work costs, however busy
// the machine is otherwise.
class CpuSeconds {
 public:
  double Elapsed() const { return Now() - start_; }

 private:
  static double Now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }

  double start_ = Now();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_CPU_SECONDS_H_

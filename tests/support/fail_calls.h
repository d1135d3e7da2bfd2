#ifndef VEXUPNPCP_TESTS_SUPPORT_FAIL_CALLS_H_
#define VEXUPNPCP_TESTS_SUPPORT_FAIL_CALLS_H_

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace vex_test {

// Calls to the system that a test program can make fail. kSend stands for send, sendto and sendmsg,
// kAccept for accept and accept4, kSetOption for setsockopt, kDateText for strftime.
enum class SystemCall : int {
  kThread,
  kSocket,
  kSetOption,
  kBind,
  kListen,
  kConnect,
  kAccept,
  kSend,
  kTime,
  kDateText,
  kCount
};

// From here to the end of the scope the n-th call of one kind and all behind it fail with `error`,
// or `count` of them. Calls of the library's threads and of the thread that made this object are
// meant, not those of a test's peers. One for each kind at a time.
class FailCalls {
 public:
  FailCalls(SystemCall call, int error, int nth = 1, int count = 1000000);
  FailCalls(const FailCalls&) = delete;
  FailCalls& operator=(const FailCalls&) = delete;
  ~FailCalls();

  // How many have been failed so far.
  int Failed() const;

 private:
  const SystemCall call_;
  const int failed_before_;
};

// How many sends of this process have found by now that the other side is gone for good, which
// raises the signal of a broken pipe unless the send forbids it.
int BrokenPipes();

// What the process takes for the time of day is shifted by so much, to the end of the scope.
// Monotonic clocks are left alone.
class ShiftedClock {
 public:
  explicit ShiftedClock(std::chrono::hours shift);
  ShiftedClock(const ShiftedClock&) = delete;
  ShiftedClock& operator=(const ShiftedClock&) = delete;
  ~ShiftedClock();
};

// The time of day jumps between a year ago, now and in a year, every few milliseconds.
class JumpingClock {
 public:
  JumpingClock();
  JumpingClock(const JumpingClock&) = delete;
  JumpingClock& operator=(const JumpingClock&) = delete;
  ~JumpingClock();

 private:
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

// The system grants no receive buffer that is larger than this, to the end of the scope.
class SmallReceiveBuffers {
 public:
  explicit SmallReceiveBuffers(int bytes);
  SmallReceiveBuffers(const SmallReceiveBuffers&) = delete;
  SmallReceiveBuffers& operator=(const SmallReceiveBuffers&) = delete;
  ~SmallReceiveBuffers();
};

// Runs `action` when a thread of the library is about to connect for the first time, there. One at
// a time; to be destroyed when the library has connected or never will.
class BeforeConnect {
 public:
  explicit BeforeConnect(std::function<void()> action);
  BeforeConnect(const BeforeConnect&) = delete;
  BeforeConnect& operator=(const BeforeConnect&) = delete;
  ~BeforeConnect();
};

// No descriptor is left, from here to the end of the scope, save for those that what is ending by
// itself gives back meanwhile.
class NoDescriptors {
 public:
  NoDescriptors();
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;
  ~NoDescriptors();

  // Takes these too.
  void TakeWhatIsFree();

 private:
  rlim_t before_ = 0;
  std::vector<int> filling_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_FAIL_CALLS_H_

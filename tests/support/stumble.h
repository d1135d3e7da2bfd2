#ifndef VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_
#define VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_

#include <mutex>

namespace vex_test {

// Called when a thread of the library has written a line, sent something, begun a connection,
// told its host something, or learnt that something has come. Stops it there for
// VEX_TEST_STUMBLE_MS milliseconds, if that is set: a test that takes what it sees from outside for
// what the library does behind it then fails always, not once in a thousand runs.
void Stumble();

// Held while a test's callback notes what it is told; the thread stumbles behind it.
class StumblingLock {
 public:
  explicit StumblingLock(std::mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
  StumblingLock(const StumblingLock&) = delete;
  StumblingLock& operator=(const StumblingLock&) = delete;
  ~StumblingLock() {
    mutex_.unlock();
    Stumble();
  }

 private:
  std::mutex& mutex_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_

#ifndef VEXUPNPCP_BASE_USE_COUNT_H_
#define VEXUPNPCP_BASE_USE_COUNT_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "base/thread_marks.h"
#include "base/timing.h"

namespace vex_upnp {

// Counts the calls that are inside a listener. Once shut down it refuses every later call, so that
// a callback that was already queued does no harm after termination.
class UseCount {
 public:
  // 0 when the call may go on; 1 when the listener has been shut down.
  int Increment() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (use_count_ == kShutDown) return 1;
    ++use_count_;
    return 0;
  }

  void Decrement() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    --use_count_;
  }

  // Shuts down when nobody is inside.
  bool ShutDownWhenIdle() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (use_count_ > 0) return false;
    use_count_ = kShutDown;
    return true;
  }

  int value() const {
    boost::lock_guard<boost::mutex> lock(mutex_);
    return use_count_;
  }

 private:
  static constexpr int kShutDown = -1;
  mutable boost::mutex mutex_;
  int use_count_ VEX_GUARDED_BY(mutex_) = 0;
};

// One call inside a listener, from here to the end of the scope.
class UseCountGuard {
 public:
  explicit UseCountGuard(UseCount& count) : count_(count), entered_(count.Increment() == 0) {}
  UseCountGuard(const UseCountGuard&) = delete;
  UseCountGuard& operator=(const UseCountGuard&) = delete;
  ~UseCountGuard() {
    if (entered_) count_.Decrement();
  }

  bool entered() const { return entered_; }

 private:
  UseCount& count_;
  const bool entered_;
};

// Ends a shared listener: waits, in short steps and without the singleton's lock, until no call is
// inside, refuses what comes later, and takes the instance out. The object goes with its last
// reference, after the lock. `on_wait` is called at each look that finds a call inside.
template <typename T, typename OnWait>
void TerminateWhenIdle(boost::shared_ptr<T>& instance, boost::mutex& singleton_mutex,
                       UseCount T::*count, OnWait on_wait) {
  const boost::this_thread::disable_interruption to_the_end;
  boost::shared_ptr<T> ended;
  boost::unique_lock<boost::mutex> lock(singleton_mutex);
  while (instance && !((*instance).*count).ShutDownWhenIdle()) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): holds it without the lock.
    const boost::shared_ptr<T> waiting_for = instance;
    lock.unlock();
    on_wait(*waiting_for);
    boost::this_thread::sleep_for(
        boost::chrono::milliseconds(timing::Scaled(timing::kUseCountPollMs)));
    lock.lock();
  }
  ended.swap(instance);
  lock.unlock();
}

template <typename T>
void TerminateWhenIdle(boost::shared_ptr<T>& instance, boost::mutex& singleton_mutex,
                       UseCount T::*count) {
  TerminateWhenIdle(instance, singleton_mutex, count, [](T&) {});
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_USE_COUNT_H_

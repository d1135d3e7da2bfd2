#include <vexupnpcp/timer.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/thread.hpp>

#include "base/asio.h"
#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/log.h"
#include "base/retry.h"
#include "base/thread_marks.h"
#include "base/timing.h"

namespace vex_upnp {
namespace utils {
class TimerService;

namespace {

constexpr const char* kTag = log::kTagUtils;

// KEPT: a step of the system's time moves what is pending: forward, and it is due at once; back,
// and it waits until the time has come again. Timers that are started afterwards are not concerned.
using Clock = std::chrono::system_clock;

// One pending timer. Its place in the order is its expiry, and among equals the order of starting.
struct TimerHandler {
  int id;
  TimerCallback callback;
  void* arg;
};
using Place = std::pair<Clock::time_point, unsigned int>;

// Whose timer thread the caller is.
thread_local const TimerService* served = nullptr;

}  // namespace

// What the timer thread works on. Held by the Timer, by whoever is inside Start or Cancel, and by
// the thread itself, so that the service may end while any of them is still in it.
class TimerService {
 public:
  TimerService() : work_(KeepRunning(io_service_)), timer_(io_service_) {}

  // Does nothing once there is a thread. It holds `self`, which is this object, until the loop has
  // been stopped.
  void StartThread(const boost::shared_ptr<TimerService>& self);
  void Stop();

  int Start(int duration, TimerCallback callback, void* arg);
  void Cancel(int id, void** arg);

 private:
  void OnTimerExpiry(const error_code& error);
  bool IsWaitMissing();
  void TimerExpired(const TimerHandler& handler);
  bool TakeExpired(TimerHandler& handler);
  void CallbackReturned();
  void StartTimer() VEX_REQUIRES(mutex_);
  bool OnTimerThread() const { return served == this; }

  io_service io_service_;
  io_work work_;

  std::atomic<bool> has_thread_{false};
  // Held to start the thread and to take it out; outer to nothing.
  boost::mutex thread_mutex_;
  std::unique_ptr<boost::thread> thread_ VEX_GUARDED_BY(thread_mutex_);
  bool ended_ VEX_GUARDED_BY(thread_mutex_) = false;

  // A leaf: held for one list operation, never during a callback.
  boost::mutex mutex_;
  boost::condition_variable callback_returned_;
  // One wait serves all timers: it stands at the earliest expiry, or before it.
  steady_timer timer_ VEX_GUARDED_BY(mutex_);
  bool armed_ VEX_GUARDED_BY(mutex_) = false;
  std::chrono::steady_clock::time_point armed_for_ VEX_GUARDED_BY(mutex_);
  // The timer thread is going through what has expired and arms the wait when it is through.
  bool firing_ VEX_GUARDED_BY(mutex_) = false;
  bool stopped_ VEX_GUARDED_BY(mutex_) = false;
  bool running_ VEX_GUARDED_BY(mutex_) = false;
  int running_id_ VEX_GUARDED_BY(mutex_) = 0;
  // Unsigned, since nothing stops a process from counting past the largest int.
  unsigned int timer_id_ VEX_GUARDED_BY(mutex_) = 0;
  std::map<Place, TimerHandler> timer_handlers_ VEX_GUARDED_BY(mutex_);
  std::unordered_map<int, Place> places_ VEX_GUARDED_BY(mutex_);
};

void TimerService::StartThread(const boost::shared_ptr<TimerService>& self) {
  if (has_thread_) return;
  boost::lock_guard<boost::mutex> lock(thread_mutex_);
  if (thread_ || ended_) return;
  try {
    std::string prefix;
    ThreadNamePrefix(prefix);
    thread_.reset(StartNamedThread(prefix + "VexTimer", [self] {
      served = self.get();
      RunLoop(self->io_service_);
    }));
    has_thread_ = true;
  } catch (const boost::thread_resource_error& error) {
    VEX_LOG(kLogMajor, kTag, "thread_resource_error exception:[%s]", error.what());
  } catch (...) {
    VEX_LOG(kLogMajor, kTag, "Unknown Exception in StartCallbackThreads");
  }
}

void TimerService::Stop() {
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    stopped_ = true;
    timer_handlers_.clear();
    places_.clear();
    try {
      timer_.cancel();
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in CancelTimer: %s",
                          "Unknown Exception in CancelTimer");
    }
  }
  io_service_.stop();
  std::unique_ptr<boost::thread> thread;
  {
    boost::lock_guard<boost::mutex> lock(thread_mutex_);
    ended_ = true;
    thread.swap(thread_);
  }
  if (!thread) return;
  if (OnTimerThread()) {
    VEX_LOG(kLogMajor, kTag, "Timer ended by a callback, its thread is not waited for");
    thread->detach();
    return;
  }
  boost::this_thread::disable_interruption uninterrupted;
  thread->join();
}

int TimerService::Start(int duration, TimerCallback callback, void* arg) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  const unsigned int number = ++timer_id_;
  const int id = static_cast<int>(number);
  const Place place(Clock::now() + std::chrono::milliseconds(std::max(duration, 0)), number);
  try {
    timer_handlers_.emplace(place, TimerHandler{id, callback, arg});
    places_.emplace(id, place);
    if (!firing_) StartTimer();
  } catch (...) {
    timer_handlers_.erase(place);
    places_.erase(id);
    throw;
  }
  return id;
}

VEX_NO_THREAD_SAFETY_ANALYSIS
void TimerService::Cancel(int id, void** arg) {
  boost::this_thread::disable_interruption uninterrupted;
  boost::unique_lock<boost::mutex> lock(mutex_);
  const auto place = places_.find(id);
  if (place != places_.end()) {
    const auto handler = timer_handlers_.find(place->second);
    if (arg != nullptr) *arg = handler->second.arg;
    // The wait stays armed; what it finds when it ends decides.
    timer_handlers_.erase(handler);
    places_.erase(place);
    return;
  }
  if (OnTimerThread()) return;
  while (running_ && running_id_ == id) callback_returned_.wait(lock);
}

// Asks for a wake-up at the earliest expiry, or earlier to look at the clock, unless one is due by
// then already.
void TimerService::StartTimer() {
  if (stopped_ || timer_handlers_.empty()) return;
  const Clock::duration left = timer_handlers_.begin()->first.first - Clock::now();
  const std::chrono::milliseconds longest(timing::Scaled(timing::kClockLookMs));
  // The wake-up itself runs on a clock that makes no steps: a loop that waits notices none.
  const auto wake_up = std::chrono::steady_clock::now() + std::min<Clock::duration>(left, longest);
  if (armed_ && armed_for_ <= wake_up) return;
  armed_ = false;
  timer_.expires_at(wake_up);
  // The loop is run by the service's own thread only, which holds a reference while it is in it.
  timer_.async_wait([this](const error_code& error) { OnTimerExpiry(error); });
  armed_ = true;
  armed_for_ = wake_up;
}

void TimerService::OnTimerExpiry(const error_code& error) {
  // One that gave way to an earlier wake-up; but that one may have found no memory.
  if (error == boost::asio::error::operation_aborted && !IsWaitMissing()) return;
  RetryWithoutMemory([this] {
    TimerHandler expired;
    while (TakeExpired(expired)) TimerExpired(expired);
  });
}

bool TimerService::IsWaitMissing() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return !armed_ && !stopped_;
}

void TimerService::TimerExpired(const TimerHandler& handler) {
  try {
    if (handler.callback != nullptr) {
      handler.callback(handler.id, handler.arg);
    } else {
      VEX_LOG(kLogMajor, kTag, "timer_callback is NULL..!!");
    }
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in TimerExpired: %s",
                        "Unknown Exception in TimerExpired");
  }
  CallbackReturned();
}

// Takes out the first timer that is due and notes that its callback runs. With none due, sees to
// the next wake-up. A timer that was cancelled after the wait had ended is simply not there.
bool TimerService::TakeExpired(TimerHandler& handler) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto first = timer_handlers_.begin();
  if (stopped_ || first == timer_handlers_.end() || first->first.first > Clock::now()) {
    firing_ = false;
    armed_ = false;
    StartTimer();
    return false;
  }
  firing_ = true;
  handler = first->second;
  running_ = true;
  running_id_ = handler.id;
  timer_handlers_.erase(first);
  places_.erase(handler.id);
  return true;
}

void TimerService::CallbackReturned() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  running_ = false;
  callback_returned_.notify_all();
}

std::atomic<Timer*> Timer::instance_{nullptr};
boost::mutex& Timer::timer_mutex_ = *new boost::mutex;

namespace {

// Held only to look at the instance and take a reference to its service, so that TerminateManager
// can wait for a callback that itself calls Start.
boost::mutex& instance_leaf = *new boost::mutex;

}  // namespace

Timer::Timer() : service_(new TimerService) {
  VEX_LOG(kLogStep, kTag, "Timer::Timer");
  service_->StartThread(service_);
}

Timer::~Timer() = default;

// The first Start makes what could not be made here.
void Timer::InitializeManager() try { GetInstance(); } catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
}

VEX_NO_THREAD_SAFETY_ANALYSIS
void Timer::TerminateManager() {
  boost::unique_lock<boost::mutex> lock(timer_mutex_, boost::defer_lock);
  if (served == nullptr) {
    lock.lock();
  } else if (!lock.try_lock()) {
    // Whoever ends the service on another thread waits for this very callback.
    return;
  }
  Timer* const ended = instance_.load(std::memory_order_acquire);
  if (ended == nullptr) return;
  // The instance stays in place until its thread is gone, so that no callback makes a new one.
  ended->service_->Stop();
  {
    boost::lock_guard<boost::mutex> leaf(instance_leaf);
    instance_.store(nullptr, std::memory_order_release);
  }
  delete ended;
}

Timer* Timer::GetInstance() {
  Timer* existing = instance_.load(std::memory_order_acquire);
  if (existing != nullptr) return existing;
  boost::lock_guard<boost::mutex> lock(timer_mutex_);
  existing = instance_.load(std::memory_order_acquire);
  if (existing == nullptr) {
    existing = new Timer;
    instance_.store(existing, std::memory_order_release);
  }
  return existing;
}

boost::shared_ptr<TimerService> Timer::ExistingService() {
  boost::lock_guard<boost::mutex> leaf(instance_leaf);
  const Timer* const existing = instance_.load(std::memory_order_acquire);
  return existing == nullptr ? boost::shared_ptr<TimerService>() : existing->service_;
}

int Timer::Start(int duration, TimerCallback callback, void* arg) {
  boost::shared_ptr<TimerService> service = ExistingService();
  while (!service) {
    GetInstance();
    service = ExistingService();
  }
  // There may have been no thread to be had when the service was made.
  service->StartThread(service);
  return service->Start(duration, callback, arg);
}

// With no service nothing can be pending; a late Cancel must not start one that nobody ends.
void Timer::Cancel(int id, void** arg) {
  const boost::shared_ptr<TimerService> service = ExistingService();
  if (service) service->Cancel(id, arg);
}

}  // namespace utils
}  // namespace vex_upnp

#ifndef VEXSIM_EVENT_LOOP_H_
#define VEXSIM_EVENT_LOOP_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "file_handle.h"

namespace vexsim {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

// One thread, one epoll set and its timers; everything in the program runs on it.
class EventLoop {
 public:
  using Handler = std::function<void(std::uint32_t events)>;
  using Task = std::function<void()>;
  using TimerId = std::uint64_t;

  EventLoop();

  // `handler` gets the EPOLL... bits. The descriptor stays the caller's, who calls Forget before
  // it closes it.
  void Watch(int descriptor, std::uint32_t events, Handler handler);
  void Change(int descriptor, std::uint32_t events);
  void Forget(int descriptor);

  // Timers fire once. The ids of fired and cancelled timers may be cancelled again without harm.
  TimerId At(TimePoint when, Task task);
  TimerId After(Milliseconds delay, Task task) { return At(Clock::now() + delay, std::move(task)); }
  void CancelTimer(TimerId id);

  void Run();
  // Before Run too, which then returns at once.
  void Stop() { stopped_ = true; }

 private:
  struct Watched {
    std::uint32_t generation;
    std::shared_ptr<Handler> handler;
  };

  int WaitMilliseconds() const;
  void RunDueTimers();
  void Dispatch(std::uint64_t key, std::uint32_t events);

  FileHandle epoll_;
  bool stopped_ = false;
  // Tells a descriptor's events from those of an earlier descriptor with the same number.
  std::uint32_t generation_ = 0;
  std::unordered_map<int, Watched> watched_;
  TimerId last_timer_ = 0;
  std::map<std::pair<TimePoint, TimerId>, Task> timers_;
  std::unordered_map<TimerId, TimePoint> timer_times_;
};

}  // namespace vexsim

#endif  // VEXSIM_EVENT_LOOP_H_

#include "event_loop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace vexsim {

namespace {

constexpr int kEventsPerWait = 256;
constexpr unsigned kGenerationShift = 32;

std::uint64_t KeyOf(int descriptor, std::uint32_t generation) {
  return (static_cast<std::uint64_t>(generation) << kGenerationShift) |
         static_cast<std::uint32_t>(descriptor);
}

void Control(int epoll, int operation, int descriptor, std::uint32_t events, std::uint64_t key) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(epoll, operation, descriptor, &event) != 0)
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

}  // namespace

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.valid()) throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

void EventLoop::Watch(int descriptor, std::uint32_t events, Handler handler) {
  const std::uint32_t generation = ++generation_;
  Control(epoll_.get(), EPOLL_CTL_ADD, descriptor, events, KeyOf(descriptor, generation));
  watched_[descriptor] = Watched{generation, std::make_shared<Handler>(std::move(handler))};
}

void EventLoop::Change(int descriptor, std::uint32_t events) {
  const auto found = watched_.find(descriptor);
  if (found == watched_.end()) return;
  Control(epoll_.get(), EPOLL_CTL_MOD, descriptor, events,
          KeyOf(descriptor, found->second.generation));
}

void EventLoop::Forget(int descriptor) {
  if (watched_.erase(descriptor) == 0) return;
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

EventLoop::TimerId EventLoop::At(TimePoint when, Task task) {
  const TimerId id = ++last_timer_;
  timers_.emplace(std::make_pair(when, id), std::move(task));
  timer_times_[id] = when;
  return id;
}

void EventLoop::CancelTimer(TimerId id) {
  const auto found = timer_times_.find(id);
  if (found == timer_times_.end()) return;
  timers_.erase({found->second, id});
  timer_times_.erase(found);
}

int EventLoop::WaitMilliseconds() const {
  if (timers_.empty()) return -1;
  const auto left = std::chrono::ceil<Milliseconds>(timers_.begin()->first.first - Clock::now());
  constexpr Milliseconds::rep kLongest = 60000;
  return static_cast<int>(std::clamp<Milliseconds::rep>(left.count(), 0, kLongest));
}

void EventLoop::RunDueTimers() {
  const TimePoint now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    const Task task = std::move(timers_.begin()->second);
    timer_times_.erase(timers_.begin()->first.second);
    timers_.erase(timers_.begin());
    task();
  }
}

void EventLoop::Dispatch(std::uint64_t key, std::uint32_t events) {
  const int descriptor = static_cast<int>(static_cast<std::uint32_t>(key));
  const auto found = watched_.find(descriptor);
  if (found == watched_.end() || KeyOf(descriptor, found->second.generation) != key) return;
  // The handler may forget its own descriptor.
  const std::shared_ptr<Handler> handler = found->second.handler;
  (*handler)(events);
}

void EventLoop::Run() {
  std::array<epoll_event, kEventsPerWait> events;
  while (!stopped_) {
    const int count = epoll_wait(epoll_.get(), events.data(), kEventsPerWait, WaitMilliseconds());
    if (count < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "epoll_wait");
    for (int i = 0; i < count && !stopped_; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      Dispatch(event.data.u64, event.events);
    }
    if (!stopped_) RunDueTimers();
  }
}

}  // namespace vexsim

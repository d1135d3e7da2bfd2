#include "event_queue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace vexcp {

namespace {

int WaitMilliseconds(const std::optional<TimePoint>& deadline) {
  if (!deadline) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  constexpr std::chrono::milliseconds::rep kLongest = 3600000;
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, kLongest));
}

}  // namespace

EventQueue::EventQueue() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signals_ = signalfd(-1, &signals, SFD_CLOEXEC);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signals_ < 0 || wake_ < 0)
    throw std::system_error(errno, std::generic_category(), "event descriptors");
}

EventQueue::~EventQueue() {
  close(wake_);
  close(signals_);
}

void EventQueue::Push(DeviceEvent event) {
  const std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(std::move(event));
  eventfd_write(wake_, 1);
}

std::optional<DeviceEvent> EventQueue::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (events_.empty()) {
    eventfd_t count = 0;
    eventfd_read(wake_, &count);
    return std::nullopt;
  }
  DeviceEvent event = std::move(events_.front());
  events_.pop_front();
  return event;
}

std::optional<DeviceEvent> EventQueue::Next(const std::optional<TimePoint>& deadline) {
  for (;;) {
    if (std::optional<DeviceEvent> event = Take()) return event;
    pollfd descriptors[] = {{wake_, POLLIN, 0}, {signals_, POLLIN, 0}};
    const int ready = poll(descriptors, 2, WaitMilliseconds(deadline));
    if (ready > 0 && descriptors[1].revents != 0) interrupted_ = true;
    if (interrupted_) return std::nullopt;
    if (ready == 0 && deadline && std::chrono::steady_clock::now() >= *deadline)
      return std::nullopt;
  }
}

}  // namespace vexcp

#ifndef VEXCP_EVENT_QUEUE_H_
#define VEXCP_EVENT_QUEUE_H_

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace vexcp {

using TimePoint = std::chrono::steady_clock::time_point;

// What the library told: of a device, an action or a subscription.
struct DeviceEvent {
  enum class Kind {
    kAdded,
    kRemoved,
    kInterfacesChanged,
    kActionEnded,
    kVariablesChanged,
    kSubscribed,
    kSubscriptionEnded
  };
  Kind kind;
  // The device; empty for other kinds than the first two.
  std::string key;
  std::string name;
  std::string type;
  // Of an action its id, of a subscription the caller's own number for it.
  int id = 0;
  // HTTP status of an action's answer.
  int status = 0;
  // Body of an answer or event; why a subscription ended.
  std::string body = std::string();
};

// Takes events from the library's threads to the main thread, which also hears of SIGINT and
// SIGTERM here. Made before any other thread, since it blocks these signals.
class EventQueue {
 public:
  // Throws std::system_error.
  EventQueue();
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  void Push(DeviceEvent event);
  // The next event; nothing when `deadline` has passed or the user wants to end.
  std::optional<DeviceEvent> Next(const std::optional<TimePoint>& deadline);
  bool interrupted() const { return interrupted_; }

 private:
  std::optional<DeviceEvent> Take();

  std::mutex mutex_;
  std::deque<DeviceEvent> events_;
  // Readable while there are events.
  int wake_ = -1;
  int signals_ = -1;
  bool interrupted_ = false;
};

}  // namespace vexcp

#endif  // VEXCP_EVENT_QUEUE_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_INTERFACE_RECORDER_H_
#define VEXUPNPCP_TESTS_SUPPORT_INTERFACE_RECORDER_H_

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/networkmonitor.h>

#include "tests/support/stumble.h"

namespace vex_test {

// Registered for interface events from here to the end of the scope; keeps them in order.
class InterfaceRecorder : public vex_upnp::network_layer::NetworkEventListener {
 public:
  using Event = std::pair<std::string, vex_upnp::network_layer::NicEvent>;
  using Action = std::function<void(const Event&)>;

  // `action` runs inside each notification, before the event is kept.
  explicit InterfaceRecorder(Action action = Action()) : action_(std::move(action)) {
    result_ = vex_upnp::network_layer::RegisterNetworkEventListener(this, id_);
  }
  InterfaceRecorder(const InterfaceRecorder&) = delete;
  InterfaceRecorder& operator=(const InterfaceRecorder&) = delete;
  ~InterfaceRecorder() override { vex_upnp::network_layer::UnRegisterEventListener(id_); }

  void OnNetworkChanged(std::string& name, vex_upnp::network_layer::NicEvent event) override {
    const Event heard(name, event);
    if (action_) action_(heard);
    const StumblingLock lock(mutex_);
    events_.push_back(heard);
  }

  int id() const { return id_; }
  int result() const { return result_; }
  std::vector<Event> events() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::size_t count() const { return events().size(); }

 private:
  const Action action_;
  int id_ = -2;
  int result_ = -2;
  mutable std::mutex mutex_;
  std::vector<Event> events_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_INTERFACE_RECORDER_H_

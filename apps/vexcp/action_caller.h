#ifndef VEXCP_ACTION_CALLER_H_
#define VEXCP_ACTION_CALLER_H_

#include <vexupnpcp/cp_control.h>

#include <string>
#include <vector>

#include "device_record.h"
#include "event_queue.h"
#include "soap_answer.h"

namespace vexcp {

// Carries out actions, one after the other. It must live as long as the library runs.
class ActionCaller : private vex_upnp::cp_control::ControlResponseListener {
 public:
  // Ends of actions are pushed to `events` and taken from there.
  explicit ActionCaller(EventQueue& events) : events_(events) {}

  // What else comes meanwhile is dropped. Throws Failure.
  ActionResult Call(const DeviceRecord& device, const std::string& service_type,
                    const std::string& action, const std::vector<NamedValue>& arguments);

 private:
  void OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                          void* context) override;
  void DeleteContext(void*) override {}

  EventQueue& events_;
};

}  // namespace vexcp

#endif  // VEXCP_ACTION_CALLER_H_

#ifndef VEXCP_SUBSCRIPTION_H_
#define VEXCP_SUBSCRIPTION_H_

#include <vexupnpcp/cp_control.h>

#include <string>

#include "device_record.h"
#include "event_queue.h"

namespace vexcp {

// The events of one service, for as long as this object lives; the device is told at its end.
class Subscription : private vex_upnp::cp_control::DeviceEventListener {
 public:
  // Events are pushed to `events` with this number. Throws Failure.
  Subscription(EventQueue& events, const DeviceRecord& device, const ServiceRecord& service,
               int number);
  ~Subscription() override;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

 private:
  void OnEventReceived(const std::string& body) override;
  void OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                   const std::string& message) override;

  EventQueue& events_;
  const int number_;
  const std::string host_line_;
  int handle_ = 0;
};

}  // namespace vexcp

#endif  // VEXCP_SUBSCRIPTION_H_

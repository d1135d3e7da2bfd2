#ifndef VEXUPNPCP_SRC_CONTROL_RESPONSE_CALLBACK_H_
#define VEXUPNPCP_SRC_CONTROL_RESPONSE_CALLBACK_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/use_count.h"

namespace vex_upnp {
namespace cp_control {

// Takes the answers to actions. Every HTTP status is a result: it is the caller's listener that
// tells a success from a fault.
class ControlResponseCallback : public network_layer::ResponseListener {
 public:
  // Made on first use.
  static boost::shared_ptr<ControlResponseCallback> GetInstance();
  // Waits without limit for the calls that are inside; what comes later is turned away.
  static void TerminateInstance();

  void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                          const int& session_id) override;

 private:
  ControlResponseCallback() = default;

  static void __DeliverAnswer(utils::HTTPInfo& response, int session_id);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<ControlResponseCallback>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CONTROL_RESPONSE_CALLBACK_H_

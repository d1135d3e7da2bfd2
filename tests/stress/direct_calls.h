#ifndef VEXUPNPCP_TESTS_STRESS_DIRECT_CALLS_H_
#define VEXUPNPCP_TESTS_STRESS_DIRECT_CALLS_H_

#include <atomic>
#include <string>

#include <vexupnpcp/cp_control.h>

namespace vex_stress {

// A subscription below the control point, which must not be called once it has ended.
class DirectSubscription : public vex_upnp::cp_control::DeviceEventListener {
 public:
  void OnEventReceived(const std::string& body) override;
  void OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                   const std::string& message) override;

  int handle = 0;
  std::string host_line;
  std::atomic<bool> ended{false};
};

// Contexts of direct actions that have not come back. Those that are left when the library has
// ended stay the host's.
long long OpenContexts();
void DropOpenContexts();

}  // namespace vex_stress

#endif  // VEXUPNPCP_TESTS_STRESS_DIRECT_CALLS_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_DISCOVERY_RIG_H_
#define VEXUPNPCP_TESTS_SUPPORT_DISCOVERY_RIG_H_

#include <string>
#include <vector>

#include <vexupnpcp/cp_discovery.h>

namespace vex_test {

// One event as a host's callback saw it, copied.
struct DeviceEvent {
  int handle;
  vex_upnp::cp_discovery::DeviceEventType event;
  vex_upnp::cp_discovery::DeviceInfo device;
};

// Network layer, timers and discovery, up from here to the end of the scope, and a register of the
// events that came. With no interface selected nothing leaves the machine but what is asked for on
// loopback.
class DiscoveryRig {
 public:
  // Interfaces to select; none for loopback only.
  explicit DiscoveryRig(const std::vector<std::string>& interfaces = {});
  DiscoveryRig(const DiscoveryRig&) = delete;
  DiscoveryRig& operator=(const DiscoveryRig&) = delete;
  ~DiscoveryRig();

  // Registers with the callback that fills the register. Returns the handle.
  static int Register(const std::string& type, const std::string& user_agent = "");
  static std::vector<DeviceEvent> Events();
  // "+udn" for added and "-udn" for removed, in order.
  static std::vector<std::string> EventLog();
  static int CountEvents(const std::string& entry);
  static void ClearEvents();
  // Called from inside each callback, before it returns; empty for nothing.
  static void OnEvent(void (*hook)(const DeviceEvent&));

  // Hands a datagram to discovery as if it had come from `ip`, on this thread.
  static void Receive(const std::string& datagram, const std::string& ip = "127.0.0.1");

  // Ends discovery early; the rest goes with the object.
  void TerminateDiscovery();

 private:
  bool terminated_ = false;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_DISCOVERY_RIG_H_

#ifndef VEXCP_CONTROL_POINT_H_
#define VEXCP_CONTROL_POINT_H_

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/network_listeners.h>

#include <optional>
#include <string>
#include <vector>

#include "action_caller.h"
#include "device_record.h"
#include "event_queue.h"

namespace vexcp {

constexpr char kAllDevices[] = "upnp:rootdevice";

struct StartOptions {
  // Empty: all.
  std::vector<std::string> interfaces;
  // Device types as the library takes them; at least one.
  std::vector<std::string> types{kAllDevices};
  // Whether subscriptions will be made.
  bool receive_events = false;
};

// The library, started and with one control point registered, for as long as this object lives.
// There can be only one.
class ControlPoint : private vex_upnp::network_layer::NetworkEventListener {
 public:
  // Throws Failure.
  explicit ControlPoint(const StartOptions& options);
  ~ControlPoint() override;
  ControlPoint(const ControlPoint&) = delete;
  ControlPoint& operator=(const ControlPoint&) = delete;

  EventQueue& events() { return events_; }
  const std::vector<std::string>& types() const { return types_; }
  // All ready devices of a type, in the order in which they were found.
  std::vector<DeviceRecord> Devices(const std::string& type);
  std::optional<DeviceRecord> Details(const std::string& key);
  // Nothing when the device has no such service.
  std::optional<std::string> ServiceDescription(const std::string& key, const std::string& service);
  // Searches again for every registered type; a device that gives no sign of life is dropped some
  // seconds later.
  void Rescan();
  // Waits until the device that the user means is ready. Throws Failure when it does not come.
  DeviceRecord WaitFor(const std::string& udn, std::chrono::seconds limit);
  // Carries out an action and waits for its end. Throws Failure when it cannot be sent or the user
  // wants to end.
  ActionResult Call(const DeviceRecord& device, const std::string& service_type,
                    const std::string& action, const std::vector<NamedValue>& arguments) {
    return caller_.Call(device, service_type, action, arguments);
  }

 private:
  static void OnDevice(int event, CPDeviceInfo* device);
  void OnNetworkChanged(std::string& interface_name,
                        vex_upnp::network_layer::NicEvent event) override;
  void StartFramework(const StartOptions& options);
  void SelectInterfaces(const std::vector<std::string>& names);
  void Register();
  void Stop();
  std::optional<DeviceRecord> FindReady(const std::string& udn);

  static ControlPoint* current_;
  const std::vector<std::string> types_;
  EventQueue events_;
  ActionCaller caller_;
  bool framework_started_ = false;
  bool generic_started_ = false;
  int listener_ = -1;
  int handle_ = 0;
};

}  // namespace vexcp

#endif  // VEXCP_CONTROL_POINT_H_

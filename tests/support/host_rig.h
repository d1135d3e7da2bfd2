#ifndef VEXUPNPCP_TESTS_SUPPORT_HOST_RIG_H_
#define VEXUPNPCP_TESTS_SUPPORT_HOST_RIG_H_

#include <functional>
#include <string>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "tests/support/facing_routes.h"
#include "tests/support/scripted_device.h"

namespace vex_test {

// What one callback of the host was told, copied.
struct ToldAction {
  int action_id;
  errorcodes code;
  // "name=value,name=value"; "none" for no list.
  std::string output;
  // "null" for none, else in single quotes.
  std::string description;
};
struct ToldEvent {
  std::string udn;
  errorcodes code;
  std::string variables;
};
struct ToldDevice {
  int event;
  std::string udn;
  std::string display_name;
  std::string interface_name;
};

// What the callbacks below have been told since Clear, and what they do then. The hooks run inside
// the callback, after it has been noted; empty for nothing.
class HostLog {
 public:
  static void Clear();
  static std::vector<ToldAction> Actions();
  static std::vector<ToldEvent> Events();
  static std::vector<ToldDevice> Devices();
  static void OnAction(std::function<void(const ToldAction&)> hook);
  static void OnEvent(std::function<void(const ToldEvent&)> hook);
  static void OnDevice(std::function<void(const ToldDevice&)> hook);
};

// Callbacks that fill the register.
ControlPointCalbacks RecordingCallbacks();

struct HostRigOptions {
  int tcp_port = 5100;
  int multicast_port = 0;
  int udp_port = 5300;
  std::vector<std::string> interfaces = {"lan0"};
  std::string user_agent;
};

// The library as a host starts it, through its exported functions only; stopped at the end of the
// scope in the right order.
class HostRig {
 public:
  explicit HostRig(const HostRigOptions& options = HostRigOptions());
  HostRig(const HostRig&) = delete;
  HostRig& operator=(const HostRig&) = delete;
  ~HostRig();

  // Registers with the recording callbacks.
  int Register(const std::vector<std::string>& types = {"upnp:rootdevice"});
  // Announces the device and waits until the host has been told of it. Returns its name in the
  // library.
  std::string Meet(ScriptedDevice& device, const std::string& interface_name = "lan0");

  // Once; the destructor does what has not been done.
  void TerminateControlPoint();

 private:
  const HostRigOptions options_;
  const FacingRoutes routes_;
  bool control_point_runs_ = false;
};

// Fails the process when it is not left within the time: a hang would otherwise stop the test run
// without a word.
class Watchdog {
 public:
  explicit Watchdog(int seconds = 60);
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_HOST_RIG_H_

#include "tests/support/host_rig.h"

#include <unistd.h>

#include <chrono>
#include <list>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/network_layer.h>

#include "tests/support/stumble.h"
#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

namespace framework_core = vex_upnp::framework_core;
namespace network_layer = vex_upnp::network_layer;

template <typename Told>
struct Register {
  std::mutex mutex;
  std::vector<Told> told;
  std::function<void(const Told&)> hook;

  void Note(const Told& one) {
    std::function<void(const Told&)> to_call;
    {
      const StumblingLock lock(mutex);
      told.push_back(one);
      to_call = hook;
    }
    if (to_call) to_call(one);
  }
  std::vector<Told> Copy() {
    const std::lock_guard<std::mutex> lock(mutex);
    return told;
  }
  void SetHook(std::function<void(const Told&)> other) {
    const std::lock_guard<std::mutex> lock(mutex);
    hook = std::move(other);
  }
  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    told.clear();
    hook = nullptr;
  }
};

Register<ToldAction> actions;
Register<ToldEvent> events;
Register<ToldDevice> devices;

std::string TextOf(const CPArgument* list) {
  if (list == nullptr) return "none";
  std::string text;
  for (; list != nullptr; list = list->next) {
    text += (text.empty() ? "" : ",") + std::string(list->name) + "=" + list->value;
  }
  return text;
}

void NoteAction(int action_id, errorcodes code, CPArgument* output, const char* description) {
  const std::string words =
      description != nullptr ? "'" + std::string(description) + "'" : std::string("null");
  actions.Note({action_id, code, TextOf(output), words});
}

void NoteEvent(const char* device_udn, errorcodes code, CPArgument* variables) {
  events.Note({device_udn, code, TextOf(variables)});
}

void NoteDevice(int event, CPDeviceInfo* device) {
  devices.Note({event, device->udn, device->display_name, device->interface_name});
}

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

// The monitor's first scan finds the interfaces and starts the servers.
bool EventServersRun(std::size_t count) {
  std::list<boost::shared_ptr<network_layer::IpInfo>> servers;
  network_layer::GetConfiguredTcpPorts(servers);
  return servers.size() >= count;
}

}  // namespace

void HostLog::Clear() {
  actions.Clear();
  events.Clear();
  devices.Clear();
}

std::vector<ToldAction> HostLog::Actions() { return actions.Copy(); }
std::vector<ToldEvent> HostLog::Events() { return events.Copy(); }
std::vector<ToldDevice> HostLog::Devices() { return devices.Copy(); }
void HostLog::OnAction(std::function<void(const ToldAction&)> hook) {
  actions.SetHook(std::move(hook));
}
void HostLog::OnEvent(std::function<void(const ToldEvent&)> hook) {
  events.SetHook(std::move(hook));
}
void HostLog::OnDevice(std::function<void(const ToldDevice&)> hook) {
  devices.SetHook(std::move(hook));
}

ControlPointCalbacks RecordingCallbacks() { return {NoteEvent, NoteAction, NoteDevice, nullptr}; }

HostRig::HostRig(const HostRigOptions& options) : options_(options) {
  HostLog::Clear();
  Require(framework_core::InitFrameworkCore("") == 0, "InitFrameworkCore");
  Require(framework_core::ConfigureServers(options.tcp_port, options.multicast_port,
                                           options.udp_port, false) == 0,
          "ConfigureServers");
  Require(framework_core::StartFrameworkCore() == 0, "StartFrameworkCore");
  Require(framework_core::StartNetworkMonitor() == 0, "StartNetworkMonitor");
  for (const std::string& name : options.interfaces) {
    framework_core::ConfigureApplicationOnInterface(name.c_str());
  }
  if (!options.user_agent.empty()) GenericCPSetUserAgent(options.user_agent.c_str());
  Require(InitializeGenericCP() == 0, "InitializeGenericCP");
  control_point_runs_ = true;
  if (options.tcp_port != 0) {
    Require(WaitUntil([&] { return EventServersRun(options_.interfaces.size()); }),
            "no event servers");
  }
}

HostRig::~HostRig() {
  TerminateControlPoint();
  framework_core::StopNetworkMonitor();
  framework_core::TerminateFrameworkCore();
  HostLog::Clear();
}

void HostRig::TerminateControlPoint() {
  if (control_point_runs_) TerminateGenericCP();
  control_point_runs_ = false;
}

int HostRig::Register(const std::vector<std::string>& types) {
  std::vector<std::string> texts = types;
  std::vector<CPDeviceTypeInfo> list(texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    list[i].device_type = &texts[i][0];
    list[i].next = i + 1 < texts.size() ? &list[i + 1] : nullptr;
  }
  ControlPointCalbacks callbacks = RecordingCallbacks();
  int handle = 0;
  Require(RegisterCP(list.data(), &callbacks, &handle) == 0, "RegisterCP");
  return handle;
}

std::string HostRig::Meet(ScriptedDevice& device, const std::string& interface_name) {
  const std::string name = device.udn() + "+" + interface_name;
  const auto appears = [&] {
    for (const ToldDevice& told : HostLog::Devices()) {
      if (told.event == 1 && told.udn == name) return true;
    }
    return false;
  };
  // With time made faster a description may be too late on a busy machine; then it is announced
  // once more, as devices do.
  bool appeared = false;
  for (int tries = 0; tries < 5 && !appeared; ++tries) {
    device.SayAlive(interface_name == "lan0" ? "10.77.0.1" : "10.77.1.1", options_.udp_port);
    appeared = WaitUntil(appears, std::chrono::seconds(5));
  }
  Require(appeared, "the device did not appear");
  return name;
}

Watchdog::Watchdog(int seconds) { alarm(static_cast<unsigned>(seconds)); }
Watchdog::~Watchdog() { alarm(0); }

}  // namespace vex_test

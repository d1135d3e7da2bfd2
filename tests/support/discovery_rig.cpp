#include "tests/support/discovery_rig.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/timer.h>

#include "src/discovery_listener.h"

#include "tests/support/stumble.h"

namespace vex_test {
namespace {

using vex_upnp::cp_discovery::DeviceEventType;
using vex_upnp::cp_discovery::DeviceInfo;
namespace network_layer = vex_upnp::network_layer;

std::mutex events_mutex;
std::vector<DeviceEvent> events;
std::atomic<void (*)(const DeviceEvent&)> event_hook{nullptr};

void RecordEvent(int handle, DeviceEventType event, DeviceInfo* device) {
  const DeviceEvent copy{handle, event, *device};
  {
    const StumblingLock lock(events_mutex);
    events.push_back(copy);
  }
  void (*const hook)(const DeviceEvent&) = event_hook;
  if (hook != nullptr) hook(copy);
}

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

}  // namespace

DiscoveryRig::DiscoveryRig(const std::vector<std::string>& interfaces) {
  ClearEvents();
  event_hook = nullptr;
  Require(network_layer::InitializeNetworkLayer() == 0, "InitializeNetworkLayer");
  vex_upnp::utils::Timer::InitializeManager();
  Require(network_layer::StartNetworkLayer() == 0, "StartNetworkLayer");
  if (!interfaces.empty()) {
    Require(network_layer::InitializeNetworkMonitor() == 0, "InitializeNetworkMonitor");
    for (std::string name : interfaces) network_layer::ConfigureNetworkInterface(name, true);
  }
  Require(vex_upnp::cp_discovery::Initialize() == 0, "Initialize");
}

DiscoveryRig::~DiscoveryRig() {
  TerminateDiscovery();
  network_layer::TerminateNetworkMonitor();
  network_layer::StopNetworkLayer();
  vex_upnp::utils::Timer::TerminateManager();
  network_layer::TerminateNetworkLayer();
}

void DiscoveryRig::TerminateDiscovery() {
  if (!terminated_) vex_upnp::cp_discovery::Terminate();
  terminated_ = true;
}

int DiscoveryRig::Register(const std::string& type, const std::string& user_agent) {
  int handle = 0;
  Require(vex_upnp::cp_discovery::RegisterCP(type, user_agent, RecordEvent, &handle) == 0,
          "RegisterCP");
  return handle;
}

std::vector<DeviceEvent> DiscoveryRig::Events() {
  const std::lock_guard<std::mutex> lock(events_mutex);
  return events;
}

std::vector<std::string> DiscoveryRig::EventLog() {
  std::vector<std::string> log;
  for (const DeviceEvent& event : Events()) {
    const bool added = event.event == vex_upnp::cp_discovery::DEVICE_ADDED;
    log.push_back((added ? "+" : "-") + event.device.udn);
  }
  return log;
}

int DiscoveryRig::CountEvents(const std::string& entry) {
  const std::vector<std::string> log = EventLog();
  return static_cast<int>(std::count(log.begin(), log.end(), entry));
}

void DiscoveryRig::ClearEvents() {
  const std::lock_guard<std::mutex> lock(events_mutex);
  events.clear();
}

void DiscoveryRig::OnEvent(void (*hook)(const DeviceEvent&)) { event_hook = hook; }

void DiscoveryRig::Receive(const std::string& datagram, const std::string& ip) {
  boost::shared_ptr<vex_upnp::utils::HTTPInfo> info(new vex_upnp::utils::HTTPInfo);
  const unsigned int size = static_cast<unsigned int>(datagram.size());
  if (vex_upnp::utils::HTTPParser::Parse(datagram.data(), size, info) != 0) return;
  info->SetClientIpAddress(ip);
  vex_upnp::cp_discovery::DiscoveryListener::GetInstance()->OnUDPRequestReceived(info);
}

}  // namespace vex_test

#include "control_point.h"

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>

#include <cstdlib>
#include <memory>

#include "exit_status.h"
#include "host_network.h"

namespace vexcp {

namespace {

namespace fw = vex_upnp::framework_core;
namespace net = vex_upnp::network_layer;

constexpr int kSsdpPort = 1900;
constexpr int kDeviceAdded = 1;

// The plain interface takes lists of plain strings; this one lends it ours.
class TypeList {
 public:
  explicit TypeList(const std::vector<std::string>& types) : types_(types), nodes_(types.size()) {
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      nodes_[i].device_type = types_[i].data();
      nodes_[i].next = i + 1 < nodes_.size() ? &nodes_[i + 1] : nullptr;
    }
  }
  const CPDeviceTypeInfo* head() const { return nodes_.data(); }

 private:
  std::vector<std::string> types_;
  std::vector<CPDeviceTypeInfo> nodes_;
};

std::string NotStarted(const char* step, int code) {
  return std::string("the control point could not start (") + step + " gave " +
         std::to_string(code) + "); run again with VEXUPNPCP_LOG=16 to see why";
}

}  // namespace

ControlPoint* ControlPoint::current_ = nullptr;

ControlPoint::ControlPoint(const StartOptions& options) : types_(options.types), caller_(events_) {
  current_ = this;
  try {
    StartFramework(options);
    Register();
  } catch (...) {
    Stop();
    throw;
  }
}

ControlPoint::~ControlPoint() { Stop(); }

void ControlPoint::StartFramework(const StartOptions& options) {
  RequireInterfaces(options.interfaces);
  if (const int code = fw::InitFrameworkCore(""); code != 0)
    throw Failure(kNotStarted, NotStarted("InitFrameworkCore", code));
  framework_started_ = true;
  // A port of this program's own for the answers to searches: two programs on one port would take
  // each other's. TCP is for events only.
  const int event_port = options.receive_events ? FreeTcpPort() : 0;
  if (const int code = fw::ConfigureServers(event_port, kSsdpPort, FreeUdpPort(), false); code != 0)
    throw Failure(kNotStarted, NotStarted("ConfigureServers", code));
  fw::StartFrameworkCore();
  if (const int code = fw::StartNetworkMonitor(); code != 0)
    throw Failure(kNotStarted, NotStarted("StartNetworkMonitor", code));
  SelectInterfaces(options.interfaces);
  if (const int code = InitializeGenericCP(); code != 0)
    throw Failure(kNotStarted, NotStarted("InitializeGenericCP", code));
  generic_started_ = true;
}

void ControlPoint::SelectInterfaces(const std::vector<std::string>& names) {
  if (names.empty()) fw::ConfigureApplicationOnAllInterfaces();
  for (const std::string& name : names) fw::ConfigureApplicationOnInterface(name.c_str());
}

void ControlPoint::Register() {
  ControlPointCalbacks callbacks{};
  callbacks.device_callback = &ControlPoint::OnDevice;
  const TypeList list(types_);
  if (const int code = RegisterCP(list.head(), &callbacks, &handle_); code != 0)
    throw Failure(kNotStarted, NotStarted("RegisterCP", code));
  net::RegisterNetworkEventListener(this, listener_);
}

void ControlPoint::Stop() {
  if (listener_ >= 0) net::UnRegisterEventListener(listener_);
  if (generic_started_) {
    UnRegisterCP(handle_);
    TerminateGenericCP();
  }
  if (framework_started_) {
    fw::StopNetworkMonitor();
    fw::TerminateFrameworkCore();
  }
  current_ = nullptr;
}

void ControlPoint::OnDevice(int event, CPDeviceInfo* device) {
  current_->events_.Push(
      {event == kDeviceAdded ? DeviceEvent::Kind::kAdded : DeviceEvent::Kind::kRemoved,
       device->udn,
       device->friendly_name,
       device->device_type,
       0,
       0,
       {}});
}

void ControlPoint::OnNetworkChanged(std::string&, net::NicEvent) {
  events_.Push({DeviceEvent::Kind::kInterfacesChanged, {}, {}, {}, 0, 0, {}});
}

std::vector<DeviceRecord> ControlPoint::Devices(const std::string& type) {
  std::vector<DeviceRecord> records;
  CPDeviceInfo* list = nullptr;
  if (GetDeviceList(handle_, type.c_str(), &list) != 0) return records;
  for (const CPDeviceInfo* device = list; device != nullptr; device = device->next)
    if (std::optional<DeviceRecord> details = Details(device->udn))
      records.push_back(std::move(*details));
  if (list != nullptr) FreeDeviceList(list);
  return records;
}

std::optional<DeviceRecord> ControlPoint::Details(const std::string& key) {
  CPDetailedDeviceInfo* info = nullptr;
  if (GetDetailedDeviceInfo(handle_, key.c_str(), &info) != 0) return std::nullopt;
  DeviceRecord record = MakeDeviceRecord(*info);
  FreeDetailedDeviceInfo(info);
  return record;
}

std::optional<std::string> ControlPoint::ServiceDescription(const std::string& key,
                                                            const std::string& service) {
  char* text = nullptr;
  if (GetServiceDescription(handle_, key.c_str(), service.c_str(), &text) != 0) return std::nullopt;
  const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
  return std::string(text);
}

void ControlPoint::Rescan() { RescanNetwork(handle_, nullptr); }

std::optional<DeviceRecord> ControlPoint::FindReady(const std::string& udn) {
  for (DeviceRecord& record : Devices(kAllDevices))
    if (Means(udn, record.key)) return std::make_optional(std::move(record));
  return std::nullopt;
}

DeviceRecord ControlPoint::WaitFor(const std::string& udn, std::chrono::seconds limit) {
  const TimePoint deadline = std::chrono::steady_clock::now() + limit;
  // It may have become ready before the callback was registered.
  std::optional<DeviceRecord> found = FindReady(udn);
  while (!found) {
    const std::optional<DeviceEvent> event = events_.Next(deadline);
    if (!event)
      throw Failure(kNotFound, "no device " + udn + " within " + std::to_string(limit.count()) +
                                   " seconds; \"vexcp discover\" lists those there are, and --wait "
                                   "gives slow ones more time");
    if (event->kind == DeviceEvent::Kind::kAdded && Means(udn, event->key))
      found = Details(event->key);
  }
  return std::move(*found);
}

}  // namespace vexcp

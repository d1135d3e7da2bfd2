#include "src/discovery_hierarchy.h"

#include <utility>
#include <vector>

#include "base/log.h"
#include "src/device_key.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

using DevicePtr = boost::shared_ptr<Device>;

// An embedded device and the one it is embedded in, which outlives the walk.
struct Embedded {
  DevicePtr device;
  const Device* parent;
};

// Last child first, so that the stack gives the first one back first.
void PushChildren(const Device& parent, std::vector<Embedded>& waiting) {
  const auto& children = parent.embedded_devices;
  for (auto child = children.rbegin(); child != children.rend(); ++child) {
    waiting.push_back({*child, &parent});
  }
}

// KEPT: URLBase is not handed down; an embedded device's relative URLs go by the description's own.
void CompleteFromParent(Device& device, const Device& parent) {
  device.interface_ip = parent.interface_ip;
  if (!parent.interface_name.empty()) {
    device.interface_name = parent.interface_name;
    device.udn = MakeDeviceKey(device.udn, parent.interface_name);
  }
  device.ip = parent.ip;
  device.port = parent.port;
  device.base_url = parent.base_url;
  device.description_url = parent.description_url;
  device.description_xml = parent.description_xml;
}

void DropUnlisted(const DeviceList& list, const DevicePtr& root, std::list<DevicePtr>& dropped) {
  std::vector<DevicePtr> waiting(1, root);
  while (!waiting.empty()) {
    std::list<DevicePtr>& children = waiting.back()->embedded_devices;
    waiting.pop_back();
    for (auto child = children.begin(); child != children.end();) {
      const auto current = child++;
      if (list.IsListed(*current)) {
        waiting.push_back(*current);
      } else {
        dropped.splice(dropped.end(), children, current);
      }
    }
  }
}

// Its place in `listed` comes first, so that what is listed can always be taken back.
bool AddAndNote(DeviceList& list, DevicePtr& device, std::list<DevicePtr>& listed) {
  listed.push_back(device);
  if (list.Add(device)) return true;
  listed.pop_back();
  return false;
}

void ListEmbedded(DeviceList& list, const DevicePtr& root, std::list<DevicePtr>& dropped,
                  std::list<DevicePtr>& listed) {
  std::vector<Embedded> waiting;
  PushChildren(*root, waiting);
  while (!waiting.empty()) {
    Embedded next = waiting.back();
    waiting.pop_back();
    if (next.parent != root.get() && next.parent->interface_name.empty()) {
      VEX_LOG(kLogStep, kTag, "interface name not avaliable..NULL");
    }
    CompleteFromParent(*next.device, *next.parent);
    if (!AddAndNote(list, next.device, listed)) {
      DropUnlisted(list, root, dropped);
      break;
    }
    PushChildren(*next.device, waiting);
  }
}

}  // namespace

bool ListDeviceHierarchy(DeviceList& list, DevicePtr& root, std::list<DevicePtr>& dropped,
                         std::list<DevicePtr>& listed) {
  if (!AddAndNote(list, root, listed)) return false;
  try {
    ListEmbedded(list, root, dropped, listed);
  } catch (...) {
    for (const DevicePtr& device : listed) list.Remove(device);
    throw;
  }
  return true;
}

DevicePtr FindEmbeddedDevice(const DevicePtr& root, const std::string& udn) {
  std::vector<Embedded> waiting;
  PushChildren(*root, waiting);
  while (!waiting.empty()) {
    const Embedded next = waiting.back();
    waiting.pop_back();
    if (next.device->udn == udn) return next.device;
    PushChildren(*next.device, waiting);
  }
  return DevicePtr();
}

}  // namespace cp_discovery
}  // namespace vex_upnp

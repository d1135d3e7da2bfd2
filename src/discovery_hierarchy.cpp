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

// Where an embedded device stands in the one it is embedded in.
struct Place {
  DevicePtr parent;
  std::list<DevicePtr>::iterator child;
};

// Last child first, so that the stack gives the first one back first.
void PushChildren(const DevicePtr& parent, std::vector<Place>& waiting) {
  auto& children = parent->embedded_devices;
  for (auto child = children.end(); child != children.begin();) {
    --child;
    waiting.push_back({parent, child});
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
  device.description_held = parent.description_held;
}

// What one description makes shares its text.
bool AreOfOneDescription(const Device& a, const Device& b) {
  return a.description_xml == b.description_xml;
}

void DropUnlisted(const DeviceList& list, const DevicePtr& root, std::list<DevicePtr>& dropped) {
  std::vector<DevicePtr> waiting(1, root);
  while (!waiting.empty()) {
    std::list<DevicePtr>& children = waiting.back()->embedded_devices;
    waiting.pop_back();
    for (auto child = children.begin(); child != children.end();) {
      const auto current = child++;
      if (list.IsListed(*current)) {
        if (AreOfOneDescription(**current, *root)) waiting.push_back(*current);
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

// The record of an earlier description that is listed under the device's key, if there is one.
DevicePtr ListedBefore(const DeviceList& list, const Device& device) {
  DevicePtr listed = list.IsDeviceAdded(device.udn);
  if (listed && AreOfOneDescription(*listed, device)) listed.reset();
  return listed;
}

// A device is listed and told once. One that has outlived the device it was embedded in takes its
// old place in the new tree; no record stands in two trees, so that a walk over one has an end.
void GiveWay(const Place& place, const DevicePtr& listed, std::list<DevicePtr>& dropped) {
  if (!listed->is_embedded || !listed->parent.expired()) {
    dropped.splice(dropped.end(), place.parent->embedded_devices, place.child);
    return;
  }
  dropped.push_back(*place.child);
  *place.child = listed;
  listed->parent = place.parent;
}

void ListEmbedded(DeviceList& list, const DevicePtr& root, std::list<DevicePtr>& dropped,
                  std::list<DevicePtr>& listed) {
  std::vector<Place> waiting;
  PushChildren(root, waiting);
  while (!waiting.empty()) {
    const Place next = waiting.back();
    waiting.pop_back();
    if (next.parent != root && next.parent->interface_name.empty()) {
      VEX_LOG(kLogStep, kTag, "interface name not avaliable..NULL");
    }
    DevicePtr device = *next.child;
    CompleteFromParent(*device, *next.parent);
    if (const DevicePtr before = ListedBefore(list, *device)) {
      GiveWay(next, before, dropped);
      continue;
    }
    if (!AddAndNote(list, device, listed)) {
      DropUnlisted(list, root, dropped);
      break;
    }
    device->is_embedded = true;
    device->parent = next.parent;
    PushChildren(device, waiting);
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
  std::vector<Place> waiting;
  PushChildren(root, waiting);
  while (!waiting.empty()) {
    DevicePtr device = *waiting.back().child;
    waiting.pop_back();
    if (device->udn == udn) return device;
    PushChildren(device, waiting);
  }
  return DevicePtr();
}

}  // namespace cp_discovery
}  // namespace vex_upnp

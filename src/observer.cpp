#include "src/observer.h"

#include "base/log.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

}  // namespace

void Observer::Update(DeviceStatus_ status, boost::shared_ptr<Device>& device) {
  (void)status;
  (void)device;
}

// KEPT: the display name stays empty in events, only GetDeviceList fills it; hosts tell the two
// kinds of record apart by it.
void ControlPoint::Update(DeviceStatus_ status, boost::shared_ptr<Device>& device) {
  if (!device) {
    VEX_LOG(kLogStep, kTag, "DevicePtr NULL");
    return;
  }
  if (callback_ == nullptr) return;
  DeviceInfo info = MakeDeviceInfo(*device);
  callback_(GetId(), status, &info);
}

DeviceInfo MakeDeviceInfo(const Device& device) {
  DeviceInfo info;
  info.friendly_name = device.friendly_name;
  info.udn = device.udn;
  info.device_type = device.device_type;
  info.interface_name = device.interface_name;
  for (const auto& icon : device.icons) {
    info.icons.push_back({icon->mimetype, icon->url, icon->width, icon->height, icon->depth});
  }
  return info;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

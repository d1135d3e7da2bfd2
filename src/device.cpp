#include "src/device.h"

namespace vex_upnp {
namespace cp_discovery {

namespace {

// Devices that the destructor at work on this thread still has to let go.
thread_local std::list<boost::shared_ptr<Device>>* released_devices = nullptr;

}  // namespace

Device::~Device() {
  if (released_devices != nullptr) {
    // The outermost destructor lets the children go, so that a chain of owners as deep as a hostile
    // description makes it needs no more stack than one device.
    released_devices->splice(released_devices->end(), embedded_devices);
    return;
  }
  std::list<boost::shared_ptr<Device>> released;
  released.swap(embedded_devices);
  released_devices = &released;
  while (!released.empty()) released.pop_front();
  released_devices = nullptr;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

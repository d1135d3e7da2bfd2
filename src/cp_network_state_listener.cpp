#include "src/cp_network_state_listener.h"

#include <memory>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/cp_discovery_manager.h"
#include "src/device_list.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

// KEPT: devices that were met on no interface in particular go with every one.
void RemoveDevicesOf(CPDiscoveryManager& manager, const std::string& interface_name) {
  boost::lock_guard<boost::recursive_mutex> delivery(manager.delivery_mutex());
  std::unique_ptr<DeviceList::Devices> removed;
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    removed = list->RemoveAndGetDevicesByInterface(interface_name);
  }
  for (const boost::shared_ptr<Device>& device : *removed) {
    VEX_LOG(kLogDetail, kTag, "For Remove - Device Interface IP [%s], Name [%s]",
            device->interface_ip.c_str(), device->interface_name.c_str());
    manager.RemoveNowRequestingByUdn(device->udn);
    // A control point hears of a device's end only if it was told of its beginning.
    if (device->services_ready) manager.NotifyToDeviceChangeListener(DEVICE_REMOVED, device);
  }
}

// Forgetting what is under way also opens the guard of global searches, so that the new search
// cannot be turned away.
void SearchAnew(CPDiscoveryManager& manager) {
  manager.CancelRescanTimers();
  manager.RescanForRegisteredCP();
}

template <typename Step>
void Guarded(Step step) {
  try {
    step();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in OnNetworkChanged: %s",
                        "Unknown Exception in OnNetworkChanged");
  }
}

}  // namespace

std::atomic<CPNetworkStateListener*> CPNetworkStateListener::instance_{nullptr};
boost::mutex& CPNetworkStateListener::singleton_mutex_ = *new boost::mutex;

CPNetworkStateListener* CPNetworkStateListener::GetInstance() {
  return GetOrCreate(instance_, singleton_mutex_, [] { return new CPNetworkStateListener; });
}

void CPNetworkStateListener::DestroyInstance() { Destroy(instance_, singleton_mutex_); }

void CPNetworkStateListener::OnNetworkChanged(std::string& interface_name,
                                              network_layer::NicEvent event) {
  VEX_LOG(kLogMajor, kTag, "Received NIC change event [%d] for [%s]", static_cast<int>(event),
          interface_name.c_str());
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;
  switch (event) {
    case network_layer::NIC_ADDED:
      Guarded([&] { SearchAnew(*manager); });
      return;
    case network_layer::NIC_REMOVED:
      Guarded([&] { RemoveDevicesOf(*manager, interface_name); });
      return;
    case network_layer::NIC_IPCHANGED:
      // Each by itself: a removal that failed is no reason not to search.
      Guarded([&] { RemoveDevicesOf(*manager, interface_name); });
      Guarded([&] { SearchAnew(*manager); });
      return;
  }
  VEX_LOG(kLogMajor, kTag, "Unknown change in network!");
}

}  // namespace cp_discovery
}  // namespace vex_upnp

#include "src/discovery_delivery.h"

#include <boost/shared_ptr.hpp>

#include "src/cp_discovery_manager.h"

namespace vex_upnp {
namespace cp_discovery {

void WaitForDelivery() {
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (manager) manager->WaitForDelivery();
}

}  // namespace cp_discovery
}  // namespace vex_upnp

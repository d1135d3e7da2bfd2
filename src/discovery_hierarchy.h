#ifndef VEXUPNPCP_SRC_DISCOVERY_HIERARCHY_H_
#define VEXUPNPCP_SRC_DISCOVERY_HIERARCHY_H_

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include "src/device.h"
#include "src/device_list.h"

namespace vex_upnp {
namespace cp_discovery {

// A description's devices: the root and what is embedded in it, to any depth, so nothing here
// recurses.

// Lists a root device and every device embedded in it, parents first, after completing the embedded
// ones from their parents. With the device list's mutex held. False when there is no room for the
// root; embedded devices without room leave the tree and go to `dropped`, to be destroyed when the
// mutex has been released, and so do those whose key another description's device has already.
// `listed` receives what was listed. When it throws, nothing is listed.
bool ListDeviceHierarchy(DeviceList& list, boost::shared_ptr<Device>& root,
                         std::list<boost::shared_ptr<Device>>& dropped,
                         std::list<boost::shared_ptr<Device>>& listed);

// The first device below `root`, parents first, that has this key; null without one.
boost::shared_ptr<Device> FindEmbeddedDevice(const boost::shared_ptr<Device>& root,
                                             const std::string& udn);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DISCOVERY_HIERARCHY_H_

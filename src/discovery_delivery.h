#ifndef VEXUPNPCP_SRC_DISCOVERY_DELIVERY_H_
#define VEXUPNPCP_SRC_DISCOVERY_DELIVERY_H_

namespace vex_upnp {
namespace cp_discovery {

// After this has returned, no notification of control points that began before it is still running
// on another thread: the observers' delivery is taken and let go once. For whoever must say "no
// further device event" while his registration with discovery stands. To be called with no lock
// held, and not from inside a callback of the host. Does nothing while discovery is not running,
// and builds nothing.
void WaitForDelivery();

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DISCOVERY_DELIVERY_H_

#ifndef VEXUPNPCP_SRC_EVENT_DELIVERY_H_
#define VEXUPNPCP_SRC_EVENT_DELIVERY_H_

namespace vex_upnp {
namespace cp_control {

// After this has returned, no event that began before it is still being told on another thread. For
// whoever must say "no further event" of a subscription that its own callback has ended: no record
// is left of it to wait for. To be called with no lock held, and not from inside a callback of the
// host. Does nothing while control is not running, and builds nothing.
void WaitForEvents();

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_EVENT_DELIVERY_H_

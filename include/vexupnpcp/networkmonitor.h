#ifndef VEXUPNPCP_NETWORKMONITOR_H_
#define VEXUPNPCP_NETWORKMONITOR_H_

#include <string>
#include <vector>

#include <vexupnpcp/export.h>
#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>

namespace vex_upnp {
namespace network_layer {

// The IPv4 interfaces of this machine, which of them are to be served, and what happens to them.
//
// An interface is available while it is up and running with an address that does not begin with
// "127.0.0". It is selected when the application wants it served, whether it is up or not. It is
// active when it is both. Up to 32 addresses are seen, the loopback's included.
//
// All functions may be called from any thread between InitializeNetworkLayer and
// TerminateNetworkLayer; outside of that they do nothing and give the failure value told for each.

/// Copies the available interfaces, in the order in which they were found.
///
/// @param interfaces  Overwritten; null does nothing.
VEX_EXPORT void GetNetworkInterfaces(std::vector<NetInfo>* interfaces);

/// Appends the active interfaces, in the order in which they were found.
///
/// @param interfaces  Not cleared first; null does nothing.
VEX_EXPORT void GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>* interfaces);

/// The available interface of exactly this name.
///
/// @param info  Written on success only.
/// @return result::kOk; result::kFailure when there is none.
VEX_EXPORT int GetNetworkInterface(const std::string& name, NetInfo& info);

/// The available interface of exactly this address.
///
/// @param info  Written on success only.
/// @return result::kOk; result::kFailure when there is none.
VEX_EXPORT int GetNetworkInterfaceByIP(const std::string& ip, NetInfo& info);

/// Selects an interface or takes the selection back. When the interface is available the servers
/// have followed on return, and listeners are told NIC_ADDED or NIC_REMOVED; one that is not up yet
/// is told of when it comes.
///
/// @return 1 (result::kYes) whatever became of it; 0 outside the layer's life.
VEX_EXPORT int ConfigureNetworkInterface(std::string& name, const bool& enable);

/// Whether interfaces that are found from now on are selected by themselves. What is selected
/// already stays so. Interfaces that are known and up by then are selected at the next look too,
/// but without an event and without servers: name them to ConfigureNetworkInterface first.
///
/// @return 1 (result::kYes); 0 outside the layer's life.
VEX_EXPORT int ConfigureOnAllNetworkInterfaces(const bool& enable);

/// Starts to watch the interfaces. The first look is taken on the caller's thread: on return they
/// are known and their events raised. Then a thread looks every 2 seconds.
///
/// @return result::kOk, also when it watches already; result::kFailure outside the layer's life.
VEX_EXPORT int InitializeNetworkMonitor();

/// Ends watching and joins the thread. A change that is being told of is told to its end.
///
/// @return result::kOk, also when nothing is watched; result::kFailure outside the layer's life.
VEX_EXPORT int TerminateNetworkMonitor();

/// Registers for interface changes: of selected interfaces only, and only those to come.
///
/// @param listener  Stays the caller's, and must live until UnRegisterEventListener has returned.
/// @param id        Receives an id from 0 up, or -1.
/// @return result::kOk; result::kNullListener; result::kFailure outside the layer's life.
/// Called back on a "VexNetiIo" thread, one call at a time and in order, after the servers have
/// followed the change.
VEX_EXPORT int RegisterNetworkEventListener(NetworkEventListener* listener, int& id);

/// Ends a registration; an unknown id does nothing. Waits for a call that is running, so it must
/// not be called from inside a call of that listener nor with a lock held that the listener takes.
/// No call reaches the listener after it has returned.
VEX_EXPORT void UnRegisterEventListener(const int& id);

/// A host that watches the links itself reports a new interface, which is thereby selected.
/// Listeners are told NIC_ADDED, unless the name is known already: then only the selection counts.
///
/// @param name  None of the three may be empty.
/// @param ip    Dotted decimal.
/// @param mask  Dotted decimal.
/// @return result::kOk; result::kFailure for an empty text.
VEX_EXPORT int NotifyNICAdded(const std::string& name, const std::string& ip,
                              const std::string& mask);

/// A host reports the loss of an interface. Its selection stays. Listeners are told NIC_REMOVED
/// when it was active.
///
/// @return result::kOk, also for a name that is not available; result::kFailure for an empty one.
VEX_EXPORT int NotifyNICRemoved(const std::string& name);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORKMONITOR_H_

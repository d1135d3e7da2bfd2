#ifndef VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_
#define VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_

#include <string>

#include <vexupnpcp/export.h>

/// Start and stop of the whole library. What holds for all of its functions:
///
/// 1. Order. `InitFrameworkCore`, `ConfigureServers`, `StartFrameworkCore`, `StartNetworkMonitor`,
///    `ConfigureApplicationOnAllInterfaces` (or `ConfigureApplicationOnInterface` for each wanted
///    one), then the control point of generic_cp.h. The end is the mirror: `TerminateGenericCP`,
///    `StopNetworkMonitor`, `TerminateFrameworkCore`. A wrong order does no harm; the code tells it
///    except where told.
/// 2. Threads. The functions may be called from any thread of the host, but those that start or
///    end something wait for each other, and ending joins the library's threads: call none of
///    `InitFrameworkCore` to `StopNetworkMonitor` from inside a callback.
/// 3. Results are the constants of result_codes.h, 0 (kOk) for success. Nothing throws.
/// 4. Lists come from malloc and go back by the function that the comment names.
namespace vex_upnp {
namespace framework_core {

/// What InitializeUPnP starts. Values outside this list start nothing.
enum eInitType : int {
  /// No profile runs. This value and the two above it are refused.
  INIT_TYPE_NONE = -1,
  /// Discovery only.
  INIT_TYPE_CP_DISCOVERY = 3,
  /// A full control point: discovery, actions and events.
  INIT_TYPE_CP = 5,
  /// Starts nothing either, yet ConfigureAutoRescanFeature accepts it.
  INIT_TYPE_CP_EXTENDED = 6
};

/// One interface; a list through `next`, released with FreeInterfaceList.
struct NetworkInfo {
  /// The interface's name, null when there was no memory for it.
  char* name;
  /// Its IPv4 address in dotted form, null when there was no memory for it.
  char* ip;
  /// The next interface, null at the end.
  NetworkInfo* next;
};

/// Builds the network layer and the timer service and starts their threads.
///
/// The first call of a host. It also looks anew for the platform's log sink.
/// @param unused  Not read.
/// @return 0, also when threads could not be had, which is only logged;
///         VX_FC_ALREADY_INITIALIZED; kFailure when the network layer could not be built (the call
///         may be repeated).
VEX_EXPORT int InitFrameworkCore(const std::string& unused);

/// Marks the framework as started, which ConfigureMulticastSupport asks for.
///
/// @return 0, also when it was started before; VX_FC_UNINITIALIZED before InitFrameworkCore.
VEX_EXPORT int StartFrameworkCore();

/// Takes the mark of StartFrameworkCore away. The threads go on until TerminateFrameworkCore.
///
/// @return 0; VX_FC_UNINITIALIZED when the framework was not started.
VEX_EXPORT int StopFrameworkCore();

/// Ends everything: the network's threads, discovery and control, the timer service, the network
/// layer. All threads and descriptors of the library are gone when it returns, save for streaming
/// that the host itself still holds.
///
/// TerminateGenericCP comes before it. Not from inside a callback. While a host's name is being
/// looked up, it may wait for as long as the system's resolver takes.
/// @return 0; VX_FC_UNINITIALIZED before InitFrameworkCore; kFailure from the network layer.
VEX_EXPORT int TerminateFrameworkCore();

/// Starts a profile. InitializeGenericCP does this for a host of generic_cp.h.
///
/// @param type  INIT_TYPE_CP or INIT_TYPE_CP_DISCOVERY. A value that stands for nothing is stored
///              and started as nothing, with result 0.
/// @return 0; VX_FC_UNINITIALIZED before InitFrameworkCore; VX_FC_ALREADY_INITIALIZED when one
///         runs already; kFailure for a refused type; kFailure or kOutOfMemory when discovery
///         could not be started. After that the profile counts as running until TerminateUPnP.
VEX_EXPORT int InitializeUPnP(eInitType type);

/// Ends the profile, if one runs.
///
/// Not from inside a callback: it waits for those that run.
/// @return Always 0.
VEX_EXPORT int TerminateUPnP();

/// Opens the servers, now for the selected interfaces and later for each one that is selected.
///
/// Needed: InitFrameworkCore. A port of 0 leaves that kind out. The first failure ends the call;
/// what was configured before it stays.
/// @param tcpPort         Receives events (GENA). A taken port is no failure, the next free one
///                        of a hundred is used.
/// @param multicastPort   Port of the SSDP group 239.255.255.250; 1900 is the protocol's (UPnP
///                        Device Architecture 1.0).
/// @param udpPort         Receives answers to searches; a taken one is treated as with tcpPort.
/// @param otherMulticast  Also opens the group 239.255.255.177 on multicastPort.
/// @return 0; VX_FC_UNINITIALIZED; kBindFailed when a TCP server did not start; kFailure. A
///         multicast or UDP server that does not start is only logged.
VEX_EXPORT int ConfigureServers(int tcpPort, int multicastPort, int udpPort, bool otherMulticast);

/// Starts the scan of the interfaces, every two seconds.
///
/// @return 0, also when there was no thread for it, which is only logged: the interfaces have then
///         been looked at once, and a repeated call tries again; VX_FC_UNINITIALIZED; kFailure from
///         the network layer.
VEX_EXPORT int StartNetworkMonitor();

/// Ends the scan. Allowed in any state.
///
/// @return 0; kFailure from the network layer.
VEX_EXPORT int StopNetworkMonitor();

/// Selects every interface, those that appear later included.
///
/// Needed: InitFrameworkCore; before it the call does nothing and gives 0.
/// @return 0; kFailure only for want of memory.
VEX_EXPORT int ConfigureApplicationOnAllInterfaces();

/// Selects one interface, which need not be there yet.
///
/// Needed: InitFrameworkCore; before it the call does nothing and gives 0.
/// @param interfaceName  As the kernel names it, "eth0"; null selects nothing.
/// @return 0; kFailure only for want of memory.
VEX_EXPORT int ConfigureApplicationOnInterface(const char* interfaceName);

/// Lists the interfaces that are selected and up.
///
/// @param list  Points at a null pointer, which receives the list; released with FreeInterfaceList.
/// @return 0; kFailure for a null argument, a pointer that is not null (left untouched), when no
///         interface is up, and when there is no memory. After that last failure the pointer's
///         value is of no use: it may neither be read through nor be freed.
VEX_EXPORT int GetAvailableNetworkInterfaces(NetworkInfo** list);

/// Releases a list from GetAvailableNetworkInterfaces.
///
/// @param list  The head of the list; null is ignored.
VEX_EXPORT void FreeInterfaceList(NetworkInfo* list);

/// Sets the USER-AGENT of requests for which no own one was given.
///
/// Needed: a running profile, else the call is logged and has no effect.
/// @param agent  Text of the header. With an empty one, as at the start, actions, subscriptions and
///               most device descriptions are asked for under a built-in name, service descriptions
///               with an empty header (cp_discovery.h).
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);

/// Reads what SetDefaultUserAgent stored.
///
/// @param agent  Receives the text; left as it was when no profile runs.
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);

/// Opens or closes the multicast servers while the rest goes on, as for a set in standby.
///
/// Needed: StartFrameworkCore. Announcements are missed meanwhile. Opening them starts a search for
/// each concrete type registered with cp_discovery; a host of generic_cp.h calls RescanNetwork
/// itself.
/// @return 0; VX_FC_UNINITIALIZED when the framework is not started; the network layer's code.
VEX_EXPORT int ConfigureMulticastSupport(bool enable);

/// Turns the automatic search on or off, which looks every 60 s for the concrete types registered
/// with cp_discovery. The plain functions register none, so it does nothing for a host of
/// generic_cp.h alone.
///
/// Needed: a running profile.
/// @return 0; VX_FC_UNINITIALIZED when no profile runs.
VEX_EXPORT int ConfigureAutoRescanFeature(bool enable);

/// Tells the library of an interface that the host found by itself.
///
/// @param name  The interface's name.
/// @param ip    Its IPv4 address in dotted form.
/// @param mask  Its network mask in dotted form.
/// @return The result of network_layer::NotifyNICAdded.
VEX_EXPORT int NotifyNICAdded(const std::string& name, const std::string& ip,
                              const std::string& mask);

/// Tells the library that an interface is gone.
///
/// @param name  The interface's name.
/// @return The result of network_layer::NotifyNICRemoved.
VEX_EXPORT int NotifyNICRemoved(const std::string& name);

}  // namespace framework_core
}  // namespace vex_upnp

#endif  // VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_

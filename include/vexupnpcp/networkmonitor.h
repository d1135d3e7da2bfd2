#ifndef VEXUPNPCP_NETWORKMONITOR_H_
#define VEXUPNPCP_NETWORKMONITOR_H_

#include <string>
#include <vector>

#include <vexupnpcp/export.h>
#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>

namespace vex_upnp {
namespace network_layer {

VEX_EXPORT void GetNetworkInterfaces(std::vector<NetInfo>* interfaces);
VEX_EXPORT void GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>* interfaces);
VEX_EXPORT int GetNetworkInterface(const std::string& name, NetInfo& info);
VEX_EXPORT int GetNetworkInterfaceByIP(const std::string& ip, NetInfo& info);
VEX_EXPORT int ConfigureNetworkInterface(std::string& name, const bool& enable);
VEX_EXPORT int ConfigureOnAllNetworkInterfaces(const bool& enable);

VEX_EXPORT int InitializeNetworkMonitor();
VEX_EXPORT int TerminateNetworkMonitor();
VEX_EXPORT int RegisterNetworkEventListener(NetworkEventListener* listener, int& id);
VEX_EXPORT void UnRegisterEventListener(const int& id);
VEX_EXPORT int NotifyNICAdded(const std::string& name, const std::string& ip,
                              const std::string& mask);
VEX_EXPORT int NotifyNICRemoved(const std::string& name);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORKMONITOR_H_

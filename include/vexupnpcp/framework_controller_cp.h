#ifndef VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_
#define VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace framework_core {

enum eInitType : int { INIT_TYPE_NONE = -1, INIT_TYPE_CP_DISCOVERY = 3, INIT_TYPE_CP = 5 };

struct NetworkInfo {
  char* name;
  char* ip;
  NetworkInfo* next;
};

VEX_EXPORT int InitFrameworkCore(const std::string& unused);
VEX_EXPORT int StartFrameworkCore();
VEX_EXPORT int StopFrameworkCore();
VEX_EXPORT int TerminateFrameworkCore();
VEX_EXPORT int InitializeUPnP(eInitType type);
VEX_EXPORT int TerminateUPnP();
VEX_EXPORT int ConfigureServers(int tcpPort, int multicastPort, int udpPort, bool otherMulticast);
VEX_EXPORT int StartNetworkMonitor();
VEX_EXPORT int StopNetworkMonitor();
VEX_EXPORT int ConfigureApplicationOnAllInterfaces();
VEX_EXPORT int ConfigureApplicationOnInterface(const char* interfaceName);
VEX_EXPORT int GetAvailableNetworkInterfaces(NetworkInfo** list);
VEX_EXPORT void FreeInterfaceList(NetworkInfo* list);
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);
VEX_EXPORT int ConfigureMulticastSupport(bool enable);
VEX_EXPORT int ConfigureAutoRescanFeature(bool enable);
VEX_EXPORT int NotifyNICAdded(const std::string& name, const std::string& ip,
                              const std::string& mask);
VEX_EXPORT int NotifyNICRemoved(const std::string& name);

}  // namespace framework_core
}  // namespace vex_upnp

#endif  // VEXUPNPCP_FRAMEWORK_CONTROLLER_CP_H_

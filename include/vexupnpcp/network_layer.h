#ifndef VEXUPNPCP_NETWORK_LAYER_H_
#define VEXUPNPCP_NETWORK_LAYER_H_

#include <list>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>

namespace vex_upnp {
namespace network_layer {

// Life of the layer.
VEX_EXPORT int InitializeNetworkLayer();
VEX_EXPORT int StartNetworkLayer();
VEX_EXPORT int StopNetworkLayer();
VEX_EXPORT int TerminateNetworkLayer();

// Servers.
VEX_EXPORT int ConfigureTCPServer(const int& port, const bool& enable);
VEX_EXPORT int ConfigureUDPServer(const int& port, const bool& enable);
VEX_EXPORT int ConfigureUPnPMulticastServer(const int& port, const bool& enable);
VEX_EXPORT int ConfigureMulticastServer(const std::string& group, const int& port,
                                        const bool& enable);
VEX_EXPORT int ConfigureMulticastSupport(bool enable);
VEX_EXPORT int GetConfiguredTcpPorts(std::list<boost::shared_ptr<IpInfo>>& list);
VEX_EXPORT int SendResponsePacket(std::string* data, const int& length, void* session_context);
VEX_EXPORT int SendSyncResponsePacket(const std::string& data, const int& length,
                                      void* session_context);
VEX_EXPORT int SendBinaryResponsePacket(char* data, const int& length, void* session_context);

// Client side.
VEX_EXPORT int SendMulticastPacket(const std::string& ip, const std::string& interface_ip,
                                   const std::string& data, const int& length);
VEX_EXPORT int SendUDPPacket(const std::string& ip, const int& port, const std::string& data,
                             const int& length);
VEX_EXPORT int SendTCPHTTPPacket(const std::string& ip, const int& port, const std::string& data,
                                 const int& length,
                                 const boost::shared_ptr<ResponseListener>& listener,
                                 int& session_id);
VEX_EXPORT int CancelTCPHTTPPacket(const int& session_id);
VEX_EXPORT int SendSyncTCPPacket(const std::string& ip, const int& port, const std::string& data,
                                 const int& length, boost::shared_ptr<utils::HTTPInfo>& response,
                                 int timeout);

// Listeners.
VEX_EXPORT int RegisterTCPRequestListener(std::vector<std::string> patterns,
                                          boost::shared_ptr<TCPRequestListener> listener, int& id);
VEX_EXPORT int RegisterUDPRequestListener(std::vector<std::string> patterns,
                                          boost::shared_ptr<UDPRequestListener> listener, int& id);
VEX_EXPORT int UnRegisterRequestListener(const int& id);

// Addresses.
VEX_EXPORT bool IsLocalMachine(const std::string& ip);
VEX_EXPORT bool IsInterfaceExisting(const std::string& ip, const std::string& name);
VEX_EXPORT bool IsSameSubnet(const std::string& ip1, const std::string& ip2, std::string& mask);
VEX_EXPORT int GetOutgoingIPaddress(const std::string& peer_ip, std::string& local_ip);
VEX_EXPORT int GetMacAddress(const std::string& ip, std::string& mac);
VEX_EXPORT int IsReachable(std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
                           int timeout, boost::unique_lock<boost::mutex>& lock,
                           boost::condition_variable& condition, bool& stop);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORK_LAYER_H_

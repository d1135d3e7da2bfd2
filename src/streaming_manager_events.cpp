// How streaming's servers follow the interfaces that come and go.

#include <algorithm>
#include <list>
#include <string>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "src/streaming_manager.h"
#include "src/streaming_server.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;
using network_layer::NetInfo;
using ServerLock = boost::lock_guard<boost::recursive_mutex>;

void StreamingManager::OnNetworkChanged(std::string& name, network_layer::NicEvent event) {
  VEX_LOG(kLogMajor, kTagStreaming, "NW event arrived for interface name %s", name.c_str());
  if (event == network_layer::NIC_REMOVED) {
    StopStreamingServers(name);
    return;
  }
  if (event != network_layer::NIC_ADDED && event != network_layer::NIC_IPCHANGED) return;
  NetInfo interface;
  if (network_layer::GetNetworkInterface(name, interface) != result::kOk) {
    VEX_LOG(kLogMajor, kTagStreaming, "Network Info Not found for interface %s", name.c_str());
    return;
  }
  ConfigureStreamingServers(name, interface.ip_address);
}

void StreamingManager::StopStreamingServers(const std::string& interface) {
  ServerLock lock(m_server_list_mutex_);
  // Copies: the callback may change both lists.
  const std::list<Configuration> configurations = m_configurations_;
  for (const Configuration& configuration : configurations) {
    const std::list<boost::shared_ptr<TCPServer>> servers = configuration->servers;
    for (const boost::shared_ptr<TCPServer>& server : servers) {
      // A callback may have stopped what was next.
      if (!__IsListed(configuration)) break;
      if (server->GetInterfaceName() != interface) continue;
      VEX_LOG(kLogMajor, kTagStreaming, "Sending Network Notification to profile");
      configuration->callbacks->on_status(server->GetServerId(), 0, STREAMING_SERVER_STOPPED);
      server->Stop();
      __DropServer(*configuration, server);
    }
  }
}

// KEPT: by name, not by address. A server on an interface whose address changed stays bound to the
// old one until the interface goes.
bool StreamingManager::_IsServerRunning(const configuration_server_info& configuration,
                                        const std::string& interface) {
  return std::any_of(configuration.servers.begin(), configuration.servers.end(),
                     [&](const boost::shared_ptr<TCPServer>& server) {
                       return server->GetInterfaceName() == interface;
                     });
}

void StreamingManager::ConfigureStreamingServers(const std::string& interface,
                                                 const std::string& ip) {
  ServerLock lock(m_server_list_mutex_);
  const std::list<Configuration> configurations = m_configurations_;
  for (const Configuration& configuration : configurations) {
    const bool wanted = configuration->name == kAllInterfaces || configuration->name == interface;
    if (!wanted || _IsServerRunning(*configuration, interface)) continue;
    // A callback may have stopped what was next.
    if (!__IsListed(configuration)) continue;
    int port = configuration->port;
    const int server_id = m_server_id_;
    const boost::shared_ptr<TCPServer> server =
        __MakeServer(configuration->callbacks.get(), ip, interface, port);
    ++m_server_id_;
    if (!__StartServer(*configuration, server, port)) {
      VEX_LOG(kLogMajor, kTagStreaming, "Not able to start TCP server!");
      VEX_LOG(kLogMajor, kTagStreaming, "Not able to start TCP on interface %s", ip.c_str());
      continue;
    }
    configuration->callbacks->on_status(server_id, 0, STREAMING_SERVER_STARTED);
  }
}

}  // namespace streaming
}  // namespace vex_upnp

#include <vexupnpcp/network_layer.h>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "src/callbackhandler.h"
#include "src/clientmanager.h"
#include "src/networkinterface.h"
#include "src/servermanager.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
// Fixed numbers, not settings.
constexpr int kTcpServerThreads = 3;
constexpr int kUdpServerThreads = 1;
constexpr int kMulticastServerThreads = 1;
constexpr int kClientThreads = 3;

// The edge of the layer: nothing is thrown at whoever uses it.
template <typename Call>
int Guarded(const LogSite& site, Call call) {
  try {
    return call();
  } catch (...) {
    LogCurrentException(site, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    return result::kFailure;
  }
}

// Forwards to a singleton; without it, before and after the layer's life, the result is a failure.
template <typename Singleton, typename Call>
int Forward(const LogSite& site, Call call) {
  return Guarded(site, [&]() -> int {
    const boost::shared_ptr<Singleton> instance = Singleton::ExistingInstance();
    return instance ? call(*instance) : result::kFailure;
  });
}

// Hands a result on, and tells the log when it is a failure.
int LogFailure(const LogSite& site, int outcome, const char* text) {
  if (outcome != result::kOk && log::IsOpen()) log::WriteLine(site, kLogMajor, kTag, "%s", text);
  return outcome;
}

}  // namespace

int InitializeNetworkLayer() {
  return Guarded(VEX_LOG_SITE, [] {
    CallBackHandler::GetInstance();
    if (!ServerManager::GetInstance()) return result::kFailure;
    if (!ClientManager::GetInstance()) return result::kFailure;
    NetworkInterface::GetInstance();
    return result::kOk;
  });
}

int StartNetworkLayer() {
  const LogSite site = VEX_LOG_SITE;
  return Guarded(site, [&site] {
    const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
    if (!handler) {
      VEX_LOG_AT(site, kLogMajor, kTag, "Error: CallBackHandler is NULL!");
      return result::kFailure;
    }
    handler->StartCallbackThreads();
    const boost::shared_ptr<ServerManager> servers = ServerManager::ExistingInstance();
    if (!servers) {
      VEX_LOG_AT(site, kLogMajor, kTag, "Error: ServerManager is NULL!");
      return result::kFailure;
    }
    servers->StartServerThreads(kTcpServerThreads, kUdpServerThreads, kMulticastServerThreads);
    const boost::shared_ptr<ClientManager> clients = ClientManager::ExistingInstance();
    if (!clients) {
      VEX_LOG_AT(site, kLogMajor, kTag, "Error: ClientManager is NULL!");
      return result::kFailure;
    }
    clients->StartClientThreads(kClientThreads);
    return result::kOk;
  });
}

int StopNetworkLayer() {
  const LogSite site = VEX_LOG_SITE;
  return Guarded(site, [&site] {
    VEX_LOG_AT(site, kLogStep, kTag, "1: Calling StopClientThreads");
    const boost::shared_ptr<ClientManager> clients = ClientManager::ExistingInstance();
    if (clients) clients->StopClientThreads();
    VEX_LOG_AT(site, kLogStep, kTag, "2: StopClientThreads done");
    VEX_LOG_AT(site, kLogStep, kTag, "3: Calling StopServerThreads");
    const boost::shared_ptr<ServerManager> servers = ServerManager::ExistingInstance();
    if (servers) servers->StopServerThreads();
    VEX_LOG_AT(site, kLogStep, kTag, "4: Calling Stopcallback handler threads");
    const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
    if (handler) handler->StopCallbackThreads();
    return result::kOk;
  });
}

int TerminateNetworkLayer() {
  const LogSite site = VEX_LOG_SITE;
  return Guarded(site, [&site] {
    NetworkInterface::DestroyInstance();
    VEX_LOG_AT(site, kLogStep, kTag, "NetworkInterface Destroyed");
    ClientManager::DestroyInstance();
    ServerManager::DestroyInstance();
    VEX_LOG_AT(site, kLogStep, kTag, "ServerManager Destroyed");
    CallBackHandler::DestroyInstance();
    VEX_LOG_AT(site, kLogStep, kTag, "CallBackHandler Destroyed, Exit");
    return result::kOk;
  });
}

int ConfigureTCPServer(const int& port, const bool& enable) {
  return Forward<ServerManager>(VEX_LOG_SITE, [&](ServerManager& servers) {
    return servers.ConfigureTcpServer(port, enable);
  });
}

int ConfigureUDPServer(const int& port, const bool& enable) {
  const int outcome = Forward<ServerManager>(VEX_LOG_SITE, [&](ServerManager& servers) {
    return servers.ConfigureUdpServer(port, enable);
  });
  return LogFailure(VEX_LOG_SITE, outcome, "ServerManager: ConfigureUdpServer failed");
}

int ConfigureUPnPMulticastServer(const int& port, const bool& enable) {
  return Forward<ServerManager>(VEX_LOG_SITE, [&](ServerManager& servers) {
    return servers.ConfigureUPnPMulticastServer(port, enable);
  });
}

int ConfigureMulticastServer(const std::string& group, const int& port, const bool& enable) {
  return Forward<ServerManager>(VEX_LOG_SITE, [&](ServerManager& servers) {
    return servers.ConfigureMulticastServer(group, port, enable);
  });
}

int ConfigureMulticastSupport(bool enable) {
  const int outcome = Forward<ServerManager>(VEX_LOG_SITE, [&](ServerManager& servers) {
    return servers.ConfigureMulticastSupport(enable);
  });
  if (outcome != result::kOk) return outcome;
  return Forward<ClientManager>(VEX_LOG_SITE, [&](ClientManager& clients) {
    return clients.ConfigureMulticastSupport(enable);
  });
}

int GetConfiguredTcpPorts(std::list<boost::shared_ptr<IpInfo>>& list) {
  return Forward<ServerManager>(
      VEX_LOG_SITE, [&](ServerManager& servers) { return servers.GetConfiguredTcpPorts(list); });
}

// The three below work without an instance: whatever becomes of the layer, an answer uses up its
// session context.

int SendResponsePacket(std::string* data, const int& length, void* session_context) {
  return Guarded(VEX_LOG_SITE,
                 [&] { return ServerManager::SendResponsePacket(data, length, session_context); });
}

int SendSyncResponsePacket(const std::string& data, const int& length, void* session_context) {
  return Guarded(VEX_LOG_SITE, [&] {
    return ServerManager::SendSyncResponsePacket(data, length, session_context);
  });
}

int SendBinaryResponsePacket(char* data, const int& length, void* session_context) {
  return Guarded(VEX_LOG_SITE, [&] {
    return ServerManager::SendBinaryResponsePacket(data, length, session_context);
  });
}

// The length that goes with outgoing data is not looked at: the whole string is sent.

int SendMulticastPacket(const std::string& ip, const std::string& interface_ip,
                        const std::string& data, const int&) {
  return Forward<ClientManager>(VEX_LOG_SITE, [&](ClientManager& clients) {
    return clients.SendMulticastPacket(ip, interface_ip, data);
  });
}

int SendUDPPacket(const std::string& ip, const int& port, const std::string& data, const int&) {
  return Forward<ClientManager>(VEX_LOG_SITE, [&](ClientManager& clients) {
    return clients.SendUnicastPacket(ip, port, data);
  });
}

int SendTCPHTTPPacket(const std::string& ip, const int& port, const std::string& data, const int&,
                      const boost::shared_ptr<ResponseListener>& listener, int& session_id) {
  return Forward<ClientManager>(VEX_LOG_SITE, [&](ClientManager& clients) {
    return clients.SendTCPPacket(ip, port, data, listener, session_id);
  });
}

int CancelTCPHTTPPacket(const int& session_id) {
  return Forward<ClientManager>(
      VEX_LOG_SITE, [&](ClientManager& clients) { return clients.CancelTcpPacket(session_id); });
}

int SendSyncTCPPacket(const std::string& ip, const int& port, const std::string& data, const int&,
                      boost::shared_ptr<utils::HTTPInfo>& response, int timeout) {
  return Forward<ClientManager>(VEX_LOG_SITE, [&](ClientManager& clients) {
    return clients.SendSyncTCPPacket(ip, port, data, response, timeout);
  });
}

int RegisterTCPRequestListener(std::vector<std::string> patterns,
                               boost::shared_ptr<TCPRequestListener> listener, int& id) {
  const int outcome = Forward<CallBackHandler>(VEX_LOG_SITE, [&](CallBackHandler& handler) {
    return handler.RegisterTCPPattern(patterns, listener, id);
  });
  return LogFailure(VEX_LOG_SITE, outcome, "CallBackHandler:RegisterTCPPattern failed");
}

int RegisterUDPRequestListener(std::vector<std::string> patterns,
                               boost::shared_ptr<UDPRequestListener> listener, int& id) {
  const int outcome = Forward<CallBackHandler>(VEX_LOG_SITE, [&](CallBackHandler& handler) {
    return handler.RegisterUDPPattern(patterns, listener, id);
  });
  return LogFailure(VEX_LOG_SITE, outcome, "CallBackHandler:RegisterUDPPattern failed");
}

int UnRegisterRequestListener(const int& id) {
  const int outcome = Forward<CallBackHandler>(
      VEX_LOG_SITE, [&](CallBackHandler& handler) { return handler.UnRegisterPattern(id); });
  return LogFailure(VEX_LOG_SITE, outcome, "CallBackHandler:UnRegisterPattern failed");
}

}  // namespace network_layer
}  // namespace vex_upnp

#include "src/servermanager.h"

#include <algorithm>
#include <iterator>

#include <boost/pointer_cast.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/device_key.h"
#include "src/incoming_tcp_session.h"
#include "src/multicast_server.h"
#include "src/networkinterface.h"
#include "src/reading_sessions.h"
#include "src/tcp_server.h"
#include "src/udp_server.h"
#include "src/upnp_constants.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

// Kinds of endpoints in the list, and what stands in templates.
constexpr int kTypeTcp = 1;
constexpr int kTypeUdp = 2;
constexpr int kTypeMulticast = 3;
constexpr char kAnyAddress[] = "INADDR_ANY";
constexpr char kNoName[] = "empty";

using Lock = boost::lock_guard<boost::recursive_mutex>;

// Never destroyed: a process that ends without terminating the framework must not wait for its
// threads.
struct Singleton {
  boost::mutex mutex;
  boost::shared_ptr<ServerManager> instance;
};
Singleton& TheSingleton() {
  static Singleton* const singleton = new Singleton;
  return *singleton;
}

// False without a registry; no configure call works then.
bool ActiveInterfaces(std::vector<NetInfo>& interfaces) {
  if (NetworkInterface::ExistingInstance() == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Instance of network interface is null.");
    return false;
  }
  GetActiveSelectedNetworkInterfaces(&interfaces);
  return true;
}

bool InterfaceByAddress(const std::string& ip, NetInfo& info) {
  if (GetNetworkInterfaceByIP(ip, info) == result::kOk) return true;
  VEX_LOG(kLogStep, kTag, "Network Info Not found");
  return false;
}

// The name of the interface that has a datagram server's address.
bool InterfaceNameFor(const std::string& ip, std::string& name) {
  if (ip == kLoopbackAddress) {
    name = kLoopbackName;
    return true;
  }
  NetInfo info;
  if (!InterfaceByAddress(ip, info)) return false;
  name = info.name;
  return true;
}

bool IsTemplate(const IpInfo& info) { return info.interface_name == kNoName; }

}  // namespace

boost::shared_ptr<ServerManager> ServerManager::GetInstance() {
  Singleton& singleton = TheSingleton();
  return GetOrCreateShared(singleton.instance, singleton.mutex, [] { return new ServerManager; });
}

boost::shared_ptr<ServerManager> ServerManager::ExistingInstance() {
  Singleton& singleton = TheSingleton();
  return ExistingShared(singleton.instance, singleton.mutex);
}

void ServerManager::DestroyInstance() {
  Singleton& singleton = TheSingleton();
  DestroyShared(singleton.instance, singleton.mutex);
}

ServerManager::ServerManager() : reading_sessions_(new ReadingSessions) {}

ServerManager::~ServerManager() {
  VEX_LOG(kLogMajor, kTag, "ServerManager Destructor");
  {
    Lock lock(mutex_);
    for (const ServerPointer& server : server_list_) server->Reset();
    server_list_.clear();
    ip_info_list_.clear();
  }
  EndThreads();
}

void ServerManager::StartServerThreads(const int& tcp, const int& udp, const int& multicast) {
  VEX_LOG(kLogMajor, kTag, "ServerManager::StartServerThreads");
  std::string prefix;
  if (!ThreadNamePrefix(prefix)) {
    VEX_LOG(kLogMajor, kTag, "pthread_getname_np : Error in getting Thread Name");
  }
  try {
    // Those of a start that failed in another place run still. Half a set is no set.
    if (threads_ && static_cast<int>(threads_->size()) >= tcp + udp + multicast) return;
    if (!threads_) threads_.reset(new boost::thread_group);
    StartIoThreads(*threads_, tcp_ios_.io, tcp, prefix, "VexTcpIo");
    StartIoThreads(*threads_, udp_ios_.io, udp, prefix, "VexUdpIo");
    StartIoThreads(*threads_, mcast_ios_.io, multicast, prefix, "VexMcastIo");
  } catch (const boost::thread_resource_error& error) {
    VEX_LOG(kLogMajor, kTag, "thread_resource_error exception:[%s]", error.what());
  } catch (...) {
    VEX_LOG(kLogMajor, kTag, "Unknown Exception in StartServerThreads");
  }
}

void ServerManager::StopServerThreads() {
  VEX_LOG(kLogMajor, kTag, "ServerManager::StopServerThreads");
  StopServerSockets();
  EndThreads();
  Lock lock(mutex_);
  for (const ServerPointer& server : server_list_) server->Reset();
}

void ServerManager::StopServerSockets() {
  VEX_LOG(kLogStep, kTag, "StopServerSockets");
  {
    Lock lock(mutex_);
    for (const ServerPointer& server : server_list_) server->Stop();
  }
  VEX_LOG(kLogStep, kTag, "StopServerSockets return");
}

void ServerManager::EndThreads() {
  for (const IoPool* pool : {&tcp_ios_, &udp_ios_, &mcast_ios_}) pool->io->stop();
  if (threads_ && threads_->is_this_thread_in()) {
    VEX_LOG(kLogMajor, kTag, "Server threads stopped by one of them, they are not waited for");
    threads_.reset();
    return;
  }
  if (threads_) threads_->join_all();
  threads_.reset();
  // What was cancelled comes to its end here, so that no socket stays open behind a stopped loop.
  for (const IoPool* pool : {&tcp_ios_, &udp_ios_, &mcast_ios_}) {
    pool->io->restart();
    try {
      pool->io->poll();
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    }
    pool->io->stop();
  }
}

void ServerManager::AddTemplate(const std::string& ip, int port, int type) {
  Lock lock(mutex_);
  const IpInfoPointer entry(new IpInfo(ip, port, port, kNoName));
  entry->type = type;
  ip_info_list_.push_back(entry);
}

// The lock spans a whole configure call and a whole interface event, so that an interface that
// comes meanwhile gets its servers from one of the two, not from both and not from none.
int ServerManager::ConfigureTcpServer(const int& port, const bool& enable) {
  Lock lock(mutex_);
  if (!enable) {
    __RemoveIpInfo(port);
    return result::kOk;
  }
  std::vector<NetInfo> interfaces;
  if (!ActiveInterfaces(interfaces)) return result::kFailure;
  AddTemplate(kAnyAddress, port, kTypeTcp);
  for (const NetInfo& info : interfaces) {
    // KEPT: unlike the datagram servers, one that fails ends the call, and the interfaces behind
    // it get no server.
    if (ConfigureTcpServerOnInterface(info.ip_address, info.name, port) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "ServerManager::ConfigureTcpServer failed");
      return result::kBindFailed;
    }
  }
  return result::kOk;
}

int ServerManager::ConfigureTcpServerOnInterface(const std::string& ip, const std::string& name,
                                                 int port) {
  const boost::shared_ptr<TCPServer> server(
      new TCPServer(ip, name, *tcp_ios_.io, reading_sessions_));
  // Their places first: a server that runs unlisted could never be stopped.
  std::list<IpInfoPointer> entry(1, IpInfoPointer(new IpInfo(ip, port, port, name)));
  std::list<ServerPointer> place(1, server);
  int bound = port;
  const int start_result = server->Start(bound);
  if (start_result != result::kOk) return start_result;
  entry.front()->port = bound;
  ip_info_list_.splice(ip_info_list_.end(), entry);
  server_list_.splice(server_list_.end(), place);
  return result::kOk;
}

int ServerManager::ConfigureUdpServer(const int& port, const bool& enable) {
  Lock lock(mutex_);
  udp_configured_ = enable;
  if (!enable) {
    __RemoveIpInfo(port);
    return result::kOk;
  }
  std::vector<NetInfo> interfaces;
  if (!ActiveInterfaces(interfaces)) return result::kFailure;
  AddTemplate(kAnyAddress, port, kTypeUdp);
  for (const NetInfo& info : interfaces) StartUdpServer(info.ip_address, port);
  return result::kOk;
}

void ServerManager::StartUdpServer(const std::string& ip, int port) {
  if (ConfigureUdpServerOnInterface(ip, port) == result::kOk) return;
  VEX_LOG(kLogDetail, kTag, "Configure Udp Server On Interface failed.");
  VEX_LOG(kLogDetail, kTag, "Configure Udp Server On Interface for IP Address %s ", ip.c_str());
}

int ServerManager::ConfigureUdpServerOnInterface(const std::string& ip, int port) {
  std::string name;
  if (!InterfaceNameFor(ip, name)) return result::kNoNetworkInterface;
  const boost::shared_ptr<UDPServer> server(new UDPServer(ip, name, port, *udp_ios_.io));
  std::list<IpInfoPointer> entry(1, IpInfoPointer(new IpInfo(ip, port, port, name)));
  std::list<ServerPointer> place(1, server);
  int bound = port;
  if (multicast_support_) {
    const int start_result = server->Start(bound);
    if (start_result != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "ServerManager::ConfigureUDPServerOnInterface failed");
      return start_result;
    }
  } else {
    VEX_LOG(kLogStep, kTag, "Start of udp server blocked as multicasting is disabled");
  }
  entry.front()->port = bound;
  entry.front()->type = kTypeUdp;
  ip_info_list_.splice(ip_info_list_.end(), entry);
  server_list_.splice(server_list_.end(), place);
  return result::kOk;
}

int ServerManager::ConfigureUPnPMulticastServer(const int& port, const bool& enable) {
  return ConfigureMulticastServer(kSsdpGroup, port, enable);
}

int ServerManager::ConfigureMulticastServer(const std::string& group, const int& port,
                                            const bool& enable) {
  Lock lock(mutex_);
  multicast_configured_ = enable;
  if (!enable) {
    // KEPT: the template stays, since another group may use the flag that it depends on.
    __RemoveServerObject(port);
    return result::kOk;
  }
  std::vector<NetInfo> interfaces;
  if (!ActiveInterfaces(interfaces)) return result::kFailure;
  AddMulticastTemplate(group, port);
  for (const NetInfo& info : interfaces) StartMulticastServer(info.ip_address, group, port);
  return result::kOk;
}

// A group that was switched off and on again has its template still; a second one would give each
// interface that comes two servers for one group.
void ServerManager::AddMulticastTemplate(const std::string& group, int port) {
  for (const IpInfoPointer& info : ip_info_list_) {
    if (info->type == kTypeMulticast && info->ip == group && info->configured_port == port) return;
  }
  AddTemplate(group, port, kTypeMulticast);
}

void ServerManager::StartMulticastServer(const std::string& ip, const std::string& group,
                                         int port) {
  if (ConfigureMulticastServerOnInterface(ip, group, port) == result::kOk) return;
  VEX_LOG(kLogDetail, kTag, "Configure Multicast Server On Interface failed");
  VEX_LOG(kLogDetail, kTag, "Configure Multicast Server On Interface failed for IP Address %s",
          ip.c_str());
}

int ServerManager::ConfigureMulticastServerOnInterface(const std::string& ip,
                                                       const std::string& group, int port) {
  std::string name;
  if (!InterfaceNameFor(ip, name)) return result::kNoNetworkInterface;
  const boost::shared_ptr<MulticastServer> server(
      new MulticastServer(ip, name, group, port, *mcast_ios_.io));
  std::list<ServerPointer> place(1, server);
  if (multicast_support_) {
    int bound = port;
    const int start_result = server->Start(bound);
    if (start_result != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "ServerManager::ConfigureMulticastServerOnInterface failed");
      return start_result;
    }
  } else {
    VEX_LOG(kLogStep, kTag, "Start of multicast server blocked as multicasting is disabled");
  }
  server_list_.splice(server_list_.end(), place);
  return result::kOk;
}

int ServerManager::ConfigureMulticastSupport(bool enable) {
  Lock lock(mutex_);
  multicast_support_ = enable;
  if (enable) {
    VEX_LOG(kLogMajor, kTag, "Enabling udp servers!!!");
    EnableDatagramServers();
  } else {
    VEX_LOG(kLogMajor, kTag, "Disabling udp servers!!!");
    DisableDatagramServers();
  }
  return result::kOk;
}

void ServerManager::DisableDatagramServers() {
  for (const ServerPointer& server : server_list_) {
    const bool multicast = boost::dynamic_pointer_cast<MulticastServer>(server) != nullptr;
    if (!multicast && !boost::dynamic_pointer_cast<UDPServer>(server)) continue;
    if (server->Stop() == result::kOk) continue;
    if (multicast) {
      VEX_LOG(kLogMajor, kTag, "Error in closing multicast server !!!");
    } else {
      VEX_LOG(kLogMajor, kTag, "Error in closing udp server !!!");
    }
  }
}

void ServerManager::EnableDatagramServers() {
  for (const ServerPointer& server : server_list_) {
    if (const auto multicast = boost::dynamic_pointer_cast<MulticastServer>(server)) {
      if (multicast->Start() != result::kOk) {
        VEX_LOG(kLogMajor, kTag, "Error in starting multicast server !!!");
      }
    } else if (const auto udp_server = boost::dynamic_pointer_cast<UDPServer>(server)) {
      if (udp_server->Start() == result::kOk) {
        NoteBoundPort(*udp_server);
      } else {
        VEX_LOG(kLogMajor, kTag, "Error in starting udp server !!!");
      }
    }
  }
}

// A server that was started again may have come to another port than before.
void ServerManager::NoteBoundPort(UDPServer& server) {
  for (const IpInfoPointer& info : ip_info_list_) {
    if (info->type == kTypeUdp && !IsTemplate(*info) && info->ip == server.GetIP() &&
        info->configured_port == server.GetPort()) {
      info->port = server.bound_port();
    }
  }
}

void ServerManager::OnNetworkChanged(const std::string& interface_name, const NicEvent& event) {
  Lock lock(mutex_);
  if (event == NIC_REMOVED) {
    VEX_LOG(kLogMajor, kTag, "ServerManager::OnNetworkChanged:NIC_REMOVED : %s",
            interface_name.c_str());
    __stop_servers(interface_name);
    return;
  }
  if (event != NIC_ADDED && event != NIC_IPCHANGED) return;
  NetInfo info;
  if (GetNetworkInterface(interface_name, info) != result::kOk) {
    VEX_LOG(kLogStep, kTag, "Network Info Not found");
    return;
  }
  if (event == NIC_IPCHANGED) {
    VEX_LOG(kLogMajor, kTag, "ServerManager::OnNetworkChanged:NIC_IPCHANGED : %s",
            interface_name.c_str());
  } else {
    VEX_LOG(kLogMajor, kTag, "ServerManager::OnNetworkChanged:NIC_ADDED : %s",
            interface_name.c_str());
  }
  __reset_servers(interface_name);
  __start_tcp_servers(info.ip_address);
  __start_udp_servers(info.ip_address);
}

void ServerManager::__stop_servers(const std::string& name) {
  for (const ServerPointer& server : server_list_) {
    if (server->GetInterfaceName() != name) continue;
    VEX_LOG(kLogStep, kTag, "interface_name : %s", name.c_str());
    server->Stop();
  }
  __RemoveIpInfoOfInterface(name);
}

// Whatever is left of the interface's servers goes, with their endpoints: an interface that is
// reported again without having been reported lost gets new servers in their place.
void ServerManager::__reset_servers(const std::string& name) {
  server_list_.remove_if([&name](const ServerPointer& server) {
    if (server->GetInterfaceName() != name) return false;
    server->Reset();
    return true;
  });
  __RemoveIpInfoOfInterface(name);
}

void ServerManager::__RemoveIpInfoOfInterface(const std::string& name) {
  ip_info_list_.remove_if([&name](const IpInfoPointer& info) {
    return !IsTemplate(*info) && info->interface_name == name;
  });
}

// Copies, since starting a server adds to the list.
std::vector<IpInfo> ServerManager::Templates() const {
  std::vector<IpInfo> templates;
  for (const IpInfoPointer& info : ip_info_list_) {
    if (IsTemplate(*info)) templates.push_back(*info);
  }
  return templates;
}

void ServerManager::__start_tcp_servers(const std::string& ip) {
  NetInfo info;
  if (!InterfaceByAddress(ip, info)) return;
  for (const IpInfo& wanted : Templates()) {
    if (wanted.type != kTypeTcp || wanted.ip != kAnyAddress) continue;
    if (ConfigureTcpServerOnInterface(ip, info.name, wanted.configured_port) == result::kOk) {
      continue;
    }
    VEX_LOG(kLogMajor, kTag, "Not able to start TCP on interface.");
    VEX_LOG(kLogDetail, kTag, "Not able to start TCP on interface %s", ip.c_str());
  }
}

void ServerManager::__start_udp_servers(const std::string& ip) {
  for (const IpInfo& wanted : Templates()) {
    if (wanted.type == kTypeUdp && wanted.ip == kAnyAddress && udp_configured_) {
      StartUdpServer(ip, wanted.configured_port);
    } else if (wanted.type == kTypeMulticast && multicast_configured_) {
      StartMulticastServer(ip, wanted.ip, wanted.port);
    }
  }
}

// KEPT: the kind of server is not looked at, so switching off a port ends all that was configured
// for it, TCP, UDP and multicast alike.
void ServerManager::__RemoveIpInfo(int port) {
  std::list<IpInfoPointer> removed;
  for (auto info = ip_info_list_.begin(); info != ip_info_list_.end();) {
    const auto next = std::next(info);
    if ((*info)->configured_port == port) {
      removed.splice(removed.end(), ip_info_list_, info);
    }
    info = next;
  }
  for (const IpInfoPointer& info : removed) {
    // A UDP server that climbed still answers to the port that it was configured for.
    __RemoveServerObject(info->type == kTypeUdp ? info->configured_port : info->port);
  }
}

void ServerManager::__RemoveServerObject(int port) {
  Lock lock(mutex_);
  server_list_.remove_if([port](const ServerPointer& server) {
    if (server->GetPort() != port) return false;
    server->Stop();
    server->Reset();
    return true;
  });
}

int ServerManager::GetConfiguredTcpPorts(std::list<IpInfoPointer>& list) {
  if (AppendEndpoints(kTypeTcp, list)) return result::kOk;
  VEX_LOG(kLogDetail, kTag, "No configured TCP servers found!!!");
  return result::kFailure;
}

int ServerManager::GetConfiguredUdpPorts(std::list<IpInfoPointer>& list) {
  if (AppendEndpoints(kTypeUdp, list)) return result::kOk;
  VEX_LOG(kLogDetail, kTag, "No configured UDP servers found!!!");
  return result::kFailure;
}

bool ServerManager::AppendEndpoints(int type, std::list<IpInfoPointer>& list) {
  bool found = false;
  Lock lock(mutex_);
  for (const IpInfoPointer& info : ip_info_list_) {
    if (info->type != type || info->ip == kAnyAddress) continue;
    list.push_back(IpInfoPointer(new IpInfo(*info)));
    found = true;
  }
  return found;
}

namespace {

// The session of an answer; null, with its log line, when there is none.
boost::shared_ptr<IncomingTCPSession> SessionOf(void* session_context) {
  if (session_context == nullptr) VEX_LOG(kLogMajor, kTag, "session_context is NULL");
  return TakeSession(session_context);
}

}  // namespace

int ServerManager::SendResponsePacket(std::string* data, const int& length, void* session_context) {
  // The loop that the session works on is there until the answer is on its way.
  const boost::shared_ptr<ServerManager> manager = ExistingInstance();
  const boost::shared_ptr<IncomingTCPSession> session = SessionOf(session_context);
  if (!session) return result::kFailure;
  if (data == nullptr) {
    // There is no answer and will be none: the peer must not wait for it.
    session->CloseAndNotify();
    return result::kFailure;
  }
  return session->RegisterWrite(data, length);
}

int ServerManager::SendSyncResponsePacket(const std::string& data, const int& length,
                                          void* session_context) {
  const boost::shared_ptr<ServerManager> manager = ExistingInstance();
  const boost::shared_ptr<IncomingTCPSession> session = SessionOf(session_context);
  return session ? session->Write(data, length) : result::kFailure;
}

int ServerManager::SendBinaryResponsePacket(char* data, const int& length, void* session_context) {
  const boost::shared_ptr<ServerManager> manager = ExistingInstance();
  const boost::shared_ptr<IncomingTCPSession> session = SessionOf(session_context);
  if (!session) return result::kFailure;
  if (data == nullptr) {
    session->CloseAndNotify();
    return result::kFailure;
  }
  return session->RegisterWrite(data, length);
}

bool ServerManager::SendFromUdpServer(const std::string& local_ip, const udp::endpoint& to,
                                      const std::string& data, error_code& error) {
  error.clear();
  std::vector<boost::shared_ptr<UDPServer>> servers;
  {
    Lock lock(mutex_);
    for (const ServerPointer& listed : server_list_) {
      const auto server = boost::dynamic_pointer_cast<UDPServer>(listed);
      if (server && server->GetIP() == local_ip) servers.push_back(server);
    }
  }
  // Of several the last one counts.
  std::reverse(servers.begin(), servers.end());
  for (const boost::shared_ptr<UDPServer>& server : servers) {
    if (server->SendTo(to, data, error)) return true;
    if (error == boost::asio::error::would_block) {
      // Its socket has no room. One of the caller's own, on the same port, may wait for some.
      error.clear();
      return false;
    }
  }
  return false;
}

}  // namespace network_layer
}  // namespace vex_upnp

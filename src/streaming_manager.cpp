#include "src/streaming_manager.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/io_threads.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/streaming_incoming_session.h"
#include "src/streaming_outgoing_session.h"
#include "src/streaming_outgoing_sync_session.h"
#include "src/streaming_server.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;
using network_layer::NetInfo;
using ServerLock = boost::lock_guard<boost::recursive_mutex>;
// Taken inside the other one for every change of what it guards.
using ServerViewLock = boost::lock_guard<boost::mutex>;

namespace {

constexpr int kPoolThreads = 20;
constexpr int kFirstClientId = 101;
constexpr int kClientIdEnd = 1000;

stServer** EndOfChain(stServer** chain) {
  while (*chain != nullptr) chain = &(*chain)->next;
  return chain;
}

}  // namespace

boost::mutex& StreamingManager::m_singleton_mutex_ = *new boost::mutex;
boost::shared_ptr<StreamingManager>& StreamingManager::m_instance_ =
    *new boost::shared_ptr<StreamingManager>;
std::atomic<int> StreamingManager::ref_count_{0};
boost::recursive_mutex& StreamingManager::m_server_list_mutex_ = *new boost::recursive_mutex;
boost::mutex& StreamingManager::m_server_view_mutex_ = *new boost::mutex;
boost::mutex& StreamingManager::m_sync_client_list_mutex_ = *new boost::mutex;
boost::mutex& StreamingManager::m_client_list_mutex_ = *new boost::mutex;

configuration_server_info::~configuration_server_info() {
  for (const boost::shared_ptr<TCPServer>& server : servers) server->Stop();
}

// Life of the manager.

StreamingManager::StreamingManager()
    : m_io_service_(new io_service), m_work_(new io_work(KeepRunning(*m_io_service_))) {}

StreamingManager::~StreamingManager() { __StopStreaming(); }

boost::shared_ptr<StreamingManager> StreamingManager::GetInstance() {
  try {
    // Declared before the lock: one that finds no memory on its way ends behind it.
    std::unique_ptr<StreamingManager> fresh;
    boost::shared_ptr<StreamingManager> made;
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    if (!m_instance_) {
      fresh.reset(new StreamingManager);
      made = Share(fresh);
      made->__RegisterNetworkListener();
      m_instance_.swap(made);
    }
    return m_instance_;
  } catch (const std::bad_alloc&) {
    return boost::shared_ptr<StreamingManager>();
  }
}

boost::shared_ptr<StreamingManager> StreamingManager::GetExisting() {
  boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
  return m_instance_;
}

void StreamingManager::DestroyInstance() {
  VEX_LOG(kLogStep, kTagStreaming, "StreamingManager::DestroyInstance Ref Count [%d]",
          ref_count_.load());
  if (ref_count_.load() >= 1) return;
  boost::shared_ptr<StreamingManager> last;
  {
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    if (ref_count_.load() < 1) last.swap(m_instance_);
  }
  if (!last) return;
  // Outside the lock: unregistering waits for a network event in progress, and a pool thread that
  // is joined may ask for the instance.
  last->__UnregisterNetworkListener();
  last->__StopStreaming();
}

void StreamingManager::AddReference() {
  boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
  ++ref_count_;
}

void StreamingManager::DeleteReference() {
  int left = 0;
  {
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    left = --ref_count_;
    VEX_LOG(kLogStep, kTagStreaming, "StreamingManager::DeleteReference Ref Count [%d]", left);
  }
  if (left != 0) return;
  VEX_LOG(kLogStep, kTagStreaming, "Stopping streaming threads");
  __StopStreaming();
}

void StreamingManager::__StopStreaming() {
  __StopThreads();
  std::list<Configuration> configurations;
  {
    ServerLock lock(m_server_list_mutex_);
    ServerViewLock view(m_server_view_mutex_);
    configurations.swap(m_configurations_);
  }
  configurations.clear();
  std::map<int, boost::shared_ptr<OutgoingSession>> clients;
  {
    boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
    clients.swap(m_clients_);
  }
  for (const auto& client : clients) client.second->CloseConnection();
  std::map<int, boost::shared_ptr<OutgoingSyncSession>> sync_clients;
  {
    boost::lock_guard<boost::mutex> lock(m_sync_client_list_mutex_);
    sync_clients.swap(m_sync_clients_);
  }
  for (const auto& client : sync_clients) client.second->CloseConnection();
}

void StreamingManager::__RegisterNetworkListener() {
  m_listener_registered_ =
      network_layer::RegisterNetworkEventListener(this, m_network_listener_id_) == result::kOk;
  if (!m_listener_registered_) {
    VEX_LOG(kLogMajor, kTagStreaming, "Register Network Event Listener failed.");
  }
}

void StreamingManager::__UnregisterNetworkListener() {
  if (m_listener_registered_) network_layer::UnRegisterEventListener(m_network_listener_id_);
  m_listener_registered_ = false;
}

// Threads.

int StreamingManager::__EnsureThreads() {
  boost::lock_guard<boost::recursive_mutex> lock(m_threads_mutex_);
  if (m_threads_running_) return result::kOk;
  if (StartStreamingThreads(kPoolThreads) != result::kOk) {
    VEX_LOG(kLogMajor, kTagStreaming, "Configure Server Threads failed.");
    return result::kFailure;
  }
  VEX_LOG(kLogStep, kTagStreaming, "Streaming threads initialized");
  return result::kOk;
}

int StreamingManager::StartStreamingThreads(int count) {
  VEX_LOG(kLogMajor, kTagStreaming, "StreamingManager::StartStreamingThreads");
  std::string prefix;
  if (!ThreadNamePrefix(prefix)) {
    VEX_LOG(kLogMajor, kTagStreaming, "pthread_getname_np : Error in getting Thread Name");
  }
  try {
    if (m_io_service_->stopped()) m_io_service_->restart();
    const boost::shared_ptr<io_service> io = m_io_service_;
    for (int i = 0; i < count; ++i) {
      // Its place first: a thread that runs must be known to whoever ends the pool.
      m_threads_.push_back(boost::shared_ptr<boost::thread>(new boost::thread));
      const std::unique_ptr<boost::thread> started(
          StartNamedThread(prefix + "VexStrmIo" + std::to_string(i), [io] { RunLoop(*io); }));
      m_threads_.back()->swap(*started);
    }
    m_threads_running_ = true;
    return result::kOk;
  } catch (const boost::thread_resource_error& error) {
    VEX_LOG(kLogMajor, kTagStreaming, "thread_resource_error exception:[%s]", error.what());
  } catch (...) {
    VEX_LOG(kLogMajor, kTagStreaming, "Unknown Exception in StartStreamingThreads");
  }
  // Half a pool is none: the next try starts from nothing.
  __StopThreads();
  return result::kFailure;
}

void StreamingManager::__StopThreads() {
  std::list<boost::shared_ptr<boost::thread>> threads;
  {
    boost::lock_guard<boost::recursive_mutex> lock(m_threads_mutex_);
    if (m_threads_.empty()) return;
    m_io_service_->stop();
    threads.swap(m_threads_);
    m_threads_running_ = false;
  }
  for (const boost::shared_ptr<boost::thread>& thread : threads) {
    if (thread->get_id() == boost::this_thread::get_id()) {
      VEX_LOG(kLogMajor, kTagStreaming, "streaming stopped from a streaming thread, not joined");
      thread->detach();
    } else if (thread->joinable()) {
      thread->join();
    }
  }
}

int StreamingManager::ConfigureStreamingThreads(int count, bool start) {
  if (!start) {
    __StopThreads();
    return result::kOk;
  }
  boost::lock_guard<boost::recursive_mutex> lock(m_threads_mutex_);
  return StartStreamingThreads(count == 0 ? kPoolThreads : count);
}

// Servers.

boost::shared_ptr<TCPServer> StreamingManager::__MakeServer(const ServerAppCallbacks* callbacks,
                                                            const std::string& ip,
                                                            const std::string& interface,
                                                            int port) {
  return boost::shared_ptr<TCPServer>(new TCPServer(*m_io_service_, DupServerCallbacks(callbacks),
                                                    ip, interface, m_server_id_, port));
}

int StreamingManager::StartServers(const ServerAppCallbacks* callbacks, const char* interface_ip,
                                   int port, stServer** servers, int* configuration_id) {
  if (__EnsureThreads() != result::kOk) return result::kFailure;
  return interface_ip == nullptr
             ? __StartOnAll(callbacks, port, servers, configuration_id)
             : __StartOnInterface(callbacks, interface_ip, port, servers, configuration_id);
}

int StreamingManager::__StartOnAll(const ServerAppCallbacks* callbacks, int port,
                                   stServer** servers, int* configuration_id) {
  ServerLock lock(m_server_list_mutex_);
  FreePtr<ServerAppCallbacks> copy(DupServerCallbacks(callbacks));
  if (!copy) return result::kStreamingOutOfMemory;
  // Listed when all is done: one that finds no memory on the way takes its servers with it.
  std::list<Configuration> place(
      1, Configuration(new configuration_server_info(m_configuration_id_, kAllInterfaces, port,
                                                     copy.release())));
  stServer** const end = EndOfChain(servers);
  try {
    _CreateServerOnAllNWInterfaces(place.front(), end);
  } catch (...) {
    FreeServerInfoList(*end);
    *end = nullptr;
    throw;
  }
  __AddConfiguration(place);
  *configuration_id = m_configuration_id_++;
  return result::kOk;
}

void StreamingManager::_CreateServerOnAllNWInterfaces(const Configuration& configuration,
                                                      stServer** servers) {
  std::vector<NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  for (const NetInfo& interface : interfaces) {
    int port = configuration->port;
    const boost::shared_ptr<TCPServer> server =
        __MakeServer(configuration->callbacks.get(), interface.ip_address, interface.name, port);
    if (!__StartServer(*configuration, server, port)) continue;
    const int server_id = m_server_id_++;
    if (!AddServerInfo(server_id, interface.ip_address, interface.name, port, servers)) {
      throw std::bad_alloc();
    }
  }
}

bool StreamingManager::__StartServer(configuration_server_info& configuration,
                                     const boost::shared_ptr<TCPServer>& server, int& port) {
  // Its place first: a server that listens must be known to whoever stops it.
  __AddServer(configuration, server);
  try {
    if (server->Start(port) == result::kOk) return true;
  } catch (...) {
    server->Stop();
    __DropServer(configuration, server);
    throw;
  }
  __DropServer(configuration, server);
  return false;
}

int StreamingManager::__StartOnInterface(const ServerAppCallbacks* callbacks, const std::string& ip,
                                         int port, stServer** servers, int* configuration_id) {
  VEX_LOG(kLogMajor, kTagStreaming, "Got request to start on interface %s", ip.c_str());
  NetInfo interface;
  if (network_layer::GetNetworkInterfaceByIP(ip, interface) != result::kOk) {
    VEX_LOG(kLogMajor, kTagStreaming, "Network Info Not found for interface %s", ip.c_str());
    return result::kStreamingNoInterface;
  }
  ServerLock lock(m_server_list_mutex_);
  FreePtr<ServerAppCallbacks> copy(DupServerCallbacks(callbacks));
  if (!copy) return result::kStreamingOutOfMemory;
  int bound = port;
  const boost::shared_ptr<TCPServer> server = __MakeServer(callbacks, ip, interface.name, port);
  // Listed when all is done: one that finds no memory on the way takes its server with it.
  std::list<Configuration> place(
      1, Configuration(new configuration_server_info(m_configuration_id_, interface.name, port,
                                                     copy.release())));
  if (!__StartServer(*place.front(), server, bound)) return result::kStreamingBindFailed;
  if (!AddServerInfo(m_server_id_, ip, interface.name, bound, servers)) {
    return result::kStreamingOutOfMemory;
  }
  __AddConfiguration(place);
  VEX_LOG(kLogMajor, kTagStreaming, "Server started on interface %s @759", ip.c_str());
  *configuration_id = m_configuration_id_;
  ++m_configuration_id_;
  ++m_server_id_;
  return result::kOk;
}

void StreamingManager::__AddConfiguration(std::list<Configuration>& place) {
  ServerViewLock view(m_server_view_mutex_);
  m_configurations_.splice(m_configurations_.end(), place);
}

void StreamingManager::__AddServer(configuration_server_info& configuration,
                                   const boost::shared_ptr<TCPServer>& server) {
  ServerViewLock view(m_server_view_mutex_);
  configuration.servers.push_back(server);
}

void StreamingManager::__DropServer(configuration_server_info& configuration,
                                    const boost::shared_ptr<TCPServer>& server) {
  ServerViewLock view(m_server_view_mutex_);
  configuration.servers.remove(server);
}

boost::shared_ptr<TCPServer> StreamingManager::GetServer(int server_id) {
  ServerLock lock(m_server_list_mutex_);
  for (const Configuration& configuration : m_configurations_) {
    for (const boost::shared_ptr<TCPServer>& server : configuration->servers) {
      if (server->GetServerId() == server_id) return server;
    }
  }
  return boost::shared_ptr<TCPServer>();
}

boost::shared_ptr<IncomingSession> StreamingManager::GetSessionInfo(int server_id, int session_id) {
  boost::shared_ptr<IncomingSession> session;
  const boost::shared_ptr<TCPServer> server = GetServer(server_id);
  if (!server) {
    VEX_LOG(kLogMajor, kTagStreaming, "Server not found in the list.");
  } else if (server->FindSession(session_id, session) != result::kYes) {
    VEX_LOG(kLogMajor, kTagStreaming, "Session not found on the server.");
  }
  return session;
}

stServer* StreamingManager::GetConfiguredServers(int server_id) {
  const boost::shared_ptr<TCPServer> server = GetServer(server_id);
  stServer* info = nullptr;
  if (server) {
    AddServerInfo(server_id, server->GetIP(), server->GetInterfaceName(), server->GetPort(), &info);
  }
  return info;
}

int StreamingManager::GetStreamingServerPort(int configuration_id, const std::string& ip,
                                             int* port) {
  ServerLock lock(m_server_list_mutex_);
  for (const Configuration& configuration : m_configurations_) {
    if (configuration->configuration_id != configuration_id) continue;
    for (const boost::shared_ptr<TCPServer>& server : configuration->servers) {
      if (server->GetIP() != ip) continue;
      *port = server->GetPort();
      return result::kOk;
    }
  }
  return result::kStreamingNoServer;
}

int StreamingManager::StopServers(int configuration_id) {
  Configuration stopped;
  std::list<boost::shared_ptr<TCPServer>> servers;
  {
    ServerLock lock(m_server_list_mutex_);
    const auto found = std::find_if(m_configurations_.begin(), m_configurations_.end(),
                                    [&](const Configuration& configuration) {
                                      return configuration->configuration_id == configuration_id;
                                    });
    if (found == m_configurations_.end()) return result::kStreamingNoServer;
    stopped = *found;
    ServerViewLock view(m_server_view_mutex_);
    servers.swap(stopped->servers);
    m_configurations_.erase(found);
  }
  // Here, not where the configuration ends: an event of an interface may hold that one too.
  for (const boost::shared_ptr<TCPServer>& server : servers) server->Stop();
  return result::kOk;
}

bool StreamingManager::__IsListed(const Configuration& configuration) const {
  return std::find(m_configurations_.begin(), m_configurations_.end(), configuration) !=
         m_configurations_.end();
}

int StreamingManager::StopServerTransfer(int server_id, int session_id) {
  const boost::shared_ptr<TCPServer> server = GetServer(server_id);
  if (!server) return result::kStreamingNoServer;
  server->SessionCompleted(session_id);
  return result::kOk;
}

int StreamingManager::SendHTTPResponse(int server_id, int session_id, const ResHeaderInfo* response,
                                       bool final) {
  const boost::shared_ptr<TCPServer> server = GetServer(server_id);
  if (server) return server->SendResponse(session_id, response, final);
  VEX_LOG(kLogMajor, kTagStreaming, "Server %d not found.", server_id);
  return result::kStreamingNoServer;
}

// Clients.

int StreamingManager::__NextClientId() {
  const int id = m_client_id_++;
  if (m_client_id_ == kClientIdEnd) m_client_id_ = kFirstClientId;
  return id;
}

int StreamingManager::StartClient(const ClientAppCallbacks* callbacks, const std::string& ip,
                                  int port, int* client_id) {
  if (__EnsureThreads() != result::kOk) return result::kFailure;
  FreePtr<ClientAppCallbacks> copy(DupClientCallbacks(callbacks));
  if (!ValidateClientCallbacks(copy.get())) return result::kStreamingOutOfMemory;
  boost::shared_ptr<OutgoingSession> session;
  {
    boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
    const int id = __NextClientId();
    *client_id = id;
    session.reset(new OutgoingSession(*m_io_service_, copy.release(), id, this));
    // An id that came around again leaves the session that has it in place; only that one is
    // driven.
    m_clients_.insert(std::make_pair(id, session));
  }
  const int connecting = session->Connect(ip, port);
  if (connecting != result::kOk) {
    VEX_LOG(kLogMajor, kTagStreaming, "Unable to connect to the server %s", ip.c_str());
  }
  return connecting;
}

int StreamingManager::StartSyncClient(int* client_id) {
  boost::lock_guard<boost::mutex> sync_lock(m_sync_client_list_mutex_);
  boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
  const int id = __NextClientId();
  *client_id = id;
  m_sync_clients_.insert(std::make_pair(
      id,
      boost::shared_ptr<OutgoingSyncSession>(new OutgoingSyncSession(*m_io_service_, id, this))));
  return result::kOk;
}

boost::shared_ptr<OutgoingSession> StreamingManager::GetClientSessionInfo(int client_id) {
  boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
  const auto found = m_clients_.find(client_id);
  return found == m_clients_.end() ? boost::shared_ptr<OutgoingSession>() : found->second;
}

boost::shared_ptr<OutgoingSyncSession> StreamingManager::GetSyncClient(int client_id) {
  boost::lock_guard<boost::mutex> lock(m_sync_client_list_mutex_);
  const auto found = m_sync_clients_.find(client_id);
  return found == m_sync_clients_.end() ? boost::shared_ptr<OutgoingSyncSession>() : found->second;
}

int StreamingManager::SendHTTPRequest(int client_id, const ReqHeaderInfo* request) {
  const boost::shared_ptr<OutgoingSession> session = GetClientSessionInfo(client_id);
  if (!session) {
    VEX_LOG(kLogMajor, kTagStreaming, "Session not found for client id %d.", client_id);
    return result::kStreamingNoSession;
  }
  session->SetClientHandlerId(client_handler_id_);
  return session->RegisterWrite(request);
}

int StreamingManager::StopClientTransfer(int client_id) {
  ClientSessionCompleted(client_id);
  return result::kOk;
}

void StreamingManager::ClientSessionCompleted(int client_id) {
  boost::shared_ptr<OutgoingSession> session;
  {
    boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
    const auto found = m_clients_.find(client_id);
    if (found != m_clients_.end()) {
      session = found->second;
      m_clients_.erase(found);
    }
  }
  if (session) {
    session->CloseConnection();
    return;
  }
  boost::shared_ptr<OutgoingSyncSession> sync_session;
  {
    boost::lock_guard<boost::mutex> lock(m_sync_client_list_mutex_);
    const auto found = m_sync_clients_.find(client_id);
    if (found != m_sync_clients_.end()) {
      sync_session = found->second;
      m_sync_clients_.erase(found);
    }
  }
  if (sync_session) {
    sync_session->CloseConnection();
    return;
  }
  VEX_LOG(kLogMajor, kTagStreaming, "No client found!!");
}

int StreamingManager::SendHTTPPayload(int id, int session_id, void* data, unsigned int length,
                                      bool final) {
  if (id == client_handler_id_) {
    const boost::shared_ptr<OutgoingSession> session = GetClientSessionInfo(session_id);
    if (session) return session->RegisterWrite(data, length, final);
    VEX_LOG(kLogMajor, kTagStreaming, "Session not found for client id %d.", session_id);
    return result::kStreamingNoSession;
  }
  const boost::shared_ptr<TCPServer> server = GetServer(id);
  if (server) return server->SendPayload(session_id, data, length, final);
  VEX_LOG(kLogMajor, kTagStreaming, "Server %d not found.", id);
  return result::kStreamingNoServer;
}

// Looks through the leaf only: discovery asks in the middle of a search, which a host may be
// waiting for in the on_status that the outer lock is held over.
bool StreamingManager::__AppendServedPeers(stRunningSession*& head, stRunningSession*& tail) {
  try {
    std::vector<boost::shared_ptr<TCPServer>> servers;
    {
      ServerViewLock view(m_server_view_mutex_);
      for (const Configuration& configuration : m_configurations_) {
        servers.insert(servers.end(), configuration->servers.begin(), configuration->servers.end());
      }
    }
    return std::all_of(servers.begin(), servers.end(),
                       [&](const boost::shared_ptr<TCPServer>& server) {
                         return server->GetAllConnectedDeviceInfo(head, tail) == result::kOk;
                       });
  } catch (const std::bad_alloc&) {
    return false;
  }
}

int StreamingManager::GetRunningSessionInfo(stRunningSession** sessions) {
  stRunningSession* head = nullptr;
  stRunningSession* tail = nullptr;
  std::vector<std::string> peers;
  {
    boost::lock_guard<boost::mutex> lock(m_client_list_mutex_);
    for (const auto& client : m_clients_) peers.push_back(client.second->GetOutgoingSessionIp());
  }
  bool complete = true;
  for (const std::string& peer : peers) {
    if (peer.empty()) continue;
    FreePtr<stRunningSession> entry(CallocRecord<stRunningSession>());
    if (entry) entry->ip = MallocString(peer);
    complete = entry && entry->ip != nullptr;
    if (!complete) break;
    entry->type = 1;
    AppendNode(head, tail, entry.release());
  }
  if (complete) complete = __AppendServedPeers(head, tail);
  if (!complete) {
    FreeRunningSession(head);
    return result::kFailure;
  }
  *sessions = head;
  return result::kOk;
}

}  // namespace streaming
}  // namespace vex_upnp

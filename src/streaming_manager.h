#ifndef VEXUPNPCP_SRC_STREAMING_MANAGER_H_
#define VEXUPNPCP_SRC_STREAMING_MANAGER_H_

#include <atomic>
#include <list>
#include <map>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/streaming_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/asio.h"
#include "base/host_memory.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

class IncomingSession;
class OutgoingSession;
class OutgoingSyncSession;
class TCPServer;

// Stands for an interface's name in a configuration that serves on each one.
constexpr char kAllInterfaces[] = "ALL_INTERFACES";

// One call of StartServers: what to serve, where, and the servers that run for it.
struct configuration_server_info : public VEXUncopyable {
  configuration_server_info(int id, const std::string& interface, int asked_port,
                            ServerAppCallbacks* table)
      : configuration_id(id), name(interface), port(asked_port), callbacks(table) {}
  // Stops every server.
  ~configuration_server_info() override;

  const int configuration_id;
  // The interface's name, or all of them.
  const std::string name;
  // The port asked for.
  const int port;
  // The configuration's own copy.
  const FreePtr<ServerAppCallbacks> callbacks;
  std::list<boost::shared_ptr<TCPServer>> servers;
};

// The one owner of what streams: the thread pool, the servers and the client sessions. It is built
// by the first call of the interface and lives until a TerminateStreamingManager finds fewer than
// one reference.
class StreamingManager : public network_layer::NetworkEventListener, public VEXUncopyable {
 public:
  // Builds the manager on first use; null when that is not possible. Whoever works on the manager
  // holds the pointer, so that an end on another thread takes nothing away under his hands.
  static boost::shared_ptr<StreamingManager> GetInstance();
  // Never builds one.
  static boost::shared_ptr<StreamingManager> GetExisting();
  // Ends the manager when fewer than one reference is left.
  static void DestroyInstance();
  ~StreamingManager() override;

  void AddReference();
  // Stops all that streams when the count comes to exactly 0.
  void DeleteReference();

  // The operations of the function interface; arguments are checked there.
  int StartServers(const ServerAppCallbacks* callbacks, const char* interface_ip, int port,
                   stServer** servers, int* configuration_id);
  stServer* GetConfiguredServers(int server_id);
  int GetStreamingServerPort(int configuration_id, const std::string& ip, int* port);
  int StopServers(int configuration_id);
  int StopServerTransfer(int server_id, int session_id);
  int StartClient(const ClientAppCallbacks* callbacks, const std::string& ip, int port,
                  int* client_id);
  int SendHTTPRequest(int client_id, const ReqHeaderInfo* request);
  int StopClientTransfer(int client_id);
  int SendHTTPResponse(int server_id, int session_id, const ResHeaderInfo* response, bool final);
  int SendHTTPPayload(int id, int session_id, void* data, unsigned int length, bool final);
  int StartSyncClient(int* client_id);
  int GetRunningSessionInfo(stRunningSession** sessions);
  int ConfigureStreamingThreads(int count, bool start);

  // Ends and forgets a client, asynchronous or synchronous.
  void ClientSessionCompleted(int client_id);

  boost::shared_ptr<OutgoingSession> GetClientSessionInfo(int client_id);
  boost::shared_ptr<OutgoingSyncSession> GetSyncClient(int client_id);
  boost::shared_ptr<TCPServer> GetServer(int server_id);
  boost::shared_ptr<IncomingSession> GetSessionInfo(int server_id, int session_id);
  int client_handler_id() const { return client_handler_id_; }

  void OnNetworkChanged(std::string& name, network_layer::NicEvent event) override;

 private:
  using Configuration = boost::shared_ptr<configuration_server_info>;

  StreamingManager();

  void __RegisterNetworkListener();
  void __UnregisterNetworkListener();

  int __EnsureThreads();
  int StartStreamingThreads(int count);
  void __StopThreads();
  void __StopStreaming();

  int __StartOnInterface(const ServerAppCallbacks* callbacks, const std::string& ip, int port,
                         stServer** servers, int* configuration_id);
  int __StartOnAll(const ServerAppCallbacks* callbacks, int port, stServer** servers,
                   int* configuration_id);
  void _CreateServerOnAllNWInterfaces(const Configuration& configuration, stServer** servers);
  // Starts a server of a configuration; one that cannot be started leaves nothing behind.
  static bool __StartServer(configuration_server_info& configuration,
                            const boost::shared_ptr<TCPServer>& server, int& port);
  boost::shared_ptr<TCPServer> __MakeServer(const ServerAppCallbacks* callbacks,
                                            const std::string& ip, const std::string& interface,
                                            int port);
  // Under m_server_list_mutex_.
  bool __IsListed(const Configuration& configuration) const;
  static bool _IsServerRunning(const configuration_server_info& configuration,
                               const std::string& interface);
  void __AddConfiguration(std::list<Configuration>& place);
  static void __AddServer(configuration_server_info& configuration,
                          const boost::shared_ptr<TCPServer>& server);
  static void __DropServer(configuration_server_info& configuration,
                           const boost::shared_ptr<TCPServer>& server);
  bool __AppendServedPeers(stRunningSession*& head, stRunningSession*& tail);
  void StopStreamingServers(const std::string& interface);
  void ConfigureStreamingServers(const std::string& interface, const std::string& ip);
  int __NextClientId() VEX_REQUIRES(m_client_list_mutex_);

  // Order: the singleton's mutex is outer to everything that the network layer locks when a
  // listener is registered. Nothing else is called under it.
  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& m_singleton_mutex_;
  static boost::shared_ptr<StreamingManager>& m_instance_ VEX_GUARDED_BY(m_singleton_mutex_);
  // Written under m_singleton_mutex_, looked at once without it. It outlives the instance: what was
  // given back too often stays counted.
  static std::atomic<int> ref_count_;
  // Held over on_status of a server's start or stop only; recursive, so that the callback may call
  // server functions. Guards the configurations and both counters.
  static boost::recursive_mutex& m_server_list_mutex_;
  // A leaf inside it, taken as well for every change of the configurations and their servers:
  // enough for a look at them that must not wait for a host.
  static boost::mutex& m_server_view_mutex_;
  // Leaves. Where both are taken, the sync clients' comes first.
  static boost::mutex& m_sync_client_list_mutex_;
  static boost::mutex& m_client_list_mutex_;

  // Set before the instance is shown, taken by the one who takes the instance out.
  bool m_listener_registered_ = false;
  int m_network_listener_id_ = 0;

  // Each pool thread holds a reference too: one that cannot be joined, since it is the one that
  // ends the manager, still has its loop.
  const boost::shared_ptr<io_service> m_io_service_;
  boost::shared_ptr<io_work> m_work_;
  // Guards the three below.
  boost::recursive_mutex m_threads_mutex_;
  std::list<boost::shared_ptr<boost::thread>> m_threads_;
  bool m_threads_running_ = false;

  int m_server_id_ = 1000;
  std::list<Configuration> m_configurations_;
  int m_configuration_id_ = 100;

  std::map<int, boost::shared_ptr<OutgoingSession>> m_clients_ VEX_GUARDED_BY(m_client_list_mutex_);
  const int client_handler_id_ = 100;
  int m_client_id_ VEX_GUARDED_BY(m_client_list_mutex_) = 101;
  std::map<int, boost::shared_ptr<OutgoingSyncSession>> m_sync_clients_
      VEX_GUARDED_BY(m_sync_client_list_mutex_);
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_MANAGER_H_

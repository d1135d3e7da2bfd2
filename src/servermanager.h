#ifndef VEXUPNPCP_SRC_SERVERMANAGER_H_
#define VEXUPNPCP_SRC_SERVERMANAGER_H_

#include <list>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/asio.h"
#include "base/io_threads.h"
#include "src/server_notify.h"

namespace vex_upnp {
namespace network_layer {

class ReadingSessions;
class UDPServer;

// Owns every server and the threads that run them. A configure call stores a template of what is
// wanted and starts a server on each active selected interface; when interfaces come, go or change
// their address, the templates are applied to them.
class ServerManager : public VEXUncopyable {
 public:
  // Made at the first call.
  static boost::shared_ptr<ServerManager> GetInstance();
  // Null before the first GetInstance and after DestroyInstance.
  static boost::shared_ptr<ServerManager> ExistingInstance();
  static void DestroyInstance();
  ~ServerManager() override;

  void StartServerThreads(const int& tcp, const int& udp, const int& multicast);
  void StopServerThreads();

  // 0; 1 without an interface registry; 2006 when a server did not start, with the interfaces
  // behind that one left without.
  int ConfigureTcpServer(const int& port, const bool& enable);
  // 0, or 1 without an interface registry. An interface on which the server does not start is
  // passed over.
  int ConfigureUdpServer(const int& port, const bool& enable);
  int ConfigureUPnPMulticastServer(const int& port, const bool& enable);
  int ConfigureMulticastServer(const std::string& group, const int& port, const bool& enable);
  // Stops or starts all datagram servers, now and for interfaces to come. Always 0.
  int ConfigureMulticastSupport(bool enable);

  // Called on the thread that has seen the change, before any listener hears of it.
  void OnNetworkChanged(const std::string& interface_name, const NicEvent& event);

  // Append copies of the endpoints in use. 0, or 1 when there are none.
  int GetConfiguredTcpPorts(std::list<boost::shared_ptr<IpInfo>>& list);
  int GetConfiguredUdpPorts(std::list<boost::shared_ptr<IpInfo>>& list);

  // The answer to one request. `session_context` is used up whatever the result, also after the
  // manager has ended; `data` is taken over on success.
  static int SendResponsePacket(std::string* data, const int& length, void* session_context);
  static int SendSyncResponsePacket(const std::string& data, const int& length,
                                    void* session_context);
  static int SendBinaryResponsePacket(char* data, const int& length, void* session_context);

  // Sends a datagram through the socket of the UDP server that runs on `local_ip`. True when one
  // did; otherwise `error` says why it could not, and is clear when there is no such server. A
  // second socket on the server's port would take answers away from it.
  bool SendFromUdpServer(const std::string& local_ip, const udp::endpoint& to,
                         const std::string& data, error_code& error);

 private:
  using ServerPointer = boost::shared_ptr<ServerNotify>;
  using IpInfoPointer = boost::shared_ptr<IpInfo>;

  ServerManager();

  void StopServerSockets();
  void EndThreads();
  int ConfigureTcpServerOnInterface(const std::string& ip, const std::string& name, int port);
  int ConfigureUdpServerOnInterface(const std::string& ip, int port);
  int ConfigureMulticastServerOnInterface(const std::string& ip, const std::string& group,
                                          int port);
  void StartUdpServer(const std::string& ip, int port);
  void StartMulticastServer(const std::string& ip, const std::string& group, int port);
  void EnableDatagramServers();
  void DisableDatagramServers();
  void NoteBoundPort(UDPServer& server);
  void AddTemplate(const std::string& ip, int port, int type);
  void AddMulticastTemplate(const std::string& group, int port);
  std::vector<IpInfo> Templates() const;
  bool AppendEndpoints(int type, std::list<IpInfoPointer>& list);
  void __stop_servers(const std::string& name);
  void __reset_servers(const std::string& name);
  void __start_tcp_servers(const std::string& ip);
  void __start_udp_servers(const std::string& ip);
  void __RemoveIpInfo(int port);
  void __RemoveIpInfoOfInterface(const std::string& name);
  void __RemoveServerObject(int port);

  // Declared before the servers, whose sockets work on them.
  IoPool tcp_ios_;
  IoPool udp_ios_;
  IoPool mcast_ios_;
  // Null while no thread runs: ending them must not need memory.
  std::unique_ptr<boost::thread_group> threads_;
  // The connections of all TCP servers that wait for the rest of a request.
  const boost::shared_ptr<ReadingSessions> reading_sessions_;

  // Recursive, since one removal calls another. Outer to the servers' own mutexes; never held
  // while an upper layer is called. Guards all below.
  boost::recursive_mutex mutex_;
  std::list<IpInfoPointer> ip_info_list_;
  std::list<ServerPointer> server_list_;
  bool udp_configured_ = false;
  bool multicast_configured_ = false;
  bool multicast_support_ = true;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SERVERMANAGER_H_

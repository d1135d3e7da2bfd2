#ifndef VEXUPNPCP_SRC_STREAMING_SERVER_H_
#define VEXUPNPCP_SRC_STREAMING_SERVER_H_

#include <list>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/streaming_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/asio.h"
#include "base/host_memory.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

class IncomingSession;

// Listens on one address of one interface for media requests. Apart from the TCP server of the
// network layer, which serves events.
class TCPServer : public VEXUncopyable, public boost::enable_shared_from_this<TCPServer> {
 public:
  // `callbacks` is the server's own copy, from DupServerCallbacks; null fails at Start.
  TCPServer(io_service& io, ServerAppCallbacks* callbacks, const std::string& ip,
            const std::string& interface_name, int server_id, int port);
  ~TCPServer() override = default;

  // Binds the asked port or one of the next 99 and starts accepting. 0 with the port in use, or
  // kStreamingInvalidCallbacks, kStreamingBindFailed, kStreamingInvalidPort.
  int Start(int& port);
  // Closes the acceptor and every session, without a callback.
  void Stop();

  int SendResponse(const int& session_id, const ResHeaderInfo*& header, const bool& final);
  int SendPayload(const int& session_id, void* data, const unsigned int& length, const bool& final);
  // 1 when found, 0 otherwise.
  int FindSession(const int& session_id, boost::shared_ptr<IncomingSession>& session);
  void SessionCompleted(const int& session_id);
  // Appends one entry for each connection whose peer is known. 0, or 1 without memory.
  int GetAllConnectedDeviceInfo(stRunningSession*& head, stRunningSession*& tail);

  std::string GetIP() const { return ip_; }
  int GetPort() const { return port_; }
  std::string GetInterfaceName() const { return interface_name_; }
  int GetServerId() const { return server_id_; }

 private:
  enum class Attempt { kWorked, kNext };

  Attempt __Listen(int port);
  void __Accept();
  void __Wait() VEX_REQUIRES(acceptor_mutex_);
  boost::shared_ptr<tcp::socket> __Take(const error_code& error, int& session_id);
  void handle_accept(const error_code& error);
  boost::shared_ptr<IncomingSession> __MakeSession();

  io_service& io_service_;
  const FreePtr<ServerAppCallbacks> callbacks_;
  const std::string ip_;
  const std::string interface_name_;
  const int server_id_;
  // Set by Start, before the server is shown.
  int port_;

  // Leaf. Guards the acceptor object and the number of the next session.
  boost::mutex acceptor_mutex_;
  tcp::acceptor acceptor_ VEX_GUARDED_BY(acceptor_mutex_);
  bool stopped_ VEX_GUARDED_BY(acceptor_mutex_) = false;
  int next_session_id_ VEX_GUARDED_BY(acceptor_mutex_);

  // Leaf, one for all servers. The list holds one more than there are connections: its last entry
  // waits for the next accept.
  static boost::mutex& m_session_list_mutex_;
  std::list<boost::shared_ptr<IncomingSession>> incoming_session_list_
      VEX_GUARDED_BY(m_session_list_mutex_);
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_SERVER_H_

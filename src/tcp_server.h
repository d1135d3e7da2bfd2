#ifndef VEXUPNPCP_SRC_TCP_SERVER_H_
#define VEXUPNPCP_SRC_TCP_SERVER_H_

#include <atomic>
#include <string>
#include <unordered_map>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/reading_sessions.h"
#include "src/server_notify.h"

namespace vex_upnp {
namespace network_layer {

class IncomingTCPSession;

// Accepts connections on one local address, in practice those of devices that send events, and
// makes an IncomingTCPSession for each. There is no bound on their number but the descriptors:
// when these run short, the connection that has been silent longest with an incomplete request is
// closed.
//
// The twin on the streaming side differs in what it does after an error; the two stay apart.
class TCPServer : public ServerNotify, public boost::enable_shared_from_this<TCPServer> {
 public:
  // Servers that share `reading` make room for each other; without one the server keeps its own.
  TCPServer(
      const std::string& ip, const std::string& interface_name, io_service& io,
      const boost::shared_ptr<ReadingSessions>& reading = boost::shared_ptr<ReadingSessions>());
  ~TCPServer() override;

  void SessionCompleted(const int& id) override;
  void HandleFailureCondition(const int& id) override;

  // 0 or 2005. A port that is taken is passed over for the next, 100 times; `port` is then the one
  // that was bound. A stopped server can be started again.
  int Start(int& port) override;
  std::string GetIP() override { return ip_; }
  std::string GetInterfaceName() override { return interface_name_; }
  // The port that was bound.
  int GetPort() override { return port_; }
  // Always 0. Ends all sessions; one that is writing its answer is cut off.
  int Stop() override;
  void Reset() override;

 private:
  using SessionPointer = boost::shared_ptr<IncomingTCPSession>;
  using Sessions = std::unordered_map<int, SessionPointer>;

  bool OpenAndBind(int port) VEX_REQUIRES(mutex_);
  bool Resolve(int port, tcp::endpoint& endpoint) VEX_REQUIRES(mutex_);
  void CloseAcceptor() VEX_REQUIRES(mutex_);
  void AsyncAccept() VEX_REQUIRES(mutex_);
  void AcceptAfterPause() VEX_REQUIRES(mutex_);
  void KeepAccepting(unsigned int generation);
  void handle_accept(error_code error, unsigned int generation);
  SessionPointer AddSession(tcp::socket socket, unsigned int generation);
  void EndSessions();

  const std::string ip_;
  const std::string interface_name_;
  const boost::shared_ptr<ReadingSessions> reading_;
  std::atomic<int> port_{0};

  // Outer to a session's mutex, which is never taken with this one held all the same.
  boost::mutex mutex_;
  tcp::acceptor acceptor_ VEX_GUARDED_BY(mutex_);
  // Waits until an accept that failed is tried again.
  steady_timer pause_ VEX_GUARDED_BY(mutex_);
  // The open connections.
  Sessions sessions_ VEX_GUARDED_BY(mutex_);
  unsigned int next_session_id_ VEX_GUARDED_BY(mutex_) = 0;
  // Counts the starts and stops: what was begun before the last of them no longer matters.
  unsigned int generation_ VEX_GUARDED_BY(mutex_) = 0;
  bool stopped_ VEX_GUARDED_BY(mutex_) = false;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_TCP_SERVER_H_

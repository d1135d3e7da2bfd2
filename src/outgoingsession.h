#ifndef VEXUPNPCP_SRC_OUTGOINGSESSION_H_
#define VEXUPNPCP_SRC_OUTGOINGSESSION_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/message_budget.h"
#include "src/outgoing_timeouts.h"
#include "src/server_notify.h"

namespace vex_upnp {
namespace network_layer {

// One outgoing exchange: a datagram, or a TCP connection that carries one HTTP request and receives
// one answer. Also a probe that only connects, and a request that blocks its caller.
//
// Connecting, writing and reading each end in a handler; whichever handler ends the exchange hands
// over what there is for the requester, tells the owner and lets the session go. Handlers of one
// session may run beside its time-out on another thread: the end is claimed once.
//
// Twin: the streaming client session, which keeps its connection and streams its bodies.
class OutgoingSession : public boost::enable_shared_from_this<OutgoingSession> {
 public:
  // `notify` may be null for a datagram. Without `timeouts` an answer may take for ever.
  OutgoingSession(io_service& io, Notify* notify, const utils::Protocol& protocol,
                  OutgoingTimeouts* timeouts = nullptr);

  void SetProtocol(const utils::Protocol& protocol);
  // KEPT: the same for every protocol; nothing looks at it.
  int GetSessionType() const { return 2; }
  void set_handler_id(const int& id) { handler_id_ = id; }
  int get_handler_id() const { return handler_id_; }
  bool IsRemoteAddressValid() const { return remote_address_valid_; }

  // Drops the session's reference to itself.
  void reset();

  // Sends a datagram, or starts an exchange. 0 when the datagram is out or the connection is under
  // way, 2000 otherwise. `local_ip` is "INADDR_ANY" or the address that a datagram is to come from.
  int Connect(const std::string& local_ip, const std::string& remote_ip, const int& port,
              const std::string& data);
  // Connects and sends nothing; IsRemoteAddressValid tells later whether it came about. 0 or 2000.
  int InitiateConnection(const std::string& ip, const int& port);
  // Blocks until the peer closes or the session is stopped. 0, 2000, 2004 or 2009.
  int SyncRequest(const std::string& ip, const int& port, const std::string& data,
                  boost::shared_ptr<utils::HTTPInfo>& response);

  // Whether anything has come from the peer.
  bool HasAnswerBegun();

  // Ends all activity of the socket. From any thread, in any state, any number of times.
  void stop();

  // The time-out of a blocking request; the requester holds the session until it has cancelled it.
  static void OnSyncRequestTimeOut(int id, void* session);
  // The time-out of an answer. An error says that it was cancelled.
  void TimeoutClose(const error_code& error);

 private:
  using ConnectHandler = void (OutgoingSession::*)(const error_code& error);

  int TCPConnect(const std::string& ip, const int& port);
  void __BeginConnect(const std::string& ip, int port, ConnectHandler handler);
  void __ResolveName(const std::string& host, int port, ConnectHandler handler);
  bool __ConnectToNext(ConnectHandler handler);
  void handle_connect(const error_code& error);
  void connect_callback(const error_code& error);

  error_code __StartConnect(const tcp::endpoint& endpoint, bool is_exchange) VEX_REQUIRES(mutex_);
  error_code __ConnectError();

  error_code __OfferRequest() VEX_REQUIRES(mutex_);
  void __GoOnSending();
  void __NoteConnection();
  void __WriteRest();
  void __OnWritable(const error_code& error);
  void CallbackWrite(const error_code& error);
  error_code __AwaitAnswer();

  bool __ReadOn();
  void __StartRead() VEX_REQUIRES(mutex_);
  void __OnReadable(const error_code& error);
  std::size_t __Receive(char* data, error_code& error);
  bool CallbackRead(const error_code& error, char* data, std::size_t bytes);
  bool __TakeUp(const char* data, std::size_t bytes);
  void __OnBrokenConnection(const error_code& error);

  bool __ClaimEnd() { return !ended_.exchange(true); }
  void __HandOver();
  void __EndInFailure();
  template <typename Step>
  void __RunHandler(Step step);
  void __CloseNow() VEX_REQUIRES(mutex_);
  void __ShutDownForOwner() VEX_REQUIRES(mutex_);

  bool __ConnectBlocking(const tcp::endpoint& endpoint);
  int __StartBlockingConnect(const tcp::endpoint& endpoint, bool& connected);
  int SendAndRecv(const std::string& data, boost::shared_ptr<utils::HTTPInfo>& response);
  bool __IsStopped();
  void __CloseOwned();

  io_service* const io_service_;
  Notify* const notify_;
  OutgoingTimeouts* const timeouts_;
  utils::Protocol protocol_ = utils::PROTOCOL_TCP;
  int handler_id_ = 0;
  std::string request_;
  const boost::shared_ptr<BudgetedMessage> answer_;
  // The answer's message.
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  std::vector<tcp::endpoint> endpoints_;
  std::size_t next_endpoint_ = 0;
  std::atomic<bool> remote_address_valid_{false};
  // Set by whoever reports the end of the exchange.
  std::atomic<bool> ended_{false};

  // Guards what follows and the start of asynchronous operations on the socket. Inner to the client
  // manager's mutex, outer to that of the time-outs; not held while either, or CallBackHandler, is
  // called.
  boost::mutex mutex_;
  bool stopped_ VEX_GUARDED_BY(mutex_) = false;
  // How much of the request the kernel has taken.
  std::size_t sent_ VEX_GUARDED_BY(mutex_) = 0;
  // What a blocking request works on; its caller closes it.
  int blocking_fd_ VEX_GUARDED_BY(mutex_) = -1;
  bool timeout_armed_ VEX_GUARDED_BY(mutex_) = false;
  OutgoingTimeouts::Ticket timeout_ VEX_GUARDED_BY(mutex_);
  // Keeps the session while asynchronous work is out, also when its owner has dropped it.
  boost::shared_ptr<OutgoingSession> self_ VEX_GUARDED_BY(mutex_);
  std::unique_ptr<tcp::resolver> resolver_ VEX_GUARDED_BY(mutex_);
  tcp::socket socket_ VEX_GUARDED_BY(mutex_);
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOINGSESSION_H_

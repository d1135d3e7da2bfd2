#ifndef VEXUPNPCP_SRC_STREAMING_OUTGOING_SESSION_H_
#define VEXUPNPCP_SRC_STREAMING_OUTGOING_SESSION_H_

#include <atomic>
#include <list>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/streaming_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/host_memory.h"
#include "src/streaming_socket.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

class StreamingManager;

// One HTTP client exchange, driven by completion handlers on the streaming pool: one connection,
// one request, one response. Bodies of any size go in pieces; no message is ever held whole. Apart
// from the outgoing session of the network layer, which carries small UPnP messages.
class OutgoingSession : public VEXUncopyable,
                        public boost::enable_shared_from_this<OutgoingSession> {
 public:
  // `callbacks` is the session's own copy, from DupClientCallbacks. The manager outlives the
  // session.
  OutgoingSession(io_service& io, ClientAppCallbacks* callbacks, int session_id,
                  StreamingManager* manager);
  ~OutgoingSession() override;

  // Starts connecting. 0, kStreamingConnectFailed or kStreamingInvalidPort.
  int Connect(const std::string& ip, const int& port);
  // Forms the request header and writes it as soon as the connection stands.
  int RegisterWrite(const ReqHeaderInfo*& header);
  // Writes a payload. On success the last one (`final`) passes to the session.
  int RegisterWrite(void* data, const unsigned int& length, const bool& final);

  // From any thread: nothing is called back after it, but for a callback that is running.
  void CloseConnection();
  void CompleteSession();

  void SetClientHandlerId(const int& id) { client_handler_id_ = id; }
  const int& GetSessionId() const { return session_id_; }
  std::string GetOutgoingSessionIp() const;

 private:
  using Handler = void (OutgoingSession::*)(const error_code&, std::size_t);

  // Binds a member to the socket's queue; a completion of a session that has left the manager is
  // dropped.
  MediaSocket::Done Bound(Handler member);
  template <typename Step>
  auto __IfListed(Step step);
  bool __IsListed();

  // Addresses that have not been tried yet, in their order. Used on the socket's queue only.
  using Endpoints = std::list<tcp::endpoint>;

  void CallbackConnect(const error_code& error, const boost::shared_ptr<Endpoints>& left);
  void CallbackWriteHeader(const error_code& error);
  void CallbackWritePayload(const error_code& error);
  void CallbackRead(const error_code& error, std::size_t bytes);
  void DataRecvdCallback(const error_code& error, std::size_t bytes);

  void __Connect(const boost::shared_ptr<Endpoints>& left);
  void __PostHeader() VEX_REQUIRES(request_mutex_);
  void __WriteHeader(const boost::shared_ptr<std::string>& header);
  void RegisterRead();
  void __ReadHeader();
  void __ReadBody();
  std::size_t __RescueBytes(const error_code& error, std::size_t bytes, bool& gone);
  bool __Parse(std::size_t bytes);
  bool __HandOver(std::size_t bytes);
  void __SettleFraming(const ResHeaderInfo& header);
  void __HandleContinue(ResponseRecord header, bool gone);
  void __HandleResponse(ResponseRecord header, bool gone);
  void __Fail(int code);
  void ShutDown();

  const FreePtr<ClientAppCallbacks> callbacks_;
  MediaSocket socket_;
  // Used on the socket's queue only.
  FreePtr<char> buffer_;
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  bool got_continue_ = false;
  bool has_length_ = false;
  bool header_read_ = false;

  const int session_id_;
  StreamingManager* const manager_;

  std::atomic<int> client_handler_id_{0};
  std::atomic<bool> alive_{true};

  // The request: set by the host's calls, read on the queue.
  std::atomic<int> request_type_{utils::HTTP_UNKNOWN_REQUEST};
  std::atomic<bool> chunked_{false};
  std::atomic<bool> final_{false};
  std::atomic<unsigned int> payload_length_{0};

  // Outer to the lock of the socket's queue, to which a header is posted.
  mutable boost::mutex request_mutex_;
  // What Connect was given: the session is listed before.
  std::string ip_ VEX_GUARDED_BY(request_mutex_);
  int port_ VEX_GUARDED_BY(request_mutex_) = 0;
  std::string request_header_ VEX_GUARDED_BY(request_mutex_);
  bool connected_ VEX_GUARDED_BY(request_mutex_) = false;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_OUTGOING_SESSION_H_

#ifndef VEXUPNPCP_SRC_STREAMING_INCOMING_SESSION_H_
#define VEXUPNPCP_SRC_STREAMING_INCOMING_SESSION_H_

#include <atomic>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/streaming_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/host_memory.h"
#include "src/streaming_socket.h"

namespace vex_upnp {
namespace streaming {

class TCPServer;

// One accepted connection of a streaming server: reads one request, hands it to the host, writes
// what the host answers, and closes. Apart from the incoming session of the network layer: here
// bodies go in pieces and the host produces the response.
class IncomingSession : public VEXUncopyable,
                        public boost::enable_shared_from_this<IncomingSession> {
 public:
  IncomingSession(io_service& io, const ServerAppCallbacks& callbacks,
                  const boost::shared_ptr<TCPServer>& server, int session_id);
  ~IncomingSession() override = default;

  const int& GetSessionId() const { return session_id_; }

  // Takes the accepted connection over, prepares it and starts reading.
  void RegisterRead(const boost::shared_ptr<tcp::socket>& accepted);
  // Forms the response's header. It is written when the callback in which it was given returns.
  int RegisterWrite(const ResHeaderInfo*& header, const bool& final);
  // Writes a payload. On success the last one (`final`) passes to the session.
  int RegisterWrite(void* data, const unsigned int& length, const bool& final);
  // Forms a bare response.
  int RegisterWriteWithErrorCode(const unsigned int& status);

  // 0 with the peer's address; 1 before the first complete request.
  int GetConnectedDeviceInfo(std::string& ip) const;
  void CloseConnection();
  void CompleteSession();

 private:
  using Handler = void (IncomingSession::*)(const error_code&, std::size_t);

  // What a completion runs: a session that has left its server drops it.
  MediaSocket::Done Bound(Handler member);
  template <typename Step>
  auto __IfListed(Step step);
  bool __IsListed();

  void __StartReading(tcp::socket& accepted);
  void __ReadHeader();
  void __ReadBody();
  void CallbackRead(const error_code& error, std::size_t bytes);
  void DataRecvdCallback(const error_code& error, std::size_t bytes);
  bool __Parse(std::size_t bytes);
  void __ForgetRequest();
  void __AwaitPeersEnd();
  void __DiscardWhatCame(const error_code& error);
  void __HandleRequest();
  void __RememberPeer();
  void __WriteResponse(int place);
  void CallbackWriteHeader(const error_code& error);
  void CallbackWritePayload(const error_code& error);
  void __CloseAfterPause();
  void __FailSocket(const error_code& error, bool tell_host);
  void ShutDown();

  const int session_id_;
  const int server_id_;
  // The server's table; it lives as long as the server.
  const ServerAppCallbacks& callbacks_;
  // Keeps the server alive while the session lives.
  const boost::shared_ptr<TCPServer> server_;

  MediaSocket socket_;
  steady_timer close_timer_;
  // Used on the socket's queue only. Made when the connection is accepted.
  FreePtr<char> buffer_;
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  bool header_read_ = false;

  mutable boost::mutex response_mutex_;
  std::string response_header_ VEX_GUARDED_BY(response_mutex_);
  std::string peer_ip_ VEX_GUARDED_BY(response_mutex_);

  // Set by the host's calls, read on the queue.
  std::atomic<int> request_type_{utils::HTTP_UNKNOWN_REQUEST};
  std::atomic<bool> is_continue_{false};
  std::atomic<bool> chunked_{false};
  std::atomic<bool> final_{false};
  std::atomic<bool> alive_{true};
  std::atomic<unsigned int> payload_length_{0};
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_INCOMING_SESSION_H_

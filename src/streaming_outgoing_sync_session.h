#ifndef VEXUPNPCP_SRC_STREAMING_OUTGOING_SYNC_SESSION_H_
#define VEXUPNPCP_SRC_STREAMING_OUTGOING_SYNC_SESSION_H_

#include <atomic>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/streaming_types.h>

#include "base/asio.h"
#include "base/limits.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

class StreamingManager;

// The blocking twin of OutgoingSession: the host drives one exchange by calls that return when the
// socket operation is done, on the host's own thread. Only name resolution and connect run on the
// pool, so that a connect can be given up after a fixed wait. One thread reads or writes at a time;
// CloseConnection may come from any thread and interrupts whatever blocks.
class OutgoingSyncSession : public boost::enable_shared_from_this<OutgoingSyncSession> {
 public:
  OutgoingSyncSession(io_service& io, int session_id, StreamingManager* manager);
  OutgoingSyncSession(const OutgoingSyncSession&) = delete;
  OutgoingSyncSession& operator=(const OutgoingSyncSession&) = delete;
  ~OutgoingSyncSession();

  int Connect(const std::string& ip, const int& port);
  int Write(const ReqHeaderInfo*& header);
  // `data` stays with the host.
  int Write(void* data, const unsigned int& length, const bool& final);
  // `final` is set to true at the message's end and not touched otherwise.
  int ReadHeader(ResHeaderInfo** header, void** body, unsigned int& length, bool& final);
  int ReadData(void** data, unsigned int& length, bool& final);
  void CloseConnection();
  void CompleteSession();

  void SetClientHandlerId(const int& id) { client_handler_id_ = id; }
  const int& GetSessionId() const { return session_id_; }

 private:
  void HandleResolve(const error_code& error, const tcp::endpoint& endpoint);
  void HandleConnect(const error_code& error);
  void __ResolveComplete(bool connected);
  int __WaitForConnect();
  bool __IsConnected();
  int __WriteAll(const void* data, std::size_t size);
  std::size_t __Read(error_code& error);
  int __Parse(std::size_t bytes);
  int __TakeHeader(ResHeaderInfo** header, void** body, unsigned int& length, bool& final);
  void ShutDown();

  io_service& io_service_;
  const int session_id_;
  StreamingManager* const manager_;
  std::atomic<int> client_handler_id_{0};
  std::atomic<bool> alive_{true};

  // Opened and connected on the pool, then used by the host's one thread; the destructor closes it.
  tcp::socket socket_;

  // The host's one thread.
  char buffer_[limits::kReceiveBuffer + 1];
  std::string ip_;
  int port_ = 0;
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  bool got_continue_ = false;
  bool chunked_ = false;
  bool final_ = false;
  bool header_read_ = false;
  int request_type_ = utils::HTTP_UNKNOWN_REQUEST;

  // Outer to nothing. Never held while something blocks.
  boost::mutex resolve_mutex_;
  boost::condition_variable resolve_complete_condition_;
  tcp::resolver resolver_ VEX_GUARDED_BY(resolve_mutex_);
  bool resolve_complete_ VEX_GUARDED_BY(resolve_mutex_) = false;
  bool connected_ VEX_GUARDED_BY(resolve_mutex_) = false;
  // What another thread may shut down; -1 before the socket is open.
  int descriptor_ VEX_GUARDED_BY(resolve_mutex_) = -1;
  bool closed_ VEX_GUARDED_BY(resolve_mutex_) = false;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_OUTGOING_SYNC_SESSION_H_

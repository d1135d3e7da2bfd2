#ifndef VEXUPNPCP_SRC_INCOMING_TCP_SESSION_H_
#define VEXUPNPCP_SRC_INCOMING_TCP_SESSION_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "base/asio.h"
#include "base/host_memory.h"
#include "base/thread_marks.h"
#include "src/header_end.h"
#include "src/message_budget.h"
#include "src/reading_sessions.h"
#include "src/server_notify.h"

namespace vex_upnp {

namespace utils {
class HTTPInfo;
}

namespace network_layer {

// Serves one accepted connection: reads until one request is complete, hands it to the callback
// handler, writes the one answer that a listener gives, and closes. Between request and answer
// nothing limits the wait.
//
// The twin on the streaming side serves many requests on one connection; the two stay apart.
class IncomingTCPSession : public boost::enable_shared_from_this<IncomingTCPSession> {
 public:
  // `reading` is where the session is listed until its request is complete.
  IncomingTCPSession(tcp::socket socket, const boost::shared_ptr<Notify>& notify, int handler_id,
                     const boost::shared_ptr<ReadingSessions>& reading);
  IncomingTCPSession(const IncomingTCPSession&) = delete;
  IncomingTCPSession& operator=(const IncomingTCPSession&) = delete;
  ~IncomingTCPSession();

  int get_handler_id_() const { return handler_id_; }

  // Starts to read.
  void RegisterRead();

  // Send the answer, at most `length` bytes of it, without waiting for it to go out. The data is
  // taken over. Always 0: the answer to a peer that has gone is dropped.
  int RegisterWrite(std::string* data, const int& length);
  // For data from malloc.
  int RegisterWrite(char* data, const int& length);
  // Sends the answer before it returns. 0, or 2004 when it could not be sent.
  int Write(const std::string& data, const int& length);

  // Ends traffic both ways and closes, unless an answer is going out: then whoever sends it does.
  // With `stop_called` the server is going down and is not told of this session's end.
  void ShutDown(bool stop_called);
  void ShutDownOnStopCalled();
  // Ends the session, answered or not, and tells the server.
  void CloseAndNotify();

 private:
  void StartRead();
  void OnReadable(const error_code& error);
  void ReadWhatCame(const error_code& error);
  std::size_t Receive(char* data, error_code& error);
  bool ParseRead(char* data, std::size_t bytes);
  void SetAddresses();
  void HandOver();
  void RefuseTooLong();
  bool StartWrite(const char* data, std::size_t size);
  void CallbackWrite();
  void FinishWrite();
  error_code WriteAll(int descriptor, const char* data, std::size_t size);
  void DiscardUnread();
  void Leave();
  void NotifyCompleted();
  void ShutDownSocket() VEX_REQUIRES(mutex_);
  void CloseSocketNow() VEX_REQUIRES(mutex_);

  const int handler_id_;
  // The server holds its sessions; they need it only to say that they are done.
  const boost::weak_ptr<Notify> notify_;
  const boost::shared_ptr<ReadingSessions> reading_;

  // Used by the one read that is out, and by what follows it.
  const boost::shared_ptr<BudgetedMessage> request_;
  // The request's message.
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  HeaderEnd header_end_;
  int total_bytes_ = 0;
  bool too_long_ = false;

  // What an answer that is going out consists of.
  std::unique_ptr<std::string> write_string_;
  FreePtr<char> write_buffer_;

  // A leaf: never held while the server or the callback handler is called.
  boost::mutex mutex_;
  // Gone once the server has stopped, so that a session which a listener still holds then refers to
  // no event loop.
  std::optional<tcp::socket> socket_ VEX_GUARDED_BY(mutex_);
  bool stop_called_ VEX_GUARDED_BY(mutex_) = false;
  bool write_pending_ VEX_GUARDED_BY(mutex_) = false;
  ReadingSessions::Place reading_place_ VEX_GUARDED_BY(mutex_) = 0;
};

// The holder of a session that travels through a listener as an opaque pointer. It keeps the
// session until the answer; exactly one Send uses it up.
void* MakeSessionContext(const boost::shared_ptr<IncomingTCPSession>& session);
// Gives the session back and deletes the holder. Null for null.
boost::shared_ptr<IncomingTCPSession> TakeSession(void* session_context);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_INCOMING_TCP_SESSION_H_

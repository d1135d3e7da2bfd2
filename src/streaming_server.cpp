#include "src/streaming_server.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/accept.h"
#include "base/current_exception.h"
#include "base/descriptors.h"
#include "base/log.h"
#include "base/log_limit.h"
#include "base/port_search.h"
#include "base/retry.h"
#include "base/socket_close.h"
#include "src/streaming_incoming_session.h"
#include "src/streaming_manager.h"
#include "src/streaming_socket.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

namespace {

constexpr int kBacklog = 128;

}  // namespace

boost::mutex& TCPServer::m_session_list_mutex_ = *new boost::mutex;

TCPServer::TCPServer(io_service& io, ServerAppCallbacks* callbacks, const std::string& ip,
                     const std::string& interface_name, int server_id, int port)
    : io_service_(io),
      callbacks_(callbacks),
      ip_(ip),
      interface_name_(interface_name),
      server_id_(server_id),
      port_(port),
      acceptor_(io),
      next_session_id_(server_id + 1) {}

TCPServer::Attempt TCPServer::__Listen(int port) {
  tcp::endpoint endpoint;
  error_code error;
  if (!ResolveEndpoint(ip_, port, endpoint, error)) {
    VEX_LOG(kLogMajor, kTagStreaming, "Resolver error %s!", error.message().c_str());
    return Attempt::kNext;
  }
  boost::lock_guard<boost::mutex> lock(acceptor_mutex_);
  error_code ignored;
  acceptor_.open(endpoint.protocol(), error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Acceptor error %s!", error.message().c_str());
    VEX_LOG(kLogMajor, kTagStreaming, "acceptor open error %s: for IP [%s] and port[%d]",
            error.message().c_str(), ip_.c_str(), port);
    CloseNow(acceptor_, ignored);
    return Attempt::kNext;
  }
  acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in setting reuse address option!");
  acceptor_.set_option(boost::asio::socket_base::receive_buffer_size(kMediaSocketBuffer), error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in setting receive buffer size!");
  acceptor_.set_option(boost::asio::socket_base::send_buffer_size(kMediaSocketBuffer), error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in setting send buffer size!");
  acceptor_.set_option(tcp::no_delay(true), error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in setting no deplay option!");
  acceptor_.bind(endpoint, error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Bind error %s!", error.message().c_str());
    VEX_LOG(kLogMajor, kTagStreaming, "acceptor bind error %s: for IP [%s] and port[%d]",
            error.message().c_str(), ip_.c_str(), port);
    CloseNow(acceptor_, error);
    if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in closing TCP acceptor!");
    return Attempt::kNext;
  }
  acceptor_.listen(kBacklog, error);
  if (!error) PrepareToAccept(acceptor_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error in listening TCP acceptor!");
    CloseNow(acceptor_, ignored);
    return Attempt::kNext;
  }
  return Attempt::kWorked;
}

int TCPServer::Start(int& port) {
  if (!ValidateServerCallbacks(callbacks_.get())) return result::kStreamingInvalidCallbacks;
  bool port_is_text = true;
  int candidate = port;
  const int tries = TryPorts(candidate, [&](int number) {
    if (!IsPort(number)) port_is_text = false;
    return !port_is_text || __Listen(number) == Attempt::kWorked;
  });
  if (!port_is_text) {
    VEX_LOG(kLogMajor, kTagStreaming, "Port is invalid!");
    return result::kStreamingInvalidPort;
  }
  if (tries == 0) return result::kStreamingBindFailed;
  port = candidate;
  port_ = candidate;
  __Accept();
  VEX_LOG(kLogMajor, kTagStreaming, "TCP Server Started.");
  VEX_LOG(kLogDetail, kTagStreaming, "TCP Server Started %s, Port :%d", ip_.c_str(), port);
  return result::kOk;
}

// Makes the session for the next connection and waits for it.
void TCPServer::__Accept() {
  const boost::shared_ptr<TCPServer> self = shared_from_this();
  boost::lock_guard<boost::mutex> acceptor_lock(acceptor_mutex_);
  if (stopped_) return;
  std::list<boost::shared_ptr<IncomingSession>> place(
      1, boost::shared_ptr<IncomingSession>(
             new IncomingSession(io_service_, *callbacks_, self, next_session_id_)));
  __Wait();
  // Listed only when it is waited for, so that one without memory leaves nothing behind. The
  // connection is looked for under the acceptor's lock.
  boost::lock_guard<boost::mutex> lock(m_session_list_mutex_);
  incoming_session_list_.splice(incoming_session_list_.end(), place);
}

void TCPServer::__Wait() {
  const boost::shared_ptr<TCPServer> self = shared_from_this();
  const LogSite site = VEX_LOG_SITE;
  acceptor_.async_wait(tcp::acceptor::wait_read, [self, site](const error_code& error) {
    VEX_LOG_AT(site, kLogStep, kTagStreaming, "Incoming connection");
    try {
      self->handle_accept(error);
    } catch (...) {
      LogCurrentException(site, kLogMajor, kTagStreaming, "Exception: %s", "Unknown Exception");
    }
  });
}

// The connection that has come gets a socket of its own until the session has it on its queue: a
// stop at this moment touches the session's. Null without one.
boost::shared_ptr<tcp::socket> TCPServer::__Take(const error_code& error, int& session_id) {
  boost::lock_guard<boost::mutex> lock(acceptor_mutex_);
  if (stopped_ || error) return boost::shared_ptr<tcp::socket>();
  boost::shared_ptr<tcp::socket> accepted = NewSocket(io_service_);
  error_code failed;
  if (!AcceptNow(acceptor_, *accepted, failed)) {
    __Wait();
    return boost::shared_ptr<tcp::socket>();
  }
  // KEPT: no further accept after an error; the server stays open and deaf.
  if (failed) return boost::shared_ptr<tcp::socket>();
  if (DescriptorsScarce(accepted->native_handle())) {
    // With the last descriptor gone the server would be deaf for good.
    static LogLimit once_a_second;
    if (once_a_second.Due()) {
      VEX_LOG(kLogMajor, kTagStreaming, "Descriptors are scarce, a connection is closed");
    }
    __Wait();
    return boost::shared_ptr<tcp::socket>();
  }
  session_id = next_session_id_++;
  return accepted;
}

void TCPServer::handle_accept(const error_code& error) {
  boost::shared_ptr<tcp::socket> accepted;
  int session_id = 0;
  RetryWithoutMemory([&] { accepted = __Take(error, session_id); });
  if (!accepted) return;
  try {
    callbacks_->on_connect(server_id_, session_id, 0);
    boost::shared_ptr<IncomingSession> session;
    if (FindSession(session_id, session) == result::kYes) session->RegisterRead(accepted);
  } catch (const std::bad_alloc&) {
    // The one connection is lost, the server is not.
    VEX_LOG(kLogMajor, kTagStreaming, "No memory for a connection");
    boost::shared_ptr<IncomingSession> session;
    if (FindSession(session_id, session) == result::kYes) {
      callbacks_->on_status(server_id_, session_id, STREAMING_SOCKET_FAILED);
    }
    SessionCompleted(session_id);
  }
  RetryWithoutMemory([this] { __Accept(); });
}

void TCPServer::Stop() {
  {
    boost::lock_guard<boost::mutex> lock(acceptor_mutex_);
    stopped_ = true;
    error_code error;
    CloseNow(acceptor_, error);
    if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in closing TCP acceptor!");
  }
  std::list<boost::shared_ptr<IncomingSession>> sessions;
  {
    boost::lock_guard<boost::mutex> lock(m_session_list_mutex_);
    sessions.swap(incoming_session_list_);
  }
  for (const boost::shared_ptr<IncomingSession>& session : sessions) session->CloseConnection();
}

int TCPServer::SendResponse(const int& session_id, const ResHeaderInfo*& header,
                            const bool& final) {
  boost::shared_ptr<IncomingSession> session;
  if (FindSession(session_id, session) == result::kYes) {
    return session->RegisterWrite(header, final);
  }
  VEX_LOG(kLogMajor, kTagStreaming, "session not found with id %d", session_id);
  return result::kStreamingNoSession;
}

int TCPServer::SendPayload(const int& session_id, void* data, const unsigned int& length,
                           const bool& final) {
  boost::shared_ptr<IncomingSession> session;
  if (FindSession(session_id, session) == result::kYes) {
    return session->RegisterWrite(data, length, final);
  }
  VEX_LOG(kLogMajor, kTagStreaming, "session not found with id %d", session_id);
  return result::kStreamingNoSession;
}

int TCPServer::FindSession(const int& session_id, boost::shared_ptr<IncomingSession>& session) {
  {
    boost::lock_guard<boost::mutex> lock(m_session_list_mutex_);
    for (const boost::shared_ptr<IncomingSession>& candidate : incoming_session_list_) {
      if (candidate->GetSessionId() != session_id) continue;
      session = candidate;
      return result::kYes;
    }
  }
  VEX_LOG(kLogMajor, kTagStreaming, "[TCPServer::FindSession] session not found with id %d",
          session_id);
  return result::kNo;
}

void TCPServer::SessionCompleted(const int& session_id) {
  boost::shared_ptr<IncomingSession> completed;
  bool empty = false;
  {
    boost::lock_guard<boost::mutex> lock(m_session_list_mutex_);
    empty = incoming_session_list_.empty();
    const auto found = std::find_if(incoming_session_list_.begin(), incoming_session_list_.end(),
                                    [&](const boost::shared_ptr<IncomingSession>& session) {
                                      return session->GetSessionId() == session_id;
                                    });
    if (found != incoming_session_list_.end()) {
      completed = *found;
      incoming_session_list_.erase(found);
    }
  }
  if (empty) VEX_LOG(kLogMajor, kTagStreaming, "incoming_session_list_ is empty!");
  if (completed) completed->CloseConnection();
}

int TCPServer::GetAllConnectedDeviceInfo(stRunningSession*& head, stRunningSession*& tail) {
  std::list<boost::shared_ptr<IncomingSession>> sessions;
  {
    boost::lock_guard<boost::mutex> lock(m_session_list_mutex_);
    sessions = incoming_session_list_;
  }
  for (const boost::shared_ptr<IncomingSession>& session : sessions) {
    std::string ip;
    if (session->GetConnectedDeviceInfo(ip) != result::kOk) continue;
    FreePtr<stRunningSession> entry(CallocRecord<stRunningSession>());
    if (!entry) return result::kFailure;
    entry->ip = MallocString(ip);
    if (entry->ip == nullptr) return result::kFailure;
    AppendNode(head, tail, entry.release());
  }
  return result::kOk;
}

}  // namespace streaming
}  // namespace vex_upnp

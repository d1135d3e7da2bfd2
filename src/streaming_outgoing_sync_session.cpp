#include "src/streaming_outgoing_sync_session.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include <boost/asio/write.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/host_memory.h"
#include "base/log.h"
#include "base/socket_close.h"
#include "base/timing.h"
#include "src/http_feed.h"
#include "src/streaming_manager.h"
#include "src/streaming_socket.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

// cppcheck-suppress uninitMemberVar; only what a read has filled of the buffer is looked at.
OutgoingSyncSession::OutgoingSyncSession(io_service& io, int session_id, StreamingManager* manager)
    : io_service_(io),
      session_id_(session_id),
      manager_(manager),
      socket_(io),
      http_info_(new utils::HTTPInfo),
      resolver_(io) {}

OutgoingSyncSession::~OutgoingSyncSession() {
  VEX_LOG(kLogStep, kTagStreaming, "~OutgoingSyncSession id [%d]", session_id_);
  ShutDown();
  error_code error;
  CloseNow(socket_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error [%s] in closing sync socket!",
            error.message().c_str());
  }
  VEX_LOG(kLogStep, kTagStreaming, "sync socket closed");
}

int OutgoingSyncSession::Connect(const std::string& ip, const int& port) {
  ip_ = ip;
  port_ = port;
  if (!IsPort(port)) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: input string was not valid!");
    return result::kStreamingInvalidPort;
  }
  try {
    const boost::shared_ptr<OutgoingSyncSession> self = shared_from_this();
    error_code not_numeric;
    const boost::asio::ip::address_v4 address = boost::asio::ip::make_address_v4(ip, not_numeric);
    if (!not_numeric) {
      const tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
      boost::asio::post(io_service_,
                        [self, endpoint] { self->HandleResolve(error_code(), endpoint); });
    } else {
      boost::lock_guard<boost::mutex> lock(resolve_mutex_);
      resolver_.async_resolve(
          tcp::v4(), ip, std::to_string(port), tcp::resolver::address_configured,
          [self](const error_code& error, const tcp::resolver::results_type& found) {
            self->HandleResolve(
                found.empty() && !error ? boost::asio::error::host_not_found : error,
                found.empty() ? tcp::endpoint() : found.begin()->endpoint());
          });
    }
    return __WaitForConnect();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagStreaming, "Exception: %s",
                        "Unknown error in connect!");
    return result::kStreamingConnectFailed;
  }
}

// boost::unique_lock carries no marks for the analysis.
int OutgoingSyncSession::__WaitForConnect() VEX_NO_THREAD_SAFETY_ANALYSIS {
  const int seconds = timing::kSyncConnectTimeoutMs / 1000;
  const boost::chrono::steady_clock::time_point deadline =
      boost::chrono::steady_clock::now() +
      boost::chrono::milliseconds(timing::Scaled(timing::kSyncConnectTimeoutMs));
  boost::unique_lock<boost::mutex> lock(resolve_mutex_);
  while (!resolve_complete_) {
    VEX_LOG(kLogStep, kTagStreaming, "Sleeping for %d sec", seconds);
    if (resolve_complete_condition_.wait_until(lock, deadline) == boost::cv_status::timeout &&
        !resolve_complete_) {
      VEX_LOG(kLogMajor, kTagStreaming, "Error: timed_wait failed!");
      break;
    }
  }
  if (connected_) {
    VEX_LOG(kLogStep, kTagStreaming, "Socket connected");
    return result::kOk;
  }
  VEX_LOG(kLogMajor, kTagStreaming, "Error: connect failed!");
  return result::kStreamingConnectFailed;
}

// On the pool. The connect is asynchronous, so that an address that does not answer holds no
// thread.
void OutgoingSyncSession::HandleResolve(const error_code& error, const tcp::endpoint& endpoint) {
  try {
    if (error) {
      VEX_LOG(kLogMajor, kTagStreaming, "Resolve error [%s]", error.message().c_str());
      __ResolveComplete(false);
      return;
    }
    VEX_LOG(kLogStep, kTagStreaming, "Invoking Sync Connect on socket");
    error_code open_error;
    {
      boost::lock_guard<boost::mutex> lock(resolve_mutex_);
      if (closed_) return;
      socket_.open(endpoint.protocol(), open_error);
      if (!open_error) {
        descriptor_ = socket_.native_handle();
        // Under the lock: a socket that is shut down before its connect begins would connect.
        const boost::shared_ptr<OutgoingSyncSession> self = shared_from_this();
        socket_.async_connect(
            endpoint, [self](const error_code& connected) { self->HandleConnect(connected); });
      }
    }
    if (open_error) HandleConnect(open_error);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagStreaming, "Exception: %s",
                        "Unknown error in connect!");
    __ResolveComplete(false);
  }
}

void OutgoingSyncSession::HandleConnect(const error_code& error) {
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Exception: %s", error.message().c_str());
  } else {
    VEX_LOG(kLogStep, kTagStreaming, "Sync Connect success");
  }
  __ResolveComplete(!error);
}

void OutgoingSyncSession::__ResolveComplete(bool connected) {
  boost::lock_guard<boost::mutex> lock(resolve_mutex_);
  if (connected) connected_ = true;
  resolve_complete_ = true;
  VEX_LOG(kLogStep, kTagStreaming, "resolve_complete_condition_ notifying condition");
  resolve_complete_condition_.notify_all();
}

bool OutgoingSyncSession::__IsConnected() {
  boost::lock_guard<boost::mutex> lock(resolve_mutex_);
  return connected_;
}

int OutgoingSyncSession::__WriteAll(const void* data, std::size_t size) {
  error_code error = boost::asio::error::not_connected;
  if (__IsConnected()) boost::asio::write(socket_, boost::asio::buffer(data, size), error);
  if (!error) return result::kOk;
  VEX_LOG(kLogMajor, kTagStreaming, "Write to socket failed! Error: [%s]", error.message().c_str());
  return result::kSocketFailed;
}

int OutgoingSyncSession::Write(const ReqHeaderInfo*& header) {
  std::string request;
  const int formed = FormReqHeader(header, request);
  if (formed != result::kOk) return formed;
  request_type_ = header->request_type;
  chunked_ = header->http_version == HTTP_1_1 && IsChunked(header->transfer_encoding);
  final_ = header->expect != nullptr || header->request_type < utils::HTTP_POST;
  // KEPT: a session without a connection takes the request, sends nothing and says success; the
  // next read tells.
  if (!__IsConnected()) return result::kOk;
  return __WriteAll(request.data(), request.size());
}

int OutgoingSyncSession::Write(void* data, const unsigned int& length, const bool& final) {
  final_ = final;
  if (!chunked_) return __WriteAll(data, length);
  unsigned int size = 0;
  const FreePtr<char> framed(FrameChunked(data, length, final, size));
  if (!framed) {
    ShutDown();
    manager_->ClientSessionCompleted(session_id_);
    return result::kStreamingOutOfMemory;
  }
  return __WriteAll(framed.get(), size);
}

std::size_t OutgoingSyncSession::__Read(error_code& error) {
  if (!__IsConnected()) {
    error = boost::asio::error::not_connected;
    return 0;
  }
  return socket_.read_some(boost::asio::buffer(buffer_, limits::kReceiveBuffer), error);
}

int OutgoingSyncSession::__Parse(std::size_t bytes) {
  buffer_[bytes] = '\0';
  const int parsed = utils::FeedParser(buffer_, bytes, http_info_);
  if (parsed == result::kOk && !HeaderTooLong(*http_info_)) return result::kOk;
  VEX_LOG(kLogMajor, kTagStreaming, "Parsing Failure!");
  ShutDown();
  CompleteSession();
  return result::kBadHttp;
}

int OutgoingSyncSession::__TakeHeader(ResHeaderInfo** header, void** body, unsigned int& length,
                                      bool& final) {
  header_read_ = true;
  ResponseRecord record = FormResponseHeaderInfo(http_info_);
  if (!record) {
    *header = nullptr;
    VEX_LOG(kLogMajor, kTagStreaming, "Alloc Failure!");
    ShutDown();
    CompleteSession();
    return result::kStreamingOutOfMemory;
  }
  if (record->status_code == HTTP_CONTINUE) {
    got_continue_ = true;
    *header = record.release();
    *body = nullptr;
    length = 0;
    final = true;
    return result::kOk;
  }
  *body = TakeBody(*http_info_, length).release();
  *header = record.release();
  if (http_info_->GetState() == utils::MESSAGE_COMPLETE) final = true;
  return result::kOk;
}

int OutgoingSyncSession::ReadHeader(ResHeaderInfo** header, void** body, unsigned int& length,
                                    bool& final) {
  for (;;) {
    // After an interim answer the next message starts clean.
    if (got_continue_) {
      got_continue_ = false;
      header_read_ = false;
      http_info_->CleanInfo();
    }
    if (http_info_->GetStatus() == utils::HEADER_COMPLETE) {
      return __TakeHeader(header, body, length, final);
    }
    error_code error;
    const std::size_t bytes = __Read(error);
    if (error) {
      VEX_LOG(kLogMajor, kTagStreaming, "[OutgoingSyncSession] read_some failed! ec = [%s]",
              error.message().c_str());
      return result::kSocketFailed;
    }
    const int parsed = __Parse(bytes);
    if (parsed != result::kOk) return parsed;
  }
}

int OutgoingSyncSession::ReadData(void** data, unsigned int& length, bool& final) {
  length = 0;
  final = false;
  error_code error;
  const std::size_t bytes = __Read(error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: Socket read failed! Error Code [%s]",
            error.message().c_str());
    return result::kSocketFailed;
  }
  const int parsed = __Parse(bytes);
  if (parsed != result::kOk) return parsed;
  *data = TakeBody(*http_info_, length).release();
  if (http_info_->GetState() == utils::MESSAGE_COMPLETE) final = true;
  return result::kOk;
}

void OutgoingSyncSession::CloseConnection() {
  VEX_LOG(kLogStep, kTagStreaming, "closing OutgoingSyncSession id [%d]", session_id_);
  {
    boost::lock_guard<boost::mutex> lock(resolve_mutex_);
    if (!resolve_complete_) {
      VEX_LOG(kLogStep, kTagStreaming, "invoking resolver.cancel()");
      resolver_.cancel();
      resolve_complete_ = true;
      resolve_complete_condition_.notify_all();
    }
  }
  ShutDown();
  alive_ = false;
}

void OutgoingSyncSession::CompleteSession() {
  if (alive_) manager_->ClientSessionCompleted(session_id_);
}

// Another thread may be blocked on the socket: it is woken here, and closed by the last owner.
void OutgoingSyncSession::ShutDown() {
  VEX_LOG(kLogStep, kTagStreaming, "Closing socket OutgoingSyncSession id [%d]", session_id_);
  boost::lock_guard<boost::mutex> lock(resolve_mutex_);
  closed_ = true;
  if (descriptor_ != -1 && ::shutdown(descriptor_, SHUT_RDWR) != 0) {
    VEX_LOG(kLogMajor, kTagStreaming,
            "OutgoingSyncSession Socket shutdown error, possibly shutdown already!");
  }
}

}  // namespace streaming
}  // namespace vex_upnp

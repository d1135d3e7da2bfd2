#include "src/outgoingsession.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <exception>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/log.h"
#include "base/socket_close.h"
#include "base/timing.h"
#include "src/callbackhandler.h"
#include "src/http_feed.h"
#include "src/outgoing_address.h"
#include "src/outgoing_arrival.h"
#include "src/outgoing_datagram.h"
#include "src/outgoing_limits.h"
#include "src/soap_fault.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
// From this number on the process is short of descriptors.
constexpr int kManyDescriptors = 449;

// To be called inside a `catch (...)`.
void LogConnectException(const LogSite& site, const char* unknown) {
  try {
    throw;
  } catch (const system_error&) {
    LogCurrentException(site, kLogMajor, kTag, "Exception: %s", unknown);
  } catch (...) {
    LogCurrentException(site, kLogMajor, kTag, "Exception:%s", unknown);
  }
}

bool IsInterim(const utils::HTTPInfo& info) {
  // Not before its header is complete: what follows in a later read belongs to it still.
  return info.GetStatus() == utils::HEADER_COMPLETE && info.GetStatusCode() >= 100 &&
         info.GetStatusCode() <= 199;
}

}  // namespace

OutgoingSession::OutgoingSession(io_service& io, Notify* notify, const utils::Protocol& protocol,
                                 OutgoingTimeouts* timeouts)
    : io_service_(&io),
      notify_(notify),
      timeouts_(timeouts),
      http_info_(boost::make_shared<utils::HTTPInfo>()),
      socket_(io) {
  SetProtocol(protocol);
}

void OutgoingSession::SetProtocol(const utils::Protocol& protocol) {
  protocol_ = protocol;
  if (protocol == utils::PROTOCOL_TCP) return;
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!socket_.is_open()) return;
  error_code error;
  socket_.close(error);
  if (error) VEX_LOG(kLogMajor, kTag, "Error in closing TCP socket!");
}

void OutgoingSession::reset() {
  // The last reference may be this one, and an object must not die with its own mutex locked.
  boost::shared_ptr<OutgoingSession> last;
  boost::lock_guard<boost::mutex> lock(mutex_);
  last.swap(self_);
}

int OutgoingSession::Connect(const std::string& local_ip, const std::string& remote_ip,
                             const int& port, const std::string& data) {
  if (protocol_ != utils::PROTOCOL_TCP) {
    return SendDatagram(*io_service_, handler_id_, local_ip, remote_ip, port, data);
  }
  request_ = data;
  return TCPConnect(remote_ip, port);
}

int OutgoingSession::TCPConnect(const std::string& ip, const int& port) {
  try {
    http_info_->SetClientPort(port);
    if (!IsPort(port)) {
      VEX_LOG(kLogMajor, kTag, "port number is not valid");
      return result::kConnectFailed;
    }
    __BeginConnect(ip, port, &OutgoingSession::handle_connect);
    return result::kOk;
  } catch (...) {
    LogConnectException(VEX_LOG_SITE, "Unknown Exception in TCPConnect");
  }
  stop();
  reset();
  return result::kConnectFailed;
}

int OutgoingSession::InitiateConnection(const std::string& ip, const int& port) {
  try {
    if (IsPort(port)) {
      __BeginConnect(ip, port, &OutgoingSession::connect_callback);
      return result::kOk;
    }
    VEX_LOG(kLogMajor, kTag, "port number is not valid");
  } catch (...) {
    LogConnectException(VEX_LOG_SITE, "Unknown Exception in InitiateConnection");
  }
  stop();
  reset();
  return result::kConnectFailed;
}

void OutgoingSession::__BeginConnect(const std::string& ip, int port, ConnectHandler handler) {
  endpoints_ = EndpointsOfAddress(ip, port);
  const bool is_name = endpoints_.empty();
  const bool may_wait = ip.empty() || !OnLibraryThread();
  if (is_name && may_wait) endpoints_ = EndpointsOfName(*io_service_, ip, port);
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!self_) self_ = shared_from_this();
  }
  if (is_name && !may_wait) {
    __ResolveName(ip, port, handler);
  } else if (!__ConnectToNext(handler)) {
    throw system_error(boost::asio::error::host_not_found);
  }
}

void OutgoingSession::__ResolveName(const std::string& host, int port, ConnectHandler handler) {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  boost::lock_guard<boost::mutex> lock(mutex_);
  resolver_.reset(new tcp::resolver(*io_service_));
  resolver_->async_resolve(
      tcp::v4(), host, std::to_string(port), tcp::resolver::address_configured,
      [self, handler](const error_code& error, const tcp::resolver::results_type& results) {
        self->__RunHandler([&] {
          if (!error) self->endpoints_ = EndpointsOf(results);
          if (error || !self->__ConnectToNext(handler)) {
            ((*self).*handler)(error ? error : boost::asio::error::host_not_found);
          }
        });
      });
}

// False when there is no further endpoint, or no further attempt is wanted.
bool OutgoingSession::__ConnectToNext(ConnectHandler handler) {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_ || next_endpoint_ >= endpoints_.size()) return false;
  if (socket_.is_open()) {
    error_code error;
    socket_.close(error);
    if (error) VEX_LOG(kLogMajor, kTag, "Error TCP close socket failed!");
  }
  socket_.open(tcp::v4());
  socket_.async_connect(endpoints_[next_endpoint_++], [self, handler](const error_code& error) {
    self->__RunHandler([&] { ((*self).*handler)(error); });
  });
  return true;
}

// Whatever a step throws ends here, and with it the exchange.
template <typename Step>
void OutgoingSession::__RunHandler(Step step) {
  try {
    step();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    __EndInFailure();
  }
}

void OutgoingSession::connect_callback(const error_code& error) {
  if (error && __ConnectToNext(&OutgoingSession::connect_callback)) return;
  if (error) {
    VEX_LOG(kLogStep, kTag, "connect_callback: %s", error.message().c_str());
  } else {
    remote_address_valid_ = true;
  }
  reset();
}

void OutgoingSession::handle_connect(const error_code& error) {
  if (error && __ConnectToNext(&OutgoingSession::handle_connect)) return;
  std::size_t sent = 0;
  const error_code failure = error ? error : __SendRequest(sent);
  if (failure) {
    VEX_LOG(kLogMajor, kTag, "handle_connect exception: %s", failure.message().c_str());
    __EndInFailure();
    return;
  }
  // Nearly every request fits at once, and its end needs no further turn of the event loop.
  const error_code rest = sent == request_.size() ? error_code() : __WriteRest(sent);
  if (sent == request_.size() || rest) CallbackWrite(rest);
}

// Offers the whole request to the kernel, which takes what has room.
error_code OutgoingSession::__SendRequest(std::size_t& sent) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return boost::asio::error::operation_aborted;
  error_code error;
  socket_.set_option(tcp::no_delay(true), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "socket set_option failed for tcp::no_delay, [%s]!",
            error.message().c_str());
  }
  try {
    http_info_->SetClientIpAddress(endpoints_[next_endpoint_ - 1].address().to_string());
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in handle_connect: %s",
                        "Unknown Exception in handle_connect");
  }
  const int fd = socket_.native_handle();
  if (fd > kManyDescriptors) {
    VEX_LOG(kLogMajor, kTag, "Warning! too many sockets[id:%d][fd:%d]", handler_id_, fd);
  }
  const ssize_t taken = ::send(fd, request_.data(), request_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  // A failure shows again, with its reason, when the rest is written.
  sent = taken > 0 ? static_cast<std::size_t>(taken) : 0;
  return error_code();
}

error_code OutgoingSession::__WriteRest(std::size_t sent) {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return boost::asio::error::operation_aborted;
  boost::asio::async_write(socket_,
                           boost::asio::buffer(request_.data() + sent, request_.size() - sent),
                           [self](const error_code& error, std::size_t) {
                             self->__RunHandler([&] { self->CallbackWrite(error); });
                           });
  return error_code();
}

void OutgoingSession::CallbackWrite(const error_code& error) {
  const error_code failure = error ? error : __AwaitAnswer();
  if (!failure) return;
  VEX_LOG(kLogMajor, kTag, "Exception: %s", failure.message().c_str());
  __EndInFailure();
}

error_code OutgoingSession::__AwaitAnswer() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return boost::asio::error::operation_aborted;
  error_code error;
  const tcp::endpoint local = socket_.local_endpoint(error);
  if (error) return error;
  http_info_->SetMyIpAddress(local.address().to_string());
  // Armed before the read can end, so that an exchange which ends at once leaves none behind. It
  // counts from here and no arriving data restarts it.
  if (timeouts_ != nullptr) {
    const std::chrono::milliseconds wait(timing::Scaled(timing::kResponseTimeoutMs));
    timeout_ = timeouts_->Add(weak_from_this(), wait);
    timeout_armed_ = true;
  }
  __StartRead();
  return error_code();
}

bool OutgoingSession::__ReadOn() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return false;
  __StartRead();
  return true;
}

void OutgoingSession::__StartRead() {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  socket_.async_read_some(boost::asio::buffer(data_, limits::kReceiveBuffer),
                          [self](const error_code& error, std::size_t bytes) {
                            self->__RunHandler([&] { self->CallbackRead(error, bytes); });
                          });
}

void OutgoingSession::CallbackRead(const error_code& error, std::size_t bytes) {
  if (ended_) return;
  if (error == boost::asio::error::eof) {
    // Complete or not: this is how a body without a length ends.
    VEX_LOG(kLogStep, kTag, "EOF received from Peer -- Handle to UPnP for session %d", handler_id_);
    __HandOver();
    return;
  }
  if (error || bytes == 0) {
    __OnBrokenConnection(error);
    return;
  }
  __TakeUp(bytes);
}

void OutgoingSession::__TakeUp(std::size_t bytes) {
  data_[bytes] = '\0';
  const bool taken = utils::FeedParser(data_, bytes, http_info_) == result::kOk &&
                     http_info_->GetState() != utils::MESSAGE_FAILED && AnswerFits(*http_info_);
  if (!taken) {
    std::string start_line;
    http_info_->GetStartLine(start_line);
    VEX_LOG(kLogMajor, kTag, "PARSER FAILURE for data %s and start line is %s", data_,
            start_line.empty() ? "\"\"" : start_line.c_str());
    __EndInFailure();
    return;
  }
  if (IsInterim(*http_info_)) {
    // KEPT: a final answer behind it in the same read is lost.
    int port = 0;
    http_info_->GetClientPort(port);
    http_info_->CleanInfo();
    http_info_->SetClientPort(port);
  } else if (http_info_->GetState() == utils::MESSAGE_COMPLETE) {
    VEX_LOG(kLogStep, kTag, "Recived Response -- Handle to UPnP for session %d", handler_id_);
    __HandOver();
    return;
  }
  if (!__ReadOn()) __OnBrokenConnection(boost::asio::error::operation_aborted);
}

// The requester gets a fault that looks like the device's own. Who has cancelled is not registered
// any more and hears nothing.
void OutgoingSession::__OnBrokenConnection(const error_code& error) {
  int port = 0;
  http_info_->GetClientPort(port);
  http_info_->CleanInfo();
  http_info_->SetClientPort(port);
  VEX_LOG(kLogMajor, kTag, "CallbackRead: %s", error.message().c_str());
  const std::string answer = BrokenConnectionAnswer();
  if (utils::FeedParser(answer.data(), answer.size(), http_info_) == result::kOk &&
      http_info_->GetState() == utils::MESSAGE_COMPLETE) {
    VEX_LOG(kLogStep, kTag, "Received Response -- Handle to UPnP");
  }
  __HandOver();
}

void OutgoingSession::__HandOver() {
  if (!__ClaimEnd()) return;
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (!handler || handler->InvokeResponseHandler(handler_id_, http_info_) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "Invocation of Response Handler failed.");
  }
  if (notify_ != nullptr) notify_->SessionCompleted(handler_id_);
  reset();
}

void OutgoingSession::__EndInFailure() {
  if (__ClaimEnd() && notify_ != nullptr) notify_->HandleFailureCondition(handler_id_);
  reset();
}

void OutgoingSession::TimeoutClose(const error_code& error) {
  if (error == boost::asio::error::operation_aborted) {
    VEX_LOG(kLogDetail, kTag, "operation_aborted");
    return;
  }
  if (error) {
    VEX_LOG(kLogMajor, kTag, "error");
    return;
  }
  if (!__ClaimEnd()) return;
  VEX_LOG(kLogMajor, kTag, "TimeoutClose handler_id_ = %d, error = %d ", handler_id_,
          error.value());
  if (notify_ != nullptr) notify_->HandleFailureCondition(handler_id_);
  reset();
}

bool OutgoingSession::HasAnswerBegun() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return socket_.is_open() && HasReceived(socket_.native_handle());
}

void OutgoingSession::stop() {
  try {
    bool was_armed = false;
    {
      boost::lock_guard<boost::mutex> lock(mutex_);
      stopped_ = true;
      was_armed = timeout_armed_ && timeouts_->Remove(timeout_);
      timeout_armed_ = false;
      if (resolver_) resolver_->cancel();
      if (blocking_fd_ >= 0) {
        __ShutDownForOwner();
      } else {
        __CloseNow();
      }
    }
    if (was_armed) TimeoutClose(boost::asio::error::operation_aborted);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
}

void OutgoingSession::__CloseNow() {
  if (socket_.is_open() && protocol_ == utils::PROTOCOL_TCP) {
    // The close aborts the connection at once instead of leaving it to linger in the kernel.
    error_code error;
    socket_.set_option(boost::asio::socket_base::linger(true, 0), error);
    if (error) {
      VEX_LOG(kLogMajor, kTag, "socket set_option failed for linger, [%s]!",
              error.message().c_str());
    }
  }
  const SocketCloseResult closed = CloseSocket(socket_);
  if (closed.shutdown) {
    VEX_LOG(kLogStep, kTag, "TCP Socket shutdown error, possibly shutdown already!");
  }
  if (closed.close) VEX_LOG(kLogStep, kTag, "TCP Socket close error, possibly closed already!");
}

}  // namespace network_layer
}  // namespace vex_upnp

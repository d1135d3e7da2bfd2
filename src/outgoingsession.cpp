#include "src/outgoingsession.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <exception>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/address_text.h"
#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/scoped_fd.h"
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
// Reads of one session before the others of its loop have their turn.
constexpr int kReadsAtOnce = 16;

error_code LastError() { return error_code(errno, boost::system::system_category()); }

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
      answer_(boost::make_shared<BudgetedMessage>(AnswerBudget())),
      http_info_(BudgetedMessage::InfoOf(answer_)),
      socket_(io) {
  SetProtocol(protocol);
}

void OutgoingSession::SetProtocol(const utils::Protocol& protocol) {
  protocol_ = protocol;
  if (protocol == utils::PROTOCOL_TCP) return;
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!socket_.is_open()) return;
  error_code error;
  CloseNow(socket_, error);
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
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (stopped_ || next_endpoint_ >= endpoints_.size()) return false;
    if (socket_.is_open()) {
      error_code error;
      CloseNow(socket_, error);
      if (error) VEX_LOG(kLogMajor, kTag, "Error TCP close socket failed!");
    }
    const bool is_exchange = handler == &OutgoingSession::handle_connect;
    error_code error = __StartConnect(endpoints_[next_endpoint_++], is_exchange);
    // A peer on this machine has taken up the connection by now. Then the request needs no turn of
    // the event loop.
    if (!error && is_exchange) error = __OfferRequest();
    if (error) {
      boost::asio::post(*io_service_, [self, handler, error] {
        self->__RunHandler([&] { ((*self).*handler)(error); });
      });
      return true;
    }
    if (sent_ == 0) {
      socket_.async_wait(tcp::socket::wait_write, [self, handler](const error_code& failure) {
        self->__RunHandler([&] { ((*self).*handler)(failure ? failure : self->__ConnectError()); });
      });
      return true;
    }
  }
  __GoOnSending();
  return true;
}

// The descriptor becomes known to the event loop only behind the start of the attempt: before it,
// the loop would be woken for a socket that is not connected.
error_code OutgoingSession::__StartConnect(const tcp::endpoint& endpoint, bool is_exchange) {
  ScopedFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!fd.valid()) throw system_error(LastError(), "open");
  const int on = 1;
  if (is_exchange && ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0) {
    VEX_LOG(kLogMajor, kTag, "socket set_option failed for tcp::no_delay, [%s]!",
            LastError().message().c_str());
  }
  const int begun = ::connect(fd.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size()));
  const error_code error = begun == 0 || errno == EINPROGRESS ? error_code() : LastError();
  socket_.assign(tcp::v4(), fd.get());
  static_cast<void>(fd.release());
  return error;
}

error_code OutgoingSession::__ConnectError() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return boost::asio::error::operation_aborted;
  int failure = 0;
  socklen_t size = sizeof(failure);
  if (::getsockopt(socket_.native_handle(), SOL_SOCKET, SO_ERROR, &failure, &size) != 0) {
    return LastError();
  }
  return error_code(failure, boost::system::system_category());
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
  error_code failure = error;
  if (!failure) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    // What the offer says against it shows again, with its reason, when the rest is written.
    if (stopped_) {
      failure = boost::asio::error::operation_aborted;
    } else {
      __OfferRequest();
    }
  }
  if (failure) {
    VEX_LOG(kLogMajor, kTag, "handle_connect exception: %s", failure.message().c_str());
    __EndInFailure();
    return;
  }
  __GoOnSending();
}

// Offers the kernel what is left of the request; it takes what has room. The error says that there
// is no connection to send on.
error_code OutgoingSession::__OfferRequest() {
  const ssize_t taken = ::send(socket_.native_handle(), request_.data() + sent_,
                               request_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken < 0) return errno == EAGAIN || errno == EINTR ? error_code() : LastError();
  sent_ += static_cast<std::size_t>(taken);
  return error_code();
}

// With the connection made and the request offered for the first time.
void OutgoingSession::__GoOnSending() {
  __NoteConnection();
  __WriteRest();
}

void OutgoingSession::__NoteConnection() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  try {
    http_info_->SetClientIpAddress(AddressText(endpoints_[next_endpoint_ - 1].address()));
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in handle_connect: %s",
                        "Unknown Exception in handle_connect");
  }
  const int fd = socket_.is_open() ? socket_.native_handle() : -1;
  if (fd > kManyDescriptors) {
    VEX_LOG(kLogMajor, kTag, "Warning! too many sockets[id:%d][fd:%d]", handler_id_, fd);
  }
}

// Waits for room for the rest of the request, if there is a rest. Each step is begun under the
// lock, so that none meets a socket which is being closed.
void OutgoingSession::__WriteRest() {
  error_code error;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (stopped_) {
      error = boost::asio::error::operation_aborted;
    } else if (sent_ < request_.size()) {
      const boost::shared_ptr<OutgoingSession> self = shared_from_this();
      socket_.async_wait(tcp::socket::wait_write, [self](const error_code& failure) {
        self->__RunHandler([&] { self->__OnWritable(failure); });
      });
      return;
    }
  }
  CallbackWrite(error);
}

void OutgoingSession::__OnWritable(const error_code& error) {
  error_code failure = error;
  if (!failure) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    failure = stopped_ ? error_code(boost::asio::error::operation_aborted) : __OfferRequest();
  }
  if (failure) {
    CallbackWrite(failure);
  } else {
    __WriteRest();
  }
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
  http_info_->SetMyIpAddress(AddressText(local.address()));
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
  socket_.async_wait(tcp::socket::wait_read, [self](const error_code& error) {
    self->__RunHandler([&] { self->__OnReadable(error); });
  });
}

// Most sessions only wait for their answers, so none has a buffer of its own: what has come is read
// into one on the stack. A peer that sends without end doesn't keep the loop from the others.
void OutgoingSession::__OnReadable(const error_code& error) {
  char data[limits::kReceiveBuffer + 1];
  std::size_t bytes = limits::kReceiveBuffer;
  for (int reads = 0; reads < kReadsAtOnce && bytes == limits::kReceiveBuffer; ++reads) {
    error_code failure = error;
    bytes = 0;
    if (!failure) bytes = __Receive(data, failure);
    if (failure == boost::asio::error::would_block) break;
    if (!CallbackRead(failure, data, bytes)) return;
  }
  if (!__ReadOn()) __OnBrokenConnection(boost::asio::error::operation_aborted);
}

std::size_t OutgoingSession::__Receive(char* data, error_code& error) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) {
    error = boost::asio::error::operation_aborted;
    return 0;
  }
  const ssize_t bytes = ::recv(socket_.native_handle(), data, limits::kReceiveBuffer, MSG_DONTWAIT);
  if (bytes > 0) return static_cast<std::size_t>(bytes);
  if (bytes == 0) {
    error = boost::asio::error::eof;
  } else {
    error = errno == EINTR || errno == EAGAIN ? error_code(boost::asio::error::would_block)
                                              : LastError();
  }
  return 0;
}

// True while more is to come.
bool OutgoingSession::CallbackRead(const error_code& error, char* data, std::size_t bytes) {
  if (ended_) return false;
  if (error == boost::asio::error::eof) {
    // Complete or not: this is how a body without a length ends.
    VEX_LOG(kLogStep, kTag, "EOF received from Peer -- Handle to UPnP for session %d", handler_id_);
    __HandOver();
    return false;
  }
  if (error || bytes == 0) {
    __OnBrokenConnection(error);
    return false;
  }
  // The search for the first line's end wants it.
  data[bytes] = '\0';
  return __TakeUp(data, bytes);
}

bool OutgoingSession::__TakeUp(const char* data, std::size_t bytes) {
  const bool taken = utils::FeedParser(data, bytes, http_info_) == result::kOk &&
                     http_info_->GetState() != utils::MESSAGE_FAILED && AnswerFits(*http_info_) &&
                     answer_->HasPlace();
  if (!taken) {
    std::string start_line;
    http_info_->GetStartLine(start_line);
    VEX_LOG(kLogMajor, kTag, "PARSER FAILURE for data %s and start line is %s", data,
            start_line.empty() ? "\"\"" : start_line.c_str());
    __EndInFailure();
    return false;
  }
  if (IsInterim(*http_info_)) {
    // KEPT: a final answer behind it in the same read is lost.
    int port = 0;
    http_info_->GetClientPort(port);
    http_info_->CleanInfo();
    http_info_->SetClientPort(port);
    return true;
  }
  if (http_info_->GetState() != utils::MESSAGE_COMPLETE) return true;
  VEX_LOG(kLogStep, kTag, "Recived Response -- Handle to UPnP for session %d", handler_id_);
  __HandOver();
  return false;
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
  bool handed_over = true;
  try {
    const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
    if (!handler || handler->InvokeResponseHandler(handler_id_, http_info_) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Invocation of Response Handler failed.");
    }
  } catch (...) {
    // The end has been claimed, so it is told here or nowhere.
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in HandOver: %s",
                        "Unknown Exception in HandOver");
    handed_over = false;
  }
  if (notify_ != nullptr && handed_over) notify_->SessionCompleted(handler_id_);
  if (notify_ != nullptr && !handed_over) notify_->HandleFailureCondition(handler_id_);
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

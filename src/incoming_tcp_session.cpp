#include "src/incoming_tcp_session.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/result_codes.h>

#include "base/address_text.h"
#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/timing.h"
#include "src/callbackhandler.h"
#include "src/http_feed.h"
#include "src/listener_hooks.h"
#include "src/soap_fault.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
// Reads of one session before the others of its loop have their turn.
constexpr int kReadsAtOnce = 16;

std::size_t BytesToSend(int length, std::size_t size) {
  return length <= 0 ? 0 : std::min(static_cast<std::size_t>(length), size);
}

}  // namespace

IncomingTCPSession::IncomingTCPSession(tcp::socket socket, const boost::shared_ptr<Notify>& notify,
                                       int handler_id,
                                       const boost::shared_ptr<ReadingSessions>& reading)
    : handler_id_(handler_id),
      notify_(notify),
      reading_(reading),
      request_(boost::make_shared<BudgetedMessage>(EventRequestBudget())),
      http_info_(BudgetedMessage::InfoOf(request_)),
      socket_(std::move(socket)) {}

IncomingTCPSession::~IncomingTCPSession() {
  try {
    Leave();
    ShutDown(false);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "exception: %s", "unknown exception");
  }
}

void IncomingTCPSession::RegisterRead() {
  error_code error;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!socket_) return;
    socket_->non_blocking(true, error);
  }
  if (error) {
    VEX_LOG(kLogMajor, kTag,
            "[IncomingTCPSession::RegisterRead] Socket set non_blocking_io failed");
    CloseAndNotify();
    return;
  }
  try {
    StartRead();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in RegisterRead: %s",
                        "Unknown Exception in RegisterRead");
    CloseAndNotify();
  }
}

void IncomingTCPSession::StartRead() {
  const boost::shared_ptr<IncomingTCPSession> self = shared_from_this();
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!socket_ || !socket_->is_open()) return;
  // Listed before the read is out, or a completion could leave before it has entered.
  reading_place_ = reading_->Touch(reading_place_, self);
  socket_->async_wait(tcp::socket::wait_read,
                      [self](const error_code& error) { self->OnReadable(error); });
}

void IncomingTCPSession::OnReadable(const error_code& error) {
  try {
    ReadWhatCame(error);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in CallbackRead: %s",
                        "Unknown Exception in CallbackRead");
    CloseAndNotify();
  }
}

// Many connections come at once when many devices tell their first events, and each lives until its
// listener has answered, so none has a buffer of its own: what has come is read into one on the
// stack. A peer that sends without end doesn't keep the others waiting.
void IncomingTCPSession::ReadWhatCame(const error_code& error) {
  // One more than a read: the search for a first line's end wants a NUL behind what came.
  char data[limits::kReceiveBuffer + 1];
  std::size_t bytes = limits::kReceiveBuffer;
  for (int reads = 0; reads < kReadsAtOnce && bytes == limits::kReceiveBuffer; ++reads) {
    error_code failure = error;
    bytes = failure ? 0 : Receive(data, failure);
    if (failure == boost::asio::error::would_block) break;
    if (failure) {
      VEX_LOG(kLogMajor, kTag, "CallbackRead] Socket Error: %s", failure.message().c_str());
      CloseAndNotify();
      return;
    }
    data[bytes] = '\0';
    if (!ParseRead(data, bytes)) return;
  }
  StartRead();
}

std::size_t IncomingTCPSession::Receive(char* data, error_code& error) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!socket_ || !socket_->is_open()) {
    error = boost::asio::error::operation_aborted;
    return 0;
  }
  return socket_->read_some(boost::asio::buffer(data, limits::kReceiveBuffer), error);
}

// True while more is to come.
bool IncomingTCPSession::ParseRead(char* data, std::size_t bytes) {
  total_bytes_ += static_cast<int>(bytes);
  if (total_bytes_ > limits::kEventRequestBytes) {
    RefuseTooLong();
    return false;
  }
  const bool fed = utils::FeedParser(data, bytes, http_info_) == result::kOk;
  const bool spoiled =
      http_info_->GetStatus() < utils::HEADER_COMPLETE && header_end_.Saw(data, bytes);
  if (!fed || spoiled) {
    VEX_LOG(kLogMajor, kTag, "PARSER FAILURE Status: %d and Buffer : %s", http_info_->GetStatus(),
            data);
    CloseAndNotify();
    return false;
  }
  if (!request_->HasPlace()) {
    RefuseTooLong();
    return false;
  }
  if (http_info_->GetState() != utils::MESSAGE_COMPLETE) return true;
  Leave();
  SetAddresses();
  HandOver();
  return false;
}

void IncomingTCPSession::RefuseTooLong() {
  VEX_LOG(kLogMajor, kTag, "upperbound size exceeded.");
  Leave();
  std::unique_ptr<std::string> answer(
      new std::string(BadRequestAnswer(BadRequestLayout::kIndented)));
  const int length = static_cast<int>(answer->size());
  too_long_ = true;
  RegisterWrite(answer.release(), length);
  total_bytes_ = 0;
}

void IncomingTCPSession::SetAddresses() {
  error_code local_error;
  error_code remote_error;
  tcp::endpoint local;
  tcp::endpoint remote;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!socket_) return;
    local = socket_->local_endpoint(local_error);
    remote = socket_->remote_endpoint(remote_error);
  }
  if (!local_error) http_info_->SetMyIpAddress(AddressText(local.address()));
  if (!remote_error) {
    http_info_->SetClientIpAddress(AddressText(remote.address()));
    http_info_->SetClientPort(remote.port());
  }
  if (local_error || remote_error) {
    // The peer has gone already; its request counts all the same.
    VEX_LOG(kLogMajor, kTag, "Exception in CallbackRead: %s",
            (local_error ? local_error : remote_error).message().c_str());
  }
}

void IncomingTCPSession::HandOver() {
  void* const context = MakeSessionContext(shared_from_this());
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  try {
    if (handler && handler->InvokeTCPRequestHandler(http_info_, context) == result::kOk) return;
  } catch (...) {
    // Not queued: nobody else will use the context up.
    TakeSession(context);
    throw;
  }
  TakeSession(context);
  std::unique_ptr<std::string> answer(new std::string(BadRequestAnswer(BadRequestLayout::kPlain)));
  const int length = static_cast<int>(answer->size());
  RegisterWrite(answer.release(), length);
}

int IncomingTCPSession::RegisterWrite(std::string* data, const int& length) {
  write_string_.reset(data);
  if (!StartWrite(data->data(), BytesToSend(length, data->size()))) write_string_.reset();
  return result::kOk;
}

int IncomingTCPSession::RegisterWrite(char* data, const int& length) {
  write_buffer_.reset(data);
  if (!StartWrite(data, BytesToSend(length, static_cast<std::size_t>(-1)))) write_buffer_.reset();
  return result::kOk;
}

// False when there is no connection left to write to; then the session has come to its end.
bool IncomingTCPSession::StartWrite(const char* data, std::size_t size) {
  const boost::shared_ptr<IncomingTCPSession> self = shared_from_this();
  bool stop_called = false;
  try {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (socket_ && socket_->is_open()) {
      VEX_LOG(kLogDetail, kTag, "Async RegisterWrite Write");
      boost::asio::async_write(*socket_, boost::asio::buffer(data, size),
                               [self](const error_code&, std::size_t) { self->CallbackWrite(); });
      write_pending_ = true;
      return true;
    }
    stop_called = stop_called_;
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in RegisterWrite: %s",
                        "Unknown Exception in RegisterWrite");
    CloseAndNotify();
    return false;
  }
  VEX_LOG(kLogMajor, kTag, "Socket Closed resetting self ref ");
  if (stop_called) {
    ShutDownOnStopCalled();
  } else {
    NotifyCompleted();
  }
  return false;
}

void IncomingTCPSession::CallbackWrite() {
  VEX_LOG(kLogDetail, kTag, "CallbackWrite new completed");
  write_string_.reset();
  write_buffer_.reset();
  if (too_long_) DiscardUnread();
  FinishWrite();
}

// Whoever has written the answer closes, also when the server went down meanwhile.
void IncomingTCPSession::FinishWrite() {
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    write_pending_ = false;
    if (stop_called_) {
      CloseSocketNow();
      socket_.reset();
      return;
    }
  }
  CloseAndNotify();
}

// Closing with something unread makes the kernel take back an answer that the peer has not read.
void IncomingTCPSession::DiscardUnread() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  char data[limits::kReceiveBuffer];
  std::size_t discarded = 0;
  error_code error;
  while (!error && socket_ && discarded < limits::kEventRequestBytes) {
    discarded += socket_->read_some(boost::asio::buffer(data), error);
  }
}

int IncomingTCPSession::Write(const std::string& data, const int& length) {
  int descriptor = -1;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (socket_ && socket_->is_open()) {
      // From here on ShutDown only wakes the write; the descriptor stays ours until it is through.
      descriptor = socket_->native_handle();
      write_pending_ = true;
    }
  }
  const error_code error = WriteAll(descriptor, data.data(), BytesToSend(length, data.size()));
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Write to socket failed! Error: [%s]", error.message().c_str());
  }
  FinishWrite();
  return error ? result::kSocketFailed : result::kOk;
}

// Written out by hand: the socket is non-blocking, and a blocking write through it would give up
// as soon as the peer's window is full.
error_code IncomingTCPSession::WriteAll(int descriptor, const char* data, std::size_t size) {
  const auto last_error = [] { return error_code(errno, boost::system::system_category()); };
  if (descriptor < 0) return boost::asio::error::bad_descriptor;
  while (size > 0) {
    const ssize_t sent = send(descriptor, data, size, MSG_NOSIGNAL);
    if (sent >= 0) {
      data += sent;
      size -= static_cast<std::size_t>(sent);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return last_error();
    pollfd writable = {descriptor, POLLOUT, 0};
    const int ready = poll(&writable, 1, timing::Scaled(timing::kResponseTimeoutMs));
    if (ready == 0) return boost::asio::error::timed_out;
    if (ready < 0 && errno != EINTR) return last_error();
  }
  return error_code();
}

void IncomingTCPSession::ShutDown(bool stop_called) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  // Once the server is down, the end of a read must not bring it back.
  stop_called_ = stop_called_ || stop_called;
  if (!socket_) return;
  if (socket_->is_open()) {
    ShutDownSocket();
    error_code ignored;
    socket_->cancel(ignored);
    if (!write_pending_) CloseSocketNow();
  }
  if (stop_called_ && !write_pending_) socket_.reset();
}

void IncomingTCPSession::ShutDownOnStopCalled() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!socket_) return;
  ShutDownSocket();
  CloseSocketNow();
  socket_.reset();
}

void IncomingTCPSession::ShutDownSocket() {
  error_code error;
  socket_->shutdown(tcp::socket::shutdown_both, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "TCP Socket shutdown error, possibly shutdown already!");
  }
}

void IncomingTCPSession::CloseSocketNow() {
  error_code error;
  if (socket_) socket_->close(error);
  if (error) VEX_LOG(kLogMajor, kTag, "TCP Socket close error, possibly closed already!");
}

// Nobody waits for this session's request any more.
void IncomingTCPSession::Leave() {
  ReadingSessions::Place place = 0;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    std::swap(place, reading_place_);
  }
  if (place != 0) reading_->Remove(place);
}

void IncomingTCPSession::CloseAndNotify() {
  Leave();
  ShutDown(false);
  NotifyCompleted();
}

void IncomingTCPSession::NotifyCompleted() {
  const boost::shared_ptr<Notify> notify = notify_.lock();
  if (notify) notify->SessionCompleted(handler_id_);
}

void* MakeSessionContext(const boost::shared_ptr<IncomingTCPSession>& session) {
  return new boost::shared_ptr<IncomingTCPSession>(session);
}

boost::shared_ptr<IncomingTCPSession> TakeSession(void* session_context) {
  const std::unique_ptr<boost::shared_ptr<IncomingTCPSession>> holder(
      static_cast<boost::shared_ptr<IncomingTCPSession>*>(session_context));
  return holder ? *holder : boost::shared_ptr<IncomingTCPSession>();
}

void ReleaseSessionContext(void* session_context) { TakeSession(session_context); }

}  // namespace network_layer
}  // namespace vex_upnp

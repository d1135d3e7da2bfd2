#include "src/streaming_outgoing_session.h"

#include <cstdlib>
#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "src/http_feed.h"
#include "src/streaming_manager.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

namespace {

constexpr std::size_t kHeaderReserve = 1024;

}  // namespace

OutgoingSession::OutgoingSession(io_service& io, ClientAppCallbacks* callbacks, int session_id,
                                 StreamingManager* manager)
    : callbacks_(callbacks),
      socket_(io),
      // One byte behind the block: the parser looks for the end of a first line up to a NUL.
      buffer_(static_cast<char*>(std::malloc(kMediaBlock + 1))),
      http_info_(new utils::HTTPInfo),
      session_id_(session_id),
      manager_(manager) {
  if (!buffer_) throw std::bad_alloc();
}

OutgoingSession::~OutgoingSession() {
  VEX_LOG(kLogStep, kTagStreaming, "~OutgoingSession, client_handler_id_=[%d] session_id_=[%d]",
          client_handler_id_.load(), session_id_);
}

bool OutgoingSession::__IsListed() {
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetExisting();
  if (manager && manager->GetClientSessionInfo(session_id_).get() == this) return true;
  VEX_LOG(kLogMajor, kTagStreaming, "Client %d not found", session_id_);
  return false;
}

// What every handler runs: a completion of a session that has left the manager is dropped.
template <typename Step>
auto OutgoingSession::__IfListed(Step step) {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  return [self, step] {
    if (self->__IsListed()) step(*self);
  };
}

MediaSocket::Done OutgoingSession::Bound(Handler member) {
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  return [self, member](const error_code& error, std::size_t bytes) {
    if (self->__IsListed()) ((*self).*member)(error, bytes);
  };
}

int OutgoingSession::Connect(const std::string& ip, const int& port) {
  {
    boost::lock_guard<boost::mutex> lock(request_mutex_);
    ip_ = ip;
    port_ = port;
  }
  if (!IsPort(port)) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: input string was not valid!");
    return result::kStreamingInvalidPort;
  }
  const boost::shared_ptr<Endpoints> left(new Endpoints);
  error_code error;
  if (!ResolveEndpoints(ip, port, *left, error)) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: connect failed for all endpoints!");
    return result::kStreamingConnectFailed;
  }
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  const boost::weak_ptr<OutgoingSession> weak = self;
  socket_.queue().OnNoMemory([weak] {
    const boost::shared_ptr<OutgoingSession> session = weak.lock();
    if (!session || !session->alive_) return;
    session->ShutDown();
    if (session->__IsListed()) session->__Fail(STREAMING_OUT_OF_MEMORY);
  });
  socket_.queue().Post([self, left] { self->__Connect(left); });
  return result::kOk;
}

void OutgoingSession::__Connect(const boost::shared_ptr<Endpoints>& left) {
  if (!alive_) return;
  const tcp::endpoint endpoint = left->front();
  left->pop_front();
  error_code error;
  socket_.socket().open(endpoint.protocol(), error);
  if (error) {
    __IfListed([error, left](OutgoingSession& session) { session.CallbackConnect(error, left); })();
    return;
  }
  if (!socket_.MarkOpen()) return;
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  socket_.socket().async_connect(endpoint, [self, left](const error_code& connected) {
    self->socket_.queue().Run(self->__IfListed(
        [connected, left](OutgoingSession& session) { session.CallbackConnect(connected, left); }));
  });
}

void OutgoingSession::CallbackConnect(const error_code& error,
                                      const boost::shared_ptr<Endpoints>& left) {
  if (!alive_) return;
  if (error && !left->empty()) {
    error_code close_error;
    socket_.GiveUp(close_error);
    if (close_error) VEX_LOG(kLogMajor, kTagStreaming, "Error in closing TCP socket!");
    __Connect(left);
    return;
  }
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: %s", error.message().c_str());
    ShutDown();
    __Fail(STREAMING_SOCKET_FAILED);
    return;
  }
  const MediaOptionResult options = socket_.SetOptions();
  if (options.no_delay) {
    VEX_LOG(kLogMajor, kTagStreaming, "Set option failed for no delay %s",
            options.no_delay.message().c_str());
  }
  if (options.receive_buffer) {
    VEX_LOG(kLogMajor, kTagStreaming, "Set option failed for recv size: err:%s",
            options.receive_buffer.message().c_str());
  }
  if (options.send_buffer) {
    VEX_LOG(kLogMajor, kTagStreaming, "Set option failed for send size: err:%s",
            options.send_buffer.message().c_str());
  }
  boost::shared_ptr<std::string> header;
  {
    boost::lock_guard<boost::mutex> lock(request_mutex_);
    connected_ = true;
    if (!request_header_.empty()) header.reset(new std::string(request_header_));
  }
  if (header) __WriteHeader(header);
}

int OutgoingSession::RegisterWrite(const ReqHeaderInfo*& header) {
  boost::lock_guard<boost::mutex> lock(request_mutex_);
  const std::size_t before = request_header_.size();
  try {
    request_header_.reserve(kHeaderReserve);
    const int formed = FormReqHeader(header, request_header_);
    if (formed != result::kOk) {
      VEX_LOG(kLogMajor, kTagStreaming, "Failed to form request header!");
      return formed;
    }
    request_type_ = header->request_type;
    chunked_ = header->http_version == HTTP_1_1 && IsChunked(header->transfer_encoding);
    final_ = header->expect != nullptr || header->request_type < utils::HTTP_POST;
    if (connected_) __PostHeader();
    return result::kOk;
  } catch (...) {
    // What was refused is not sent with a later request.
    request_header_.resize(before);
    throw;
  }
}

void OutgoingSession::__PostHeader() {
  // The write has a copy of its own: the header stays and may be added to meanwhile.
  const boost::shared_ptr<std::string> ready(new std::string(request_header_));
  VEX_LOG(kLogDetail, kTagStreaming, "Sending Request: [%s]", ready->c_str());
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  socket_.queue().Post([self, ready] { self->__WriteHeader(ready); });
}

void OutgoingSession::__WriteHeader(const boost::shared_ptr<std::string>& header) {
  if (!alive_) return;
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  socket_.WriteAll(header->data(), header->size(),
                   [self, header](const error_code& error, std::size_t) {
                     if (self->__IsListed()) self->CallbackWriteHeader(error);
                   });
}

void OutgoingSession::CallbackWriteHeader(const error_code& error) {
  if (!alive_) return;
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: %s", error.message().c_str());
    ShutDown();
    __Fail(STREAMING_SOCKET_FAILED);
    return;
  }
  if (final_) {
    RegisterRead();
  } else {
    callbacks_->on_write_complete(client_handler_id_, session_id_, 0);
  }
}

int OutgoingSession::RegisterWrite(void* data, const unsigned int& length, const bool& final) {
  if (data == nullptr && length > 0) {
    VEX_LOG(kLogMajor, kTagStreaming, "Invalid params.");
    return result::kStreamingInvalidParams;
  }
  final_ = final;
  payload_length_ = length;
  // What goes on the wire, and what has to be freed when the write is done or never happens.
  boost::shared_ptr<void> framed;
  const void* bytes = data;
  unsigned int size = length;
  if (chunked_) {
    framed.reset(FrameChunked(data, length, final, size), &std::free);
    if (!framed) {
      ShutDown();
      manager_->ClientSessionCompleted(session_id_);
      return result::kStreamingOutOfMemory;
    }
    bytes = framed.get();
  }
  // Empty until the write is posted: what is not posted stays the caller's.
  const boost::shared_ptr<LastPayload> last(new LastPayload);
  const boost::shared_ptr<OutgoingSession> self = shared_from_this();
  socket_.queue().Post([self, framed, last, bytes, size] {
    if (!self->alive_) return;
    self->socket_.WriteAll(bytes, size, [self, framed, last](const error_code& error, std::size_t) {
      // The blocks go with this handler, behind the callback.
      if (self->__IsListed()) self->CallbackWritePayload(error);
    });
  });
  if (final) last->block.reset(data);
  return result::kOk;
}

void OutgoingSession::CallbackWritePayload(const error_code& error) {
  if (!alive_) return;
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error: %s", error.message().c_str());
    ShutDown();
    __Fail(STREAMING_SOCKET_FAILED);
    return;
  }
  // Before the callback, in which the host may start the next payload.
  const bool was_final = final_;
  callbacks_->on_write_complete(client_handler_id_, session_id_, payload_length_);
  if (was_final && alive_) RegisterRead();
}

void OutgoingSession::RegisterRead() {
  if (got_continue_) {
    got_continue_ = false;
    header_read_ = false;
    http_info_->CleanInfo();
  }
  if (header_read_) {
    __ReadBody();
  } else {
    __ReadHeader();
  }
}

void OutgoingSession::__ReadHeader() {
  socket_.ReadSome(buffer_.get(), kMediaBlock, Bound(&OutgoingSession::CallbackRead));
}

void OutgoingSession::__ReadBody() {
  socket_.ReadSome(buffer_.get(), kMediaBlock, Bound(&OutgoingSession::DataRecvdCallback));
}

// After an error the kernel may still hold bytes: they are worth one more look, which never waits,
// since a socket in error is readable or dead.
std::size_t OutgoingSession::__RescueBytes(const error_code& error, std::size_t bytes, bool& gone) {
  gone = true;
  if (bytes > 0) {
    ShutDown();
    return bytes;
  }
  error_code ignored;
  error_code again;
  socket_.socket().non_blocking(true, ignored);
  bytes = socket_.socket().read_some(boost::asio::buffer(buffer_.get(), kMediaBlock), again);
  if (bytes == 0) {
    VEX_LOG(kLogMajor, kTagStreaming, "Exception 1: SOCKET_CLOSED");
    return 0;
  }
  if (again || error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Error in socket but data size = [%d] is available",
            static_cast<int>(bytes));
  }
  ShutDown();
  return bytes;
}

// A block that is well filled goes to the host as it was read.
bool OutgoingSession::__HandOver(std::size_t bytes) {
  if (bytes <= kMediaBlock / 2) return false;
  FreePtr<char> next(static_cast<char*>(std::malloc(kMediaBlock + 1)));
  if (!next || !utils::AdoptBlock(buffer_.get(), bytes, *http_info_)) return false;
  static_cast<void>(buffer_.release());
  buffer_.swap(next);
  return true;
}

bool OutgoingSession::__Parse(std::size_t bytes) {
  if (__HandOver(bytes)) return true;
  buffer_.get()[bytes] = '\0';
  const int parsed = utils::FeedParser(buffer_.get(), static_cast<unsigned int>(bytes), http_info_);
  // A read may hold more than the whole of a header, so one that is complete is looked at too.
  if (parsed == result::kOk && !HeaderTooLong(*http_info_)) return true;
  VEX_LOG(kLogMajor, kTagStreaming, "Parsing Failure!");
  ShutDown();
  __Fail(STREAMING_PARSE_FAILED);
  return false;
}

void OutgoingSession::CallbackRead(const error_code& error, std::size_t bytes) {
  if (!alive_) return;
  bool gone = false;
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "Exception: %s", error.message().c_str());
    bytes = __RescueBytes(error, bytes, gone);
    if (bytes == 0) {
      __Fail(STREAMING_SOCKET_FAILED);
      return;
    }
  }
  if (!__Parse(bytes)) return;
  if (http_info_->GetStatus() != utils::HEADER_COMPLETE) {
    if (gone) {
      VEX_LOG(kLogMajor, kTagStreaming, "Exception 1: SOCKET_CLOSED");
      __Fail(STREAMING_SOCKET_FAILED);
    } else {
      __ReadHeader();
    }
    return;
  }
  header_read_ = true;
  ResponseRecord header = FormResponseHeaderInfo(http_info_);
  if (!header) {
    VEX_LOG(kLogMajor, kTagStreaming, "Alloc Failure!");
    ShutDown();
    __Fail(STREAMING_OUT_OF_MEMORY);
  } else if (header->status_code == HTTP_CONTINUE) {
    __HandleContinue(std::move(header), gone);
  } else {
    __HandleResponse(std::move(header), gone);
  }
}

void OutgoingSession::__HandleContinue(ResponseRecord header, bool gone) {
  got_continue_ = true;
  callbacks_->on_response(client_handler_id_, session_id_, header.release(), nullptr, 0, true);
  if (!gone || !alive_) return;
  ShutDown();
  VEX_LOG(kLogMajor, kTagStreaming, "Exception 2: SOCKET_CLOSED");
  __Fail(STREAMING_SOCKET_FAILED);
}

void OutgoingSession::__SettleFraming(const ResHeaderInfo& header) {
  if (request_type_ != utils::HTTP_GET) return;
  if (header.transfer_encoding == nullptr) {
    chunked_ = false;
    has_length_ = header.content_length >= 1;
  } else if (IsChunked(header.transfer_encoding)) {
    chunked_ = true;
  }
}

void OutgoingSession::__HandleResponse(ResponseRecord header, bool gone) {
  __SettleFraming(*header);
  const bool final =
      http_info_->GetState() == utils::MESSAGE_COMPLETE || request_type_ == utils::HTTP_HEAD;
  unsigned int length = 0;
  FreePtr<char> body = TakeBody(*http_info_, length);
  callbacks_->on_response(client_handler_id_, session_id_, header.release(), body.release(), length,
                          final);
  if (!alive_) return;
  if (!final && !gone) {
    __ReadBody();
    return;
  }
  ShutDown();
  VEX_LOG(kLogMajor, kTagStreaming, "Exception 3: SOCKET_CLOSED");
  if (final) {
    manager_->ClientSessionCompleted(session_id_);
  } else {
    __Fail(STREAMING_SOCKET_FAILED);
  }
}

void OutgoingSession::DataRecvdCallback(const error_code& error, std::size_t bytes) {
  VEX_LOG(kLogDetail, kTagStreaming, "received data bytes_read = [%d]", static_cast<int>(bytes));
  if (!alive_) return;
  const bool end_of_file = error == boost::asio::error::eof;
  bool gone = end_of_file;
  if (error && !end_of_file) {
    VEX_LOG(kLogMajor, kTagStreaming, "Exception: %s", error.message().c_str());
    bytes = __RescueBytes(error, bytes, gone);
    if (bytes == 0) {
      __Fail(STREAMING_SOCKET_FAILED);
      return;
    }
  }
  if (!__Parse(bytes)) return;
  unsigned int length = 0;
  FreePtr<char> data = TakeBody(*http_info_, length);
  bool final = http_info_->GetState() == utils::MESSAGE_COMPLETE;
  if (end_of_file) {
    VEX_LOG(kLogStep, kTagStreaming, "EOF");
    // A body without a length ends with the connection, and only so.
    if (request_type_ == utils::HTTP_GET && !chunked_ && !has_length_) final = true;
  }
  if (!alive_) return;
  if (final || gone) {
    ShutDown();
    VEX_LOG(kLogMajor, kTagStreaming, "Exception 2: SOCKET_CLOSED");
    callbacks_->on_data(client_handler_id_, session_id_, data.release(), length, final);
    if (final) {
      CompleteSession();
    } else if (alive_) {
      __Fail(STREAMING_SOCKET_FAILED);
    }
    return;
  }
  callbacks_->on_data(client_handler_id_, session_id_, data.release(), length, false);
  if (!alive_) return;
  VEX_LOG(kLogDetail, kTagStreaming, "registering for async_read");
  // KEPT: waits for a whole block. It makes high rates cheap; a server that keeps the connection
  // open behind a body that does not fill the last block leaves the session waiting for its stop.
  socket_.ReadAll(buffer_.get(), kMediaBlock, Bound(&OutgoingSession::DataRecvdCallback));
}

void OutgoingSession::__Fail(int code) {
  callbacks_->on_status(client_handler_id_, session_id_, code);
  CompleteSession();
}

void OutgoingSession::CompleteSession() {
  if (alive_) manager_->ClientSessionCompleted(session_id_);
}

std::string OutgoingSession::GetOutgoingSessionIp() const {
  boost::lock_guard<boost::mutex> lock(request_mutex_);
  return ip_;
}

void OutgoingSession::CloseConnection() {
  VEX_LOG(kLogStep, kTagStreaming,
          "Closing outgoing session, client_handler_id_=[%d] session_id_=[%d]",
          client_handler_id_.load(), session_id_);
  alive_ = false;
  ShutDown();
}

void OutgoingSession::ShutDown() {
  error_code error;
  const bool first = socket_.End(error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in shutting down TCP socket!");
  if (!first) return;
  try {
    const boost::shared_ptr<OutgoingSession> self = shared_from_this();
    const LogSite site = VEX_LOG_SITE;
    socket_.queue().Post([self, site] {
      error_code close_error;
      self->socket_.Close(close_error);
      if (close_error) VEX_LOG_AT(site, kLogMajor, kTagStreaming, "Error in closing TCP socket!");
    });
  } catch (const std::bad_alloc&) {
    // The socket has ended all the same; it closes with the session.
  }
}

}  // namespace streaming
}  // namespace vex_upnp

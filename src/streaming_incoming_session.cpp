#include "src/streaming_incoming_session.h"

#include <cstdlib>
#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/limits.h"
#include "base/log.h"
#include "base/timing.h"
#include "src/http_feed.h"
#include "src/streaming_manager.h"
#include "src/streaming_server.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

namespace {

constexpr std::size_t kHeaderReserve = 1024;
constexpr char kInternalError[] = "HTTP/1.1 500 Internal Server Error\r\n\r\n";

// The two places from which a response's header is written, as the log has them.
constexpr int kAfterRequest = 3;
constexpr int kAfterData = 4;

// Reads of a refused peer before the others of the pool have their turn.
constexpr int kDiscardsAtOnce = 16;

// What does not fit into memory is as little an answer as what cannot be formed.
int FormWhole(const ResHeaderInfo*& header, std::string& out) {
  try {
    out.reserve(kHeaderReserve);
    return FormResHeader(header, out);
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTagStreaming, "No memory for a response header");
    return result::kStreamingOutOfMemory;
  }
}

}  // namespace

IncomingSession::IncomingSession(io_service& io, const ServerAppCallbacks& callbacks,
                                 const boost::shared_ptr<TCPServer>& server, int session_id)
    : session_id_(session_id),
      server_id_(server->GetServerId()),
      callbacks_(callbacks),
      server_(server),
      socket_(io),
      close_timer_(io),
      http_info_(new utils::HTTPInfo) {
  response_header_.reserve(sizeof(kInternalError));
}

bool IncomingSession::__IsListed() {
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetExisting();
  if (manager && manager->GetSessionInfo(server_id_, session_id_).get() == this) return true;
  VEX_LOG(kLogMajor, kTagStreaming, "Server %d's Session %d info not found", server_id_,
          session_id_);
  return false;
}

// What every handler runs: a completion of a session that has left its server is dropped.
template <typename Step>
auto IncomingSession::__IfListed(Step step) {
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
  return [self, step] {
    if (self->__IsListed()) step(*self);
  };
}

MediaSocket::Done IncomingSession::Bound(Handler member) {
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
  return [self, member](const error_code& error, std::size_t bytes) {
    if (self->__IsListed()) ((*self).*member)(error, bytes);
  };
}

void IncomingSession::RegisterRead(const boost::shared_ptr<tcp::socket>& accepted) {
  const boost::weak_ptr<IncomingSession> weak = shared_from_this();
  socket_.queue().OnNoMemory([weak] {
    const boost::shared_ptr<IncomingSession> self = weak.lock();
    if (self && self->alive_) self->__FailSocket(boost::asio::error::no_memory, true);
  });
  socket_.queue().Run(
      __IfListed([accepted](IncomingSession& session) { session.__StartReading(*accepted); }));
}

void IncomingSession::__StartReading(tcp::socket& accepted) {
  if (!alive_ || !socket_.Adopt(accepted)) return;
  // One byte behind the block: the parser looks for the end of a first line up to a NUL.
  buffer_.reset(static_cast<char*>(std::malloc(kMediaBlock + 1)));
  error_code error;
  socket_.socket().non_blocking(true, error);
  if (error || !buffer_) {
    __FailSocket(error, true);
    return;
  }
  const MediaOptionResult options = socket_.SetOptions();
  if (options.no_delay) {
    VEX_LOG(kLogMajor, kTagStreaming, "socket set_option failed for tcp::no_delay, [%s]!",
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
  __ReadHeader();
}

void IncomingSession::__ReadHeader() {
  socket_.ReadSome(buffer_.get(), kMediaBlock, Bound(&IncomingSession::CallbackRead));
}

void IncomingSession::__ReadBody() {
  socket_.ReadSome(buffer_.get(), kMediaBlock, Bound(&IncomingSession::DataRecvdCallback));
}

bool IncomingSession::__Parse(std::size_t bytes) {
  buffer_.get()[bytes] = '\0';
  const int parsed = utils::FeedParser(buffer_.get(), static_cast<unsigned int>(bytes), http_info_);
  if (parsed == result::kOk && !HeaderTooLong(*http_info_)) return true;
  VEX_LOG(kLogMajor, kTagStreaming, "Parsing Failure!");
  // KEPT: the answer formed here is never written. Peers that send nonsense get no reply, and their
  // connection waits for the session's stop.
  RegisterWriteWithErrorCode(HTTP_BAD_REQUEST);
  __ForgetRequest();
  return false;
}

// A refused peer may stay as long as it likes, but not cost more than its connection, and that only
// until it goes.
void IncomingSession::__ForgetRequest() {
  buffer_.reset();
  http_info_.reset();
  __AwaitPeersEnd();
}

void IncomingSession::__AwaitPeersEnd() {
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
  socket_.socket().async_wait(tcp::socket::wait_read, [self](const error_code& error) {
    self->socket_.queue().Run(
        self->__IfListed([error](IncomingSession& session) { session.__DiscardWhatCame(error); }));
  });
}

// The host has been told nothing of the failure, so it is told nothing of the end.
void IncomingSession::__DiscardWhatCame(const error_code& error) {
  if (!alive_) return;
  error_code failure = error;
  char data[limits::kReceiveBuffer];
  for (int reads = 0; !failure && reads < kDiscardsAtOnce; ++reads) {
    socket_.socket().read_some(boost::asio::buffer(data), failure);
  }
  if (!failure || failure == boost::asio::error::would_block) {
    __AwaitPeersEnd();
    return;
  }
  ShutDown();
  CompleteSession();
}

void IncomingSession::CallbackRead(const error_code& error, std::size_t bytes) {
  if (!alive_) return;
  if (error) {
    __FailSocket(error, true);
    return;
  }
  if (!__Parse(bytes)) return;
  if (http_info_->GetStatus() != utils::HEADER_COMPLETE) {
    __ReadHeader();
    return;
  }
  header_read_ = true;
  __HandleRequest();
}

void IncomingSession::__HandleRequest() {
  RequestRecord request = FormRequestHeaderInfo(http_info_);
  if (!request) {
    VEX_LOG(kLogMajor, kTagStreaming, "Alloc Failure!");
    // KEPT: the answer formed here is never written either. A peer whose request found no memory
    // gets no reply, and its connection waits in the same way.
    RegisterWriteWithErrorCode(HTTP_INTERNAL_ERROR);
    __ForgetRequest();
    return;
  }
  request_type_ = request->request_type;
  const bool reads_body = request->request_type == utils::HTTP_POST && request->expect == nullptr;
  unsigned int length = 0;
  FreePtr<char> body = TakeBody(*http_info_, length);
  const bool final = http_info_->GetState() == utils::MESSAGE_COMPLETE;
  __RememberPeer();
  callbacks_.on_request(server_id_, session_id_, request.release(), body.release(), length, final);
  bool answered = false;
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    answered = !response_header_.empty();
  }
  if (answered) {
    __WriteResponse(kAfterRequest);
  } else if (!final && alive_ && reads_body) {
    __ReadBody();
  }
}

void IncomingSession::__RememberPeer() {
  error_code error;
  const tcp::endpoint peer = socket_.socket().remote_endpoint(error);
  if (error) {
    VEX_LOG(kLogMajor, kTagStreaming, "retrieving peer ip failed");
    return;
  }
  const std::string ip = peer.address().to_string();
  http_info_->SetClientIpAddress(ip);
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  peer_ip_ = ip;
}

void IncomingSession::DataRecvdCallback(const error_code& error, std::size_t bytes) {
  if (!alive_) return;
  if (error) {
    __FailSocket(error, true);
    return;
  }
  if (!__Parse(bytes)) return;
  unsigned int length = 0;
  FreePtr<char> data = TakeBody(*http_info_, length);
  const bool final = http_info_->GetState() == utils::MESSAGE_COMPLETE;
  callbacks_.on_data(server_id_, session_id_, data.release(), length, final);
  if (final_) {
    __WriteResponse(kAfterData);
  } else if (alive_ && !final) {
    __ReadBody();
  }
}

int IncomingSession::RegisterWrite(const ResHeaderInfo*& header, const bool& final) {
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  std::string whole;
  const int formed = FormWhole(header, whole);
  if (formed != result::kOk) {
    // Needs no memory: there has been room for it from the beginning.
    response_header_ = kInternalError;
    final_ = true;
    return formed;
  }
  response_header_.swap(whole);
  const bool is_continue = header->status_code == HTTP_CONTINUE;
  if (is_continue) is_continue_ = true;
  chunked_ = IsChunked(header->transfer_encoding) && header->http_version == HTTP_1_1 &&
             request_type_ != utils::HTTP_POST;
  // Last, and under the lock under which the header is written: who sees it finds the header whole.
  final_ = final && !is_continue;
  return result::kOk;
}

int IncomingSession::RegisterWriteWithErrorCode(const unsigned int& status) {
  ResHeaderInfo header = {};
  header.http_version = HTTP_1_1;
  header.status_code = status;
  const ResHeaderInfo* pointer = &header;
  const int formed = RegisterWrite(pointer, true);
  if (formed != result::kOk) VEX_LOG(kLogMajor, kTagStreaming, "Register Write failed.");
  return formed;
}

void IncomingSession::__WriteResponse(int place) {
  boost::shared_ptr<std::string> header;
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    header.reset(new std::string(response_header_));
  }
  VEX_LOG(kLogDetail, kTagStreaming, "async_write %d [%d] [%d]", place, server_id_, session_id_);
  if (!alive_) return;
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
  socket_.WriteAll(header->data(), header->size(),
                   [self, header](const error_code& error, std::size_t) {
                     if (self->__IsListed()) self->CallbackWriteHeader(error);
                   });
}

void IncomingSession::CallbackWriteHeader(const error_code& error) {
  if (!alive_) return;
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    response_header_.clear();
  }
  if (error) {
    __FailSocket(error, !final_);
  } else if (final_) {
    VEX_LOG(kLogStep, kTagStreaming, "Closing Socket for session_id = [%d]", session_id_);
    ShutDown();
    CompleteSession();
  } else if (is_continue_) {
    __ReadBody();
  } else {
    callbacks_.on_write_complete(server_id_, session_id_, 0);
  }
}

int IncomingSession::RegisterWrite(void* data, const unsigned int& length, const bool& final) {
  if (data == nullptr && length > 0) {
    VEX_LOG(kLogMajor, kTagStreaming, "Invalid params.");
    return result::kStreamingInvalidParams;
  }
  final_ = final;
  payload_length_ = length;
  if (length == 0 && !final) {
    callbacks_.on_write_complete(server_id_, session_id_, 0);
    return result::kOk;
  }
  boost::shared_ptr<void> framed;
  const void* bytes = data;
  unsigned int size = length;
  if (chunked_) {
    framed.reset(FrameChunked(data, length, final, size), &std::free);
    if (!framed) {
      ShutDown();
      CompleteSession();
      return result::kStreamingOutOfMemory;
    }
    bytes = framed.get();
  }
  VEX_LOG(kLogDetail, kTagStreaming, "async_write 2 [%d] [%d]", server_id_, session_id_);
  // Empty until the write is posted: what is not posted stays the caller's.
  const boost::shared_ptr<LastPayload> last(new LastPayload);
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
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

void IncomingSession::CallbackWritePayload(const error_code& error) {
  if (error) {
    if (alive_) __FailSocket(error, !final_);
  } else if (final_) {
    __CloseAfterPause();
  } else if (alive_) {
    callbacks_.on_write_complete(server_id_, session_id_, payload_length_);
  }
}

// A moment for the last bytes to get away; it holds no thread.
void IncomingSession::__CloseAfterPause() {
  VEX_LOG(kLogStep, kTagStreaming, "Closing Socket for session_id = [%d]", session_id_);
  close_timer_.expires_after(
      std::chrono::milliseconds(timing::Scaled(timing::kServedConnectionPauseMs)));
  const boost::shared_ptr<IncomingSession> self = shared_from_this();
  try {
    close_timer_.async_wait([self](const error_code&) {
      self->socket_.queue().Run(self->__IfListed([](IncomingSession& session) {
        session.ShutDown();
        session.CompleteSession();
      }));
    });
  } catch (const std::bad_alloc&) {
    // The answer is out: there is nothing to tell, and the end comes without the pause.
    ShutDown();
    CompleteSession();
  }
}

void IncomingSession::__FailSocket(const error_code& error, bool tell_host) {
  VEX_LOG(kLogMajor, kTagStreaming, "Exception: %s", error.message().c_str());
  ShutDown();
  if (tell_host) callbacks_.on_status(server_id_, session_id_, STREAMING_SOCKET_FAILED);
  CompleteSession();
}

int IncomingSession::GetConnectedDeviceInfo(std::string& ip) const {
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  if (peer_ip_.empty()) return result::kFailure;
  ip = peer_ip_;
  return result::kOk;
}

void IncomingSession::CompleteSession() {
  if (alive_) server_->SessionCompleted(session_id_);
}

void IncomingSession::CloseConnection() {
  alive_ = false;
  ShutDown();
}

void IncomingSession::ShutDown() {
  error_code error;
  const bool first = socket_.End(error);
  if (error) VEX_LOG(kLogMajor, kTagStreaming, "Error in shutting down streaming TCP socket!");
  if (!first) return;
  try {
    const boost::shared_ptr<IncomingSession> self = shared_from_this();
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

#include "http_connection.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <random>

#include "http_server.h"
#include "text.h"

namespace vexsim {

namespace {

constexpr std::chrono::seconds kIdleLimit{30};
constexpr Milliseconds kDripStep{100};
constexpr std::size_t kDefaultChunk = 1000;

std::string RandomBytes(std::size_t count) {
  static std::mt19937 random(4711);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

}  // namespace

HttpConnection::HttpConnection(HttpServer& server, FileHandle socket)
    : server_(server), socket_(std::move(socket)), last_use_(Clock::now()) {
  sockaddr_in local{};
  socklen_t size = sizeof(local);
  getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&local), &size);
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &local.sin_addr, text.data(), text.size());
  request_.local_address = text.data();
  request_.local_port = ntohs(local.sin_port);
  server_.loop_.Watch(socket_.get(), EPOLLIN, [this](std::uint32_t events) { OnEvents(events); });
}

HttpConnection::~HttpConnection() {
  server_.loop_.CancelTimer(timer_);
  server_.loop_.Forget(socket_.get());
}

bool HttpConnection::Idle() const {
  return !busy_ && !mute_ && Clock::now() - last_use_ > kIdleLimit;
}

// The owner deletes the connection here.
void HttpConnection::End() {
  if (reset_at_end_) {
    const linger abort{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
  }
  server_.Drop(socket_.get());
}

void HttpConnection::OnEvents(std::uint32_t events) {
  if ((events & EPOLLOUT) != 0 && busy_ && !(Write() && ServeRequests())) return;
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) Read();
}

bool HttpConnection::Read() {
  std::array<char, 16384> buffer;
  const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (size <= 0) {
    End();
    return false;
  }
  if (mute_) return true;
  last_use_ = Clock::now();
  input_.append(buffer.data(), static_cast<std::size_t>(size));
  return ServeRequests();
}

bool HttpConnection::ServeRequests() {
  while (!busy_ && !mute_ && !input_.empty()) {
    std::size_t used = 0;
    const ParseState state = ParseRequest(input_, request_, used);
    if (state == ParseState::kIncomplete) return true;
    if (state == ParseState::kBad) {
      input_.clear();
      HttpResponse bad;
      bad.status = 400;
      close_after_ = busy_ = true;
      output_ = FormatResponse(bad, Framing::kLength, 0, false);
      return Write();
    }
    input_.erase(0, used);
    if (!Answer()) return false;
  }
  return true;
}

bool HttpConnection::Answer() {
  ++server_.statistics_.requests;
  const HttpResponse response = server_.responder_(request_);
  const std::string_view wish = request_.Header("Connection");
  close_after_ = !server_.keep_alive_ || EqualsNoCase(wish, "close") ||
                 (!request_.http11 && !EqualsNoCase(wish, "keep-alive"));
  busy_ = true;
  if (const std::optional<Fault> fault = server_.faults_.Apply(request_.path))
    return AnswerWithFault(*fault, response);
  output_ = FormatResponse(response, Framing::kLength, 0, !close_after_);
  if (request_.method == "HEAD") output_.erase(output_.find("\r\n\r\n") + 4);
  return WriteAfter(response.delay);
}

bool HttpConnection::WriteAfter(Milliseconds delay) {
  if (delay.count() == 0) return Write();
  timer_ = server_.loop_.After(delay, [this] {
    if (Write()) ServeRequests();
  });
  return true;
}

bool HttpConnection::AnswerWithFault(const Fault& fault, const HttpResponse& response) {
  if (fault.silent) {
    busy_ = false;
    mute_ = true;
    return true;
  }
  HttpResponse changed = response;
  if (fault.status != 0) {
    changed = HttpResponse();
    changed.status = fault.status;
  }
  Framing framing = Framing::kLength;
  if (fault.chunk > 0) framing = Framing::kChunked;
  if (fault.no_length) framing = Framing::kUntilClose;
  if (fault.no_length || fault.cut || fault.reset || fault.garbage > 0) close_after_ = true;
  output_ = fault.garbage > 0
                ? RandomBytes(fault.garbage)
                : FormatResponse(changed, framing, fault.chunk > 0 ? fault.chunk : kDefaultChunk,
                                 !close_after_);
  if (fault.cut) output_.resize(std::min(output_.size(), *fault.cut));
  reset_at_end_ = fault.reset;
  if (fault.rate > 0) {
    const auto step = fault.rate * static_cast<std::size_t>(kDripStep.count()) / 1000;
    drip_ = std::max<std::size_t>(step, 1);
  }
  return WriteAfter(std::max(Milliseconds(fault.delay_ms), response.delay));
}

bool HttpConnection::Write() {
  if (drip_ > 0) return Drip();
  while (written_ < output_.size()) {
    const ssize_t size =
        send(socket_.get(), output_.data() + written_, output_.size() - written_, MSG_NOSIGNAL);
    if (size < 0 && errno == EAGAIN) {
      if (!wants_writable_) server_.loop_.Change(socket_.get(), EPOLLIN | EPOLLOUT);
      wants_writable_ = true;
      return true;
    }
    if (size < 0) {
      End();
      return false;
    }
    written_ += static_cast<std::size_t>(size);
  }
  return Finish();
}

bool HttpConnection::Drip() {
  const std::size_t count = std::min(drip_, output_.size() - written_);
  const ssize_t size = send(socket_.get(), output_.data() + written_, count, MSG_NOSIGNAL);
  if (size < 0 && errno != EAGAIN) {
    End();
    return false;
  }
  if (size > 0) written_ += static_cast<std::size_t>(size);
  if (written_ == output_.size()) return Finish();
  // At the pace of the drip, not as soon as the socket takes more.
  timer_ = server_.loop_.After(kDripStep, [this] {
    if (Drip()) ServeRequests();
  });
  return true;
}

bool HttpConnection::Finish() {
  output_.clear();
  written_ = 0;
  drip_ = 0;
  busy_ = false;
  last_use_ = Clock::now();
  if (wants_writable_) server_.loop_.Change(socket_.get(), EPOLLIN);
  wants_writable_ = false;
  if (close_after_) {
    End();
    return false;
  }
  return true;
}

}  // namespace vexsim

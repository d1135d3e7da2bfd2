#include "notification.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "text.h"

namespace vexsim {

namespace {

// UPnP Device Architecture 1.0, 4.2.1: a subscriber answers within 30 seconds.
constexpr std::chrono::seconds kAnswerTime{30};
constexpr unsigned short kHttpPort = 80;

std::optional<CallbackUrl> ParseUrl(std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  if (!EqualsNoCase(url.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  url.remove_prefix(kScheme.size());
  CallbackUrl result;
  const std::size_t slash = url.find('/');
  result.authority = url.substr(0, slash);
  result.path = slash == std::string_view::npos ? "/" : std::string(url.substr(slash));
  const std::size_t colon = result.authority.find(':');
  unsigned short port = kHttpPort;
  if (colon != std::string::npos) {
    const auto number =
        ToNumber<unsigned short>(std::string_view(result.authority).substr(colon + 1));
    if (!number) return std::nullopt;
    port = *number;
  }
  result.address.sin_family = AF_INET;
  result.address.sin_port = htons(port);
  if (inet_pton(AF_INET, result.authority.substr(0, colon).c_str(), &result.address.sin_addr) != 1)
    return std::nullopt;
  return result;
}

// The status of "HTTP/1.1 200 OK\r\n..."; 0 while the line is incomplete or when it is none.
int StatusOf(std::string_view answer) {
  constexpr std::string_view kVersion = "HTTP/1.";
  if (answer.find("\r\n") == std::string_view::npos ||
      answer.substr(0, kVersion.size()) != kVersion)
    return 0;
  const std::size_t blank = answer.find(' ');
  if (blank == std::string_view::npos) return 0;
  return ToNumber<int>(answer.substr(blank + 1, 3)).value_or(0);
}

}  // namespace

std::vector<CallbackUrl> ParseCallbacks(std::string_view header) {
  std::vector<CallbackUrl> urls;
  for (;;) {
    const std::size_t open = header.find('<'), close = header.find('>');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
      return urls;
    if (std::optional<CallbackUrl> url = ParseUrl(header.substr(open + 1, close - open - 1)))
      urls.push_back(std::move(*url));
    header.remove_prefix(close + 1);
  }
}

Notification::Notification(EventLoop& loop, const CallbackUrl& url, std::string message, Done done)
    : loop_(loop),
      socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      message_(std::move(message)),
      done_(std::move(done)),
      timer_(loop.After(kAnswerTime, [this] { Finish(0); })) {
  const auto* address = reinterpret_cast<const sockaddr*>(&url.address);
  if (connect(socket_.get(), address, sizeof(url.address)) != 0 && errno != EINPROGRESS) {
    loop_.CancelTimer(timer_);
    timer_ = loop_.After(Milliseconds(0), [this] { Finish(0); });
    return;
  }
  loop_.Watch(socket_.get(), EPOLLOUT, [this](std::uint32_t events) { OnEvents(events); });
}

Notification::~Notification() {
  loop_.CancelTimer(timer_);
  if (socket_.valid()) loop_.Forget(socket_.get());
}

void Notification::OnEvents(std::uint32_t events) {
  if ((events & EPOLLOUT) != 0 && sent_ < message_.size()) {
    Send();
  } else {
    Read();
  }
}

void Notification::Send() {
  const ssize_t size =
      send(socket_.get(), message_.data() + sent_, message_.size() - sent_, MSG_NOSIGNAL);
  if (size < 0 && errno == EAGAIN) return;
  if (size < 0) {
    Finish(0);
    return;
  }
  sent_ += static_cast<std::size_t>(size);
  if (sent_ == message_.size()) loop_.Change(socket_.get(), EPOLLIN);
}

void Notification::Read() {
  std::array<char, 4096> buffer;
  const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  if (size < 0 && errno == EAGAIN) return;
  if (size > 0) answer_.append(buffer.data(), static_cast<std::size_t>(size));
  const int status = StatusOf(answer_);
  if (status != 0 || size <= 0 || answer_.size() > buffer.size()) Finish(status);
}

void Notification::Finish(int status) {
  // The owner may delete this object inside.
  const Done done = std::move(done_);
  done(status);
}

}  // namespace vexsim

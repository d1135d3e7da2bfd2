#include "tests/support/control_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace vex_test {
namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in Address(const std::string& ip, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, ip.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("no address: " + ip);
  }
  return address;
}

std::size_t HeaderEnd(const std::string& text) {
  const std::size_t end = text.find("\r\n\r\n");
  return end == std::string::npos ? end : end + 4;
}

std::string HeaderOf(const std::string& text, const std::string& name) {
  const std::size_t end = HeaderEnd(text);
  std::size_t line = text.find("\r\n");
  while (line != std::string::npos && line + 4 < end) {
    line += 2;
    const std::size_t line_end = text.find("\r\n", line);
    const std::size_t colon = text.find(':', line);
    if (colon < line_end && colon - line == name.size() &&
        strncasecmp(text.c_str() + line, name.c_str(), name.size()) == 0) {
      std::size_t value = colon + 1;
      while (value < line_end && text[value] == ' ') ++value;
      return text.substr(value, line_end - value);
    }
    line = line_end;
  }
  return std::string();
}

bool IsComplete(const std::string& text) {
  const std::size_t end = HeaderEnd(text);
  if (end == std::string::npos) return false;
  const std::string length = HeaderOf(text, "CONTENT-LENGTH");
  return text.size() >= end + static_cast<std::size_t>(std::atoi(length.c_str()));
}

void WriteAll(int fd, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t bytes = send(fd, text.data() + written, text.size() - written, MSG_NOSIGNAL);
    if (bytes <= 0) return;
    written += static_cast<std::size_t>(bytes);
  }
}

}  // namespace

std::string PeerRequest::StartLine() const { return text.substr(0, text.find("\r\n")); }

std::string PeerRequest::Header(const std::string& name) const { return HeaderOf(text, name); }

std::string PeerRequest::Body() const {
  const std::size_t end = HeaderEnd(text);
  return end == std::string::npos ? std::string() : text.substr(end);
}

PeerAnswer Silence() {
  PeerAnswer answer;
  answer.end = PeerAnswer::End::kStayOpen;
  return answer;
}

PeerAnswer Reset() {
  PeerAnswer answer;
  answer.end = PeerAnswer::End::kReset;
  return answer;
}

PeerAnswer Text(const std::string& text) {
  PeerAnswer answer;
  answer.text = text;
  return answer;
}

ControlPeer::ControlPeer(const std::string& ip, int port, Script script)
    : ip_(ip), script_(std::move(script)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address = Address(ip, port);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener_, 4096) != 0) {
    close(listener_);
    throw std::runtime_error("the peer finds no port");
  }
  socklen_t size = sizeof(address);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  wake_up_ = eventfd(0, EFD_CLOEXEC);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = &listener_;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event);
  event.data.ptr = &wake_up_;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_up_, &event);
  thread_ = std::thread([this] { Run(); });
}

ControlPeer::~ControlPeer() {
  const std::uint64_t one = 1;
  if (write(wake_up_, &one, sizeof(one)) != sizeof(one)) std::abort();
  thread_.join();
  for (const std::unique_ptr<Connection>& connection : connections_) close(connection->fd);
  close(epoll_);
  close(wake_up_);
  close(listener_);
}

std::string ControlPeer::Url(const std::string& path) const {
  return "http://" + ip_ + ":" + std::to_string(port_) + path;
}

std::string ControlPeer::HostLine() const { return "HOST:" + ip_ + ":" + std::to_string(port_); }

std::vector<PeerRequest> ControlPeer::Requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int ControlPeer::Count() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

int ControlPeer::CountOf(const std::string& start) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(
      std::count_if(requests_.begin(), requests_.end(),
                    [&](const PeerRequest& request) { return request.Begins(start); }));
}

void ControlPeer::KeepRequests(bool keep) {
  const std::lock_guard<std::mutex> lock(mutex_);
  keep_ = keep;
  if (!keep) requests_.clear();
}

void ControlPeer::Run() {
  for (;;) {
    epoll_event events[64];
    const int count = epoll_wait(epoll_, events, 64, PollTimeout());
    std::vector<Connection*> ended;
    for (int i = 0; i < count; ++i) {
      void* const source = events[i].data.ptr;
      if (source == &wake_up_) return;
      if (source == &listener_) {
        Accept();
      } else if (!Read(*static_cast<Connection*>(source))) {
        ended.push_back(static_cast<Connection*>(source));
      }
    }
    connections_.remove_if([&](const std::unique_ptr<Connection>& connection) {
      return std::find(ended.begin(), ended.end(), connection.get()) != ended.end();
    });
    AnswerDue();
  }
}

int ControlPeer::PollTimeout() const {
  Clock::time_point next = Clock::time_point::max();
  for (const std::unique_ptr<Connection>& connection : connections_) {
    if (connection->waiting) next = std::min(next, connection->due);
  }
  if (next == Clock::time_point::max()) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count() + 1, 0));
}

void ControlPeer::Accept() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    std::unique_ptr<Connection> connection(new Connection);
    connection->fd = fd;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = connection.get();
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
    connections_.push_back(std::move(connection));
    ++open_;
  }
}

bool ControlPeer::Read(Connection& connection) {
  char buffer[65536];
  const ssize_t bytes = recv(connection.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  if (bytes < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (bytes <= 0) {
    Close(connection);
    return false;
  }
  connection.input.append(buffer, static_cast<std::size_t>(bytes));
  if (connection.answered || !IsComplete(connection.input)) return true;
  connection.answered = true;
  PeerRequest request;
  request.text.swap(connection.input);
  request.at = Clock::now();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    request.number = count_++;
    if (keep_) requests_.push_back(request);
  }
  connection.answer = script_(request);
  if (connection.answer.delay.count() == 0) return Answer(connection);
  connection.due = Clock::now() + connection.answer.delay;
  connection.waiting = true;
  return true;
}

bool ControlPeer::Answer(Connection& connection) {
  connection.waiting = false;
  WriteAll(connection.fd, connection.answer.text);
  if (connection.answer.after_text) connection.answer.after_text();
  if (connection.answer.end == PeerAnswer::End::kStayOpen) return true;
  if (connection.answer.end == PeerAnswer::End::kReset) {
    const linger at_once{1, 0};
    setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  }
  Close(connection);
  return false;
}

// A child process that is just being started may hold the socket still, so closing alone would
// leave it watched.
void ControlPeer::Close(Connection& connection) {
  epoll_ctl(epoll_, EPOLL_CTL_DEL, connection.fd, nullptr);
  close(connection.fd);
  connection.fd = -1;
  --open_;
}

void ControlPeer::AnswerDue() {
  const Clock::time_point now = Clock::now();
  connections_.remove_if([&](const std::unique_ptr<Connection>& connection) {
    return connection->waiting && connection->due <= now && !Answer(*connection);
  });
}

std::string ExchangeWith(const std::string& ip, int port, const std::string& request,
                         const std::string& from) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!from.empty()) {
    sockaddr_in local = Address(from, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
      close(fd);
      return std::string();
    }
  }
  sockaddr_in address = Address(ip, port);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    const timeval longest = {60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof(longest));
    WriteAll(fd, request);
    char buffer[4096];
    ssize_t bytes = 0;
    while ((bytes = recv(fd, buffer, sizeof(buffer), 0)) > 0) {
      answer.append(buffer, static_cast<std::size_t>(bytes));
    }
  }
  close(fd);
  return answer;
}

}  // namespace vex_test

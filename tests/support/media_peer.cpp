#include "tests/support/media_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace vex_test {

std::string MediaConnection::ReadUntil(const std::string& end) {
  std::string text;
  char c = 0;
  while (text.size() < end.size() || text.compare(text.size() - end.size(), end.size(), end) != 0) {
    if (::recv(descriptor_, &c, 1, 0) != 1) break;
    text.push_back(c);
  }
  return text;
}

std::string MediaConnection::ReadBytes(std::size_t count) {
  std::string text(count, '\0');
  std::size_t have = 0;
  while (have < count) {
    const ssize_t got = ::recv(descriptor_, &text[have], count - have, 0);
    if (got <= 0) break;
    have += static_cast<std::size_t>(got);
  }
  text.resize(have);
  return text;
}

void MediaConnection::Send(const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t taken = ::send(descriptor_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (taken <= 0) return;
    sent += static_cast<std::size_t>(taken);
  }
}

void MediaConnection::AwaitClose() {
  char sink[4096];
  while (::recv(descriptor_, sink, sizeof(sink), 0) > 0) {
  }
}

void MediaConnection::ResetOnClose() {
  const linger abort = {1, 0};
  ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
}

MediaPeer::MediaPeer(std::function<void(MediaConnection&)> script) {
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener_, 1) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::abort();
  }
  port_ = ntohs(address.sin_port);
  const int listener = listener_;
  thread_ = std::thread([listener, script = std::move(script)] {
    const int descriptor = ::accept(listener, nullptr, nullptr);
    if (descriptor < 0) return;
    MediaConnection connection(descriptor);
    script(connection);
    ::close(descriptor);
  });
}

MediaPeer::~MediaPeer() {
  ::shutdown(listener_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

}  // namespace vex_test

#include "http_server.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "http_connection.h"

namespace vexsim {

namespace {

constexpr int kBacklog = 4096;
constexpr Milliseconds kIdleCheck{5000};

}  // namespace

HttpServer::HttpServer(EventLoop& loop, Statistics& statistics, bool keep_alive,
                       Responder responder)
    : loop_(loop),
      statistics_(statistics),
      keep_alive_(keep_alive),
      responder_(std::move(responder)) {
  loop_.After(kIdleCheck, [this] { CloseIdle(); });
}

HttpServer::~HttpServer() {
  connections_.clear();
  for (const auto& [port, listener] : listeners_) loop_.Forget(listener.get());
}

unsigned short HttpServer::Listen(unsigned short port) {
  FileHandle listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  socklen_t size = sizeof(address);
  if (!listener.valid() ||
      bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      listen(listener.get(), kBacklog) != 0 ||
      getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
    throw std::system_error(errno, std::generic_category(), "TCP port " + std::to_string(port));
  const unsigned short bound = ntohs(address.sin_port);
  const int descriptor = listener.get();
  loop_.Watch(descriptor, EPOLLIN, [this, descriptor](std::uint32_t) { Accept(descriptor); });
  listeners_[bound] = std::move(listener);
  return bound;
}

void HttpServer::Close(unsigned short port) {
  const auto found = listeners_.find(port);
  if (found == listeners_.end()) return;
  loop_.Forget(found->second.get());
  listeners_.erase(found);
  std::vector<int> ended;
  for (const auto& [descriptor, connection] : connections_)
    if (connection->local_port() == port) ended.push_back(descriptor);
  for (const int descriptor : ended) Drop(descriptor);
}

void HttpServer::Accept(int listener) {
  for (;;) {
    FileHandle socket(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.valid()) return;
    ++statistics_.connections;
    Adopt(std::move(socket));
  }
}

void HttpServer::Adopt(FileHandle socket) {
  const int descriptor = socket.get();
  auto connection = std::make_unique<HttpConnection>(*this, std::move(socket));
  connections_[descriptor] = std::move(connection);
}

// The connection is gone when this returns; it is the last thing that a connection's own code does.
void HttpServer::Drop(int descriptor) { connections_.erase(descriptor); }

void HttpServer::CloseIdle() {
  std::vector<int> idle;
  for (const auto& [descriptor, connection] : connections_)
    if (connection->Idle()) idle.push_back(descriptor);
  for (const int descriptor : idle) Drop(descriptor);
  loop_.After(kIdleCheck, [this] { CloseIdle(); });
}

}  // namespace vexsim

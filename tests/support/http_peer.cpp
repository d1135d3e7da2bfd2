#include "tests/support/http_peer.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tests/support/tcp_table.h"
#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

constexpr char kHeaderEnd[] = "\r\n\r\n";

int ListenOn(const std::string& ip, int port, int& bound_port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("no socket for a peer");
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  socklen_t size = sizeof(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(fd, SOMAXCONN) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    const std::string why = std::strerror(errno);
    ::close(fd);
    throw std::runtime_error("a peer cannot listen on " + ip + ": " + why);
  }
  bound_port = ntohs(address.sin_port);
  return fd;
}

std::size_t BodyLength(const std::string& header) {
  const char* found = ::strcasestr(header.c_str(), "\r\ncontent-length:");
  return found == nullptr ? 0
                          : std::strtoul(found + std::strlen("\r\ncontent-length:"), nullptr, 10);
}

}  // namespace

PeerConnection::~PeerConnection() { Close(); }

bool PeerConnection::ReadMore(std::string& text) {
  char piece[8192];
  const ssize_t bytes = ::recv(fd(), piece, sizeof(piece), 0);
  if (bytes > 0) text.append(piece, static_cast<std::size_t>(bytes));
  return bytes > 0;
}

std::string PeerConnection::ReadRequest() {
  std::string request;
  std::size_t end = std::string::npos;
  while ((end = request.find(kHeaderEnd)) == std::string::npos) {
    if (!ReadMore(request)) return request;
  }
  const std::size_t header = end + std::strlen(kHeaderEnd);
  const std::size_t whole = header + BodyLength(request.substr(0, header));
  while (request.size() < whole) {
    if (!ReadMore(request)) return request;
  }
  return request;
}

bool PeerConnection::Send(const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t taken = ::send(fd(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (taken <= 0) return false;
    sent += static_cast<std::size_t>(taken);
  }
  return true;
}

bool PeerConnection::SendInPieces(const std::string& text, std::size_t piece,
                                  std::chrono::milliseconds pause) {
  const int on = 1;
  ::setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  for (std::size_t begin = 0; begin < text.size(); begin += piece) {
    if (!Send(text.substr(begin, piece))) return false;
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
  return true;
}

void PeerConnection::AwaitRead() {
  WaitUntil([this] { return HasBeenRead(); });
}

bool PeerConnection::HasBeenRead() const {
  int on_the_way = 0;
  sockaddr_in own = {}, other = {};
  socklen_t size = sizeof(own);
  if (::ioctl(fd(), SIOCOUTQ, &on_the_way) != 0 ||
      ::getsockname(fd(), reinterpret_cast<sockaddr*>(&own), &size) != 0 ||
      ::getpeername(fd(), reinterpret_cast<sockaddr*>(&other), &size) != 0) {
    return true;  // Nobody is left who could read.
  }
  if (on_the_way > 0) return false;
  const std::vector<TcpRow> rows = TcpTable();
  return std::none_of(rows.begin(), rows.end(), [&](const TcpRow& row) {
    return row.local_ip == other.sin_addr.s_addr && row.local_port == ntohs(other.sin_port) &&
           row.remote_ip == own.sin_addr.s_addr && row.remote_port == ntohs(own.sin_port) &&
           row.unread > 0;
  });
}

void PeerConnection::FinishSending() { ::shutdown(fd(), SHUT_WR); }

void PeerConnection::Close() {
  const std::lock_guard<std::mutex> lock(close_mutex_);
  const int fd = fd_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

void PeerConnection::Reset() {
  const linger at_once = {1, 0};
  ::setsockopt(fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  Close();
}

PeerConnection::End PeerConnection::AwaitEnd() {
  char piece[8192];
  while (true) {
    const ssize_t bytes = ::recv(fd(), piece, sizeof(piece), 0);
    if (bytes == 0) return End::kClosed;
    if (bytes < 0 && errno != EINTR) return End::kReset;
  }
}

void PeerConnection::Interrupt() {
  const std::lock_guard<std::mutex> lock(close_mutex_);
  if (fd() >= 0) ::shutdown(fd(), SHUT_RDWR);
}

struct HttpPeer::Run {
  explicit Run(int fd) : connection(fd) {}
  PeerConnection connection;
  std::thread thread;
};

HttpPeer::HttpPeer(Script script, const std::string& ip, int port)
    : script_(std::move(script)), ip_(ip), listener_(ListenOn(ip, port, port_)) {
  acceptor_ = std::thread([this] { Accept(); });
}

HttpPeer::~HttpPeer() {
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  for (const std::unique_ptr<Run>& run : runs_) run->connection.Interrupt();
  for (const std::unique_ptr<Run>& run : runs_) run->thread.join();
}

void HttpPeer::Accept() {
  while (true) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    if (fd < 0) return;
    ++accepted_;
    const std::lock_guard<std::mutex> lock(runs_mutex_);
    runs_.push_back(std::make_unique<Run>(fd));
    Run* const run = runs_.back().get();
    run->thread = std::thread([this, run] {
      script_(run->connection);
      run->connection.Close();
      ++finished_;
    });
  }
}

int UnusedPort(const std::string& ip) {
  int port = 0;
  ::close(ListenOn(ip, 0, port));
  return port;
}

std::string OkAnswer(const std::string& body, const std::string& header_lines) {
  return "HTTP/1.1 200 OK\r\n" + header_lines + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

HttpPeer::Script AnswerWith(const std::string& text) {
  return [text](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send(text);
    connection.AwaitEnd();
  };
}

HttpPeer::Script AnswerAndClose(const std::string& text) {
  return [text](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send(text);
  };
}

HttpPeer::Script StaySilent() {
  return [](PeerConnection& connection) { connection.AwaitEnd(); };
}

}  // namespace vex_test

#include "tests/support/raw_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vex_test {
namespace {

constexpr int kPatienceMs = 20000;

sockaddr_in Address(const std::string& ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<unsigned short>(port));
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

sockaddr_in LocalAddress(int descriptor) {
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
  return address;
}

std::string Text(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  return text;
}

bool Bind(int descriptor, const std::string& ip, int port) {
  const sockaddr_in address = Address(ip, port);
  return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool Readable(int descriptor) {
  pollfd readable = {descriptor, POLLIN, 0};
  return poll(&readable, 1, kPatienceMs) == 1;
}

}  // namespace

std::string OwnLoopbackAddress() {
  const unsigned int id = static_cast<unsigned int>(getpid());
  return "127." + std::to_string(1 + (id >> 16) % 250) + "." + std::to_string((id >> 8) & 255) +
         "." + std::to_string(1 + (id & 255) % 250);
}

TcpClient::TcpClient(const std::string& ip, int port)
    : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in address = Address(ip, port);
  connected_ =
      connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

TcpClient::~TcpClient() { close(descriptor_); }

std::string TcpClient::local_ip() const { return Text(LocalAddress(descriptor_)); }
int TcpClient::local_port() const { return ntohs(LocalAddress(descriptor_).sin_port); }

bool TcpClient::Send(const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t count = send(descriptor_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::string TcpClient::ReadToEnd() {
  std::string all;
  char buffer[65536];
  while (Readable(descriptor_)) {
    const ssize_t count = recv(descriptor_, buffer, sizeof(buffer), 0);
    if (count <= 0) break;
    all.append(buffer, static_cast<std::size_t>(count));
  }
  return all;
}

std::string TcpClient::ReadBytes(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t have = 0;
  while (have < count && Readable(descriptor_)) {
    const ssize_t got = recv(descriptor_, &bytes[have], count - have, 0);
    if (got <= 0) break;
    have += static_cast<std::size_t>(got);
  }
  bytes.resize(have);
  return bytes;
}

bool TcpClient::PeerCloses() {
  char byte = 0;
  return Readable(descriptor_) && recv(descriptor_, &byte, 1, 0) <= 0;
}

bool TcpClient::OpenAndSilent() {
  char byte = 0;
  return recv(descriptor_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

void TcpClient::EndSending() { shutdown(descriptor_, SHUT_WR); }

void TcpClient::Reset() {
  const linger now = {1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  close(descriptor_);
  descriptor_ = -1;
}

UdpSocket::UdpSocket(const std::string& ip, int port)
    : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  Bind(descriptor_, ip, port);
}

UdpSocket::~UdpSocket() { close(descriptor_); }

int UdpSocket::port() const { return ntohs(LocalAddress(descriptor_).sin_port); }

bool UdpSocket::SendTo(const std::string& ip, int port, const std::string& data) {
  const sockaddr_in to = Address(ip, port);
  return sendto(descriptor_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof(to)) == static_cast<ssize_t>(data.size());
}

bool UdpSocket::Receive(std::string& data, std::string& from_ip, int& from_port) {
  if (!Readable(descriptor_)) return false;
  char buffer[65536];
  sockaddr_in from = {};
  socklen_t size = sizeof(from);
  const ssize_t count =
      recvfrom(descriptor_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &size);
  if (count < 0) return false;
  data.assign(buffer, static_cast<std::size_t>(count));
  from_ip = Text(from);
  from_port = ntohs(from.sin_port);
  return true;
}

HeldPorts::HeldPorts(int type, const std::string& ip, int first, int count) {
  for (int port = first; port < first + count; ++port) {
    descriptors_.push_back(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    all_ = Bind(descriptors_.back(), ip, port) && all_;
  }
}

HeldPorts::~HeldPorts() {
  for (const int descriptor : descriptors_) close(descriptor);
}

}  // namespace vex_test

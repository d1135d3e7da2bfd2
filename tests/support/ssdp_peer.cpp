#include "tests/support/ssdp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace vex_test {
namespace {

constexpr int kSsdpPort = 1900;
constexpr int kPollMs = 20;
constexpr int kReceiveBuffer = 4 * 1024 * 1024;

sockaddr_in Endpoint(const std::string& ip, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, ip.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an address: " + ip);
  }
  return address;
}

void Check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

void BindTo(int socket, const std::string& ip, int port) {
  const int on = 1;
  Check(setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), "SO_REUSEADDR");
  const sockaddr_in address = Endpoint(ip, port);
  Check(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
}

}  // namespace

SsdpPeer::SsdpPeer(const std::string& ip, const std::string& group_interface)
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  Check(socket_, "socket");
  BindTo(socket_, ip, 0);
  const in_addr through = Endpoint(group_interface.empty() ? ip : group_interface, 0).sin_addr;
  Check(setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_IF, &through, sizeof(through)),
        "IP_MULTICAST_IF");
}

SsdpPeer::~SsdpPeer() { close(socket_); }

void SsdpPeer::Send(const std::string& datagram, const std::string& ip, int port) {
  const sockaddr_in address = Endpoint(ip, port);
  const ssize_t sent = sendto(socket_, datagram.data(), datagram.size(), 0,
                              reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  Check(static_cast<int>(sent), "sendto");
}

GroupWatcher::GroupWatcher(const std::string& group, const std::string& interface_ip)
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  Check(socket_, "socket");
  setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer));
  // Bound to the group itself, it hears no other group.
  BindTo(socket_, group, kSsdpPort);
  ip_mreq membership{};
  membership.imr_multiaddr = Endpoint(group, 0).sin_addr;
  membership.imr_interface = Endpoint(interface_ip, 0).sin_addr;
  Check(setsockopt(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)),
        "IP_ADD_MEMBERSHIP");
  const int only_joined = 0;
  setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_ALL, &only_joined, sizeof(only_joined));
  thread_ = std::thread([this] { Run(); });
}

GroupWatcher::~GroupWatcher() {
  stopped_ = true;
  thread_.join();
  close(socket_);
}

void GroupWatcher::Run() {
  std::vector<char> buffer(65536);
  while (!stopped_) {
    pollfd waiting{socket_, POLLIN, 0};
    if (poll(&waiting, 1, kPollMs) <= 0) continue;
    sockaddr_in sender{};
    socklen_t length = sizeof(sender);
    const ssize_t size = recvfrom(socket_, buffer.data(), buffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &length);
    if (size < 0) continue;
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &sender.sin_addr, text, sizeof(text));
    const std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(
        {text, ntohs(sender.sin_port), std::string(buffer.data(), static_cast<std::size_t>(size))});
  }
}

std::vector<Datagram> GroupWatcher::Received() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

int GroupWatcher::Count(const std::string& start) const {
  int count = 0;
  for (const Datagram& datagram : Received()) {
    if (datagram.bytes.compare(0, start.size(), start) == 0) ++count;
  }
  return count;
}

void GroupWatcher::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
}

std::string AliveDatagram(const std::string& usn, const std::string& nt,
                          const std::string& location) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\n"
         "LOCATION: " +
         location + "\r\nNT: " + nt + "\r\nNTS: ssdp:alive\r\nSERVER: test/1 UPnP/1.0 fake/1\r\n" +
         "USN: " + usn + "\r\n\r\n";
}

std::string ByebyeDatagram(const std::string& usn, const std::string& nt) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: " + nt +
         "\r\nNTS: ssdp:byebye\r\nUSN: " + usn + "\r\n\r\n";
}

std::string SearchAnswerDatagram(const std::string& usn, const std::string& st,
                                 const std::string& location) {
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nEXT:\r\nLOCATION: " + location +
         "\r\nSERVER: test/1 UPnP/1.0 fake/1\r\nST: " + st + "\r\nUSN: " + usn + "\r\n\r\n";
}

}  // namespace vex_test

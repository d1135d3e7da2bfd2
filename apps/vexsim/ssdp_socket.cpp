#include "ssdp_socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace vexsim {

namespace {

constexpr std::size_t kBatch = 64;
constexpr int kSendWaitMs = 100;
constexpr int kBufferBytes = 4 * 1024 * 1024;

void SetOption(int socket, int level, int option, int value, const char* name) {
  if (setsockopt(socket, level, option, &value, sizeof(value)) != 0)
    throw std::system_error(errno, std::generic_category(), name);
}

FileHandle OpenSocket() {
  FileHandle handle(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!handle.valid()) throw std::system_error(errno, std::generic_category(), "UDP socket");
  SetOption(handle.get(), SOL_SOCKET, SO_REUSEADDR, 1, "SO_REUSEADDR");
  SetOption(handle.get(), IPPROTO_IP, IP_PKTINFO, 1, "IP_PKTINFO");
  SetOption(handle.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0, "IP_MULTICAST_ALL");
  SetOption(handle.get(), IPPROTO_IP, IP_MULTICAST_TTL, 4, "IP_MULTICAST_TTL");
  // A thousand searches at once are no reason to lose one. The plain form may be cut short.
  for (const int buffer : {SO_RCVBUF, SO_SNDBUF, SO_RCVBUFFORCE, SO_SNDBUFFORCE})
    setsockopt(handle.get(), SOL_SOCKET, buffer, &kBufferBytes, sizeof(kBufferBytes));
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(kSsdpPort);
  if (bind(handle.get(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
    throw std::system_error(errno, std::generic_category(), "UDP port 1900");
  return handle;
}

// One entry of sendmmsg with the memory that it points at.
struct Outgoing {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
  iovec data{};

  void Fill(const Datagram& datagram, msghdr& message) {
    data.iov_base = const_cast<char*>(datagram.text.data());
    data.iov_len = datagram.text.size();
    message = msghdr{};
    message.msg_name = const_cast<sockaddr_in*>(&datagram.to);
    message.msg_namelen = sizeof(datagram.to);
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = datagram.interface_index;
    info.ipi_spec_dst = datagram.source;
    std::memcpy(CMSG_DATA(header), &info, sizeof(info));
  }
};

int InterfaceOf(msghdr& message) {
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_PKTINFO) continue;
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(header), sizeof(info));
    return info.ipi_ifindex;
  }
  return 0;
}

}  // namespace

sockaddr_in SsdpGroupAddress() {
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_port = htons(kSsdpPort);
  inet_pton(AF_INET, kSsdpGroup, &group.sin_addr);
  return group;
}

SsdpSocket::SsdpSocket(EventLoop& loop, const std::vector<Interface>& interfaces, Receiver receiver)
    : loop_(loop), receiver_(std::move(receiver)), socket_(OpenSocket()) {
  Join(interfaces);
  loop_.Watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { Receive(); });
}

SsdpSocket::~SsdpSocket() { loop_.Forget(socket_.get()); }

void SsdpSocket::Join(const std::vector<Interface>& interfaces) {
  for (const Interface& interface : interfaces) {
    ip_mreqn request{};
    request.imr_multiaddr = SsdpGroupAddress().sin_addr;
    request.imr_address = interface.address;
    request.imr_ifindex = interface.index;
    const int result =
        setsockopt(socket_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request));
    if (result != 0 && errno != EADDRINUSE)
      throw std::system_error(errno, std::generic_category(),
                              "joining 239.255.255.250 on " + interface.name);
  }
}

void SsdpSocket::Receive() {
  std::array<char, 65536> buffer;
  for (;;) {
    sockaddr_in from{};
    iovec data{buffer.data(), buffer.size()};
    alignas(cmsghdr) std::array<char, 256> control;
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof(from);
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(socket_.get(), &message, 0);
    if (size < 0) return;
    receiver_(std::string_view(buffer.data(), static_cast<std::size_t>(size)), from,
              InterfaceOf(message));
  }
}

std::size_t SsdpSocket::Send(const std::vector<Datagram>& datagrams) {
  std::array<Outgoing, kBatch> entries;
  std::array<mmsghdr, kBatch> headers;
  std::size_t taken = 0;
  for (std::size_t next = 0; next < datagrams.size();) {
    const std::size_t count = std::min(kBatch, datagrams.size() - next);
    for (std::size_t i = 0; i < count; ++i)
      entries[i].Fill(datagrams[next + i], headers[i].msg_hdr);
    const int sent =
        sendmmsg(socket_.get(), headers.data(), static_cast<unsigned>(count), MSG_NOSIGNAL);
    if (sent > 0) {
      next += static_cast<std::size_t>(sent);
      taken += static_cast<std::size_t>(sent);
    } else if (errno == EAGAIN || errno == ENOBUFS) {
      pollfd writable{socket_.get(), POLLOUT, 0};
      if (poll(&writable, 1, kSendWaitMs) <= 0) ++next;
    } else {
      // An interface that is down, or an address that is gone: this one is lost, the others may go.
      ++next;
    }
  }
  return taken;
}

}  // namespace vexsim

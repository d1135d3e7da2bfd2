#include "src/outgoing_arrival.h"

// The C library's own record of this name ends before the counters.
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstddef>

namespace vex_upnp {
namespace network_layer {

bool HasReceived(int socket) {
  struct tcp_info info = {};
  socklen_t length = sizeof(info);
  constexpr std::size_t kWanted =
      offsetof(struct tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received);
  if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && length >= kWanted) {
    return info.tcpi_bytes_received > 0;
  }
  int unread = 0;
  return ioctl(socket, FIONREAD, &unread) == 0 && unread > 0;
}

}  // namespace network_layer
}  // namespace vex_upnp

#ifndef VEXUPNPCP_SRC_OUTGOING_DATAGRAM_H_
#define VEXUPNPCP_SRC_OUTGOING_DATAGRAM_H_

#include <string>

#include "base/asio.h"

namespace vex_upnp {
namespace network_layer {

constexpr char kAnyLocalAddress[] = "INADDR_ANY";

// Sends one datagram. `local_ip` is kAnyLocalAddress, or the address of an interface: then it comes
// from the port of the UDP server on that interface, so that answers reach the server, or from one
// of fifty ports of our own. `session_id` is for the log. 0, or 2000.
int SendDatagram(io_service& io, int session_id, const std::string& local_ip,
                 const std::string& remote_ip, int port, const std::string& data);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_DATAGRAM_H_

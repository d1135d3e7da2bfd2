#ifndef VEXUPNPCP_SRC_OUTGOING_ARRIVAL_H_
#define VEXUPNPCP_SRC_OUTGOING_ARRIVAL_H_

namespace vex_upnp {
namespace network_layer {

// Whether anything has come from the peer on this TCP socket, read or not. A kernel that doesn't
// count what came (before Linux 4.1) tells only what has not been read yet.
bool HasReceived(int socket);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_ARRIVAL_H_

#ifndef VEXUPNPCP_BASE_SOCKET_CLOSE_H_
#define VEXUPNPCP_BASE_SOCKET_CLOSE_H_

#include "base/asio.h"

namespace vex_upnp {

// What each step of closing said; the caller logs the failures in its own words.
struct SocketCloseResult {
  error_code shutdown;
  error_code cancel;
  error_code close;
};

// Ends traffic both ways, cancels what is out (it completes with operation_aborted) and closes.
// Never throws; a failed step does not stop the next.
template <typename Socket>
SocketCloseResult CloseSocket(Socket& socket) {
  SocketCloseResult result;
  socket.shutdown(Socket::shutdown_both, result.shutdown);
  socket.cancel(result.cancel);
  socket.close(result.close);
  return result;
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_SOCKET_CLOSE_H_

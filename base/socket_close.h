#ifndef VEXUPNPCP_BASE_SOCKET_CLOSE_H_
#define VEXUPNPCP_BASE_SOCKET_CLOSE_H_

#include <unistd.h>

#include <cerrno>

#include <boost/shared_ptr.hpp>

#include "base/asio.h"

namespace vex_upnp {

// Closes a socket or an acceptor; one that is not open stays as it is. What is out completes with
// operation_aborted. Never throws.
//
// It leaves the event loop first. The kernel lets a loop that is just looking at a descriptor keep
// the socket behind it until that loop wakes for something else, which may take minutes: what was
// merely closed would go on listening, or taking datagrams, with nobody behind it.
template <typename Socket>
void CloseNow(Socket& socket, error_code& error) {
  error.clear();
  if (!socket.is_open()) return;
  const auto descriptor = socket.release(error);
  if (!error && ::close(descriptor) != 0) {
    error = error_code(errno, boost::system::system_category());
  }
}

// A socket that closes so where its last holder goes.
inline boost::shared_ptr<tcp::socket> NewSocket(io_service& io) {
  return boost::shared_ptr<tcp::socket>(new tcp::socket(io), [](tcp::socket* socket) {
    error_code ignored;
    CloseNow(*socket, ignored);
    delete socket;
  });
}

// What each step of closing said; the caller logs the failures in its own words.
struct SocketCloseResult {
  error_code shutdown;
  error_code cancel;
  error_code close;
};

// Ends traffic both ways, cancels what is out (it completes with operation_aborted) and closes.
// Never throws; a failed step does not stop the next. The peer is told by the first step, so the
// event loop need not be left.
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

#ifndef VEXUPNPCP_BASE_ACCEPT_H_
#define VEXUPNPCP_BASE_ACCEPT_H_

#include "base/asio.h"

namespace vex_upnp {

// Connections are waited for and then taken by the handler, which can try again. Had the loop
// accepted them, one for which it finds no memory would take the handler with it, and the server
// would be deaf for good.
inline void PrepareToAccept(tcp::acceptor& acceptor, error_code& error) {
  acceptor.non_blocking(true, error);
  // Else accept() itself would wait for the next peer when one has gone again.
  if (!error) acceptor.set_option(tcp::acceptor::enable_connection_aborted(true), error);
}

// False when the peer has gone again and there is none to be taken. Never waits.
inline bool AcceptNow(tcp::acceptor& acceptor, tcp::socket& socket, error_code& error) {
  acceptor.accept(socket, error);
  return error != boost::asio::error::would_block && error != boost::asio::error::try_again &&
         error != boost::asio::error::connection_aborted;
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_ACCEPT_H_

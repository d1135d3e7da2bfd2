#ifndef VEXUPNPCP_SRC_OUTGOING_ADDRESS_H_
#define VEXUPNPCP_SRC_OUTGOING_ADDRESS_H_

#include <string>
#include <vector>

#include "base/asio.h"

namespace vex_upnp {
namespace network_layer {

// Whether a number can be a port at all.
bool IsPort(int port);

// The one endpoint of a host that is written as an IPv4 address; nobody is asked for it. Empty
// when the host is a name.
std::vector<tcp::endpoint> EndpointsOfAddress(const std::string& host, int port);

// The endpoints that a name stands for, in the order of the answer. Waits for the name server,
// unless the name has been looked up ahead; throws system_error when there is no answer.
std::vector<tcp::endpoint> EndpointsOfName(io_service& io, const std::string& host, int port);

// The first that gives something; waits for the name server when the host is a name.
std::vector<tcp::endpoint> EndpointsOfHost(io_service& io, const std::string& host, int port);

std::vector<tcp::endpoint> EndpointsOf(const tcp::resolver::results_type& results);

// A look-up that a host's thread makes before it takes a lock and sends under it: a name server may
// take half a minute, and meanwhile whoever needs that lock would stand still, the timers of all
// others included. Requests of this thread to that host and port find the outcome, good or bad, to
// the end of the scope. Does nothing for an address, and on the library's own threads, which never
// wait for a name server.
class LookedUpAhead {
 public:
  LookedUpAhead(const std::string& host, int port);
  LookedUpAhead(const LookedUpAhead&) = delete;
  LookedUpAhead& operator=(const LookedUpAhead&) = delete;
  ~LookedUpAhead();

  // This thread's, if it is for that host and port.
  static const LookedUpAhead* Find(const std::string& host, int port);
  // Throws the look-up's failure.
  const std::vector<tcp::endpoint>& Endpoints() const;

 private:
  const std::string host_;
  const int port_;
  std::vector<tcp::endpoint> endpoints_;
  error_code error_;
  static thread_local const LookedUpAhead* current_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_ADDRESS_H_

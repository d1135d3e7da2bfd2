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

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_ADDRESS_H_

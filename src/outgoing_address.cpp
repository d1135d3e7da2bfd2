#include "src/outgoing_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "src/looked_up_ahead.h"

namespace vex_upnp {
namespace network_layer {

bool IsPort(int port) { return port >= 0 && port <= 65535; }

std::vector<tcp::endpoint> EndpointsOfAddress(const std::string& host, int port) {
  // Also the old forms with fewer than four numbers, which a name server would never be asked for.
  in_addr address;
  if (host.find('\0') != std::string::npos || ::inet_aton(host.c_str(), &address) == 0) {
    return std::vector<tcp::endpoint>();
  }
  // inet_aton() takes what follows behind white space for a comment.
  if (host.find_first_of(" \t\r\n\v\f") != std::string::npos) return std::vector<tcp::endpoint>();
  const boost::asio::ip::address_v4 ipv4(ntohl(address.s_addr));
  return {tcp::endpoint(ipv4, static_cast<unsigned short>(port))};
}

std::vector<tcp::endpoint> EndpointsOfName(io_service& io, const std::string& host, int port) {
  // The resolver takes an empty name for this machine.
  if (host.empty()) throw system_error(boost::asio::error::host_not_found);
  const LookedUpAhead* const ahead = LookedUpAhead::Find(host, port);
  if (ahead != nullptr) return ahead->Endpoints();
  tcp::resolver resolver(io);
  return EndpointsOf(
      resolver.resolve(tcp::v4(), host, std::to_string(port), tcp::resolver::address_configured));
}

std::vector<tcp::endpoint> EndpointsOfHost(io_service& io, const std::string& host, int port) {
  std::vector<tcp::endpoint> endpoints = EndpointsOfAddress(host, port);
  return endpoints.empty() ? EndpointsOfName(io, host, port) : endpoints;
}

std::vector<tcp::endpoint> EndpointsOf(const tcp::resolver::results_type& results) {
  std::vector<tcp::endpoint> endpoints;
  for (const auto& result : results) endpoints.push_back(result.endpoint());
  return endpoints;
}

}  // namespace network_layer
}  // namespace vex_upnp

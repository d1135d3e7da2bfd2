#ifndef VEXUPNPCP_SRC_LOCATION_CHECK_H_
#define VEXUPNPCP_SRC_LOCATION_CHECK_H_

#include <string>

namespace vex_upnp {
namespace cp_discovery {

// Whoever sends a datagram may name any address in it. These say why an address cannot be a
// device's, so that nobody makes us talk to ourselves, to a group or to an address in disguise;
// null when it may be one. What may be right is never refused: names, other subnets and link-local
// addresses pass.

// Whether the text would write lines of its own into a request.
bool HasLineEnd(const std::string& text);

// `host` and `port` are what the caller's own reading of `url` gave; `peer` is the address of the
// machine that named it.
const char* WhyUnusable(const std::string& url, const std::string& host, int port,
                        const std::string& peer);

// The same for a URL that is not needed yet. One without an explicit port is left for its user to
// refuse.
const char* WhyUrlUnusable(const std::string& url, const std::string& peer);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_LOCATION_CHECK_H_

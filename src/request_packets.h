#ifndef VEXUPNPCP_SRC_REQUEST_PACKETS_H_
#define VEXUPNPCP_SRC_REQUEST_PACKETS_H_

#include <string>

namespace vex_upnp {

// The packets that the control point sends, as whole byte strings. Devices exist that want exactly
// these headers in exactly this order and spelling.

// Search request of the UPnP Device Architecture, one datagram: type, MX, multicast group.
extern const char MSearchTemplate[];

// `mx` is the time in seconds over which devices spread their answers.
std::string FormatSearchRequest(const std::string& type, int mx, const std::string& group);

// GET of a device or service description. `target` stands on the request line as it is.
std::string FormatDescriptionRequest(const std::string& target, const std::string& host, int port,
                                     const std::string& user_agent);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_REQUEST_PACKETS_H_

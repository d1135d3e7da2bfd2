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

// The requests of control and eventing. `host_line` and `soap_action_line` are whole header lines
// without their line end; a path is the part of the URL behind the port.

// "HOST:" without a blank behind it, as actions and subscriptions carry it.
std::string FormatHostLine(const std::string& host, int port);

// POST of one SOAP action, with its body.
std::string FormatActionRequest(const std::string& path, const std::string& host_line,
                                const std::string& user_agent, const std::string& soap_action_line,
                                const std::string& body);

// SUBSCRIBE. A slash is put behind `callback_url`, inside the angle brackets.
std::string FormatSubscribeRequest(const std::string& path, const std::string& callback_url,
                                   int seconds, const std::string& host_line,
                                   const std::string& user_agent);

std::string FormatRenewalRequest(const std::string& path, const std::string& host_line,
                                 const std::string& sid, int seconds,
                                 const std::string& user_agent);

std::string FormatUnsubscribeRequest(const std::string& path, const std::string& host_line,
                                     const std::string& sid);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_REQUEST_PACKETS_H_

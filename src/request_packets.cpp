#include "src/request_packets.h"

#include <boost/format.hpp>

namespace vex_upnp {
namespace {

constexpr char kDescriptionTemplate[] =
    "GET %s HTTP/1.1\r\n"
    "HOST: %s:%d\r\n"
    "ACCEPT-LANGUAGE: en-us\r\n"
    "Connection: Keep-Alive\r\n"
    "USER-AGENT: %s\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

}  // namespace

const char MSearchTemplate[] =
    "M-SEARCH * HTTP/1.1\r\n"
    "ST: %s\r\n"
    "MX: %d\r\n"
    "MAN: \"ssdp:discover\"\r\n"
    "HOST: %s:1900\r\n"
    "\r\n";

std::string FormatSearchRequest(const std::string& type, int mx, const std::string& group) {
  return (boost::format(MSearchTemplate) % type % mx % group).str();
}

std::string FormatDescriptionRequest(const std::string& target, const std::string& host, int port,
                                     const std::string& user_agent) {
  return (boost::format(kDescriptionTemplate) % target % host % port % user_agent).str();
}

}  // namespace vex_upnp

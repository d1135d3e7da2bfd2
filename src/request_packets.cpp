#include "src/request_packets.h"

#include <cstring>
#include <initializer_list>

namespace vex_upnp {
namespace {

// Puts the arguments in the place of the template's "%s" and "%d", in order. By hand, since a
// stream would put the separators of the host's locale into the numbers.
std::string Fill(const char* text, std::initializer_list<std::string> arguments) {
  std::string filled;
  for (const std::string& argument : arguments) {
    const char* const place = std::strchr(text, '%');
    filled.append(text, place);
    filled += argument;
    text = place + 2;
  }
  return filled += text;
}

}  // namespace

const char MSearchTemplate[] =
    "M-SEARCH * HTTP/1.1\r\n"
    "ST: %s\r\n"
    "MX: %d\r\n"
    "MAN: \"ssdp:discover\"\r\n"
    "HOST: %s:1900\r\n"
    "\r\n";

std::string FormatSearchRequest(const std::string& type, int mx, const std::string& group) {
  return Fill(MSearchTemplate, {type, std::to_string(mx), group});
}

std::string FormatDescriptionRequest(const std::string& target, const std::string& host, int port,
                                     const std::string& user_agent) {
  return "GET " + target + " HTTP/1.1\r\nHOST: " + host + ":" + std::to_string(port) +
         "\r\n"
         "ACCEPT-LANGUAGE: en-us\r\n"
         "Connection: Keep-Alive\r\n"
         "USER-AGENT: " +
         user_agent +
         "\r\n"
         "Content-Length: 0\r\n"
         "\r\n";
}

std::string FormatHostLine(const std::string& host, int port) {
  return "HOST:" + host + ":" + std::to_string(port);
}

std::string FormatActionRequest(const std::string& path, const std::string& host_line,
                                const std::string& user_agent, const std::string& soap_action_line,
                                const std::string& body) {
  std::string packet = "POST " + path + " HTTP/1.1\r\n" + host_line +
                       "\r\n"
                       "Accept: */*\r\n"
                       "CONTENT-LENGTH: " +
                       std::to_string(body.size()) +
                       "\r\n"
                       "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
                       "USER-AGENT: " +
                       user_agent + "\r\n" + soap_action_line +
                       "\r\n"
                       "Connection: close\r\n"
                       "\r\n";
  packet += body;
  return packet;
}

std::string FormatSubscribeRequest(const std::string& path, const std::string& callback_url,
                                   int seconds, const std::string& host_line,
                                   const std::string& user_agent) {
  return "SUBSCRIBE " + path +
         " HTTP/1.1\r\n"
         "CALLBACK: <" +
         callback_url +
         "/>\r\n"
         "NT: upnp:event\r\n"
         "TIMEOUT: Second-" +
         std::to_string(seconds) + "\r\n" + host_line +
         "\r\n"
         "USER-AGENT: " +
         user_agent + "\r\n\r\n";
}

std::string FormatRenewalRequest(const std::string& path, const std::string& host_line,
                                 const std::string& sid, int seconds,
                                 const std::string& user_agent) {
  return "SUBSCRIBE " + path + " HTTP/1.1\r\n" + host_line +
         "\r\n"
         "SID: " +
         sid +
         "\r\n"
         "TIMEOUT: Second-" +
         std::to_string(seconds) +
         "\r\n"
         "USER-AGENT: " +
         user_agent + "\r\n\r\n";
}

std::string FormatUnsubscribeRequest(const std::string& path, const std::string& host_line,
                                     const std::string& sid) {
  return "UNSUBSCRIBE " + path + " HTTP/1.1\r\n" + host_line +
         "\r\n"
         "SID: " +
         sid + "\r\n\r\n";
}

}  // namespace vex_upnp

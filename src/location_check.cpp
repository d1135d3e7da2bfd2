#include "src/location_check.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <list>
#include <string_view>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/ascii_text.h"
#include "src/device_key.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr int kHighestPort = 65535;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Letters, digits, hyphens and underscores between dots. This leaves out user names, passwords,
// white space and line ends.
bool IsSpelledLikeAHost(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](char c) {
    const char lower = ToLowerAscii(c);
    return IsDigit(c) || (lower >= 'a' && lower <= 'z') || c == '.' || c == '-' || c == '_';
  });
}

std::string WithoutFinalDot(const std::string& host) {
  return host.back() == '.' ? host.substr(0, host.size() - 1) : host;
}

// A name's last part begins with a letter. Resolvers read what begins with a digit as a number,
// and "0x7f.1" or "2130706433" as an address.
bool IsName(const std::string& host) {
  const std::string name = WithoutFinalDot(host);
  const std::size_t dot = name.rfind('.');
  const std::size_t last = dot == std::string::npos ? 0 : dot + 1;
  return last < name.size() && !IsDigit(name[last]);
}

bool IsLocalName(const std::string& host) {
  std::string name = WithoutFinalDot(host);
  std::transform(name.begin(), name.end(), name.begin(), ToLowerAscii);
  const std::string loopback = kLoopbackName;
  if (name.size() < loopback.size()) return false;
  const std::size_t start = name.size() - loopback.size();
  return name.compare(start, loopback.size(), loopback) == 0 &&
         (start == 0 || name[start - 1] == '.');
}

bool ParseAddress(const std::string& text, std::uint32_t& address) {
  in_addr parsed;
  if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
  address = ntohl(parsed.s_addr);
  return true;
}

bool IsLoopback(std::uint32_t address) { return address >> 24 == 127; }

bool IsOnThisMachine(const std::string& peer) {
  std::uint32_t address = 0;
  if (ParseAddress(peer, address) && IsLoopback(address)) return true;
  return network_layer::IsLocalMachine(peer);
}

// The all-ones address of a subnet that we are in.
bool IsSubnetBroadcast(std::uint32_t address) {
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  return std::any_of(
      interfaces.begin(), interfaces.end(), [address](const network_layer::NetInfo& info) {
        std::uint32_t own = 0;
        std::uint32_t mask = 0;
        if (!ParseAddress(info.ip_address, own) || !ParseAddress(info.subnet_mask, mask)) {
          return false;
        }
        const std::uint32_t host_bits = ~mask;
        return host_bits > 1 && address == (own | host_bits);
      });
}

bool IsOwnEventServer(const std::string& host, int port) {
  std::list<boost::shared_ptr<network_layer::IpInfo>> servers;
  if (network_layer::GetConfiguredTcpPorts(servers) != result::kOk) return false;
  return std::any_of(servers.begin(), servers.end(),
                     [&](const boost::shared_ptr<network_layer::IpInfo>& server) {
                       return server && server->ip == host && server->port == port;
                     });
}

const char* WhyAddressUnusable(std::uint32_t address, const std::string& host, int port,
                               const std::string& peer) {
  const std::uint32_t first = address >> 24;
  if (first == 0) return "unspecified address";
  if (address == INADDR_BROADCAST) return "broadcast address";
  if (first >= 224 && first < 240) return "multicast address";
  if (IsLoopback(address) && !IsOnThisMachine(peer)) return "loopback of another machine";
  if (IsSubnetBroadcast(address)) return "broadcast address";
  if (IsOwnEventServer(host, port)) return "our own server";
  return nullptr;
}

constexpr char kLineEndInUrl[] = "line end in URL";

}  // namespace

bool HasLineEnd(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

const char* WhyUnusable(const std::string& url, const std::string& host, int port,
                        const std::string& peer) {
  if (HasLineEnd(url)) return kLineEndInUrl;
  if (port < 1 || port > kHighestPort) return "port out of range";
  if (!IsSpelledLikeAHost(host)) return "host is no address";
  std::uint32_t address = 0;
  if (ParseAddress(host, address)) return WhyAddressUnusable(address, host, port, peer);
  if (!IsName(host)) return "address is not in dotted decimal form";
  if (IsLocalName(host) && !IsOnThisMachine(peer)) return "loopback of another machine";
  return nullptr;
}

const char* WhyUrlUnusable(const std::string& url, const std::string& peer) {
  if (HasLineEnd(url)) return kLineEndInUrl;
  std::string host;
  std::string path;
  int port = 0;
  if (!utils::StringUtils::ParseURI(url, host, port, path)) return nullptr;
  return WhyUnusable(url, host, port, peer);
}

}  // namespace cp_discovery
}  // namespace vex_upnp

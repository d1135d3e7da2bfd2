#ifndef VEXUPNPCP_NETWORK_TYPES_H_
#define VEXUPNPCP_NETWORK_TYPES_H_

#include <string>

namespace vex_upnp {
namespace network_layer {

/// What happened to a network interface.
enum NicEvent : int {
  NIC_ADDED = 0,
  NIC_REMOVED = 1,
  /// Up again with another address; from a scan it comes 500 ms after NIC_REMOVED.
  NIC_IPCHANGED = 2
};

/// One IPv4 interface, passed by value.
struct NetInfo {
  /// As the kernel gives it, an alias name ("eth0:1") included.
  std::string name;
  /// Dotted decimal.
  std::string ip_address;
  /// Dotted decimal.
  std::string subnet_mask;
};

/// One configured local endpoint, held by boost::shared_ptr.
struct IpInfo {
  IpInfo() = default;
  IpInfo(const std::string& local_ip, int bound_port, int asked_port, const std::string& interface)
      : ip(local_ip), port(bound_port), configured_port(asked_port), interface_name(interface) {}

  /// Local address; in a template "INADDR_ANY" for TCP and UDP, the group for multicast.
  std::string ip;
  /// The port really bound.
  int port = 0;
  /// The port asked for.
  int configured_port = 0;
  /// 1 TCP, 2 UDP, 3 multicast.
  int type = 1;
  /// "empty" in a template.
  std::string interface_name;
};

/// One address that IsReachable probes, held by boost::shared_ptr; made by the caller.
struct valid_address_info {
  /// Address or name, and TCP port, to connect to.
  std::string ip;
  int port = 0;
  /// The answer: whether a TCP connection came about.
  bool valid = false;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORK_TYPES_H_

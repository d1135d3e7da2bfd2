#ifndef VEXUPNPCP_SRC_DEVICE_KEY_H_
#define VEXUPNPCP_SRC_DEVICE_KEY_H_

#include <string>

namespace vex_upnp {

// Devices of this machine are met on the loopback address, which belongs to no listed interface;
// they are filed under a name of their own.
constexpr char kLoopbackAddress[] = "127.0.0.1";
constexpr char kLoopbackName[] = "localhost";

// The key of a device on one interface: UDN, "+", interface name. Without an interface name the
// UDN stands alone.
std::string MakeDeviceKey(const std::string& udn, const std::string& interface_name);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DEVICE_KEY_H_

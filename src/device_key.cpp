#include "src/device_key.h"

namespace vex_upnp {

std::string MakeDeviceKey(const std::string& udn, const std::string& interface_name) {
  if (interface_name.empty()) return udn;
  return udn + "+" + interface_name;
}

}  // namespace vex_upnp

#include "src/device_type.h"

#include "base/number_text.h"

namespace vex_upnp {

DeviceTypeParts SplitDeviceType(const std::string& type) {
  DeviceTypeParts parts;
  const std::size_t colon = type.rfind(':');
  if (colon == std::string::npos) {
    parts.stem = type;
    return parts;
  }
  parts.stem = type.substr(0, colon);
  parts.version = NumberOr(type.substr(colon + 1), 0);
  return parts;
}

bool VersionAccepted(int device_version, int wanted_version) {
  return device_version == 0 || device_version >= wanted_version;
}

}  // namespace vex_upnp

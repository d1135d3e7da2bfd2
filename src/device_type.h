#ifndef VEXUPNPCP_SRC_DEVICE_TYPE_H_
#define VEXUPNPCP_SRC_DEVICE_TYPE_H_

#include <string>

namespace vex_upnp {

// A device type taken apart at its last ":".
struct DeviceTypeParts {
  // What stands before the last ":"; the whole text when there is none.
  std::string stem;
  // The number behind it; 0 when there is no readable one.
  int version = 0;
};

DeviceTypeParts SplitDeviceType(const std::string& type);

// A device serves whoever wants its own version or an older one; a device without a readable
// version serves everybody. How the stems have to agree differs between the users of this, so each
// keeps its own comparison.
bool VersionAccepted(int device_version, int wanted_version);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DEVICE_TYPE_H_

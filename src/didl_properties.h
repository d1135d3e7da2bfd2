#ifndef VEXUPNPCP_SRC_DIDL_PROPERTIES_H_
#define VEXUPNPCP_SRC_DIDL_PROPERTIES_H_

#include <cstdint>
#include <string_view>

namespace vex_upnp {
namespace cp_utils {

// What a DIDL-Lite property (UPnP ContentDirectory, DLNA guidelines) may hold.
struct DIDL_Property {
  std::string_view name;
  // Carried for the reader; nothing looks at it.
  std::string_view type;
  // In bytes.
  std::int32_t max_length;
};

constexpr int kDidlPropertyCount = 42;
extern const DIDL_Property didl_properties[kDidlPropertyCount];

// Null for a name that is not in the table; names are compared exactly.
const DIDL_Property* FindDidlProperty(std::string_view name);

}  // namespace cp_utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DIDL_PROPERTIES_H_

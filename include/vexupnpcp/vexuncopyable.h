#ifndef VEXUPNPCP_VEXUNCOPYABLE_H_
#define VEXUPNPCP_VEXUNCOPYABLE_H_

#include <vexupnpcp/export.h>

namespace vex_upnp {

/// Base of classes whose objects have an identity: they can be neither copied nor assigned.
class VEX_EXPORT VEXUncopyable {
 public:
  VEXUncopyable() = default;
  VEXUncopyable(const VEXUncopyable&) = delete;
  VEXUncopyable& operator=(const VEXUncopyable&) = delete;
  virtual ~VEXUncopyable() = default;
};

}  // namespace vex_upnp

#endif  // VEXUPNPCP_VEXUNCOPYABLE_H_

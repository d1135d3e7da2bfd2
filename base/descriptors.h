#ifndef VEXUPNPCP_BASE_DESCRIPTORS_H_
#define VEXUPNPCP_BASE_DESCRIPTORS_H_

#include <sys/resource.h>

#include <cstdint>

#include "base/limits.h"

namespace vex_upnp {

// Whether so many descriptors are in use that a server must make room. `newest` is the one opened
// last: the kernel gives out the lowest number that is free, so all below it are in use.
inline bool DescriptorsScarce(int newest) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return false;
  const std::uint64_t in_use = static_cast<std::uint64_t>(newest) + 1;
  return in_use * 100 >=
         static_cast<std::uint64_t>(limit.rlim_cur) * limits::kDescriptorSharePercent;
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_DESCRIPTORS_H_

#include "src/held_bytes.h"

#include "base/limits.h"

namespace vex_upnp {
namespace cp_discovery {

std::atomic<std::size_t> HeldBytes::together_{0};

bool HeldBytes::Grow(std::size_t bytes) {
  std::size_t together = together_;
  do {
    if (bytes > limits::kHeldDeviceBytes - together) return false;
  } while (!together_.compare_exchange_weak(together, together + bytes));
  bytes_ += bytes;
  return true;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

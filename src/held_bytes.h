#ifndef VEXUPNPCP_SRC_HELD_BYTES_H_
#define VEXUPNPCP_SRC_HELD_BYTES_H_

#include <atomic>
#include <cstddef>

namespace vex_upnp {
namespace cp_discovery {

// What one record counts for in the bound on what all devices hold together. It is given back when
// the record goes, so that what is kept alive outside of the list goes on counting.
class HeldBytes {
 public:
  HeldBytes() = default;
  HeldBytes(const HeldBytes&) = delete;
  HeldBytes& operator=(const HeldBytes&) = delete;
  ~HeldBytes() { together_ -= bytes_; }

  // False when there is no room, with nothing changed.
  bool Grow(std::size_t bytes);
  // To this many, unless it counts for as many already.
  bool GrowTo(std::size_t bytes) { return bytes <= bytes_ || Grow(bytes - bytes_); }

 private:
  static std::atomic<std::size_t> together_;
  std::size_t bytes_ = 0;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_HELD_BYTES_H_

#include "tests/support/timing_scaled.h"

#include <atomic>

#include "base/timing.h"

namespace vex_upnp {
namespace timing {
namespace {

std::atomic<int> time_divisor{1};

}  // namespace

int Scaled(int milliseconds) {
  const int divisor = time_divisor.load();
  return milliseconds <= 0 ? milliseconds : (milliseconds + divisor - 1) / divisor;
}

void SetDivisor(int divisor) { time_divisor = divisor; }

}  // namespace timing
}  // namespace vex_upnp

namespace vex_test {

FasterTime::FasterTime(int divisor) { vex_upnp::timing::SetDivisor(divisor); }
FasterTime::~FasterTime() { vex_upnp::timing::SetDivisor(1); }

}  // namespace vex_test

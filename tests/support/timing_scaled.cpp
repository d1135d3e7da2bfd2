#include "tests/support/timing_scaled.h"

#include <atomic>

#include "base/timing.h"

namespace vex_upnp {
namespace timing {
namespace {

std::atomic<int> time_divisor{1};
std::atomic<int> time_factor{1};

}  // namespace

int Scaled(int milliseconds) {
  const int divisor = time_divisor.load();
  if (milliseconds <= 0) return milliseconds;
  return (milliseconds * time_factor.load() + divisor - 1) / divisor;
}

void SetDivisor(int divisor) { time_divisor = divisor; }
void SetFactor(int factor) { time_factor = factor; }

}  // namespace timing
}  // namespace vex_upnp

namespace vex_test {

FasterTime::FasterTime(int divisor) { vex_upnp::timing::SetDivisor(divisor); }
FasterTime::~FasterTime() { vex_upnp::timing::SetDivisor(1); }

SlowerTime::SlowerTime(int factor) { vex_upnp::timing::SetFactor(factor); }
SlowerTime::~SlowerTime() { vex_upnp::timing::SetFactor(1); }

}  // namespace vex_test

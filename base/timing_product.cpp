#include "base/timing.h"

namespace vex_upnp {
namespace timing {

int Scaled(int milliseconds) { return milliseconds; }

}  // namespace timing
}  // namespace vex_upnp

#ifndef VEXUPNPCP_SRC_OUTGOING_LIMITS_H_
#define VEXUPNPCP_SRC_OUTGOING_LIMITS_H_

#include <vexupnpcp/httpinfo.h>

#include "base/limits.h"
#include "src/http_feed.h"

namespace vex_upnp {
namespace network_layer {

// Whether an answer, complete or not, is one that a device could reasonably send. To be asked
// between two calls of the parser, before more is buffered.
inline bool AnswerFits(const utils::HTTPInfo& answer) {
  return utils::HeaderFits(answer) && answer.GetProcessedBodySize() <= limits::kControlBody &&
         answer.GetBodyCost() <= limits::kControlBodyCost;
}

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_LIMITS_H_

#include "src/message_budget.h"

#include "base/limits.h"
#include "base/log.h"
#include "base/log_limit.h"

namespace vex_upnp {
namespace network_layer {

bool MessageBudget::Change(std::size_t& held, std::size_t now) {
  const std::size_t before = held;
  held = now;
  if (now <= before) {
    held_ -= before - now;
    return true;
  }
  const std::size_t together = held_ += now - before;
  if (together <= most_ || now <= limits::kSmallMessage) return true;
  static LogLimit once_a_second;
  if (once_a_second.Due()) {
    VEX_LOG(kLogMajor, log::kTagNetwork, "Messages hold %u bytes together, one of %u is dropped",
            static_cast<unsigned int>(together), static_cast<unsigned int>(now));
  }
  return false;
}

MessageBudget& AnswerBudget() {
  static MessageBudget budget(limits::kAnswersTogether);
  return budget;
}

MessageBudget& EventRequestBudget() {
  static MessageBudget budget(limits::kEventRequestsTogether);
  return budget;
}

}  // namespace network_layer
}  // namespace vex_upnp

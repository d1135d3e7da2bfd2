#include "src/user_agent.h"

namespace vex_upnp {

std::string ChooseUserAgent(const std::string& given, const std::string& default_agent) {
  if (!given.empty()) return given;
  if (!default_agent.empty()) return default_agent;
  return kBuiltInUserAgent;
}

}  // namespace vex_upnp

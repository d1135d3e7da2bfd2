#ifndef VEXUPNPCP_SRC_USER_AGENT_H_
#define VEXUPNPCP_SRC_USER_AGENT_H_

#include <string>

namespace vex_upnp {

// What the library calls itself when nobody has given it another name.
constexpr char kBuiltInUserAgent[] = "DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0";

// The agent given; if that is empty the default; if that is empty too the built-in one.
std::string ChooseUserAgent(const std::string& given, const std::string& default_agent);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_USER_AGENT_H_

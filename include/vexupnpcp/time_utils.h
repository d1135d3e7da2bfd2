#ifndef VEXUPNPCP_TIME_UTILS_H_
#define VEXUPNPCP_TIME_UTILS_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

VEX_EXPORT int Generate_CurrentDate(std::string& date);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_TIME_UTILS_H_

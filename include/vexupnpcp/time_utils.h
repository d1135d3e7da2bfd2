#ifndef VEXUPNPCP_TIME_UTILS_H_
#define VEXUPNPCP_TIME_UTILS_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

/// The present time in the form of an HTTP date (RFC 9110, 5.6.7): "Sun, 06 Nov 1994 08:49:37 GMT".
///
/// Day and month are named by the process's locale, so a host that sets LC_TIME to another one than
/// "C" changes what goes over the wire.
///
/// @param date  Receives the text; untouched on failure.
/// @return result::kOk; result::kTimeUnavailable when the clock or the conversion fails;
///         result::kFailure without memory.
/// Any thread.
VEX_EXPORT int Generate_CurrentDate(std::string& date);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_TIME_UTILS_H_

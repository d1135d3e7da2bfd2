#ifndef VEXUPNPCP_BASE_CURRENT_EXCEPTION_H_
#define VEXUPNPCP_BASE_CURRENT_EXCEPTION_H_

#include "base/log.h"

namespace vex_upnp {

// To be called inside the one `catch (...)` at a handler's edge: logs what was thrown, so that
// nothing passes on to the event loop. `known` holds one "%s" for the exception's own text,
// `unknown` is the whole line for anything that is no std::exception.
void LogCurrentException(const LogSite& site, int level, const char* tag, const char* known,
                         const char* unknown);

// To be called there as well: whether it was thrown for want of memory.
bool CaughtNoMemory();

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_CURRENT_EXCEPTION_H_

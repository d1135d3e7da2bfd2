#ifndef VEXUPNPCP_STREAMING_H_
#define VEXUPNPCP_STREAMING_H_

#include <vexupnpcp/export.h>
#include <vexupnpcp/streaming_types.h>

namespace vex_upnp {
namespace streaming {

VEX_EXPORT int InitializeStreamingManager();
VEX_EXPORT int TerminateStreamingManager();
VEX_EXPORT int GetRunningSessionInfo(stRunningSession** sessions);
VEX_EXPORT void FreeRunningSession(stRunningSession* sessions);

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_H_

#ifndef VEXUPNPCP_STREAMING_TYPES_H_
#define VEXUPNPCP_STREAMING_TYPES_H_

namespace vex_upnp {
namespace streaming {

/// One running streaming session; a list through `next`, released with FreeRunningSession.
struct stRunningSession {
  /// The peer's address.
  char* ip;
  /// 1 for a client session, 0 for a connection to one of our servers.
  int type;
  stRunningSession* next;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_TYPES_H_

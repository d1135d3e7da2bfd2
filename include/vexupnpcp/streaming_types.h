#ifndef VEXUPNPCP_STREAMING_TYPES_H_
#define VEXUPNPCP_STREAMING_TYPES_H_

namespace vex_upnp {
namespace streaming {

/// One running streaming session; a list through `next`, released with FreeRunningSession.
struct stRunningSession {
  /// The peer's address in dotted form, never null in a list that the library gave out.
  char* ip;
  /// 1 for a session of a client of ours, 0 for a connection to a server of ours.
  int type;
  /// The next session, null at the end.
  stRunningSession* next;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_TYPES_H_

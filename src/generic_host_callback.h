#ifndef VEXUPNPCP_SRC_GENERIC_HOST_CALLBACK_H_
#define VEXUPNPCP_SRC_GENERIC_HOST_CALLBACK_H_

namespace vex_upnp {
namespace generic_cp {

// Stands around each call of a host's callback. A host may call back into the control point from
// there, and a thread that is inside a callback must not wait for another callback to end: two such
// threads would wait for each other.
class HostCallbackScope {
 public:
  HostCallbackScope() { ++depth_; }
  HostCallbackScope(const HostCallbackScope&) = delete;
  HostCallbackScope& operator=(const HostCallbackScope&) = delete;
  ~HostCallbackScope() { --depth_; }

  // Whether the calling thread is inside a callback now.
  static bool Inside() { return depth_ > 0; }

 private:
  // A callback may cause another one on its own thread.
  static inline thread_local int depth_ = 0;
};

}  // namespace generic_cp
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_GENERIC_HOST_CALLBACK_H_

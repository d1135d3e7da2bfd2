#ifndef VEXUPNPCP_SRC_LISTENER_HOOKS_H_
#define VEXUPNPCP_SRC_LISTENER_HOOKS_H_

namespace vex_upnp {
namespace network_layer {

// What the layers above need of the network layer beside its exported functions.

// A response listener that also wants to know of an answer before the answer's turn on the callback
// threads comes. CallBackHandler asks each listener whether it is one.
class AnswerArrivalListener {
 public:
  // On the thread that received the answer, with no lock held, before OnResponseReceived of the
  // same session can begin.
  virtual void OnAnswerArrived(const int& session_id) = 0;

 protected:
  ~AnswerArrivalListener() = default;
};

// Whether the answer to this request has reached this host, as a whole or in part, and has not been
// announced by OnAnswerArrived yet. Between the kernel and the listener it may lie for as long as
// the machine is busy.
bool HasAnswerBegun(const int& session_id);

// Uses up the context of an incoming request without an answer: the connection stays as it is until
// its server ends. Null is ignored.
void ReleaseSessionContext(void* session_context);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_LISTENER_HOOKS_H_

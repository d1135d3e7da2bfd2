#ifndef VEXUPNPCP_SRC_ACTION_REQUEST_TIMER_CALLBACK_H_
#define VEXUPNPCP_SRC_ACTION_REQUEST_TIMER_CALLBACK_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/vexuncopyable.h>

#include "base/use_count.h"

namespace vex_upnp {
namespace cp_control {

// Ends actions that got no answer in time. Its instance counts the time-outs that are running and
// holds what they tell, so that a time-out needs no memory.
class ActionRequestTimerCallback : public VEXUncopyable {
 public:
  static boost::shared_ptr<ActionRequestTimerCallback> GetInstance();
  // Waits for a time-out that is running; later ones do nothing.
  static void TerminateInstance();

  // On the timer thread. `arg` is a heap int with the action's id; it is freed here.
  static void OnTimerExpired(int timer_id, void* arg);

 private:
  ActionRequestTimerCallback();

  void __DeliverTimeout(int action_id);

  UseCount use_count_;
  // KEPT: its envelope's start tag lacks two blanks and so is misformed; hosts have always been
  // given it like this.
  const std::string body_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<ActionRequestTimerCallback>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_ACTION_REQUEST_TIMER_CALLBACK_H_

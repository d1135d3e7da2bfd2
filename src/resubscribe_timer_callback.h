#ifndef VEXUPNPCP_SRC_RESUBSCRIBE_TIMER_CALLBACK_H_
#define VEXUPNPCP_SRC_RESUBSCRIBE_TIMER_CALLBACK_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/vexuncopyable.h>

#include "base/use_count.h"

namespace vex_upnp {
namespace cp_control {

// The timers of a subscription: its renewal, and the watch over an answer that is due. The handle
// of the subscription travels as their argument. The instance only counts the calls that are
// running.
class ResubscribeTimerCallback : public VEXUncopyable {
 public:
  static boost::shared_ptr<ResubscribeTimerCallback> GetInstance();
  // Waits for a call that is running; later ones do nothing, so that no renewal can start.
  static void TerminateInstance();

  // The timer's id, or 0 when there is no memory for it. They never wait.
  static int StartRenewal(int milliseconds, int handler_id);
  static int StartAnswerWatch(int milliseconds, int handler_id);
  // Waits while the callback of this timer runs on another thread.
  static void Cancel(int timer_id);

  // On the timer thread. Without an argument the subscription is found by the timer.
  static void OnTimerExpired(int timer_id, void* arg);
  static void OnAnswerOverdue(int timer_id, void* arg);

 private:
  ResubscribeTimerCallback() = default;

  static void __Renew(int timer_id, int handler_id);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<ResubscribeTimerCallback>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_RESUBSCRIBE_TIMER_CALLBACK_H_

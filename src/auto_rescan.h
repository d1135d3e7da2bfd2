#ifndef VEXUPNPCP_SRC_AUTO_RESCAN_H_
#define VEXUPNPCP_SRC_AUTO_RESCAN_H_

#include <boost/thread/mutex.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace cp_discovery {

// The search for all registered types that repeats itself every minute while it is enabled. Off at
// start. Timers fire once, so each expiry arms the next.
class AutoRescan {
 public:
  AutoRescan() = default;
  AutoRescan(const AutoRescan&) = delete;
  AutoRescan& operator=(const AutoRescan&) = delete;

  // False when it was enabled already. Arm follows, once the first search is out.
  bool Enable();
  void Arm();
  // False when it was off already. Waits for a search that runs on the timer thread, so it must not
  // be called with a lock held that the search takes.
  bool Disable();

  // Arms the next timer behind the one that fired, unless it was disabled meanwhile.
  void ArmAgain(int fired_timer_id);

 private:
  // A leaf, but for Timer::Start, which never waits.
  boost::mutex mutex_;
  bool enabled_ VEX_GUARDED_BY(mutex_) = false;
  // 0 when none runs.
  int auto_rescan_timer_id_ VEX_GUARDED_BY(mutex_) = 0;
};

// Timer callback.
void AutoRescanTimerExpiredCallback(int timer_id, void* data);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_AUTO_RESCAN_H_

#ifndef VEXUPNPCP_SRC_RESCAN_H_
#define VEXUPNPCP_SRC_RESCAN_H_

#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "base/thread_marks.h"
#include "base/timing.h"
#include "src/device_list.h"

namespace vex_upnp {
namespace cp_discovery {

// The searches that are under way: each is sent at once and ends, some seconds later, with a check
// of the devices that did not answer it.
class Rescans {
 public:
  Rescans() = default;
  Rescans(const Rescans&) = delete;
  Rescans& operator=(const Rescans&) = delete;

  // Sends the search. kOk also when one that covers the type is under way and nothing was sent.
  int Rescan(const std::string& type);
  // Forgets all that wait for their check, and lets the next global search through.
  void CancelRescanTimers();
  void clearRescanProgress();
  void SetRescanConnectTimeout(int seconds) { rescan_connect_timeout_ = seconds; }

  // The type of the search whose timer this is; false when it has been cancelled.
  bool FindType(int timer_id, std::string& type);
  // The check itself; blocks. `delivery` comes back locked when devices were taken out.
  std::unique_ptr<DeviceList::Devices> TakeUnreachable(
      const std::string& type, boost::unique_lock<boost::recursive_mutex>& delivery);
  void Remove(int timer_id);

  // Ends a running check early and lets no further one begin.
  void StopChecks();
  // Cancels every timer of this class, those of the guard included.
  void CancelAll();
  void ForgetProgressTimer(int timer_id);

 private:
  // Entered before the search goes out, with no timer yet, so that two callers cannot both send.
  struct RescanTimer {
    int timer_id = 0;
    std::string device_type;
  };
  using RescanTimerPtr = boost::shared_ptr<RescanTimer>;

  bool EnterGlobalRescan(const std::string& type);
  RescanTimerPtr Enter(const std::string& type, int& result);
  int SendSearch(const std::string& type);
  void StartCheckTimer(const RescanTimerPtr& entry);
  void Leave(const RescanTimerPtr& entry);

  // Leaves, all of them; Timer::Start never waits.
  boost::mutex rescan_mutex_;
  std::list<RescanTimerPtr> rescan_timers_ VEX_GUARDED_BY(rescan_mutex_);

  boost::mutex rescan_progress_mutex_;
  bool rescan_in_progress_ VEX_GUARDED_BY(rescan_progress_mutex_) = false;
  std::set<int> progress_timers_ VEX_GUARDED_BY(rescan_progress_mutex_);

  // Held across the check, which waits on the condition. Outer to the device list's.
  boost::mutex rescan_check_mutex_;
  boost::condition_variable rescan_check_condition_;
  bool rescan_check_stopped_ VEX_GUARDED_BY(rescan_check_mutex_) = false;
  std::atomic<int> rescan_connect_timeout_{timing::kRescanConnectTimeoutSeconds};
};

// Timer callbacks.
void RescanProgressTimerExpiredCallback(int timer_id, void* data);
void RescanTimerExpiredCallBack(int timer_id, void* data);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_RESCAN_H_

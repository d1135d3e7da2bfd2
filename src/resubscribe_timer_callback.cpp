#include "src/resubscribe_timer_callback.h"

#include <cstdint>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "base/timing.h"
#include "src/subscribe_info.h"
#include "src/subscribe_requestor.h"
#include "src/subscribe_response_callback.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;

void* ToArgument(int handler_id) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the number travels in the argument itself.
  return reinterpret_cast<void*>(static_cast<std::intptr_t>(handler_id));
}

int ToHandle(void* arg) { return static_cast<int>(reinterpret_cast<std::intptr_t>(arg)); }

int StartTimer(int milliseconds, utils::TimerCallback callback, int handler_id) try {
  return utils::Timer::Start(timing::Scaled(milliseconds), callback, ToArgument(handler_id));
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  return 0;
}

// The handle of the subscription that has this renewal timer, or 0.
int FindByTimer(int timer_id) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return 0;
  boost::lock_guard<boost::mutex> lock(list->mutex);
  const SubscribeInfoList::Pointer record = list->get_by_timerid(timer_id);
  return record ? record->handler_id : 0;
}

}  // namespace

boost::mutex& ResubscribeTimerCallback::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<ResubscribeTimerCallback>& ResubscribeTimerCallback::instance_ =
    *new boost::shared_ptr<ResubscribeTimerCallback>;

boost::shared_ptr<ResubscribeTimerCallback> ResubscribeTimerCallback::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new ResubscribeTimerCallback; });
}

void ResubscribeTimerCallback::TerminateInstance() {
  TerminateWhenIdle(instance_, instance_mutex_, &ResubscribeTimerCallback::use_count_);
}

int ResubscribeTimerCallback::StartRenewal(int milliseconds, int handler_id) {
  return StartTimer(milliseconds, OnTimerExpired, handler_id);
}

int ResubscribeTimerCallback::StartAnswerWatch(int milliseconds, int handler_id) {
  return StartTimer(milliseconds, OnAnswerOverdue, handler_id);
}

void ResubscribeTimerCallback::Cancel(int timer_id) { utils::Timer::Cancel(timer_id, nullptr); }

void ResubscribeTimerCallback::OnTimerExpired(int timer_id, void* arg) {
  const boost::shared_ptr<ResubscribeTimerCallback> instance =
      ExistingShared(instance_, instance_mutex_);
  if (!instance) return;
  const UseCountGuard inside(instance->use_count_);
  if (!inside.entered()) return;
  try {
    __Renew(timer_id, ToHandle(arg));
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
}

void ResubscribeTimerCallback::OnAnswerOverdue(int timer_id, void* arg) {
  const boost::shared_ptr<ResubscribeTimerCallback> instance =
      ExistingShared(instance_, instance_mutex_);
  if (!instance) return;
  const UseCountGuard inside(instance->use_count_);
  if (!inside.entered()) return;
  try {
    SubscribeResponseCallback::OnAnswerMissing(ToHandle(arg), timer_id);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
}

void ResubscribeTimerCallback::__Renew(int timer_id, int handler_id) {
  VEX_LOG(kLogStep, kTagControl, "Subscription expired for timer id %d", timer_id);
  const int handle = handler_id != 0 ? handler_id : FindByTimer(timer_id);
  if (handle == 0) {
    VEX_LOG(kLogMajor, kTagControl, "subscribe info is null.");
    return;
  }
  SubscribeRequestor::Resubscribe(handle);
  VEX_LOG(kLogStep, kTagControl, "resubscribe SENT!!!");
}

}  // namespace cp_control
}  // namespace vex_upnp

#include "src/action_request_timer_callback.h"

#include <memory>
#include <string>

#include <boost/thread/lock_guard.hpp>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/control_info.h"
#include "src/soap_fault.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;

constexpr int kTimeoutStatus = 500;

}  // namespace

boost::mutex& ActionRequestTimerCallback::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<ActionRequestTimerCallback>& ActionRequestTimerCallback::instance_ =
    *new boost::shared_ptr<ActionRequestTimerCallback>;

ActionRequestTimerCallback::ActionRequestTimerCallback() : body_(ActionTimeoutBody()) {}

boost::shared_ptr<ActionRequestTimerCallback> ActionRequestTimerCallback::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_,
                           [] { return new ActionRequestTimerCallback; });
}

void ActionRequestTimerCallback::TerminateInstance() {
  TerminateWhenIdle(instance_, instance_mutex_, &ActionRequestTimerCallback::use_count_);
}

void ActionRequestTimerCallback::OnTimerExpired(int timer_id, void* arg) {
  (void)timer_id;
  if (arg == nullptr) return;
  const std::unique_ptr<int> owned(static_cast<int*>(arg));
  const int action_id = *owned;
  const boost::shared_ptr<ActionRequestTimerCallback> instance =
      ExistingShared(instance_, instance_mutex_);
  if (!instance) return;
  const UseCountGuard inside(instance->use_count_);
  if (!inside.entered()) return;
  try {
    instance->__DeliverTimeout(action_id);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
}

void ActionRequestTimerCallback::__DeliverTimeout(int action_id) {
  VEX_LOG(kLogMajor, kTagControl, "Action timeout for action id %d", action_id);
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return;

  // Outlives the locks: whoever destroys a record holds none.
  ControlInfoList::Pointer record;
  ControlResponseListener* listener = nullptr;
  void* context = nullptr;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_action_id(action_id);
    if (!record) {
      VEX_LOG(kLogMajor, kTagControl, "There is no control info!!!");
      return;
    }
    context = record->context;
    listener = record->listener;
    record->timer_id = 0;
    record->context = nullptr;
    record->claimed = true;
  }
  // KEPT: as with the answer, a record that is claimed already gives a call with a null context.
  DeliverResult(listener, action_id, kTimeoutStatus, body_, context);
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->remove_by_action_id(action_id);
  }
}

}  // namespace cp_control
}  // namespace vex_upnp

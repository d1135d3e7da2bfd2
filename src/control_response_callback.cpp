#include "src/control_response_callback.h"

#include <string>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/httpinfo.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/control_info.h"

namespace vex_upnp {
namespace cp_control {

using log::kTagControl;

boost::mutex& ControlResponseCallback::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<ControlResponseCallback>& ControlResponseCallback::instance_ =
    *new boost::shared_ptr<ControlResponseCallback>;

boost::shared_ptr<ControlResponseCallback> ControlResponseCallback::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new ControlResponseCallback; });
}

void ControlResponseCallback::TerminateInstance() {
  TerminateWhenIdle(instance_, instance_mutex_, &ControlResponseCallback::use_count_);
}

void ControlResponseCallback::OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                                                 const int& session_id) {
  const UseCountGuard inside(use_count_);
  if (!inside.entered()) {
    VEX_LOG(kLogMajor, kTagControl, "Received after CP termination");
    return;
  }
  try {
    __DeliverAnswer(*response, session_id);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
}

void ControlResponseCallback::__DeliverAnswer(utils::HTTPInfo& response, int session_id) {
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return;
  const int status = static_cast<int>(response.GetStatusCode());
  std::string body;
  response.ReadBody(body);

  // Outlives the locks: whoever destroys a record holds none.
  ControlInfoList::Pointer record;
  ControlResponseListener* listener = nullptr;
  void* context = nullptr;
  int timer_id = 0;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_action_id(session_id);
    if (!record) {
      // A late answer to a cancelled or timed-out action.
      VEX_LOG(kLogMajor, kTagControl, "Invalid control info!");
      return;
    }
    timer_id = record->timer_id;
    context = record->context;
    listener = record->listener;
    record->timer_id = 0;
    record->context = nullptr;
    record->claimed = true;
  }
  // KEPT: an answer that finds its record claimed by the time-out still calls the listener, with a
  // null context by which it knows the duplicate.
  DeliverResult(listener, session_id, status, body, context);
  CancelActionTimer(timer_id);
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    list->remove_by_action_id(session_id);
  }
}

}  // namespace cp_control
}  // namespace vex_upnp

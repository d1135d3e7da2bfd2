#include "src/control_info.h"

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/log.h"

namespace vex_upnp {
namespace cp_control {

boost::mutex& ControlInfoList::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<ControlInfoList>& ControlInfoList::instance_ =
    *new boost::shared_ptr<ControlInfoList>;
bool ControlInfoList::ended_ = false;

ControlInfo::ControlInfo(const std::string& udn, ControlResponseListener* response_listener,
                         void* caller_context)
    : device_udn(udn), listener(response_listener), context(caller_context) {}

ControlInfo::~ControlInfo() {
  if (action_id != 0) {
    network_layer::CancelTCPHTTPPacket(action_id);
    action_id = 0;
  }
  CancelActionTimer(timer_id);
}

void DeliverResult(ControlResponseListener* listener, int action_id, int status,
                   const std::string& body, void* context) try {
  if (listener != nullptr) listener->OnResponseReceived(action_id, status, body, context);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagControl, "Exception: %s",
                      "Unknown Exception");
}

void GiveContextBack(ControlInfo& record) {
  if (record.context == nullptr || record.listener == nullptr) return;
  void* const context = record.context;
  ControlResponseListener* const listener = record.listener;
  record.context = nullptr;
  record.listener = nullptr;
  listener->DeleteContext(context);
}

void CancelActionTimer(int timer_id) {
  if (timer_id == 0) return;
  void* arg = nullptr;
  utils::Timer::Cancel(timer_id, &arg);
  delete static_cast<int*>(arg);
}

boost::shared_ptr<ControlInfoList> ControlInfoList::getInstance() {
  boost::lock_guard<boost::mutex> lock(instance_mutex_);
  if (!instance_ && !ended_) instance_.reset(new ControlInfoList);
  return instance_;
}

void ControlInfoList::restart() {
  boost::lock_guard<boost::mutex> lock(instance_mutex_);
  ended_ = false;
}

void ControlInfoList::terminate() {
  boost::shared_ptr<ControlInfoList> last;
  {
    boost::lock_guard<boost::mutex> lock(instance_mutex_);
    last.swap(instance_);
    ended_ = true;
  }
  if (!last) return;
  std::list<Pointer> dropped;
  boost::lock_guard<boost::mutex> lock(last->mutex);
  last->closed_ = true;
  dropped.swap(last->actions_);
}

ControlInfoList::~ControlInfoList() = default;

bool ControlInfoList::add(const Pointer& record) {
  if (closed_) return false;
  actions_.push_back(record);
  return true;
}

void ControlInfoList::remove(const Pointer& record) { actions_.remove(record); }

ControlInfoList::Pointer ControlInfoList::get_by_action_id(int action_id) const {
  if (action_id == 0) return Pointer();
  for (const Pointer& record : actions_) {
    if (record->action_id == action_id) return record;
  }
  return Pointer();
}

ControlInfoList::Pointer ControlInfoList::remove_by_action_id(int action_id) {
  Pointer record = get_by_action_id(action_id);
  if (record) actions_.remove(record);
  return record;
}

void ControlInfoList::cancel_control_actions() {
  boost::lock_guard<boost::mutex> lock(mutex);
  closed_ = true;
  for (const Pointer& record : actions_) network_layer::CancelTCPHTTPPacket(record->action_id);
}

}  // namespace cp_control
}  // namespace vex_upnp

#include "src/subscribe_info.h"

#include <algorithm>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>

#include "base/log.h"
#include "base/timing.h"
#include "src/event_delivery.h"
#include "src/listener_hooks.h"

namespace vex_upnp {
namespace cp_control {

using log::kTagControl;

boost::mutex& SubscribeInfoList::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<SubscribeInfoList>& SubscribeInfoList::instance_ =
    *new boost::shared_ptr<SubscribeInfoList>;
bool SubscribeInfoList::ended_ = false;

SubscribeInfo::~SubscribeInfo() {
  network_layer::UnRegisterRequestListener(request_listener_id);
  if (nwsession_id != 0) {
    VEX_LOG(kLogStep, kTagControl, "CancelTCPHTTPPacket - Session ID [%d]", nwsession_id);
    if (network_layer::CancelTCPHTTPPacket(nwsession_id) != result::kOk) {
      VEX_LOG(kLogMajor, kTagControl, "Cancel TCP HTTP Packet failed. ");
    }
    nwsession_id = 0;
  }
  if (timer_id != 0) utils::Timer::Cancel(timer_id, nullptr);
  if (answer_timer_id != 0) utils::Timer::Cancel(answer_timer_id, nullptr);
}

boost::shared_ptr<SubscribeInfoList> SubscribeInfoList::getInstance() {
  boost::lock_guard<boost::mutex> lock(instance_mutex_);
  if (!instance_ && !ended_) instance_.reset(new SubscribeInfoList);
  return instance_;
}

boost::shared_ptr<SubscribeInfoList> SubscribeInfoList::existing() {
  boost::lock_guard<boost::mutex> lock(instance_mutex_);
  return instance_;
}

void SubscribeInfoList::restart() {
  boost::lock_guard<boost::mutex> lock(instance_mutex_);
  ended_ = false;
}

void SubscribeInfoList::terminate() {
  boost::shared_ptr<SubscribeInfoList> last;
  {
    boost::lock_guard<boost::mutex> lock(instance_mutex_);
    last.swap(instance_);
    ended_ = true;
  }
  if (!last) return;
  last->Close();
  last->remove_all();
}

SubscribeInfoList::~SubscribeInfoList() = default;

int SubscribeInfoList::add(const Pointer& record) {
  if (closed_) return 0;
  subscriptions_.push_back(record);
  record->handler_id = ++last_handler_id_;
  return record->handler_id;
}

template <typename Matches>
SubscribeInfoList::Pointer SubscribeInfoList::__Find(Matches matches) const {
  const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                  [&matches](const Pointer& record) { return matches(*record); });
  return found == subscriptions_.end() ? Pointer() : *found;
}

SubscribeInfoList::Pointer SubscribeInfoList::get_by_handlerid(int handler_id) const {
  if (handler_id == 0) return Pointer();
  return __Find([=](const SubscribeInfo& info) { return info.handler_id == handler_id; });
}

SubscribeInfoList::Pointer SubscribeInfoList::get_by_timerid(int timer_id) const {
  if (timer_id == 0) return Pointer();
  return __Find([=](const SubscribeInfo& info) { return info.timer_id == timer_id; });
}

SubscribeInfoList::Pointer SubscribeInfoList::get_by_sid(const std::string& sid) const {
  if (sid.empty()) return Pointer();
  return __Find([&sid](const SubscribeInfo& info) { return info.sid == sid; });
}

SubscribeInfoList::Pointer SubscribeInfoList::get_by_nwsession_id(int session_id) const {
  if (session_id == 0) return Pointer();
  return __Find([=](const SubscribeInfo& info) { return info.nwsession_id == session_id; });
}

SubscribeInfoList::Pointer SubscribeInfoList::remove_by_handlerid(int handler_id) {
  Pointer record = get_by_handlerid(handler_id);
  if (record) {
    record->listener = nullptr;
    remove(record);
  }
  return record;
}

void SubscribeInfoList::remove(const Pointer& record) {
  subscriptions_.remove(record);
  answers_changed_.notify_all();
}

void SubscribeInfoList::remove_all() {
  std::list<Pointer> removed;
  boost::lock_guard<boost::mutex> lock(mutex);
  for (const Pointer& record : subscriptions_) record->listener = nullptr;
  removed.swap(subscriptions_);
  answers_changed_.notify_all();
}

void SubscribeInfoList::Close() {
  boost::lock_guard<boost::mutex> lock(mutex);
  closed_ = true;
  answers_changed_.notify_all();
}

void SubscribeInfoList::AnswerArrived(int session_id) {
  boost::lock_guard<boost::mutex> lock(mutex);
  const Pointer record = get_by_nwsession_id(session_id);
  if (record) record->answered_session_id = session_id;
}

void SubscribeInfoList::AnswerHandled(int session_id) {
  boost::lock_guard<boost::mutex> lock(mutex);
  const Pointer record =
      __Find([=](const SubscribeInfo& info) { return info.answered_session_id == session_id; });
  if (!record) return;
  record->answered_session_id = 0;
  answers_changed_.notify_all();
}

std::vector<int> SubscribeInfoList::__AnswersInHand() const {
  std::vector<int> sessions;
  for (const Pointer& record : subscriptions_) {
    const bool announced = record->answered_session_id != 0;
    const int session_id = announced ? record->answered_session_id : record->nwsession_id;
    if (session_id == record->awaited_session_id) continue;
    // No answer can be announced while the list is locked, so none is missed.
    if (announced || (record->answer_timer_id != 0 && network_layer::HasAnswerBegun(session_id))) {
      sessions.push_back(session_id);
    }
  }
  return sessions;
}

void SubscribeInfoList::__NoteAwaited(const std::vector<int>& sessions) {
  for (const Pointer& record : subscriptions_) {
    for (const int session_id : sessions) {
      if (session_id == record->answered_session_id || session_id == record->nwsession_id) {
        record->awaited_session_id = session_id;
      }
    }
  }
}

bool SubscribeInfoList::__AnyInHand(const std::vector<int>& sessions) const {
  const auto wanted = [&sessions](int session_id) {
    return session_id != 0 &&
           std::find(sessions.begin(), sessions.end(), session_id) != sessions.end();
  };
  return __Find([&wanted](const SubscribeInfo& info) {
           return wanted(info.answered_session_id) ||
                  (info.answer_timer_id != 0 && wanted(info.nwsession_id));
         }) != nullptr;
}

VEX_NO_THREAD_SAFETY_ANALYSIS
bool SubscribeInfoList::AwaitSid(const std::string& sid) {
  boost::unique_lock<boost::mutex> lock(mutex);
  if (get_by_sid(sid)) return true;
  const std::vector<int> sessions = __AnswersInHand();
  if (sessions.empty()) return false;
  const auto end = boost::chrono::steady_clock::now() +
                   boost::chrono::milliseconds(timing::Scaled(timing::kSubscribeAnswerWaitMs));
  while (!closed_ && __AnyInHand(sessions)) {
    if (answers_changed_.wait_until(lock, end) == boost::cv_status::timeout) {
      __NoteAwaited(sessions);
      break;
    }
  }
  return get_by_sid(sid) != nullptr;
}

void SubscribeInfoList::WaitForDelivery() {
  const boost::lock_guard<boost::recursive_mutex> wait(delivery_mutex);
}

void WaitForEvents() {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::existing();
  if (list) list->WaitForDelivery();
}

}  // namespace cp_control
}  // namespace vex_upnp

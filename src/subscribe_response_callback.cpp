#include "src/subscribe_response_callback.h"

#include <algorithm>
#include <cstddef>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/number_text.h"
#include "base/singleton.h"
#include "base/timing.h"
#include "src/resubscribe_timer_callback.h"
#include "src/subscribe_requestor.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;

constexpr unsigned kFirstGoodStatus = 200;
constexpr unsigned kLastGoodStatus = 299;

// A line end or a NUL inside a SID would let the device write headers into our renewals.
bool FitsInAHeader(const std::string& value) {
  return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

void TellListener(DeviceEventListener& listener, int handler_id, errorcodes code,
                  const std::string& message) try {
  listener.OnSubscribeResponseReceived(handler_id, code, message);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
}

// Marks an arrived answer as handled, however its handling ends.
class HandledMark {
 public:
  HandledMark(SubscribeInfoList& list, int session_id) : list_(list), session_id_(session_id) {}
  HandledMark(const HandledMark&) = delete;
  HandledMark& operator=(const HandledMark&) = delete;
  ~HandledMark() { list_.AnswerHandled(session_id_); }

 private:
  SubscribeInfoList& list_;
  const int session_id_;
};

}  // namespace

bool ReadGrantedSeconds(const std::string& timeout, int& seconds) {
  const std::size_t dash = timeout.find('-');
  return ToNumber(dash == std::string::npos ? timeout : timeout.substr(dash + 1), seconds);
}

int RenewalDelayMs(int granted_seconds, int& quick_renewals) {
  // KEPT: 32-bit arithmetic. A grant of 2863312 seconds or more wraps around, and what comes out
  // negative is renewed at once.
  constexpr unsigned kFactor = 1000U * timing::kRenewalPercent / 100U;
  const int product = static_cast<int>(static_cast<unsigned>(granted_seconds) * kFactor);
  const int delay = std::max(product, 0);
  if (delay >= limits::kRenewalSpacingMs) {
    quick_renewals = 0;
    return delay;
  }
  if (quick_renewals >= limits::kImmediateRenewals) return limits::kRenewalSpacingMs;
  ++quick_renewals;
  return delay;
}

boost::mutex& SubscribeResponseCallback::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<SubscribeResponseCallback>& SubscribeResponseCallback::instance_ =
    *new boost::shared_ptr<SubscribeResponseCallback>;

boost::shared_ptr<SubscribeResponseCallback> SubscribeResponseCallback::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_,
                           [] { return new SubscribeResponseCallback; });
}

void SubscribeResponseCallback::TerminateInstance() {
  TerminateWhenIdle(instance_, instance_mutex_, &SubscribeResponseCallback::use_count_);
}

void SubscribeResponseCallback::OnAnswerArrived(const int& session_id) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (list) list->AnswerArrived(session_id);
}

void SubscribeResponseCallback::OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                                                   const int& session_id) {
  const UseCountGuard inside(use_count_);
  if (!inside.entered()) {
    VEX_LOG(kLogMajor, kTagControl, "Subscribe response received after CP termination");
    return;
  }
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return;
  const HandledMark mark(*list, session_id);
  try {
    __HandleAnswer(*list, *response, session_id);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
}

void SubscribeResponseCallback::__HandleAnswer(SubscribeInfoList& list, utils::HTTPInfo& response,
                                               int session_id) {
  // Outlives the locks: whoever destroys a record holds none.
  SubscribeInfoList::Pointer record;
  int timeout = 0;
  {
    boost::lock_guard<boost::recursive_mutex> delivery(list.delivery_mutex);
    VEX_LOG(kLogStep, kTagControl, "Subscription response for session_id [%d]", session_id);
    record = __ClaimAnswer(list, session_id);
    if (!record) {
      VEX_LOG(kLogMajor, kTagControl, "There is no subscribe info!!!");
      return;
    }
    if (!__Understands(list, response, *record, timeout)) {
      __HandleFailure(list, *record, response);
      return;
    }
    if (!__NotifySuccess(list, *record)) return;
  }
  __StartRenewalTimer(list, *record, timeout);
}

// Answer and missing answer race for the record; the lock of the list decides.
SubscribeInfoList::Pointer SubscribeResponseCallback::__ClaimAnswer(SubscribeInfoList& list,
                                                                    int session_id) {
  int answer_timer_id = 0;
  SubscribeInfoList::Pointer record;
  {
    boost::lock_guard<boost::mutex> lock(list.mutex);
    record = list.get_by_nwsession_id(session_id);
    if (record) std::swap(answer_timer_id, record->answer_timer_id);
  }
  // That timer's callback never waits for a delivery, so this may be called inside one.
  if (answer_timer_id != 0) ResubscribeTimerCallback::Cancel(answer_timer_id);
  return record;
}

// An answer that there is no memory to read is a failed one: nobody watches over it any more.
bool SubscribeResponseCallback::__Understands(SubscribeInfoList& list, utils::HTTPInfo& response,
                                              SubscribeInfo& record, int& timeout) try {
  return __ParsePacket(list, response, record, timeout);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  return false;
}

bool SubscribeResponseCallback::__ParsePacket(SubscribeInfoList& list, utils::HTTPInfo& response,
                                              SubscribeInfo& record, int& timeout) {
  const unsigned status = response.GetStatusCode();
  if (status < kFirstGoodStatus || status > kLastGoodStatus) {
    VEX_LOG(kLogMajor, kTagControl, "subscription failed with %d code!!!",
            static_cast<int>(status));
    return false;
  }
  std::string sid;
  if (response.GetHeaderValue("SID", sid) != result::kOk || !FitsInAHeader(sid)) {
    VEX_LOG(kLogMajor, kTagControl, "no SID!!!");
    return false;
  }
  {
    // KEPT: the new SID stands even when the TIMEOUT behind it turns out to be unusable.
    boost::lock_guard<boost::mutex> lock(list.mutex);
    record.sid = sid;
  }
  std::string granted;
  if (response.GetHeaderValue("TIMEOUT", granted) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "no TIMEOUT!!!");
    return false;
  }
  if (!ReadGrantedSeconds(granted, timeout)) {
    VEX_LOG(kLogMajor, kTagControl, "Invalid TIMEOUT value = %s !!!", granted.c_str());
    return false;
  }
  return true;
}

// False when the subscription was ended meanwhile.
bool SubscribeResponseCallback::__NotifySuccess(SubscribeInfoList& list,
                                                const SubscribeInfo& record) {
  DeviceEventListener* listener = nullptr;
  {
    boost::lock_guard<boost::mutex> lock(list.mutex);
    listener = record.listener;
  }
  if (listener == nullptr) {
    VEX_LOG(kLogMajor, kTagControl, "Subscribe callback is null!!!");
    return false;
  }
  VEX_LOG(kLogStep, kTagControl, "OnSubscribeResponseReceived Enter (OnSuccess)");
  TellListener(*listener, record.handler_id, CP_ERR_NONE, "no error");
  VEX_LOG(kLogStep, kTagControl, "OnSubscribeResponseReceived  Exit");
  return true;
}

void SubscribeResponseCallback::__HandleFailure(SubscribeInfoList& list, SubscribeInfo& record,
                                                utils::HTTPInfo& response) {
  bool attempts_left = false;
  {
    // KEPT: nothing restores the count. Across the whole life of a subscription, renewals included,
    // the third failed answer ends it.
    boost::lock_guard<boost::mutex> lock(list.mutex);
    attempts_left = --record.retry_count >= 1;
  }
  if (attempts_left) {
    SubscribeRequestor::ResendSubscribeOnFailure(record.handler_id);
    return;
  }
  std::string message = "error";
  std::string start_line;
  if (response.GetStartLine(start_line) == result::kOk) message = start_line;
  __EndSubscription(list, record, message);
}

// Under the delivery mutex, with a reference of the caller's that outlives it.
void SubscribeResponseCallback::__EndSubscription(SubscribeInfoList& list, SubscribeInfo& record,
                                                  const std::string& message) {
  VEX_LOG(kLogMajor, kTagControl, "Error: Subscription failed Three times!!");
  DeviceEventListener* listener = nullptr;
  {
    boost::lock_guard<boost::mutex> lock(list.mutex);
    // The session has ended by itself; the destructor is to leave it alone.
    record.nwsession_id = 0;
    listener = record.listener;
    list.remove_by_handlerid(record.handler_id);
  }
  if (listener == nullptr) {
    VEX_LOG(kLogMajor, kTagControl, "Subscribe callback is null!!!");
    return;
  }
  VEX_LOG(kLogStep, kTagControl, "OnSubscribeResponseReceived Enter (OnError)");
  TellListener(*listener, record.handler_id, CP_ERR_FAILURE, message);
  VEX_LOG(kLogStep, kTagControl, "OnSubscribeResponseReceived Exit");
}

void SubscribeResponseCallback::__StartRenewalTimer(SubscribeInfoList& list, SubscribeInfo& record,
                                                    int timeout) {
  boost::lock_guard<boost::mutex> lock(list.mutex);
  if (!list.get_by_handlerid(record.handler_id)) return;
  const int delay = RenewalDelayMs(timeout, record.quick_renewals);
  record.timer_id = ResubscribeTimerCallback::StartRenewal(delay, record.handler_id);
}

void SubscribeResponseCallback::OnAnswerMissing(int handler_id, int timer_id) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return;
  SubscribeInfoList::Pointer record;
  int session_id = 0;
  bool attempts_left = false;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_handlerid(handler_id);
    if (!record || record->answer_timer_id != timer_id) return;
    record->answer_timer_id = 0;
    session_id = record->nwsession_id;
    // The answer is there and only waits for its turn.
    if (session_id != 0 && session_id == record->answered_session_id) return;
    record->nwsession_id = 0;
    if (session_id != 0) --record->retry_count;
    attempts_left = record->retry_count >= 1;
  }
  if (session_id != 0) network_layer::CancelTCPHTTPPacket(session_id);
  if (attempts_left) {
    SubscribeRequestor::ResendSubscribeOnFailure(handler_id);
    return;
  }
  // A listener may be busy for long; the timer thread has others to serve and looks in again.
  boost::unique_lock<boost::recursive_mutex> delivery(list->delivery_mutex, boost::try_to_lock);
  if (delivery.owns_lock()) {
    __EndSubscription(*list, *record, "error");
    return;
  }
  boost::lock_guard<boost::mutex> lock(list->mutex);
  if (!list->get_by_handlerid(handler_id)) return;
  record->answer_timer_id =
      ResubscribeTimerCallback::StartAnswerWatch(timing::kUseCountPollMs, handler_id);
}

}  // namespace cp_control
}  // namespace vex_upnp

#include "src/control_requestor.h"

#include <memory>
#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>
#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "base/timing.h"
#include "src/action_request_timer_callback.h"
#include "src/control_response_callback.h"
#include "src/looked_up_ahead.h"
#include "src/request_packets.h"
#include "src/user_agent.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;

// Empty when there is no memory for it.
ControlInfoList::Pointer MakeRecord(const std::string& device_udn,
                                    ControlResponseListener* listener, void* context) {
  try {
    return ControlInfoList::Pointer(new ControlInfo(device_udn, listener, context));
  } catch (const std::bad_alloc&) {
    return ControlInfoList::Pointer();
  }
}

}  // namespace

boost::mutex& ControlRequestor::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<ControlRequestor>& ControlRequestor::instance_ =
    *new boost::shared_ptr<ControlRequestor>;

boost::shared_ptr<ControlRequestor> ControlRequestor::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new ControlRequestor; });
}

void ControlRequestor::TerminateInstance() { DestroyShared(instance_, instance_mutex_); }

int ControlRequestor::SendAction(const std::string& device_udn, const std::string& host_header,
                                 const std::string& soap_action_header,
                                 const std::string& control_url, const std::string& body,
                                 const std::string& user_agent, ControlResponseListener* listener,
                                 void* context, int& action_id) {
  if (listener == nullptr) {
    VEX_LOG(kLogMajor, kTagControl, "Invalid argument - upperlayer_callback");
    return result::kNoUpperLayer;
  }
  const ControlInfoList::Pointer record = MakeRecord(device_udn, listener, context);
  if (!record) {
    VEX_LOG(kLogMajor, kTagControl, "malloc failed!");
    return result::kOutOfMemory;
  }
  int session_id = 0;
  if (__SendActionRequestPacket(host_header, soap_action_header, control_url, body, user_agent,
                                record, session_id) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Request registration failed!!!");
    return result::kRequestFailed;
  }
  if (!__RunTimer(session_id) && __TakeBack(session_id)) return result::kOutOfMemory;
  action_id = session_id;
  return result::kOk;
}

int ControlRequestor::CancelActionInvocation(const int& action_id) {
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return result::kOk;
  ControlInfoList::Pointer removed;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    removed = list->remove_by_action_id(action_id);
  }
  if (removed) GiveContextBack(*removed);
  return result::kOk;
}

void ControlRequestor::SetDefaultUserAgent(const std::string& agent) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  default_user_agent_ = agent;
}

void ControlRequestor::GetDefaultUserAgent(std::string& agent) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  agent = default_user_agent_;
}

int ControlRequestor::__SendActionRequestPacket(
    const std::string& host_header, const std::string& soap_action_header,
    const std::string& control_url, const std::string& body, const std::string& user_agent,
    const ControlInfoList::Pointer& record, int& action_id) try {
  std::string ip;
  std::string path;
  int port = 0;
  if (!utils::StringUtils::ParseURI(control_url, ip, port, path)) {
    VEX_LOG(kLogMajor, kTagControl, "Unable to form Absolute URI from Control URI");
    return result::kFailure;
  }
  std::string default_agent;
  GetDefaultUserAgent(default_agent);
  const std::string packet = FormatActionRequest(
      path, host_header, ChooseUserAgent(user_agent, default_agent), soap_action_header, body);
  return __SendAndList(ip, port, packet, record, action_id);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  return result::kFailure;
}

int ControlRequestor::__SendAndList(const std::string& ip, int port, const std::string& packet,
                                    const ControlInfoList::Pointer& record, int& action_id) {
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return result::kFailure;
  const boost::shared_ptr<ControlResponseCallback> callback =
      ControlResponseCallback::GetInstance();

  const network_layer::LookedUpAhead ahead(ip, port);

  // An answer may come before the send has returned; it waits for this lock and then finds the
  // record listed under its session.
  boost::lock_guard<boost::mutex> lock(list->mutex);
  if (!list->add(record)) return result::kFailure;
  if (network_layer::SendTCPHTTPPacket(ip, port, packet, static_cast<int>(packet.size()), callback,
                                       record->action_id) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Action Request packet sending failed!!!");
    list->remove(record);
    // There is no session to end.
    record->action_id = 0;
    return result::kFailure;
  }
  action_id = record->action_id;
  return result::kOk;
}

bool ControlRequestor::__RunTimer(int action_id) try {
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return true;
  ActionRequestTimerCallback::GetInstance();
  std::unique_ptr<int> arg(new int(action_id));
  // Started under the lock, so that neither a time-out nor a cancel can come between the timer and
  // its id; starting a timer never waits for a callback.
  boost::lock_guard<boost::mutex> lock(list->mutex);
  const ControlInfoList::Pointer record = list->get_by_action_id(action_id);
  if (!record) {
    VEX_LOG(kLogMajor, kTagControl, "get_by_action_id failed!");
    return true;
  }
  record->timer_id = utils::Timer::Start(timing::Scaled(timing::kActionTimeoutMs),
                                         ActionRequestTimerCallback::OnTimerExpired, arg.get());
  static_cast<void>(arg.release());
  return true;
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  return false;
}

// An action without a time-out might never end, so it ends here, unless its answer is there
// already. True when it was taken back: its context stays the caller's.
bool ControlRequestor::__TakeBack(int action_id) {
  const boost::shared_ptr<ControlInfoList> list = ControlInfoList::getInstance();
  if (!list) return false;
  ControlInfoList::Pointer record;
  boost::lock_guard<boost::mutex> lock(list->mutex);
  record = list->get_by_action_id(action_id);
  if (!record || record->claimed) return false;
  list->remove(record);
  return true;
}

}  // namespace cp_control
}  // namespace vex_upnp

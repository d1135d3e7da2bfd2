#include <vexupnpcp/cp_control.h>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "src/action_request_timer_callback.h"
#include "src/control_info.h"
#include "src/control_requestor.h"
#include "src/control_response_callback.h"
#include "src/event_callback.h"
#include "src/resubscribe_timer_callback.h"
#include "src/subscribe_info.h"
#include "src/subscribe_requestor.h"
#include "src/subscribe_response_callback.h"
#include "src/unsubscribe_requestor.h"

namespace vex_upnp {
namespace cp_control {

namespace {

void LogThrown(const LogSite& site) {
  LogCurrentException(site, kLogMajor, log::kTagControl, "Exception: %s", "Unknown Exception");
}

}  // namespace

void Initialize() {
  ControlInfoList::restart();
  SubscribeInfoList::restart();
  try {
    ControlInfoList::getInstance();
    SubscribeInfoList::getInstance();
    SubscribeResponseCallback::GetInstance();
    SubscribeRequestor::GetInstance();
    UnsubscribeRequestor::GetInstance();
    EventCallback::GetInstance();
    ActionRequestTimerCallback::GetInstance();
    ResubscribeTimerCallback::GetInstance();
  } catch (...) {
    // What is left out is made where it is first needed.
    LogThrown(VEX_LOG_SITE);
  }
}

// KEPT: an action that is still open gets neither a result nor its context back; whoever wants that
// cancels it before.
void Terminate() try {
  const boost::shared_ptr<ControlInfoList> actions = ControlInfoList::getInstance();
  const boost::shared_ptr<SubscribeInfoList> subscriptions = SubscribeInfoList::getInstance();
  if (actions) actions->cancel_control_actions();
  if (subscriptions) subscriptions->Close();
  ResubscribeTimerCallback::TerminateInstance();
  ActionRequestTimerCallback::TerminateInstance();
  EventCallback::TerminateInstance();
  ControlRequestor::TerminateInstance();
  ControlResponseCallback::TerminateInstance();
  UnsubscribeRequestor::TerminateInstance();
  SubscribeRequestor::TerminateInstance();
  SubscribeResponseCallback::TerminateInstance();
  SubscribeInfoList::terminate();
  ControlInfoList::terminate();
} catch (...) {
  LogThrown(VEX_LOG_SITE);
}

int SendAction(const std::string& device_udn, const std::string& host_header,
               const std::string& soap_action_header, const std::string& control_url,
               const std::string& body, const std::string& user_agent,
               ControlResponseListener* listener, void* context, int& action_id) try {
  return ControlRequestor::GetInstance()->SendAction(device_udn, host_header, soap_action_header,
                                                     control_url, body, user_agent, listener,
                                                     context, action_id);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
  return result::kRequestFailed;
}

int CancelAction(const int& action_id) try {
  return ControlRequestor::CancelActionInvocation(action_id);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
  return result::kOk;
}

int Subscribe(const std::string& device_udn, const std::string& host_header,
              const std::string& user_agent, const std::string& callback_url,
              const std::string& event_url, DeviceEventListener* listener, int& handler_id) try {
  return SubscribeRequestor::GetInstance()->Subscribe(
      device_udn, host_header, user_agent, callback_url, event_url, listener, handler_id);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
  return result::kRequestFailed;
}

int Unsubscribe(const int& handler_id, const std::string& host_header) try {
  return UnsubscribeRequestor::Unsubscribe(handler_id, host_header);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
  return result::kRequestFailed;
}

void SetDefaultUserAgent(const std::string& agent) try {
  ControlRequestor::GetInstance()->SetDefaultUserAgent(agent);
  SubscribeRequestor::GetInstance()->SetDefaultUserAgent(agent);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
}

void GetDefaultUserAgent(std::string& agent) try {
  ControlRequestor::GetInstance()->GetDefaultUserAgent(agent);
} catch (...) {
  LogThrown(VEX_LOG_SITE);
}

}  // namespace cp_control
}  // namespace vex_upnp

#include "src/subscribe_requestor.h"

#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "base/timing.h"
#include "src/event_callback.h"
#include "src/looked_up_ahead.h"
#include "src/request_packets.h"
#include "src/resubscribe_timer_callback.h"
#include "src/subscribe_info.h"
#include "src/subscribe_response_callback.h"
#include "src/user_agent.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;
using utils::StringUtils;

// The path that a device sends its events to, as it is registered. On the wire a slash follows it.
std::string EventPath(int handler_id) { return "/eventing_" + std::to_string(handler_id); }

}  // namespace

boost::mutex& SubscribeRequestor::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<SubscribeRequestor>& SubscribeRequestor::instance_ =
    *new boost::shared_ptr<SubscribeRequestor>;

boost::shared_ptr<SubscribeRequestor> SubscribeRequestor::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new SubscribeRequestor; });
}

void SubscribeRequestor::TerminateInstance() {
  DestroyShared(instance_, instance_mutex_);
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (list) list->remove_all();
}

int SubscribeRequestor::Subscribe(const std::string& device_udn, const std::string& host_header,
                                  const std::string& user_agent, const std::string& callback_url,
                                  const std::string& event_url, DeviceEventListener* listener,
                                  int& handler_id) {
  if (listener == nullptr) {
    VEX_LOG(kLogMajor, kTagControl, "Invalid argument - upperlayer_callback");
    return result::kNoUpperLayer;
  }
  std::string default_agent;
  GetDefaultUserAgent(default_agent);
  const std::string agent = ChooseUserAgent(user_agent, default_agent);
  // Whoever sends needs it; a start without memory may have left it out.
  ResubscribeTimerCallback::GetInstance();
  const int handle =
      __AddStructure(device_udn, host_header, agent, callback_url, event_url, listener);
  if (handle == 0) return result::kRequestFailed;
  handler_id = handle;

  const std::string path = EventPath(handle);
  if (__RegisterEventCallback(handle, path) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Event Callback registration failed!!!");
    return result::kFailure;
  }
  if (__SendSubscribePacket(handle, host_header, agent, callback_url + path, event_url) !=
      result::kOk) {
    return result::kRequestFailed;
  }
  VEX_LOG(kLogStep, kTagControl, "Sending subscribe to device [%s] Index [%d]", device_udn.c_str(),
          handle);
  return result::kOk;
}

bool SubscribeRequestor::ResendSubscribeOnFailure(const int& handler_id) {
  std::string device_udn;
  std::string callback_url;
  std::string host_header;
  std::string user_agent;
  std::string event_url;
  {
    const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
    if (!list) return false;
    boost::lock_guard<boost::mutex> lock(list->mutex);
    const SubscribeInfoList::Pointer record = list->get_by_handlerid(handler_id);
    if (!record) {
      VEX_LOG(kLogMajor, kTagControl, "Error: subscribe info is null.");
      return false;
    }
    device_udn = record->device_udn;
    callback_url = record->callback_url;
    host_header = record->host_header;
    user_agent = record->user_agent;
    event_url = record->event_url;
  }
  VEX_LOG(kLogStep, kTagControl, "Resending Subscription to Device [%s]", device_udn.c_str());
  if (__SendSubscribePacket(handler_id, host_header, user_agent,
                            callback_url + EventPath(handler_id), event_url) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Error: Resending subscription request failed!");
    return false;
  }
  return true;
}

bool SubscribeRequestor::Resubscribe(const int& handler_id) {
  std::string host_header;
  std::string event_url;
  std::string sid;
  std::string user_agent;
  if (!__LookupStructure(handler_id, host_header, event_url, sid, user_agent)) {
    VEX_LOG(kLogMajor, kTagControl, "No subscribe info!!!");
    return false;
  }
  if (__SendResubscribePacket(handler_id, host_header, event_url, sid, user_agent) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Resubscription failed!!!");
    return false;
  }
  return true;
}

void SubscribeRequestor::SetDefaultUserAgent(const std::string& agent) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  default_user_agent_ = agent;
}

void SubscribeRequestor::GetDefaultUserAgent(std::string& agent) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  agent = default_user_agent_;
}

// The new handle, or 0 once control has been terminated.
int SubscribeRequestor::__AddStructure(
    const std::string& device_udn, const std::string& host_header, const std::string& user_agent,
    const std::string& callback_url, const std::string& event_url, DeviceEventListener* listener) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return 0;
  const SubscribeInfoList::Pointer record(new SubscribeInfo);
  record->device_udn = device_udn;
  record->event_url = event_url;
  record->callback_url = callback_url;
  record->user_agent = user_agent;
  record->host_header = host_header;
  record->listener = listener;
  boost::lock_guard<boost::mutex> lock(list->mutex);
  return list->add(record);
}

int SubscribeRequestor::__RegisterEventCallback(int handler_id, const std::string& path) {
  int id = 0;
  const int registered = network_layer::RegisterTCPRequestListener(
      std::vector<std::string>(1, path), EventCallback::GetInstance(), id);
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  SubscribeInfoList::Pointer record;
  if (list) {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_handlerid(handler_id);
    if (record) record->request_listener_id = id;
  }
  // Control was terminated meanwhile; nobody else would close the path.
  if (!record) network_layer::UnRegisterRequestListener(id);
  return record ? registered : result::kFailure;
}

int SubscribeRequestor::__SendSubscribePacket(int handler_id, const std::string& host_header,
                                              const std::string& user_agent,
                                              const std::string& full_callback_url,
                                              const std::string& event_url) {
  std::string callback_ip;
  std::string callback_path;
  int callback_port = 0;
  std::string ip;
  std::string path;
  int port = 0;
  if (!StringUtils::ParseURI(event_url, ip, port, path) ||
      !StringUtils::ParseURI(full_callback_url, callback_ip, callback_port, callback_path)) {
    VEX_LOG(kLogMajor, kTagControl, "ParseURI failed.");
    return result::kFailure;
  }
  const std::string packet = FormatSubscribeRequest(
      path, full_callback_url, timing::kSubscriptionSeconds, host_header, user_agent);
  if (__SendAndWatch(handler_id, ip, port, packet) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Subscribe packet sending failed!!!");
    return result::kFailure;
  }
  return result::kOk;
}

bool SubscribeRequestor::__LookupStructure(int handler_id, std::string& host_header,
                                           std::string& event_url, std::string& sid,
                                           std::string& user_agent) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return false;
  boost::lock_guard<boost::mutex> lock(list->mutex);
  const SubscribeInfoList::Pointer record = list->get_by_handlerid(handler_id);
  if (!record) {
    VEX_LOG(kLogMajor, kTagControl, "Subscribe info is null.");
    return false;
  }
  host_header = record->host_header;
  event_url = record->event_url;
  sid = record->sid;
  user_agent = record->user_agent;
  return true;
}

int SubscribeRequestor::__SendResubscribePacket(int handler_id, const std::string& host_header,
                                                const std::string& event_url,
                                                const std::string& sid,
                                                const std::string& user_agent) {
  std::string ip;
  std::string path;
  int port = 0;
  if (!StringUtils::ParseURI(event_url, ip, port, path)) {
    VEX_LOG(kLogMajor, kTagControl, "URI parsing error!");
    return result::kFailure;
  }
  const std::string packet =
      FormatRenewalRequest(path, host_header, sid, timing::kSubscriptionSeconds, user_agent);
  VEX_LOG(kLogStep, kTagControl, "resubscribe packet\n%s", packet.c_str());
  if (__SendAndWatch(handler_id, ip, port, packet) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "resubscribe packet sending failed!!!");
    return result::kFailure;
  }
  return result::kOk;
}

// Sends and watches over the answer: the network layer keeps silent when none comes.
int SubscribeRequestor::__SendAndWatch(int handler_id, const std::string& ip, int port,
                                       const std::string& packet) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  if (!list) return result::kFailure;
  const boost::shared_ptr<SubscribeResponseCallback> callback =
      SubscribeResponseCallback::GetInstance();

  const network_layer::LookedUpAhead ahead(ip, port);

  // An answer may come before the send has returned; it waits for this lock and then finds the
  // record under its session, with the timer that watched over it.
  boost::lock_guard<boost::mutex> lock(list->mutex);
  const SubscribeInfoList::Pointer record = list->get_by_handlerid(handler_id);
  if (!record) return result::kFailure;
  const int sent = network_layer::SendTCPHTTPPacket(
      ip, port, packet, static_cast<int>(packet.size()), callback, record->nwsession_id);
  if (sent != result::kOk) return sent;
  record->answer_timer_id =
      ResubscribeTimerCallback::StartAnswerWatch(timing::kResponseTimeoutMs, handler_id);
  return result::kOk;
}

}  // namespace cp_control
}  // namespace vex_upnp

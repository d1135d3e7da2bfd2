#include "src/unsubscribe_requestor.h"

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/request_packets.h"

namespace vex_upnp {
namespace cp_control {

using log::kTagControl;

boost::mutex& UnsubscribeRequestor::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<UnsubscribeRequestor>& UnsubscribeRequestor::instance_ =
    *new boost::shared_ptr<UnsubscribeRequestor>;

boost::shared_ptr<UnsubscribeRequestor> UnsubscribeRequestor::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new UnsubscribeRequestor; });
}

void UnsubscribeRequestor::TerminateInstance() { DestroyShared(instance_, instance_mutex_); }

int UnsubscribeRequestor::Unsubscribe(const int& handler_id, const std::string& host_header) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  SubscribeInfoList::Pointer record;
  if (list) record = __AccessAndRemove(*list, handler_id);
  int outcome = result::kOk;
  if (!record) {
    VEX_LOG(kLogMajor, kTagControl, "There is no matched subscription %d!", handler_id);
    outcome = result::kNoUpperLayer;
  } else if (__SendPacket(*list, *record, host_header) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "subscription cannot be canceled for SID %d!", handler_id);
    outcome = result::kRequestFailed;
  }
  // Also without a record: the subscription's end may be on its way to the listener, which the
  // caller is free to destroy once this has returned.
  if (list) list->WaitForDelivery();
  return outcome;
}

// From here on no event and no answer finds the record.
SubscribeInfoList::Pointer UnsubscribeRequestor::__AccessAndRemove(SubscribeInfoList& list,
                                                                   int handler_id) {
  boost::lock_guard<boost::mutex> lock(list.mutex);
  return list.remove_by_handlerid(handler_id);
}

int UnsubscribeRequestor::__SendPacket(SubscribeInfoList& list, const SubscribeInfo& record,
                                       const std::string& host_header) try {
  std::string sid;
  std::string event_url;
  std::string device_udn;
  {
    // An answer that is being handled may still write to the record.
    boost::lock_guard<boost::mutex> lock(list.mutex);
    sid = record.sid;
    event_url = record.event_url;
    device_udn = record.device_udn;
  }
  if (sid.empty()) {
    VEX_LOG(kLogMajor, kTagControl, "Subscription is invalid.");
    VEX_LOG(kLogMajor, kTagControl, "Subscription is invalid %s!!!", device_udn.c_str());
    return result::kFailure;
  }
  std::string ip;
  std::string path;
  int port = 0;
  if (!utils::StringUtils::ParseURI(event_url, ip, port, path)) {
    VEX_LOG(kLogMajor, kTagControl, "URI parsing error.");
    VEX_LOG(kLogMajor, kTagControl, "URI parsing error %s!!!", event_url.c_str());
    return result::kFailure;
  }
  const std::string packet = FormatUnsubscribeRequest(path, host_header, sid);
  // Not kept in the record, whose destructor would cancel the exchange before it has begun.
  int session_id = 0;
  if (network_layer::SendTCPHTTPPacket(ip, port, packet, static_cast<int>(packet.size()),
                                       boost::shared_ptr<network_layer::ResponseListener>(),
                                       session_id) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "unsubscribe packet sending failed!");
    return result::kFailure;
  }
  return result::kOk;
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  return result::kFailure;
}

}  // namespace cp_control
}  // namespace vex_upnp

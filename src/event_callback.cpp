#include "src/event_callback.h"

#include <memory>
#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/listener_hooks.h"
#include "src/subscribe_info.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using log::kTagControl;

constexpr char kPreconditionFailed[] = "HTTP/1.1 412 Precondition Failed";
constexpr char kBadRequest[] = "HTTP/1.1 400 Bad Request";
constexpr char kAccepted[] = "HTTP/1.1 200 OK";
constexpr char kAnswerEnd[] = "\r\nConnection: close\r\n\r\n";

// Null when there is no memory for it.
std::unique_ptr<std::string> MakeAnswer(const char* status_line) try {
  return std::unique_ptr<std::string>(new std::string(std::string(status_line) + kAnswerEnd));
} catch (const std::bad_alloc&) {
  return std::unique_ptr<std::string>();
}

// Uses up the session in any case; the network layer owns the text once it has taken it.
int SendAnswer(const char* status_line, void* session_context) {
  std::unique_ptr<std::string> packet = MakeAnswer(status_line);
  // Without one the connection ends: the device must not wait for it.
  if (!packet) return network_layer::SendResponsePacket(nullptr, 0, session_context);
  const int length = static_cast<int>(packet->size());
  const int sent = network_layer::SendResponsePacket(packet.get(), length, session_context);
  if (sent == result::kOk) static_cast<void>(packet.release());
  return sent;
}

void Deliver(DeviceEventListener& listener, const std::string& body) try {
  listener.OnEventReceived(body);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
}

}  // namespace

boost::mutex& EventCallback::instance_mutex_ = *new boost::mutex;
boost::shared_ptr<EventCallback>& EventCallback::instance_ = *new boost::shared_ptr<EventCallback>;

boost::shared_ptr<EventCallback> EventCallback::GetInstance() {
  return GetOrCreateShared(instance_, instance_mutex_, [] { return new EventCallback; });
}

void EventCallback::TerminateInstance() {
  TerminateWhenIdle(instance_, instance_mutex_, &EventCallback::use_count_);
}

void EventCallback::OnTCPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request,
                                         void* session_context) {
  const UseCountGuard inside(use_count_);
  if (!inside.entered()) {
    VEX_LOG(kLogMajor, kTagControl, "Received after CP termination");
    network_layer::ReleaseSessionContext(session_context);
    return;
  }
  const char* error_line = kPreconditionFailed;
  try {
    error_line = __HandleEvent(*request);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagControl, "Exception: %s", "Unknown Exception");
  }
  if (error_line == nullptr) {
    __SendResponse(session_context);
  } else {
    __SendErrorResponse(error_line, session_context);
  }
}

// The first rule that fails decides. The path and the method of the request are not looked at, nor
// is the value of SEQ: an old or repeated event is delivered like any other.
const char* EventCallback::__HandleEvent(utils::HTTPInfo& request) {
  std::string sid;
  if (request.GetHeaderValue("SID", sid) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "No SID header of event!!! ");
    return kPreconditionFailed;
  }
  std::string nt;
  std::string nts;
  if (!__ValidatePacket(request, nt, nts)) {
    VEX_LOG(kLogMajor, kTagControl, "Invalid Event => error response !!!");
    return kBadRequest;
  }
  if (nt != "upnp:event") {
    VEX_LOG(kLogMajor, kTagControl, "Invalid NT header of event!!! ");
    return kPreconditionFailed;
  }
  if (nts != "upnp:propchange") {
    VEX_LOG(kLogMajor, kTagControl, "Invalid NTS header of event!!! ");
    return kPreconditionFailed;
  }
  std::string body;
  if (!__ProcessPacket(request, sid, body)) {
    VEX_LOG(kLogMajor, kTagControl, "Invalid Event => ignore !!!");
    return kBadRequest;
  }
  if (!__LookupAndNotfiy(sid, body)) {
    VEX_LOG(kLogMajor, kTagControl, "__LookupAndNotfiy failed for event, SID=%s !!!", sid.c_str());
    return kPreconditionFailed;
  }
  return nullptr;
}

bool EventCallback::__ValidatePacket(utils::HTTPInfo& request, std::string& nt, std::string& nts) {
  std::string seq;
  if (request.GetHeaderValue("NT", nt) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "No NT header of event!!! ");
    return false;
  }
  if (request.GetHeaderValue("NTS", nts) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "No NTS header of event!!!");
    return false;
  }
  if (request.GetHeaderValue("SEQ", seq) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, " No SEQ header of event!!! ");
    return false;
  }
  return true;
}

bool EventCallback::__ProcessPacket(utils::HTTPInfo& request, const std::string& sid,
                                    std::string& body) {
  if (sid.empty()) return false;
  request.ReadBody(body);
  return !body.empty();
}

bool EventCallback::__LookupAndNotfiy(const std::string& sid, const std::string& body) {
  const boost::shared_ptr<SubscribeInfoList> list = SubscribeInfoList::getInstance();
  // Devices send their first event within a millisecond of the answer that brings its SID. An
  // unknown SID never waits for a listener that is busy with another event.
  if (!list || !list->AwaitSid(sid)) {
    VEX_LOG(kLogMajor, kTagControl, "info is null.");
    return false;
  }
  // Outlives the locks: a listener may end its own subscription, and whoever destroys a record
  // holds none.
  SubscribeInfoList::Pointer record;
  boost::lock_guard<boost::recursive_mutex> delivery(list->delivery_mutex);
  DeviceEventListener* listener = nullptr;
  {
    boost::lock_guard<boost::mutex> lock(list->mutex);
    record = list->get_by_sid(sid);
    if (record) listener = record->listener;
  }
  if (!record) {
    VEX_LOG(kLogMajor, kTagControl, "info is null.");
    return false;
  }
  if (listener == nullptr) {
    VEX_LOG(kLogMajor, kTagControl, "Event callback is null!!!");
    return true;
  }
  VEX_LOG(kLogStep, kTagControl, "Event Received, notifying OnEventReceived");
  Deliver(*listener, body);
  return true;
}

void EventCallback::__SendResponse(void* session_context) {
  if (SendAnswer(kAccepted, session_context) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, " Event response packet sending error!!!");
  }
}

void EventCallback::__SendErrorResponse(const char* status_line, void* session_context) {
  if (SendAnswer(status_line, session_context) != result::kOk) {
    VEX_LOG(kLogMajor, kTagControl, "Error Event response packet sending error!!!");
  }
}

}  // namespace cp_control
}  // namespace vex_upnp

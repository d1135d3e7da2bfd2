#include "src/generic_subscribe_handle.h"

#include <list>
#include <new>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "src/generic_cp_manager.h"
#include "src/generic_cp_utils.h"
#include "src/generic_host_callback.h"
#include "src/request_packets.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

// The base of the URL on which a device reaches our event server; empty when none runs on the
// interface that faces the device. The last of several servers there is taken.
std::string CallbackUrlOn(const std::string& local_ip) {
  std::list<boost::shared_ptr<network_layer::IpInfo>> servers;
  network_layer::GetConfiguredTcpPorts(servers);
  std::string url;
  for (const boost::shared_ptr<network_layer::IpInfo>& server : servers) {
    if (server->ip == local_ip) url = "http://" + server->ip + ":" + std::to_string(server->port);
  }
  return url;
}

errorcodes ReadVariables(const std::string& body,
                         Owned<CPArgument, FreeCPArgumentList>& variables) try {
  std::list<cp_utils::CPUtilsArgument> list;
  if (cp_utils::ParseEventNotification(body, list) != result::kOk) return CP_ERR_EVENT_PARSE;
  CPArgument* converted = nullptr;
  const errorcodes code = GetCPArgumentListFromArgumentList(&converted, list);
  variables.reset(converted);
  return code;
} catch (const std::bad_alloc&) {
  return CP_ERR_OUT_OF_MEMORY;
}

}  // namespace

GenericSubscribeHandle::GenericSubscribeHandle(int cp_handle, const std::string& udn,
                                               const std::string& service_type)
    : cp_handle_(cp_handle), device_udn_(udn), service_type_(service_type) {}

int GenericSubscribeHandle::Prepare() try {
  cp_discovery::DetailedDeviceInfo device;
  const int found = cp_discovery::GetDeviceDetailInfo(device_udn_, &device);
  if (found == result::kOutOfMemory) return CP_ERR_OUT_OF_MEMORY;
  if (found != result::kOk) return CP_ERR_INVALID_PARAMS;
  const boost::shared_ptr<GenericCPManager> manager = GenericCPManager::ExistingInstance();
  user_agent_ = manager ? manager->GetUserAgent() : std::string();
  const cp_discovery::DeviceServiceInfo* const service = __FindService(device);
  if (service == nullptr) return CP_ERR_OPERATION_FAILED;
  host_header_ = FormatHostLine(device.device_ip, device.device_port);
  callback_url_ = CallbackUrlOn(device.local_ip);
  if (callback_url_.empty()) return CP_ERR_OPERATION_FAILED;
  return utils::StringUtils::GetAbsoluteUri(service->event_sub_url, device.url_base,
                                            device.device_ip, device.device_port,
                                            device.description_path, event_url_);
} catch (const std::bad_alloc&) {
  return CP_ERR_OUT_OF_MEMORY;
}

int GenericSubscribeHandle::SubscribeService() try {
  return cp_control::Subscribe(device_udn_, host_header_, user_agent_, callback_url_, event_url_,
                               this, handler_id_);
} catch (const std::bad_alloc&) {
  return CP_ERR_OUT_OF_MEMORY;
}

// A part of the type is enough, so that a host may ask without the version.
const cp_discovery::DeviceServiceInfo* GenericSubscribeHandle::__FindService(
    const cp_discovery::DetailedDeviceInfo& device) const {
  for (const cp_discovery::DeviceServiceInfo& service : device.services) {
    if (service.service_type.find(service_type_) != std::string::npos) return &service;
  }
  return nullptr;
}

int GenericSubscribeHandle::UnSubscribeService() {
  return cp_control::Unsubscribe(handler_id_, host_header_);
}

void GenericSubscribeHandle::AbandonSubscription() {
  if (handler_id_ != 0) cp_control::Unsubscribe(handler_id_, host_header_);
}

void GenericSubscribeHandle::OnEventReceived(const std::string& body) {
  // The callback may unsubscribe this very handle.
  const boost::shared_ptr<GenericSubscribeHandle> self = shared_from_this();
  // After the end of the control point an event does not bring the manager back.
  const boost::shared_ptr<GenericCPManager> manager = GenericCPManager::ExistingInstance();
  EventCallback callback = nullptr;
  if (!manager || manager->GetEventListenerForCP(cp_handle_, callback) != CP_ERR_NONE ||
      callback == nullptr) {
    return;
  }
  Owned<CPArgument, FreeCPArgumentList> variables;
  const errorcodes code = ReadVariables(body, variables);
  const HostCallbackScope inside;
  callback(device_udn_.c_str(), code, variables.get());
}

}  // namespace generic_cp
}  // namespace vex_upnp

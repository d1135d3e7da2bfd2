#include "src/description_listener.h"

#include <list>
#include <new>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/ascii_text.h"
#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/log_limit.h"
#include "base/singleton.h"
#include "src/cp_discovery_manager.h"
#include "src/device_description_parser.h"
#include "src/device_key.h"
#include "src/device_list.h"
#include "src/discovery_hierarchy.h"
#include "src/location_check.h"
#include "src/request_packets.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

constexpr char kErrorPageStart[] = "<html>";
constexpr char kHttpScheme[] = "http://";

bool BeginsWithIgnoringCase(std::string_view text, std::string_view start) {
  return EqualsIgnoringCase(text.substr(0, start.size()), start);
}

// KEPT: a 300 passes for a success.
bool IsSuccess(const utils::HTTPInfo& http_info) {
  return http_info.GetStatusCode() >= 200 && http_info.GetStatusCode() <= 300;
}

// What is needed of a service to ask for its description, copied out of the device's record.
struct WantedService {
  std::string service_type;
  std::string service_id;
  std::string scpd_url;
  std::string control_url;
  std::string event_sub_url;
};

int CollectWantedServices(const boost::shared_ptr<Device>& device,
                          std::vector<WantedService>& wanted) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  // A device that has left the list meanwhile is asked nothing.
  if (!list->IsListed(device)) return result::kOk;
  if (device->services.empty()) VEX_LOG(kLogStep, kTag, "Service List of Device Empty");
  if (device->services.size() > limits::kServicesPerDevice) {
    static LogLimit once_a_second;
    if (once_a_second.Due()) {
      VEX_LOG(kLogMajor, kTag, "Too many services of device %s", device->udn.c_str());
    }
    return result::kFailure;
  }
  for (const auto& service : device->services) {
    if (!service->scpd_xml.empty()) continue;
    wanted.push_back({service->service_type, service->service_id, service->scpd_url,
                      service->control_url, service->event_sub_url});
  }
  return result::kOk;
}

// What became of a request that was to be listed.
enum class Adding { kAdded, kDeviceGone, kRefused };

// One step with the look at the device: whoever takes a device out of the list cancels its requests
// afterwards, so none may come in behind that. A request that outlived its device would keep it
// from being asked for afresh.
Adding AddRequest(CPDiscoveryManager& manager, const boost::shared_ptr<Device>& device,
                  const boost::shared_ptr<NowRequesting>& request) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  if (!list->IsListed(device)) return Adding::kDeviceGone;
  return manager.AddNowRequesting(request) == result::kOk ? Adding::kAdded : Adding::kRefused;
}

// Control and event URLs are used much later; they are looked at now, in the form in which they
// will be used, so that a device whose URLs cannot be right is never shown.
const char* WhyReferenceUnusable(const std::string& reference, const Device& device) {
  if (reference.empty()) return nullptr;
  std::string absolute;
  const int result = utils::StringUtils::GetAbsoluteUri(reference, device.url_base, device.ip,
                                                        device.port, device.base_url, absolute);
  return result == result::kOk ? WhyUrlUnusable(absolute, device.ip) : "URL cannot be formed";
}

const char* WhyServiceUnusable(const WantedService& service, const Device& device,
                               const std::string& url, const std::string& host, int port) {
  // Without an id the answer would pass for a device description.
  if (service.service_id.empty()) return "service without id";
  // It becomes part of a header line of each action.
  if (HasLineEnd(service.service_type)) return "line end in service type";
  const char* reason = WhyUnusable(url, host, port, device.ip);
  if (reason == nullptr) reason = WhyReferenceUnusable(service.control_url, device);
  if (reason == nullptr) reason = WhyReferenceUnusable(service.event_sub_url, device);
  return reason;
}

boost::shared_ptr<NowRequesting> MakeServiceRequest(const std::string& udn,
                                                    const std::string& service_id,
                                                    const std::string& path,
                                                    const std::string& host, int port,
                                                    const std::string& user_agent) {
  try {
    return boost::shared_ptr<NowRequesting>(
        new NowRequesting(udn, service_id, path, host, port, user_agent));
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return boost::shared_ptr<NowRequesting>();
  }
}

int RequestService(CPDiscoveryManager& manager, const boost::shared_ptr<Device>& listed,
                   const WantedService& service, const std::string& user_agent) {
  const Device& device = *listed;
  const std::string url = DescriptionListener::MakeServiceUrl(service.scpd_url, device);
  std::string host;
  std::string path;
  int port = 0;
  if (!utils::StringUtils::ParseURI(url, host, port, path)) {
    VEX_LOG(kLogMajor, kTag, "Unable to form service  URI from abs_uri ");
    return result::kFailure;
  }
  const char* const reason = WhyServiceUnusable(service, device, url, host, port);
  if (reason != nullptr) {
    static LogLimit once_a_second;
    if (once_a_second.Due()) {
      VEX_LOG(kLogMajor, kTag, "Service of device %s refused, %s", device.udn.c_str(), reason);
    }
    return result::kFailure;
  }
  const std::string packet = FormatDescriptionRequest(path, host, port, user_agent);
  VEX_LOG(kLogDetail, kTag, "service_description_request :%s", packet.c_str());
  const boost::shared_ptr<NowRequesting> request =
      MakeServiceRequest(device.udn, service.service_id, path, host, port, user_agent);
  if (!request) return result::kOutOfMemory;
  const Adding adding = AddRequest(manager, listed, request);
  if (adding == Adding::kDeviceGone) return result::kOk;
  if (adding == Adding::kRefused) return result::kFailure;
  manager.StartNowRequesting(request);
  const int result =
      manager.SendNowRequesting(request, packet, DescriptionListener::ExistingInstance());
  // KEPT: no immediate second try here, and the request stays listed; its timer tries again.
  if (result != result::kOk) VEX_LOG(kLogMajor, kTag, "SendTCPPacket failed !!!");
  return result;
}

void BindToInterface(const utils::HTTPInfo& http_info, Device& device) {
  http_info.GetMyIpAddress(device.interface_ip);
  if (device.interface_ip == kLoopbackAddress) {
    device.interface_name = kLoopbackName;
  } else {
    getInterfaceName(device.interface_ip, device.interface_name);
  }
  device.udn = MakeDeviceKey(device.udn, device.interface_name);
}

void CompleteFromRequest(const NowRequesting& request, const utils::HTTPInfo& http_info,
                         Device& device) {
  device.ip = request.ip;
  if (device.ip.empty()) http_info.GetClientIpAddress(device.ip);
  device.port = request.port;
  if (device.port < 1) http_info.GetClientPort(device.port);
  device.base_url = request.base_url;
  device.description_url = request.request_target;
}

// What became of a device that was to be listed.
enum class Listing { kListed, kNoRoom, kKnownAlready };

Listing ListDevice(boost::shared_ptr<Device>& device, boost::shared_ptr<Device>& existing,
                   std::list<boost::shared_ptr<Device>>& listed) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  std::list<boost::shared_ptr<Device>> dropped;
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  existing = list->IsDeviceAdded(device->udn);
  if (existing) return Listing::kKnownAlready;
  return ListDeviceHierarchy(*list, device, dropped, listed) ? Listing::kListed : Listing::kNoRoom;
}

bool IsAcceptedDevice(const std::string& type) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  return list->IsAcceptedDevice(type);
}

enum class Storing { kNoDevice, kNoRoom, kWasReady, kIncomplete, kComplete };

// Files the body with its service; `device` receives the record, if there is one.
Storing StoreServiceDescription(const NowRequesting& request, std::string body,
                                boost::shared_ptr<Device>& device) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  device = list->IsDeviceAdded(request.udn);
  if (!device) return Storing::kNoDevice;
  if (device->services_ready) return Storing::kWasReady;
  if (!list->Reserve(device, body.size())) return Storing::kNoRoom;
  bool complete = true;
  bool stored = false;
  for (const auto& service : device->services) {
    if (!stored && service->service_id == request.service_id) {
      service->scpd_xml.swap(body);
      stored = true;
    }
    if (service->scpd_xml.empty()) complete = false;
  }
  return complete ? Storing::kComplete : Storing::kIncomplete;
}

void LogNoRoom(const NowRequesting& request) {
  static LogLimit once_a_second;
  if (!once_a_second.Due()) return;
  VEX_LOG(kLogMajor, kTag, "No room for service descriptions of device %s", request.udn.c_str());
}

}  // namespace

boost::shared_ptr<DescriptionListener>& DescriptionListener::m_instance_ =
    *new boost::shared_ptr<DescriptionListener>;
boost::mutex& DescriptionListener::singleton_mutex_ = *new boost::mutex;

boost::shared_ptr<DescriptionListener> DescriptionListener::GetInstance() {
  boost::lock_guard<boost::mutex> lock(singleton_mutex_);
  if (!m_instance_) m_instance_.reset(new DescriptionListener, &DescriptionListener::Deleter);
  return m_instance_;
}

boost::shared_ptr<DescriptionListener> DescriptionListener::ExistingInstance() {
  return ExistingShared(m_instance_, singleton_mutex_);
}

void DescriptionListener::DestroyInstance() {
  const boost::shared_ptr<DescriptionListener> ended = ExistingInstance();
  if (!ended) return;
  const void* const address = ended.get();
  const LogSite site = VEX_LOG_SITE;
  int looked = ended->use_count_.value();
  VEX_LOG(kLogStep, kTag, "before destroy instance (%p)(%d)", address, looked);
  TerminateWhenIdle(m_instance_, singleton_mutex_, &DescriptionListener::use_count_,
                    [&looked, site](DescriptionListener& instance) {
                      const int now = instance.use_count_.value();
                      if (now != looked)
                        VEX_LOG_AT(site, kLogStep, kTag, "use_count_ not zero, continue");
                      looked = now;
                    });
  VEX_LOG(kLogStep, kTag, "destroy instance (%p)(%d)", address, ended->use_count_.value());
}

void DescriptionListener::Deleter(DescriptionListener* instance) {
  const void* const address = instance;
  delete instance;
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): the address is printed, not looked at.
  VEX_LOG(kLogStep, kTag, "DescriptionListener[%p] deleted!", address);
}

void DescriptionListener::OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> http_info,
                                             const int& session_id) {
  VEX_LOG(kLogDetail, kTag, "Enter %d", session_id);
  const UseCountGuard guard(use_count_);
  if (!guard.entered()) {
    VEX_LOG(kLogStep, kTag, "Received after CP termination");
    return;
  }
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;
  try {
    HandleResponse(*manager, http_info, session_id);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in OnResponseReceived: %s",
                        "Unknown Exception in OnResponseReceived");
    manager->GiveUp(session_id);
  }
}

void DescriptionListener::HandleResponse(CPDiscoveryManager& manager,
                                         const boost::shared_ptr<utils::HTTPInfo>& http_info,
                                         int session_id) {
  const boost::shared_ptr<NowRequesting> request = manager.GetNowRequesting(session_id);
  if (!request) {
    VEX_LOG(kLogStep, kTag, "request ptr not found for session id %d", session_id);
    return;
  }
  request->Stop();
  VEX_LOG(kLogDetail, kTag, "Stop NowRequesting %d", session_id);
  if (request->IsForService()) {
    VEX_LOG(kLogDetail, kTag, "service description received");
    ServiceDescriptionReceived(manager, http_info.get(), *request);
  } else {
    DeviceDescriptionReceived(manager, http_info.get(), *request);
  }
  manager.RemoveNowRequestingBySessionId(session_id);
}

void DescriptionListener::DeviceDescriptionReceived(CPDiscoveryManager& manager,
                                                    utils::HTTPInfo* http_info,
                                                    const NowRequesting& request) {
  boost::shared_ptr<Device> device = ReadDescription(http_info);
  if (!device) return;
  BindToInterface(*http_info, *device);
  CompleteFromRequest(request, *http_info, *device);
  boost::shared_ptr<Device> existing;
  std::list<boost::shared_ptr<Device>> listed;
  switch (ListDevice(device, existing, listed)) {
    case Listing::kListed:
      PopulateServiceDescription(manager, listed);
      return;
    case Listing::kKnownAlready:
      CheckEmbeddedDeviceExistance(manager, request.udn, existing);
      return;
    case Listing::kNoRoom:
      return;
  }
}

// Null when the answer holds no description of a device that is asked for.
boost::shared_ptr<Device> DescriptionListener::ReadDescription(utils::HTTPInfo* http_info) {
  boost::shared_ptr<Device> none;
  if (http_info == nullptr) {
    VEX_LOG(kLogMajor, kTag, "httpInfo is NULL");
    return none;
  }
  if (!IsSuccess(*http_info)) return none;
  std::string body;
  http_info->ReadBody(body);
  if (body.empty()) {
    VEX_LOG(kLogMajor, kTag, "body is NONE");
    std::string start_line;
    if (http_info->GetStartLine(start_line) == result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Reason => %s", start_line.c_str());
    }
    return none;
  }
  utils::StringUtils::TrimStringOnLeft(body);
  if (BeginsWithIgnoringCase(body, kErrorPageStart)) {
    VEX_LOG(kLogMajor, kTag, "Reason for description failure:\n%s", body.c_str());
    return none;
  }
  try {
    boost::shared_ptr<Device> device(new Device);
    if (DeviceDescriptionParser::MakeDeviceInfo(body, device) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "MakeDeviceInfo failed");
      return none;
    }
    if (!IsAcceptedDevice(device->device_type)) {
      VEX_LOG(kLogStep, kTag, "Not Accepted Device[%s]", device->device_type.c_str());
      return none;
    }
    device->description_xml.reset(new std::string(std::move(body)));
    return device;
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return none;
  }
}

// Whatever becomes of a device, those embedded in it are asked for all the same.
void DescriptionListener::PopulateServiceDescription(
    CPDiscoveryManager& manager, const std::list<boost::shared_ptr<Device>>& listed) {
  for (const boost::shared_ptr<Device>& device : listed) {
    int requests = 0;
    try {
      if (!DescribeServices(manager, device, requests)) continue;
      if (requests == 0) manager.NotifyDeviceReady(device);
      VEX_LOG(kLogStep, kTag, "Sent request for %d services", requests);
    } catch (...) {
      // What could not be described has left the list; what is ready stays, whatever its listeners
      // throw.
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    }
  }
}

// Asks for what is missing of the services; a device of which that is not possible leaves the list.
bool DescriptionListener::DescribeServices(CPDiscoveryManager& manager,
                                           const boost::shared_ptr<Device>& device,
                                           int& requests) try {
  if (GetServiceDescription(manager, device, requests) == result::kOk) return true;
  VEX_LOG(kLogMajor, kTag, "Unable to fetch service description for device %s ",
          device->udn.c_str());
  if (requests > 0) manager.RemoveNowRequestingByUdn(device->udn);
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  list->Remove(device);
  return false;
} catch (...) {
  // It could never become ready, nor be asked for afresh.
  manager.LoseDevice(device->udn);
  throw;
}

int DescriptionListener::GetServiceDescription(CPDiscoveryManager& manager,
                                               const boost::shared_ptr<Device>& device,
                                               int& requests) {
  requests = 0;
  VEX_LOG(kLogDetail, kTag, "GetServiceDescription for device %s", device->udn.c_str());
  std::vector<WantedService> wanted;
  int result = CollectWantedServices(device, wanted);
  if (result != result::kOk) return result;
  // KEPT: the default agent alone counts, so with none set the header goes out empty.
  std::string user_agent = "Tolmark CP";
  manager.GetDefaultUserAgent(user_agent);
  std::set<std::string> asked;
  for (const WantedService& service : wanted) {
    // The second of one id is a duplicate, whether or not the first has been answered by now.
    if (!asked.insert(service.service_id).second) return result::kFailure;
    result = RequestService(manager, device, service, user_agent);
    if (result != result::kOk) return result;
    ++requests;
  }
  return result::kOk;
}

std::string DescriptionListener::MakeServiceUrl(const std::string& scpd_url, const Device& device) {
  const std::string& url_base = device.url_base;
  const bool base_ends_with_slash = !url_base.empty() && url_base.back() == '/';
  if (!scpd_url.empty() && scpd_url[0] == '/') {
    if (base_ends_with_slash) return url_base + scpd_url.substr(1);
    if (!url_base.empty()) return url_base + scpd_url;
    return kHttpScheme + device.ip + ":" + std::to_string(device.port) + scpd_url;
  }
  if (BeginsWithIgnoringCase(scpd_url, kHttpScheme)) return scpd_url;
  if (base_ends_with_slash) return url_base + scpd_url;
  return (url_base.empty() ? device.base_url : url_base) + "/" + scpd_url;
}

// The text is kept as it came; nobody looks whether it is XML.
void DescriptionListener::ServiceDescriptionReceived(CPDiscoveryManager& manager,
                                                     utils::HTTPInfo* http_info,
                                                     const NowRequesting& request) {
  if (http_info != nullptr && !IsSuccess(*http_info)) {
    VEX_LOG(kLogMajor, kTag, "Error code %u by device %s ", http_info->GetStatusCode(),
            request.udn.c_str());
    manager.LoseDevice(request.udn);
    return;
  }
  std::string body;
  if (http_info != nullptr) http_info->ReadBody(body);
  if (body.empty()) {
    VEX_LOG(kLogMajor, kTag, "Unable to fetch service description for device %s ",
            request.udn.c_str());
    manager.LoseDevice(request.udn);
    return;
  }
  boost::shared_ptr<Device> device;
  switch (StoreServiceDescription(request, std::move(body), device)) {
    case Storing::kNoDevice:
      manager.RemoveNowRequestingByUdn(request.udn);
      return;
    case Storing::kNoRoom:
      LogNoRoom(request);
      manager.LoseDevice(request.udn);
      return;
    case Storing::kWasReady:
      VEX_LOG(kLogStep, kTag, "Service description received for already notified device %s",
              request.udn.c_str());
      return;
    case Storing::kIncomplete:
      return;
    case Storing::kComplete:
      VEX_LOG(kLogStep, kTag, "All services available for device %s ", request.udn.c_str());
      manager.NotifyDeviceReady(device);
      return;
  }
}

// An embedded device that was lost on its own announces itself while its root is still listed: it
// is listed anew from the record that the root has kept.
void DescriptionListener::CheckEmbeddedDeviceExistance(CPDiscoveryManager& manager,
                                                       const std::string& udn,
                                                       const boost::shared_ptr<Device>& root) {
  boost::shared_ptr<Device> device = FindEmbeddedDevice(root, udn);
  if (!device) return;
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    // With the root it went as one of its parts, and has been told.
    if (!list->IsListed(root) || list->IsDeviceAdded(udn) || !list->Add(device)) return;
  }
  int requests = 0;
  if (!DescribeServices(manager, device, requests) || requests > 0) return;
  VEX_LOG(kLogDetail, kTag, "Services already available for device. Notifying ");
  manager.NotifyDeviceReady(device);
}

void getInterfaceName(const std::string& ip, std::string& name) {
  if (ip.empty()) {
    VEX_LOG(kLogStep, kTag, "ip empty!!!");
    return;
  }
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  for (const network_layer::NetInfo& info : interfaces) {
    if (info.ip_address != ip) continue;
    name = info.name;
    return;
  }
}

}  // namespace cp_discovery
}  // namespace vex_upnp

#include "src/discovery_listener.h"

#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/log_limit.h"
#include "base/number_text.h"
#include "base/singleton.h"
#include "src/cp_discovery_manager.h"
#include "src/description_listener.h"
#include "src/device_key.h"
#include "src/device_list.h"
#include "src/location_check.h"
#include "src/now_requesting.h"
#include "src/request_packets.h"
#include "src/upnp_constants.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

boost::shared_ptr<NowRequesting> MakeRequest(const std::string& udn, const std::string& location,
                                             const std::string& ip, int port,
                                             const std::string& base_url,
                                             const std::string& user_agent) {
  try {
    return boost::shared_ptr<NowRequesting>(
        new NowRequesting(udn, location, ip, port, base_url, user_agent));
  } catch (const std::bad_alloc&) {
    return boost::shared_ptr<NowRequesting>();
  }
}

// One immediate second try: a connection that cannot even be begun is often a passing shortage.
int SendTwice(CPDiscoveryManager& manager, const boost::shared_ptr<NowRequesting>& request,
              const std::string& packet, const boost::shared_ptr<DescriptionListener>& listener) {
  VEX_LOG(kLogStep, kTag, "Making description request for [%s]", request->udn.c_str());
  if (manager.SendNowRequesting(request, packet, listener) == result::kOk) return result::kOk;
  VEX_LOG(kLogStep, kTag, "Retry for description request for [%s]", request->udn.c_str());
  const int result = manager.SendNowRequesting(request, packet, listener);
  if (result != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "SendTCPHTTPPacket failed");
    manager.RemoveNowRequestingByUdn(request->udn);
  }
  return result;
}

}  // namespace

boost::shared_ptr<DiscoveryListener>& DiscoveryListener::instance_ =
    *new boost::shared_ptr<DiscoveryListener>;
boost::mutex& DiscoveryListener::singleton_mutex_ = *new boost::mutex;

boost::shared_ptr<DiscoveryListener> DiscoveryListener::GetInstance() {
  return GetOrCreateShared(instance_, singleton_mutex_, [] { return new DiscoveryListener; });
}

void DiscoveryListener::Terminate() {
  TerminateWhenIdle(instance_, singleton_mutex_, &DiscoveryListener::use_count_);
}

void DiscoveryListener::OnUDPRequestReceived(boost::shared_ptr<utils::HTTPInfo> info) {
  const UseCountGuard guard(use_count_);
  if (!guard.entered()) {
    VEX_LOG(kLogStep, kTag, "Received after CP termination");
    return;
  }
  try {
    HandlePacket(info);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in OnUDPRequestReceived: %s",
                        "Unknown Exception in OnUDPRequestReceived");
  }
}

void DiscoveryListener::HandlePacket(const boost::shared_ptr<utils::HTTPInfo>& info) {
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;

  std::string usn;
  if (info->GetHeaderValue("USN", usn) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Header Value not found.");
  }
  std::string udn;
  if (RetrieveUDN(usn, udn) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "RetrieveUDN failed");
    return;
  }
  const SsdpPacket kind = RetrieveResponse(info);
  Sender sender;
  if (!FindInterface(*info, sender)) return;
  udn = MakeDeviceKey(udn, sender.interface_name);

  if (kind == SSDP_BYEBYE) {
    RemoveDevice(*manager, udn);
    return;
  }
  if (kind != SSDP_ALIVE && kind != SSDP_SEARCH_RESPONSE) {
    VEX_LOG(kLogStep, kTag, "UNKNOWN");
    return;
  }
  if (Refresh(udn)) return;
  const std::string user_agent = UserAgentFor(*manager, *info, kind);
  if (SendDeviceDescriptionRequest(*manager, *info, udn, user_agent, sender) == result::kOk) {
    VEX_LOG(kLogDetail, kTag,
            "Recv M-SEARCH res from NEW dev [%s] client_ip = [%s] Interface ip [%s]", udn.c_str(),
            sender.client_ip.c_str(), sender.local_ip.c_str());
  }
}

// The interface on which the sender is met.
bool DiscoveryListener::FindInterface(const utils::HTTPInfo& info, Sender& sender) {
  info.GetClientIpAddress(sender.client_ip);
  if (sender.client_ip == kLoopbackAddress) {
    sender.interface_name = kLoopbackName;
    return true;
  }
  if (network_layer::GetOutgoingIPaddress(sender.client_ip, sender.local_ip) != result::kOk) {
    VEX_LOG(kLogStep, kTag, "No interface is found!");
    return false;
  }
  network_layer::NetInfo net_info;
  if (network_layer::GetNetworkInterfaceByIP(sender.local_ip, net_info) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "Network Info Not found");
    return false;
  }
  sender.interface_name = net_info.name;
  return true;
}

void DiscoveryListener::RemoveDevice(CPDiscoveryManager& manager, const std::string& udn) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    // A stranger's farewell waits for no observer.
    if (!list->IsDeviceAdded(udn)) return;
  }
  boost::lock_guard<boost::recursive_mutex> delivery(manager.delivery_mutex());
  DeviceList::Devices removed;
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    const boost::shared_ptr<Device> device = list->IsDeviceAdded(udn);
    if (!device) return;
    removed = list->RemoveDeviceHierarchy(device);
  }
  // KEPT: a device that was not ready is told as removed too, with no added event before.
  manager.NotifyRemovedDevices(removed);
}

// A device that is known already shows with any packet that it is still there.
bool DiscoveryListener::Refresh(const std::string& udn) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  const boost::shared_ptr<Device> device = list->IsDeviceAdded(udn);
  if (device) device->is_valid = true;
  return device != nullptr;
}

std::string DiscoveryListener::UserAgentFor(CPDiscoveryManager& manager, utils::HTTPInfo& info,
                                            SsdpPacket kind) {
  std::string type;
  bool has_type = false;
  if (kind == SSDP_ALIVE) {
    has_type = info.GetHeaderValue("NT", type) == result::kOk && type.compare(0, 4, "uuid") != 0;
  } else {
    has_type = info.GetHeaderValue("ST", type) == result::kOk;
  }
  std::string user_agent;
  if (has_type) manager.GetUserAgentByDeviceType(type, user_agent);
  if (user_agent.empty()) manager.GetDefaultUserAgent(user_agent);
  return user_agent;
}

int DiscoveryListener::SendDeviceDescriptionRequest(CPDiscoveryManager& manager,
                                                    utils::HTTPInfo& info, const std::string& udn,
                                                    const std::string& user_agent,
                                                    const Sender& sender) {
  std::string location;
  if (info.GetHeaderValue("Location", location) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Header value not found.");
  }
  if (location.empty()) {
    VEX_LOG(kLogMajor, kTag, "Description Url is empty");
    return result::kFailure;
  }
  std::string ip;
  std::string path;
  int port = 0;
  if (ParseURI(location, ip, port, path) != result::kYes) {
    VEX_LOG(kLogDetail, kTag, "ParseURI failed");
    return result::kMalformedDocument;
  }
  const char* const reason = WhyUnusable(location, ip, port, sender.client_ip);
  if (reason != nullptr) {
    static LogLimit once_a_second;
    if (once_a_second.Due()) {
      VEX_LOG(kLogMajor, kTag, "Location of [%s] refused, %s", udn.c_str(), reason);
    }
    return result::kMalformedDocument;
  }
  const boost::shared_ptr<DescriptionListener> listener = DescriptionListener::GetInstance();
  if (!listener) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return result::kOutOfMemory;
  }
  std::string base_url;
  if (ParseLocationURL(location, base_url) != result::kYes) {
    VEX_LOG(kLogMajor, kTag, "ParseLocationURL failed");
    return result::kMalformedDocument;
  }
  const boost::shared_ptr<NowRequesting> request =
      MakeRequest(udn, location, ip, port, base_url, user_agent);
  if (!request) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return result::kOutOfMemory;
  }
  // One request comes of the many announcements of one device.
  if (manager.AddNowRequesting(request) != result::kOk) return result::kFailure;
  try {
    manager.StartNowRequesting(request);
  } catch (...) {
    // Without its timer it would stand in the way of the device's next announcement for ever.
    manager.RemoveNowRequestingByUdn(udn);
    throw;
  }
  return SendTwice(manager, request, FormatDescriptionRequest(path, ip, port, user_agent),
                   listener);
}

int DiscoveryListener::RetrieveUDN(const std::string& usn, std::string& udn) {
  if (usn.empty()) {
    VEX_LOG(kLogStep, kTag, "String length of USN is <= 0");
    return result::kOutOfMemory;
  }
  const std::string value = usn[0] == ' ' ? usn.substr(1) : usn;
  const std::size_t end = value.find("::");
  if (end != std::string::npos) {
    udn = value.substr(0, end);
  } else if (value.find("\r\n") == std::string::npos) {
    udn = value;
  } else {
    udn.clear();
  }
  return result::kOk;
}

SsdpPacket DiscoveryListener::RetrieveResponse(const boost::shared_ptr<utils::HTTPInfo>& info) {
  std::string nts;
  if (info->GetHeaderValue("NTS", nts) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Header Value not found.");
  }
  if (nts == kSsdpAlive) return SSDP_ALIVE;
  if (nts == kSsdpByebye) return SSDP_BYEBYE;
  std::string usn;
  if (info->GetHeaderValue("USN", usn) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Header value not found.");
  }
  return usn.empty() ? SSDP_UNKNOWN : SSDP_SEARCH_RESPONSE;
}

// KEPT: no port of 80 is assumed; a URL without one is refused.
int DiscoveryListener::ParseURI(const std::string& url, std::string& ip, int& port,
                                std::string& path) {
  const std::size_t slashes = url.find("//");
  if (slashes == std::string::npos) return result::kNo;
  const std::size_t host = slashes + 2;
  const std::size_t colon = url.find(':', host);
  if (colon == std::string::npos) {
    VEX_LOG(kLogMajor, kTag, "No IP value");
    return result::kNo;
  }
  ip = url.substr(host, colon - host);
  const std::size_t slash = url.find('/', colon + 1);
  const std::size_t port_end = slash == std::string::npos ? url.size() : slash;
  if (!ToNumber(url.data() + colon + 1, port_end - colon - 1, port)) {
    VEX_LOG(kLogMajor, kTag, "Invalid string value");
    return result::kNo;
  }
  path = slash == std::string::npos ? "/" : url.substr(slash);
  return result::kYes;
}

int DiscoveryListener::ParseLocationURL(const std::string& url, std::string& base) {
  const std::size_t slash = url.rfind('/');
  if (slash == std::string::npos) {
    VEX_LOG(kLogMajor, kTag, "Invalid uri");
    return result::kNo;
  }
  base = url.substr(0, slash);
  return result::kYes;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

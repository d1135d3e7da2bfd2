#include <vexupnpcp/cp_discovery.h>

#include <memory>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "src/cp_discovery_manager.h"
#include "src/device.h"
#include "src/device_list.h"
#include "src/observer.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

constexpr char kProductCapName[] = "tmk:ProductCap";

// Where a device is, seen from this machine.
constexpr int kDomainUnknown = 0;
constexpr int kDomainThisMachine = 1;
constexpr int kDomainSameSubnet = 2;
constexpr int kDomainElsewhere = 3;

// To be called inside a catch (...): nothing is thrown at the host.
int Caught(const LogSite& site) {
  LogCurrentException(site, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  return CaughtNoMemory() ? result::kOutOfMemory : result::kFailure;
}

boost::shared_ptr<Device> FindReadyDevice(const std::string& udn) {
  return DeviceList::GetInstance()->LockAndGetDeviceByUdn(udn);
}

// Icons whose URL cannot be made absolute are left out.
void CopyIcons(const Device& device, std::list<DeviceIconInfo>& icons) {
  for (const auto& icon : device.icons) {
    std::string absolute;
    if (utils::StringUtils::GetAbsoluteUri(icon->url, device.url_base, device.ip, device.port,
                                           device.base_url, absolute) != result::kOk) {
      VEX_LOG(kLogDetail, kTag, "Error in forming control URI");
      continue;
    }
    icons.push_back({icon->mimetype, absolute, icon->width, icon->height, icon->depth});
  }
}

void CopyServices(const Device& device, std::list<DeviceServiceInfo>& services) {
  for (const auto& service : device.services) {
    services.push_back({service->service_key, service->service_owner, service->service_type,
                        service->service_id, service->scpd_url, service->control_url,
                        service->event_sub_url});
  }
}

void CopyTexts(const Device& device, DetailedDeviceInfo& info) {
  info.friendly_name = device.friendly_name;
  info.udn = device.udn;
  info.device_ip = device.ip;
  info.local_ip = device.interface_ip;
  info.interface_name = device.interface_name;
  info.url_base = device.url_base;
  info.device_port = device.port;
  info.location = device.description_url;
  info.serial_number = device.serial_number;
  info.manufacturer = device.manufacturer;
  info.model_name = device.model_name;
  info.model_number = device.model_number;
  info.device_type = device.device_type;
  info.description_path = device.base_url;
  if (device.description_xml) info.description_xml = *device.description_xml;
  info.display_name = device.display_name;
  info.model_description = device.model_description;
}

}  // namespace

int Initialize() try {
  if (CPDiscoveryManager::GetInstance()->Init() != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "CP Discovery Initialization Failure");
    return result::kFailure;
  }
  VEX_LOG(kLogStep, kTag, "CP Discovery Initialization SuccessFul");
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int Terminate() try {
  VEX_LOG(kLogStep, kTag, "CP Discovery Terminate");
  CPDiscoveryManager::Terminate();
  VEX_LOG(kLogStep, kTag, "CP Discovery Terminate DeviceList");
  DeviceList::Terminate();
  VEX_LOG(kLogStep, kTag, "CP Discovery Terminate Finish");
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int RegisterCP(const std::string& type, const std::string& user_agent, DeviceCallback callback,
               int* handle) try {
  if (type.empty()) {
    VEX_LOG(kLogMajor, kTag, "Device Type Empty");
    return result::kFailure;
  }
  const boost::shared_ptr<ControlPoint> control_point(new ControlPoint(callback));
  control_point->SetDeviceType(type);
  control_point->SetUserAgent(user_agent);
  const int id = CPDiscoveryManager::GetInstance()->AddDeviceChangeListener(control_point);
  if (handle != nullptr) *handle = id;
  if (id < 1) {
    VEX_LOG(kLogMajor, kTag, "Registering CP Failed");
    return result::kFailure;
  }
  VEX_LOG(kLogStep, kTag, "Registering CP Success");
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int UnRegisterCP(const int& handle) try {
  CPDiscoveryManager::GetInstance()->RemoveDeviceChangeListener(handle);
  VEX_LOG(kLogStep, kTag, "UnRegistering CP Success");
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

void Rescan(const std::string& type) try {
  if (CPDiscoveryManager::GetInstance()->Rescan(type) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Rescan failed.");
  }
} catch (...) {
  Caught(VEX_LOG_SITE);
}

void RescanForRegisteredCP() try {
  CPDiscoveryManager::GetInstance()->RescanForRegisteredCP();
} catch (...) {
  Caught(VEX_LOG_SITE);
}

void SetRescanConnectTimeout(int seconds) try {
  VEX_LOG(kLogStep, kTag, "Setting Rescan connect timeout to %d sec", seconds);
  CPDiscoveryManager::GetInstance()->SetRescanConnectTimeout(seconds);
} catch (...) {
  Caught(VEX_LOG_SITE);
}

void SetDefaultUserAgent(const std::string& agent) try {
  CPDiscoveryManager::GetInstance()->SetDefaultUserAgent(agent);
} catch (...) {
  Caught(VEX_LOG_SITE);
}

void GetDefaultUserAgent(std::string& agent) try {
  CPDiscoveryManager::GetInstance()->GetDefaultUserAgent(agent);
} catch (...) {
  Caught(VEX_LOG_SITE);
}

int EnableAutoRescanFeature() try {
  return CPDiscoveryManager::GetInstance()->EnableAutoRescan();
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int DisableAutoRescanFeature() try {
  return CPDiscoveryManager::GetInstance()->DisableAutoRescan();
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

// KEPT: an empty result counts as a failure.
int GetDeviceList(const std::string& type, std::list<DeviceInfo>* list) try {
  if (type.empty() || list == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Device Type is Empty and hence Getting Device List failed");
    return result::kFailure;
  }
  const std::unique_ptr<DeviceList::Devices> devices =
      CPDiscoveryManager::GetInstance()->GetDeviceListByType(type);
  if (!devices) {
    VEX_LOG(kLogMajor, kTag, "interesting device list NULL");
    return result::kFailure;
  }
  if (devices->empty()) {
    VEX_LOG(kLogMajor, kTag, "interesting device list empty");
    return result::kFailure;
  }
  for (const boost::shared_ptr<Device>& device : *devices) {
    list->push_back(MakeDeviceInfo(*device));
    list->back().display_name = device->display_name;
  }
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetDeviceDetailInfo(const std::string& udn, DetailedDeviceInfo* info) try {
  if (udn.empty() || info == nullptr) {
    VEX_LOG(kLogMajor, kTag, "INVALID PARAMS!");
    return result::kFailure;
  }
  const boost::shared_ptr<Device> device = FindReadyDevice(udn);
  if (!device) {
    VEX_LOG(kLogMajor, kTag, "Device not present for given udn.");
    return result::kFailure;
  }
  CopyTexts(*device, *info);
  getDeviceDomain(device->ip, info->device_domain);
  if (device->interface_ip.empty()) getDeviceInterface(device->ip, info->local_ip);
  CopyIcons(*device, info->icons);
  CopyServices(*device, info->services);
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetDeviceDescription(const std::string& udn, std::string& xml) try {
  if (udn.empty()) {
    VEX_LOG(kLogMajor, kTag, "INVALID PARAMS!");
    return result::kFailure;
  }
  const boost::shared_ptr<Device> device = FindReadyDevice(udn);
  if (!device) {
    VEX_LOG(kLogDetail, kTag, "Cannot find device for UDN %s!", udn.c_str());
    return result::kFailure;
  }
  if (!device->description_xml || device->description_xml->empty()) {
    VEX_LOG(kLogMajor, kTag, "Empty description!");
    return result::kFailure;
  }
  xml = *device->description_xml;
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetServiceDescription(const std::string& udn, const std::string& service_type,
                          std::string& xml) try {
  if (udn.empty() || service_type.empty()) {
    VEX_LOG(kLogStep, kTag, "Devcie udn and Service type Empty");
    return result::kFailure;
  }
  const boost::shared_ptr<Device> device = FindReadyDevice(udn);
  if (!device) {
    VEX_LOG(kLogMajor, kTag, "Not able to get device by its UDN");
    return result::kFailure;
  }
  if (device->services.empty()) {
    VEX_LOG(kLogMajor, kTag, "Service List of Device Empty");
    return result::kFailure;
  }
  for (const auto& service : device->services) {
    // A part of the type will do, so that hosts need not know the version.
    if (service->service_type.find(service_type) == std::string::npos) continue;
    xml = service->scpd_xml;
    VEX_LOG(kLogDetail, kTag, "Found service description %s", xml.c_str());
    return result::kOk;
  }
  VEX_LOG(kLogMajor, kTag, "Service description not found for %s %s", udn.c_str(),
          service_type.c_str());
  return result::kFailure;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetProductCap(const std::string& udn, std::string& value) try {
  if (udn.empty()) {
    VEX_LOG(kLogMajor, kTag, "INVALID PARAMS!");
    return result::kFailure;
  }
  const boost::shared_ptr<Device> device = FindReadyDevice(udn);
  if (!device) {
    VEX_LOG(kLogDetail, kTag, "Cannot find device for UDN %s!", udn.c_str());
    return result::kFailure;
  }
  for (const auto& field : device->additional_fields) {
    if (field->name.compare(0, sizeof(kProductCapName) - 1, kProductCapName) != 0) continue;
    value = field->value;
    return result::kOk;
  }
  VEX_LOG(kLogStep, kTag, "Cannot find Product cap!");
  return result::kFailure;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

// KEPT: interfaces are tried one at a time, so a subnet that matches hides an equal address on a
// later one.
int getDeviceDomain(const std::string& ip, int& domain) try {
  if (ip.empty()) {
    VEX_LOG(kLogMajor, kTag, "device ip is null/empty.");
    domain = kDomainUnknown;
    return result::kOk;
  }
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  for (network_layer::NetInfo& info : interfaces) {
    if (info.ip_address == ip) {
      domain = kDomainThisMachine;
      return result::kOk;
    }
    if (network_layer::IsSameSubnet(ip, info.ip_address, info.subnet_mask)) {
      domain = kDomainSameSubnet;
      return result::kOk;
    }
  }
  domain = kDomainElsewhere;
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int getDeviceInterface(const std::string& ip, std::string& local_ip) try {
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  for (network_layer::NetInfo& info : interfaces) {
    if (!network_layer::IsSameSubnet(ip, info.ip_address, info.subnet_mask)) continue;
    local_ip = info.ip_address;
    return result::kOk;
  }
  return result::kFailure;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

}  // namespace cp_discovery
}  // namespace vex_upnp

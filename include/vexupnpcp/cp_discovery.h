#ifndef VEXUPNPCP_CP_DISCOVERY_H_
#define VEXUPNPCP_CP_DISCOVERY_H_

#include <list>
#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace cp_discovery {

enum DeviceEventType : int { DEVICE_ADDED = 1, DEVICE_REMOVED = 2 };
typedef DeviceEventType DeviceStatus_;

struct DeviceIconInfo {
  std::string mimetype;
  std::string url;
  std::string width;
  std::string height;
  std::string depth;
};

struct DeviceServiceInfo {
  std::string service_key;
  std::string service_owner;
  std::string service_type;
  std::string service_id;
  std::string scpd_url;
  std::string control_url;
  std::string event_sub_url;
};

struct DeviceInfo {
  std::string friendly_name;
  std::string udn;
  std::string display_name;
  std::string device_type;
  std::string interface_name;
  std::list<DeviceIconInfo> icons;
};

struct DetailedDeviceInfo {
  std::string friendly_name;
  std::string udn;
  std::string device_ip;
  std::string local_ip;
  std::string interface_name;
  std::string url_base;
  int device_port = 0;
  std::string location;
  std::string serial_number;
  std::string manufacturer;
  std::string model_name;
  std::string model_number;
  std::string device_type;
  std::string description_path;
  std::string description_xml;
  std::string display_name;
  std::list<DeviceIconInfo> icons;
  std::list<DeviceServiceInfo> services;
  int device_domain = 0;
  std::string model_description;
};

typedef void (*DeviceCallback)(int id, DeviceEventType event, DeviceInfo* device);

VEX_EXPORT int Initialize();
VEX_EXPORT int Terminate();
VEX_EXPORT int RegisterCP(const std::string& type, const std::string& user_agent,
                          DeviceCallback callback, int* handle);
VEX_EXPORT int UnRegisterCP(const int& handle);
VEX_EXPORT void Rescan(const std::string& type);
VEX_EXPORT void RescanForRegisteredCP();
VEX_EXPORT void SetRescanConnectTimeout(int seconds);
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);
VEX_EXPORT int EnableAutoRescanFeature();
VEX_EXPORT int DisableAutoRescanFeature();
VEX_EXPORT int GetDeviceList(const std::string& type, std::list<DeviceInfo>* list);
VEX_EXPORT int GetDeviceDetailInfo(const std::string& udn, DetailedDeviceInfo* info);
VEX_EXPORT int GetDeviceDescription(const std::string& udn, std::string& xml);
VEX_EXPORT int GetServiceDescription(const std::string& udn, const std::string& service_type,
                                     std::string& xml);
VEX_EXPORT int GetProductCap(const std::string& udn, std::string& value);
VEX_EXPORT int getDeviceDomain(const std::string& ip, int& domain);
VEX_EXPORT int getDeviceInterface(const std::string& ip, std::string& local_ip);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_CP_DISCOVERY_H_

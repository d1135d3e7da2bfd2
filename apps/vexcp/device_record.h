#ifndef VEXCP_DEVICE_RECORD_H_
#define VEXCP_DEVICE_RECORD_H_

#include <vexupnpcp/generic_cp.h>

#include <string>
#include <vector>

namespace vexcp {

struct ServiceRecord {
  std::string type;
  std::string id;
  std::string scpd_url;
  std::string control_url;
  std::string event_sub_url;
};

struct IconRecord {
  std::string mimetype;
  std::string width;
  std::string height;
  std::string depth;
  std::string url;
};

// One device on one interface, copied from what the library hands out.
struct DeviceRecord {
  // UDN, "+", interface: what the library's functions take.
  std::string key;
  std::string name;
  std::string display_name;
  std::string type;
  std::string interface_name;
  std::string device_ip;
  int device_port = 0;
  std::string local_ip;
  std::string location;
  std::string url_base;
  std::string description_path;
  std::string manufacturer;
  std::string model_name;
  std::string model_number;
  std::string serial_number;
  std::string description_xml;
  int domain = 0;
  std::vector<IconRecord> icons;
  std::vector<ServiceRecord> services;

  // The key without its interface.
  std::string Udn() const;
};

// The first service whose type contains the word, in any case; null without one.
const ServiceRecord* FindService(const DeviceRecord& device, const std::string& word);

// The same. Throws Failure, which names the services there are.
const ServiceRecord& RequireService(const DeviceRecord& device, const std::string& word);

DeviceRecord MakeDeviceRecord(const CPDetailedDeviceInfo& info);

// "uuid:X+eth0" and the like: whether the user's word, which may lack "uuid:" and the interface,
// means the device with that key.
bool Means(const std::string& word, const std::string& key);

// The key without "+" and the interface.
std::string UdnOfKey(const std::string& key);

}  // namespace vexcp

#endif  // VEXCP_DEVICE_RECORD_H_

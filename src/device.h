#ifndef VEXUPNPCP_SRC_DEVICE_H_
#define VEXUPNPCP_SRC_DEVICE_H_

#include <list>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vexupnpcp/vexuncopyable.h>

#include "src/held_bytes.h"

namespace vex_upnp {
namespace cp_discovery {

struct DeviceIcon {
  std::string mimetype;
  std::string width;
  std::string height;
  std::string depth;
  std::string url;
  // Nobody fills it.
  std::string reserved;
};

struct ServiceInfo {
  // Discovery leaves these two empty.
  std::string service_key;
  std::string service_owner;
  std::string service_type;
  std::string service_id;
  std::string scpd_url;
  std::string control_url;
  std::string event_sub_url;
  // Body of the service description; empty until it has arrived.
  std::string scpd_xml;
};

// A child of the root `device` element that the parser does not know, such as a vendor capability.
struct AdditionalFieldInfo {
  std::string name;
  std::string value;
};

// One UPnP device on one network interface; a device reachable on two interfaces is two of these.
// Nobody else sees a device before it stands in the device list. From then on its fields are
// written under the list's mutex.
class Device : private VEXUncopyable {
 public:
  Device() = default;
  // Takes any depth of embedded devices apart without recursion.
  ~Device() override;

  // As the search answer or announcement gave it.
  std::string description_url;
  std::string spec_minor;
  std::string spec_major;
  // Root devices only.
  std::string dlna_cap;
  std::string device_type;
  std::string friendly_name;
  std::string manufacturer;
  std::string manufacturer_url;
  std::string model_description;
  std::string model_name;
  std::string model_number;
  std::string model_url;
  // From the description, then extended to the key of the device list.
  std::string udn;
  // The description's URL in front of its last "/".
  std::string base_url;
  // The URLBase element.
  std::string url_base;
  std::string upc;
  std::string serial_number;
  std::string presentation_url;
  std::string ip;
  int port = 0;
  // Made when the device is listed: a prefix from the model description, and the friendly name.
  std::string display_name;
  // The local address that the description arrived on, and its interface's name or "localhost".
  std::string interface_ip;
  std::string interface_name;
  std::list<std::unique_ptr<DeviceIcon>> icons;
  std::list<std::unique_ptr<ServiceInfo>> services;
  // All service descriptions are held.
  bool services_ready = false;
  std::list<boost::shared_ptr<Device>> embedded_devices;
  std::list<std::unique_ptr<AdditionalFieldInfo>> additional_fields;
  // Cleared before a rescan, set again by the device's answer.
  bool is_valid = true;
  // The whole description. Shared by all devices of one description, since there may be thousands
  // of them in one of several megabytes; null before it is known.
  boost::shared_ptr<const std::string> description_xml;
  // What the description counts for, shared like it; null until a device that has it is listed.
  boost::shared_ptr<HeldBytes> description_held;
  // What all else of this record counts for.
  HeldBytes held;
  // Whether it was listed as part of another device, and that one as long as it lives.
  bool is_embedded = false;
  boost::weak_ptr<Device> parent;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DEVICE_H_

#ifndef VEXSIM_DEVICE_MODEL_H_
#define VEXSIM_DEVICE_MODEL_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "text_template.h"

namespace vexsim {

struct VariableModel {
  std::string name;
  std::string data_type;
  std::string initial;
  bool evented = false;
  std::vector<std::string> allowed;
  std::string minimum;
  std::string maximum;
};

struct ArgumentModel {
  std::string name;
  bool output = false;
  std::string variable;
};

struct ActionModel {
  std::string name;
  std::vector<ArgumentModel> arguments;
};

// Paths are relative to the device's own prefix, without a slash in front.
struct ServiceModel {
  // Index into DeviceFolder::devices.
  std::size_t device = 0;
  std::string type;
  std::string id;
  std::string scpd_path;
  std::string control_path;
  std::string event_path;
  std::vector<VariableModel> variables;
  std::vector<ActionModel> actions;

  const VariableModel* Variable(std::string_view name) const;
  const ActionModel* Action(std::string_view name) const;
  // The word behind ":service:" of the type.
  std::string_view ShortName() const;
};

struct DeviceModel {
  std::string type;
  // With the places of the description, as "{{number}}", taken out.
  std::string friendly_name;
};

struct Document {
  std::string content_type;
  std::string body;
};

// One thing that a device announces and is searched by. The text is empty for the bare UDN.
struct Target {
  std::size_t device = 0;
  std::string text;
};

// All that devices made from one folder have in common.
struct DeviceFolder {
  std::string name;
  TextTemplate description;
  // In document order; the first is the root device.
  std::vector<DeviceModel> devices;
  std::vector<ServiceModel> services;
  // Every file of the folder but the description, by relative path.
  std::map<std::string, Document> documents;
  // In the order of UPnP Device Architecture 1.0, 1.2.2: three for the root device, two for each
  // embedded device, one for each distinct service type of a device.
  std::vector<Target> targets;
};

constexpr char kRootDeviceTarget[] = "upnp:rootdevice";
constexpr char kDescriptionPath[] = "description.xml";

// Reads FOLDER/description.xml and everything that lies beside it. Throws std::runtime_error with
// the file's name when something is missing or unreadable.
std::shared_ptr<const DeviceFolder> ReadDeviceFolder(const std::string& folder);

// A device without a folder: one root device with `services` small services.
std::shared_ptr<const DeviceFolder> MakeGeneratedDevice(unsigned services);

}  // namespace vexsim

#endif  // VEXSIM_DEVICE_MODEL_H_

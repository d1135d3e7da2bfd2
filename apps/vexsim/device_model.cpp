#include "device_model.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "text.h"
#include "xml.h"

namespace vexsim {

namespace {

std::string ContentType(const std::filesystem::path& path) {
  const std::string extension = path.extension().string();
  if (extension == ".xml") return "text/xml; charset=\"utf-8\"";
  if (extension == ".png") return "image/png";
  if (extension == ".jpg") return "image/jpeg";
  if (extension == ".wav") return "audio/wav";
  return "application/octet-stream";
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The address of a description as a path below the device's own prefix.
std::string RelativePath(std::string url) {
  for (const std::string_view place : {"{{base}}", "{{prefix}}"})
    if (url.compare(0, place.size(), place) == 0) url.erase(0, place.size());
  url.erase(0, url.find_first_not_of('/'));
  return url;
}

VariableModel ReadVariable(const XmlElement& element) {
  VariableModel variable;
  variable.name = element.ChildText("name");
  variable.data_type = element.ChildText("dataType");
  variable.initial = element.ChildText("defaultValue");
  variable.evented = element.Attribute("sendEvents") != "no";
  if (const XmlElement* list = element.Child("allowedValueList"))
    for (const XmlElement& value : list->children) variable.allowed.emplace_back(Trim(value.text));
  if (const XmlElement* range = element.Child("allowedValueRange")) {
    variable.minimum = range->ChildText("minimum");
    variable.maximum = range->ChildText("maximum");
  }
  return variable;
}

ActionModel ReadAction(const XmlElement& element) {
  ActionModel action;
  action.name = element.ChildText("name");
  if (const XmlElement* list = element.Child("argumentList"))
    for (const XmlElement& argument : list->children)
      action.arguments.push_back({argument.ChildText("name"),
                                  argument.ChildText("direction") == "out",
                                  argument.ChildText("relatedStateVariable")});
  return action;
}

void ReadServiceDescription(const std::string& body, ServiceModel& service) {
  const std::optional<XmlElement> scpd = ParseXml(body);
  if (!scpd || scpd->name != "scpd")
    throw std::runtime_error(service.scpd_path + " is no service description");
  if (const XmlElement* list = scpd->Child("actionList"))
    for (const XmlElement& action : list->children) service.actions.push_back(ReadAction(action));
  if (const XmlElement* table = scpd->Child("serviceStateTable"))
    for (const XmlElement& variable : table->children)
      service.variables.push_back(ReadVariable(variable));
}

class FolderReader {
 public:
  explicit FolderReader(DeviceFolder& folder) : folder_(folder) {}

  void Read(const std::string& description) {
    const std::optional<XmlElement> root = ParseXml(description);
    const XmlElement* device = root ? root->Child("device") : nullptr;
    if (device == nullptr) throw std::runtime_error("description.xml holds no device");
    folder_.description = TextTemplate(description);
    ReadDevice(*device);
    if (folder_.description.udn_places() != folder_.devices.size())
      throw std::runtime_error("description.xml needs one {{udn}} for each device");
    AddTargets();
  }

 private:
  void ReadDevice(const XmlElement& element) {
    const std::size_t index = folder_.devices.size();
    std::string name = element.ChildText("friendlyName");
    if (const std::size_t place = name.find("{{number}}"); place != std::string::npos)
      name.erase(place, std::string_view("{{number}}").size());
    folder_.devices.push_back({element.ChildText("deviceType"), name});
    if (const XmlElement* list = element.Child("serviceList"))
      for (const XmlElement& service : list->children) ReadService(service, index);
    if (const XmlElement* list = element.Child("deviceList"))
      for (const XmlElement& embedded : list->children) ReadDevice(embedded);
  }

  void ReadService(const XmlElement& element, std::size_t device) {
    ServiceModel service;
    service.device = device;
    service.type = element.ChildText("serviceType");
    service.id = element.ChildText("serviceId");
    service.scpd_path = RelativePath(element.ChildText("SCPDURL"));
    service.control_path = RelativePath(element.ChildText("controlURL"));
    service.event_path = RelativePath(element.ChildText("eventSubURL"));
    const auto document = folder_.documents.find(service.scpd_path);
    if (document == folder_.documents.end())
      throw std::runtime_error("no service description " + service.scpd_path);
    ReadServiceDescription(document->second.body, service);
    folder_.services.push_back(std::move(service));
  }

  void AddTargets() {
    folder_.targets.push_back({0, kRootDeviceTarget});
    for (std::size_t device = 0; device < folder_.devices.size(); ++device) {
      folder_.targets.push_back({device, ""});
      folder_.targets.push_back({device, folder_.devices[device].type});
      AddServiceTargets(device);
    }
  }

  void AddServiceTargets(std::size_t device) {
    for (const ServiceModel& service : folder_.services) {
      if (service.device != device) continue;
      const bool known =
          std::any_of(folder_.targets.begin(), folder_.targets.end(), [&](const Target& target) {
            return target.device == device && target.text == service.type;
          });
      if (!known) folder_.targets.push_back({device, service.type});
    }
  }

  DeviceFolder& folder_;
};

constexpr char kGeneratedScpd[] =
    R"(<?xml version="1.0"?>
<scpd xmlns="urn:schemas-upnp-org:service-1-0">
  <specVersion><major>1</major><minor>0</minor></specVersion>
  <actionList>
    <action>
      <name>SetLevel</name>
      <argumentList>
        <argument><name>NewLevel</name><direction>in</direction><relatedStateVariable>Level</relatedStateVariable></argument>
      </argumentList>
    </action>
    <action>
      <name>GetLevel</name>
      <argumentList>
        <argument><name>CurrentLevel</name><direction>out</direction><relatedStateVariable>Level</relatedStateVariable></argument>
      </argumentList>
    </action>
  </actionList>
  <serviceStateTable>
    <stateVariable sendEvents="yes">
      <name>Level</name><dataType>ui2</dataType><defaultValue>0</defaultValue>
      <allowedValueRange><minimum>0</minimum><maximum>100</maximum><step>1</step></allowedValueRange>
    </stateVariable>
  </serviceStateTable>
</scpd>
)";

std::string GeneratedService(const std::string& number) {
  return "<service><serviceType>urn:schemas-vexsim:service:Level" + number +
         ":1</serviceType><serviceId>urn:vexsim:serviceId:Level" + number +
         "</serviceId><SCPDURL>scpd" + number + ".xml</SCPDURL><controlURL>control" + number +
         "</controlURL><eventSubURL>event" + number + "</eventSubURL></service>";
}

}  // namespace

const VariableModel* ServiceModel::Variable(std::string_view name) const {
  for (const VariableModel& variable : variables)
    if (variable.name == name) return &variable;
  return nullptr;
}

const ActionModel* ServiceModel::Action(std::string_view name) const {
  for (const ActionModel& action : actions)
    if (action.name == name) return &action;
  return nullptr;
}

std::string_view ServiceModel::ShortName() const {
  constexpr std::string_view kMark = ":service:";
  std::string_view name = type;
  const std::size_t mark = name.find(kMark);
  if (mark != std::string_view::npos) name.remove_prefix(mark + kMark.size());
  return name.substr(0, name.find(':'));
}

std::shared_ptr<const DeviceFolder> ReadDeviceFolder(const std::string& folder) {
  namespace fs = std::filesystem;
  const fs::path root(folder);
  auto result = std::make_shared<DeviceFolder>();
  result->name = root.filename().empty() ? root.parent_path().filename() : root.filename();
  const std::string description = ReadFile(root / kDescriptionPath);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    const std::string path = entry.path().lexically_relative(root).generic_string();
    if (path == kDescriptionPath) continue;
    result->documents[path] = Document{ContentType(entry.path()), ReadFile(entry.path())};
  }
  try {
    FolderReader(*result).Read(description);
  } catch (const std::exception& error) {
    throw std::runtime_error(folder + ": " + error.what());
  }
  return result;
}

std::shared_ptr<const DeviceFolder> MakeGeneratedDevice(unsigned services) {
  auto result = std::make_shared<DeviceFolder>();
  result->name = "generated";
  std::string description =
      "<?xml version=\"1.0\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
      "<specVersion><major>1</major><minor>0</minor></specVersion><device>"
      "<deviceType>urn:schemas-vexsim:device:Generated:1</deviceType>"
      "<friendlyName>Generated{{number}}</friendlyName><manufacturer>vexsim</manufacturer>"
      "<modelName>Generated device</modelName><modelNumber>1</modelNumber>"
      "<serialNumber>{{prefix}}</serialNumber><UDN>uuid:{{udn}}</UDN>";
  if (services > 0) description += "<serviceList>";
  for (unsigned n = 1; n <= services; ++n) {
    const std::string number = std::to_string(n);
    description += GeneratedService(number);
    result->documents["scpd" + number + ".xml"] =
        Document{"text/xml; charset=\"utf-8\"", kGeneratedScpd};
  }
  if (services > 0) description += "</serviceList>";
  description += "</device></root>\n";
  FolderReader(*result).Read(description);
  return result;
}

}  // namespace vexsim

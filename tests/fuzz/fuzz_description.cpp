// Reads bytes as a device description, and once more by a plain recursive reading with the public
// cursor; both must fill a device alike.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <boost/make_shared.hpp>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/xml_utils.h>

#include "src/device.h"
#include "src/device_description_parser.h"
#include "xmlparser/src/xml_scope.h"

namespace {

using vex_upnp::cp_discovery::Device;
using vex_upnp::cp_discovery::DeviceDescriptionParser;
using vex_upnp::utils::ChildNode;
using vex_upnp::utils::FirstNode;
using vex_upnp::utils::NextNode;
using vex_upnp::utils::NodePtr;
using vex_upnp::utils::ScopedXmlParser;
using vex_upnp::utils::XmlParser;
using vex_upnp::utils::XmlParserStepBackToParentNode;

void Demand(bool holds) {
  if (!holds) std::abort();
}

std::string Line(const std::string& name, const std::string& value) {
  return name + "=" + value + "\n";
}

// What the recursive reading expects, one line for each value in the order of a fixed list.
class PlainReader {
 public:
  explicit PlainReader(XmlParser& parser) : parser_(parser) {}

  // Whether the document is a description at all.
  bool Read(Device& root) {
    if (!FirstNode(parser_)) return false;
    NodePtr node = ChildNode(parser_);
    if (!node) return false;
    for (; node; node = NextNode(parser_)) {
      if (node->name == "URLBase") root.url_base = node->value;
      if (node->name == "specVersion") ReadVersion(root);
      if (node->name == "device") ReadDevice(root, true);
    }
    return true;
  }

 private:
  void Back() { XmlParserStepBackToParentNode(parser_); }

  void ReadVersion(Device& root) {
    for (NodePtr node = ChildNode(parser_); node; node = NextNode(parser_)) {
      if (node->name == "major") root.spec_major = node->value;
      if (node->name == "minor") root.spec_minor = node->value;
    }
    Back();
  }

  void Unescape(const std::string& value, std::string& field) {
    vex_upnp::utils::XmlUnescapeValue(value, field);
  }

  void ReadDevice(Device& device, bool is_root) {
    for (NodePtr node = ChildNode(parser_); node; node = NextNode(parser_)) {
      const std::string& name = node->name;
      std::string* const plain = PlainField(name, device);
      std::string* const escaped = EscapedField(name, device);
      if (is_root && name.size() > 13 && name.find("X_DLNACAP", 5) == 5) {
        device.dlna_cap = node->value;
      } else if (plain != nullptr) {
        *plain = node->value;
      } else if (escaped != nullptr && is_root) {
        Unescape(node->value, *escaped);
      } else if (escaped != nullptr) {
        *escaped = node->value;
      } else if (name == "iconList" || name == "serviceList" || name == "deviceList") {
        ReadList(name, device);
      } else if (is_root && !name.empty()) {
        device.additional_fields.emplace_back(
            new vex_upnp::cp_discovery::AdditionalFieldInfo{name, node->value});
      }
    }
    if (is_root) Back();
  }

  void ReadList(const std::string& list, Device& device) {
    const std::string wanted = list.substr(0, list.size() - 4);
    for (NodePtr node = ChildNode(parser_); node; node = NextNode(parser_)) {
      if (node->name != wanted) continue;
      if (wanted == "icon") ReadIcon(device);
      if (wanted == "service") ReadService(device);
      if (wanted == "device") {
        const boost::shared_ptr<Device> embedded = boost::make_shared<Device>();
        ReadDevice(*embedded, false);
        device.embedded_devices.push_back(embedded);
      }
      Back();
    }
    Back();
  }

  void ReadIcon(Device& device) {
    device.icons.emplace_back(new vex_upnp::cp_discovery::DeviceIcon);
    for (NodePtr node = ChildNode(parser_); node; node = NextNode(parser_)) {
      if (node->name == "url") device.icons.back()->url = node->value;
      if (node->name == "width") device.icons.back()->width = node->value;
    }
  }

  void ReadService(Device& device) {
    device.services.emplace_back(new vex_upnp::cp_discovery::ServiceInfo);
    for (NodePtr node = ChildNode(parser_); node; node = NextNode(parser_)) {
      if (node->name == "serviceType") device.services.back()->service_type = node->value;
      if (node->name == "controlURL") device.services.back()->control_url = node->value;
    }
  }

  static std::string* PlainField(const std::string& name, Device& device) {
    if (name == "deviceType") return &device.device_type;
    if (name == "manufacturerURL") return &device.manufacturer_url;
    if (name == "modelURL") return &device.model_url;
    if (name == "serialNumber") return &device.serial_number;
    if (name == "UDN") return &device.udn;
    if (name == "UPC") return &device.upc;
    if (name == "presentationURL") return &device.presentation_url;
    if (name == "URLBase") return &device.url_base;
    return nullptr;
  }

  static std::string* EscapedField(const std::string& name, Device& device) {
    if (name == "friendlyName") return &device.friendly_name;
    if (name == "manufacturer") return &device.manufacturer;
    if (name == "modelDescription") return &device.model_description;
    if (name == "modelName") return &device.model_name;
    if (name == "modelNumber") return &device.model_number;
    return nullptr;
  }

  XmlParser& parser_;
};

void Print(const Device& device, std::string& out) {
  out += "device\n";
  for (const std::string* field :
       {&device.spec_major, &device.spec_minor, &device.dlna_cap, &device.device_type,
        &device.friendly_name, &device.manufacturer, &device.manufacturer_url,
        &device.model_description, &device.model_name, &device.model_number, &device.model_url,
        &device.udn, &device.url_base, &device.upc, &device.serial_number,
        &device.presentation_url}) {
    out += Line("field", *field);
  }
  for (const auto& icon : device.icons) out += Line(icon->url, icon->width);
  for (const auto& service : device.services) {
    out += Line(service->service_type, service->control_url);
  }
  for (const auto& field : device.additional_fields) out += Line(field->name, field->value);
  for (const auto& embedded : device.embedded_devices) Print(*embedded, out);
  out += "end\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string xml(reinterpret_cast<const char*>(data), size);
  boost::shared_ptr<Device> device = boost::make_shared<Device>();
  const int code = DeviceDescriptionParser::MakeDeviceInfo(xml, device);
  // Only memory or a bound on it may fail what is a description.
  Demand(code == 0 || code == vex_upnp::result::kMalformedDocument ||
         code == vex_upnp::result::kOutOfMemory);
  ScopedXmlParser parser;
  Device expected;
  const bool is_description = parser.Parse(xml) && PlainReader(parser.get()).Read(expected);
  Demand(is_description == (code != vex_upnp::result::kMalformedDocument));
  if (code != 0) return 0;
  std::string ours;
  std::string plain;
  Print(*device, ours);
  Print(expected, plain);
  Demand(ours == plain);
  return 0;
}

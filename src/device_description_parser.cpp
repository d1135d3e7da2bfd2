#include "src/device_description_parser.h"

#include <new>
#include <string_view>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/xml_utils.h>

#include "base/log.h"
#include "src/embedded_device_reader.h"
#include "xmlparser/src/dom_cursor.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace cp_discovery {

namespace {

using utils::DomNode;
using utils::ElementName;
using utils::ElementValue;
using utils::MoveToChild;
using utils::MoveToNext;
using utils::StepBack;
using utils::XmlParser;

constexpr const char* kTag = log::kTagDiscovery;

// KEPT: the capability is known by its place behind a prefix of exactly five characters, such as
// "dlna:"; what follows it does not matter.
constexpr std::string_view kDlnaCap("X_DLNACAP");
constexpr std::size_t kDlnaCapOffset = 5;
constexpr std::size_t kDlnaCapNameOver = 13;

bool IsDlnaCap(std::string_view name) {
  return name.size() > kDlnaCapNameOver &&
         name.compare(kDlnaCapOffset, kDlnaCap.size(), kDlnaCap) == 0;
}

// Stores through XmlUnescapeValue; an empty element leaves the field as it was.
int StoreUnescaped(std::string_view value, std::string& field) {
  if (!value.empty() && value.find('&') == std::string_view::npos) {
    field = value;
    return result::kOk;
  }
  const int unescaped = utils::XmlUnescapeValue(std::string(value), field);
  return unescaped == result::kNoMemory ? result::kOutOfMemory : result::kOk;
}

int AddAdditionalField(std::string_view name, std::string_view value, Device& device) {
  try {
    std::unique_ptr<AdditionalFieldInfo> field(new AdditionalFieldInfo);
    field->name = name;
    field->value = value;
    device.additional_fields.push_back(std::move(field));
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "Adding Embedded Device Failed");
    return result::kOutOfMemory;
  }
  return result::kOk;
}

int ReadIcons(XmlParser& parser, boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    if (ElementName(*node) != "icon") continue;
    if (DeviceDescriptionParser::__ParseIcon(parser, device) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Icon Parsing Failed");
      return result::kMalformedDocument;
    }
  }
  StepBack(parser);
  return result::kOk;
}

int ReadServices(XmlParser& parser, boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    if (ElementName(*node) != "service") continue;
    if (DeviceDescriptionParser::__ParseService(parser, device) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Parsing Service Failed");
      return result::kMalformedDocument;
    }
    StepBack(parser);
  }
  StepBack(parser);
  return result::kOk;
}

int ReadEmbeddedDevices(XmlParser& parser, boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    if (ElementName(*node) != "device") continue;
    if (DeviceDescriptionParser::__AddEmbeddedDevice(parser, device) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Adding Embedded Device Failed");
      return result::kMalformedDocument;
    }
    StepBack(parser);
  }
  StepBack(parser);
  return result::kOk;
}

// One child of the root `device` element.
int ReadDeviceChild(XmlParser& parser, const DomNode& node, boost::shared_ptr<Device>& device) {
  const std::string_view name = ElementName(node);
  if (name.empty()) return result::kOk;
  if (IsDlnaCap(name)) {
    device->dlna_cap = ElementValue(node);
    return result::kOk;
  }
  const DeviceField* const field = FindDeviceField(name);
  if (field != nullptr && field->escaped) {
    return StoreUnescaped(ElementValue(node), (*device).*field->member);
  }
  if (field != nullptr) {
    (*device).*field->member = ElementValue(node);
    return result::kOk;
  }
  if (name == "iconList") return ReadIcons(parser, device);
  if (name == "serviceList") return ReadServices(parser, device);
  if (name == "deviceList") return ReadEmbeddedDevices(parser, device);
  return AddAdditionalField(name, ElementValue(node), *device);
}

int ReadDevice(XmlParser& parser, boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    const int code = ReadDeviceChild(parser, *node, device);
    if (code != result::kOk) return code;
  }
  StepBack(parser);
  return result::kOk;
}

}  // namespace

int DeviceDescriptionParser::MakeDeviceInfo(const std::string& xml,
                                            boost::shared_ptr<Device>& device) {
  utils::ScopedXmlParser parser;
  if (!parser.Parse(xml)) {
    VEX_LOG(kLogMajor, kTag, "XmlParserGetDomMA failed");
    return result::kMalformedDocument;
  }
  // The root may have any name.
  if (utils::MoveToFirst(parser.get()) == nullptr) {
    VEX_LOG(kLogMajor, kTag, "No Root Node");
    return result::kMalformedDocument;
  }
  int code = result::kOutOfMemory;
  try {
    code = __ParseDescription(parser.get(), device);
  } catch (const std::bad_alloc&) {
    // Told by the code.
  }
  if (code != result::kOk) VEX_LOG(kLogMajor, kTag, "__ParseDescription failed");
  return code;
}

int DeviceDescriptionParser::__ParseDescription(XmlParser& parser,
                                                boost::shared_ptr<Device>& device) {
  DomNode* node = MoveToChild(parser);
  if (node == nullptr) {
    VEX_LOG(kLogStep, kTag, "Child Node empty");
    return result::kMalformedDocument;
  }
  for (; node != nullptr; node = MoveToNext(parser)) {
    const std::string_view name = ElementName(*node);
    int code = result::kOk;
    if (name == "specVersion") {
      code = __ParseSpecVersion(parser, device);
    } else if (name == "URLBase") {
      device->url_base = ElementValue(*node);
    } else if (name == "device") {
      code = ReadDevice(parser, device);
    }
    if (code != result::kOk) return code;
  }
  return result::kOk;
}

int DeviceDescriptionParser::__ParseSpecVersion(XmlParser& parser,
                                                boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    const std::string_view name = ElementName(*node);
    if (name == "major") {
      device->spec_major = ElementValue(*node);
    } else if (name == "minor") {
      device->spec_minor = ElementValue(*node);
    }
  }
  StepBack(parser);
  return result::kOk;
}

int DeviceDescriptionParser::__ParseService(XmlParser& parser, boost::shared_ptr<Device>& device) {
  try {
    std::unique_ptr<ServiceInfo> service(new ServiceInfo);
    for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
      const std::string_view name = ElementName(*node);
      if (name == "serviceType") {
        service->service_type = ElementValue(*node);
      } else if (name == "serviceId") {
        service->service_id = ElementValue(*node);
      } else if (name == "SCPDURL") {
        service->scpd_url = ElementValue(*node);
      } else if (name == "controlURL") {
        service->control_url = ElementValue(*node);
      } else if (name == "eventSubURL") {
        service->event_sub_url = ElementValue(*node);
      }
    }
    device->services.push_back(std::move(service));
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return result::kOutOfMemory;
  }
  return result::kOk;
}

int DeviceDescriptionParser::__ParseIcon(XmlParser& parser, boost::shared_ptr<Device>& device) {
  try {
    std::unique_ptr<DeviceIcon> icon(new DeviceIcon);
    for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
      const std::string_view name = ElementName(*node);
      if (name == "mimetype") {
        icon->mimetype = ElementValue(*node);
      } else if (name == "width") {
        icon->width = ElementValue(*node);
      } else if (name == "height") {
        icon->height = ElementValue(*node);
      } else if (name == "depth") {
        icon->depth = ElementValue(*node);
      } else if (name == "url") {
        icon->url = ElementValue(*node);
      }
    }
    device->icons.push_back(std::move(icon));
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    return result::kOutOfMemory;
  }
  StepBack(parser);
  return result::kOk;
}

int DeviceDescriptionParser::__AddEmbeddedDevice(XmlParser& parser,
                                                 boost::shared_ptr<Device>& parent) {
  return EmbeddedDeviceReader(parser).Read(parent);
}

}  // namespace cp_discovery
}  // namespace vex_upnp

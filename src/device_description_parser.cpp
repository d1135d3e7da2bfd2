#include "src/device_description_parser.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/xml_utils.h>

#include "base/limits.h"
#include "base/log.h"
#include "base/log_limit.h"
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

// A child of `device` whose text is stored as a field.
struct DeviceField {
  std::string_view name;
  std::string Device::*member;
  // On the root device its value is stored unescaped.
  bool escaped;
};

constexpr DeviceField kDeviceFields[] = {
    {"deviceType", &Device::device_type, false},
    {"friendlyName", &Device::friendly_name, true},
    {"manufacturer", &Device::manufacturer, true},
    {"manufacturerURL", &Device::manufacturer_url, false},
    {"modelDescription", &Device::model_description, true},
    {"modelName", &Device::model_name, true},
    {"modelNumber", &Device::model_number, true},
    {"modelURL", &Device::model_url, false},
    {"serialNumber", &Device::serial_number, false},
    {"UDN", &Device::udn, false},
    {"UPC", &Device::upc, false},
    {"presentationURL", &Device::presentation_url, false},
    {"URLBase", &Device::url_base, false},
};

// The last text of each field that is stored unescaped, as it stands in the document. No other is
// unescaped: that may cost much, and a description may repeat a field as often as it likes.
using EscapedTexts = std::array<std::string_view, std::size(kDeviceFields)>;

// Null for a name that is none of them.
const DeviceField* FindDeviceField(std::string_view name) {
  const DeviceField* const found =
      std::find_if(std::begin(kDeviceFields), std::end(kDeviceFields),
                   [name](const DeviceField& field) { return field.name == name; });
  return found == std::end(kDeviceFields) ? nullptr : found;
}

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

// An empty element leaves the field as it was.
int KeepEscaped(const DeviceField& field, std::string_view value, Device& device,
                EscapedTexts& escaped) {
  if (value.empty()) return StoreUnescaped(value, device.*field.member);
  escaped[static_cast<std::size_t>(&field - kDeviceFields)] = value;
  return result::kOk;
}

int StoreEscapedTexts(const EscapedTexts& escaped, Device& device) {
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i].empty()) continue;
    const int code = StoreUnescaped(escaped[i], device.*kDeviceFields[i].member);
    if (code != result::kOk) return code;
  }
  return result::kOk;
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
int ReadDeviceChild(XmlParser& parser, const DomNode& node, boost::shared_ptr<Device>& device,
                    EscapedTexts& escaped) {
  const std::string_view name = ElementName(node);
  if (name.empty()) return result::kOk;
  if (IsDlnaCap(name)) {
    device->dlna_cap = ElementValue(node);
    return result::kOk;
  }
  const DeviceField* const field = FindDeviceField(name);
  if (field != nullptr && field->escaped) {
    return KeepEscaped(*field, ElementValue(node), *device, escaped);
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

int ReadDevice(XmlParser& parser, boost::shared_ptr<Device>& device, EscapedTexts& escaped) {
  for (DomNode* node = MoveToChild(parser); node != nullptr; node = MoveToNext(parser)) {
    const int code = ReadDeviceChild(parser, *node, device, escaped);
    if (code != result::kOk) return code;
  }
  StepBack(parser);
  return result::kOk;
}

// Reads a `device` element inside a `deviceList` with all that is embedded in it. A hostile
// description embeds a hundred thousand devices in one another, so the calls that each level would
// make of the next stand on a stack of our own.
class EmbeddedDeviceReader {
 public:
  explicit EmbeddedDeviceReader(utils::XmlParser& parser) : parser_(parser) {}

  // Appends the device under the cursor to its parent. Returns 0, result::kOutOfMemory or
  // result::kMalformedDocument.
  int Read(const boost::shared_ptr<Device>& parent);

 private:
  // One call that is not finished: the device it reads and the one that will own it.
  struct Level {
    boost::shared_ptr<Device> device;
    boost::shared_ptr<Device> parent;
    // The device embedded in this one could not be read as its child and is tried again.
    bool second_try = false;
  };

  // What a step of the walk came to.
  enum class Step { kEmbedded, kFinished };

  // Begins a call; false when memory is short.
  bool Enter(const boost::shared_ptr<Device>& parent);
  // Reads on from the end of an embedded device, or from its failure.
  Step Resume(int code);
  // Reads the children of the device, or of a device list in it, from a node on.
  Step ReadOn(utils::DomNode* node, bool in_device_list);
  Step Finish(int code);
  int ReadChild(const utils::DomNode& node, boost::shared_ptr<Device>& device);
  int ReadIcons(boost::shared_ptr<Device>& device);
  int ReadServices(boost::shared_ptr<Device>& device);

  utils::XmlParser& parser_;
  std::vector<Level> levels_;
  // For the call that is to begin, or of the one that has finished.
  boost::shared_ptr<Device> next_parent_;
  int code_ = 0;
};

int EmbeddedDeviceReader::Read(const boost::shared_ptr<Device>& parent) {
  next_parent_ = parent;
  Step step = Step::kEmbedded;
  for (;;) {
    if (step == Step::kEmbedded && Enter(next_parent_)) {
      step = ReadOn(MoveToChild(parser_), false);
    } else if (levels_.empty()) {
      return code_;
    } else {
      step = Resume(code_);
    }
  }
}

bool EmbeddedDeviceReader::Enter(const boost::shared_ptr<Device>& parent) {
  try {
    levels_.push_back(Level{boost::shared_ptr<Device>(new Device), parent, false});
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory not available");
    code_ = result::kOutOfMemory;
    return false;
  }
  return true;
}

EmbeddedDeviceReader::Step EmbeddedDeviceReader::Resume(int code) {
  Level& level = levels_.back();
  if (code == result::kOk) {
    StepBack(parser_);
    return ReadOn(MoveToNext(parser_), true);
  }
  if (level.second_try) {
    VEX_LOG(kLogMajor, kTag, "Device failed \n");
    return Finish(result::kMalformedDocument);
  }
  // KEPT: what could not be read as a device of this one is read once more as one of its parent,
  // from wherever the cursor was left.
  level.second_try = true;
  next_parent_ = level.parent;
  return Step::kEmbedded;
}

EmbeddedDeviceReader::Step EmbeddedDeviceReader::ReadOn(DomNode* node, bool in_device_list) {
  boost::shared_ptr<Device> device = levels_.back().device;
  for (;;) {
    if (in_device_list) {
      while (node != nullptr && ElementName(*node) != "device") node = MoveToNext(parser_);
      if (node != nullptr) {
        levels_.back().second_try = false;
        next_parent_ = std::move(device);
        return Step::kEmbedded;
      }
      StepBack(parser_);
      node = MoveToNext(parser_);
    }
    for (; node != nullptr && ElementName(*node) != "deviceList"; node = MoveToNext(parser_)) {
      if (ReadChild(*node, device) != result::kOk) return Finish(result::kMalformedDocument);
    }
    if (node == nullptr) return Finish(result::kOk);
    node = MoveToChild(parser_);
    in_device_list = true;
  }
}

int EmbeddedDeviceReader::ReadChild(const DomNode& node, boost::shared_ptr<Device>& device) {
  const std::string_view name = ElementName(node);
  if (const DeviceField* const field = FindDeviceField(name)) {
    (*device).*field->member = ElementValue(node);
    return result::kOk;
  }
  if (name == "iconList") return ReadIcons(device);
  if (name == "serviceList") return ReadServices(device);
  return result::kOk;
}

EmbeddedDeviceReader::Step EmbeddedDeviceReader::Finish(int code) {
  Level level = std::move(levels_.back());
  levels_.pop_back();
  code_ = code;
  if (code == result::kOk) level.parent->embedded_devices.push_back(std::move(level.device));
  return Step::kFinished;
}

int EmbeddedDeviceReader::ReadIcons(boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser_); node != nullptr; node = MoveToNext(parser_)) {
    if (ElementName(*node) != "icon") continue;
    const int code = DeviceDescriptionParser::__ParseIcon(parser_, device);
    if (code != result::kOk) {
      VEX_LOG(kLogMajor, kTag, " ParseIcon failed \n");
      return code;
    }
  }
  StepBack(parser_);
  return result::kOk;
}

int EmbeddedDeviceReader::ReadServices(boost::shared_ptr<Device>& device) {
  for (DomNode* node = MoveToChild(parser_); node != nullptr; node = MoveToNext(parser_)) {
    if (ElementName(*node) != "service") continue;
    const int code = DeviceDescriptionParser::__ParseService(parser_, device);
    if (code != result::kOk) {
      VEX_LOG(kLogMajor, kTag, " Parse service failed \n");
      return code;
    }
    StepBack(parser_);
  }
  StepBack(parser_);
  return result::kOk;
}

// Each tag and each attribute makes two nodes of the document at most, so that what these would
// take is known before any of it is there.
bool HasTooManyTags(const std::string& xml) {
  const auto tags =
      std::count_if(xml.begin(), xml.end(), [](char c) { return c == '<' || c == '='; });
  return static_cast<std::size_t>(tags) > limits::kDescriptionTags;
}

bool IsDeviceOrItsPart(std::string_view name) {
  return name == "device" || name == "service" || name == "icon";
}

// Counts what may become a record of its own: devices and their parts wherever they stand, and the
// children of a root device, of which the unknown ones are kept.
bool HasTooManyRecords(const DomNode& root) {
  std::size_t records = 0;
  int depth = 1;
  const DomNode* node = root.firstChild;
  while (node != nullptr) {
    const bool counts = depth == 2 || IsDeviceOrItsPart(ElementName(*node));
    if (counts && ++records > limits::kDescriptionRecords) return true;
    if (node->firstChild != nullptr) {
      node = node->firstChild;
      ++depth;
      continue;
    }
    for (; node != &root && node->nextSibling == nullptr; --depth) node = node->parentNode;
    if (node == &root) break;
    node = node->nextSibling;
  }
  return false;
}

int RefuseTooLarge() {
  static LogLimit once_a_second;
  if (once_a_second.Due()) VEX_LOG(kLogMajor, kTag, "Description holds too much");
  return result::kMalformedDocument;
}

}  // namespace

int DeviceDescriptionParser::MakeDeviceInfo(const std::string& xml,
                                            boost::shared_ptr<Device>& device) {
  if (HasTooManyTags(xml)) return RefuseTooLarge();
  utils::ScopedXmlParser parser;
  if (!parser.Parse(xml)) {
    VEX_LOG(kLogMajor, kTag, "XmlParserGetDomMA failed");
    return result::kMalformedDocument;
  }
  // The root may have any name.
  const DomNode* const root = utils::MoveToFirst(parser.get());
  if (root == nullptr) {
    VEX_LOG(kLogMajor, kTag, "No Root Node");
    return result::kMalformedDocument;
  }
  if (HasTooManyRecords(*root)) return RefuseTooLarge();
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
  EscapedTexts escaped;
  for (; node != nullptr; node = MoveToNext(parser)) {
    const std::string_view name = ElementName(*node);
    int code = result::kOk;
    if (name == "specVersion") {
      code = __ParseSpecVersion(parser, device);
    } else if (name == "URLBase") {
      device->url_base = ElementValue(*node);
    } else if (name == "device") {
      code = ReadDevice(parser, device, escaped);
    }
    if (code != result::kOk) return code;
  }
  return StoreEscapedTexts(escaped, *device);
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

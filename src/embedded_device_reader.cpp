#include "src/embedded_device_reader.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "src/device_description_parser.h"
#include "xmlparser/src/dom_cursor.h"

namespace vex_upnp {
namespace cp_discovery {

namespace {

using utils::DomNode;
using utils::ElementName;
using utils::ElementValue;
using utils::MoveToChild;
using utils::MoveToNext;
using utils::StepBack;

constexpr const char* kTag = log::kTagDiscovery;

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

}  // namespace

const DeviceField* FindDeviceField(std::string_view name) {
  const DeviceField* const found =
      std::find_if(std::begin(kDeviceFields), std::end(kDeviceFields),
                   [name](const DeviceField& field) { return field.name == name; });
  return found == std::end(kDeviceFields) ? nullptr : found;
}

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
      in_device_list = false;
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

}  // namespace cp_discovery
}  // namespace vex_upnp

#include "device_record.h"

#include <algorithm>
#include <cctype>

#include "exit_status.h"
#include "output.h"

namespace vexcp {

namespace {

constexpr char kUuid[] = "uuid:";

std::string Text(const char* text) { return text == nullptr ? std::string() : std::string(text); }

}  // namespace

std::string UdnOfKey(const std::string& key) { return key.substr(0, key.rfind('+')); }

std::string DeviceRecord::Udn() const { return UdnOfKey(key); }

bool Means(const std::string& word, const std::string& key) {
  for (const std::string& candidate : {word, kUuid + word})
    if (candidate == key || candidate == UdnOfKey(key)) return true;
  return false;
}

const ServiceRecord* FindService(const DeviceRecord& device, const std::string& word) {
  const auto same = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  for (const ServiceRecord& service : device.services)
    if (std::search(service.type.begin(), service.type.end(), word.begin(), word.end(), same) !=
        service.type.end())
      return &service;
  return nullptr;
}

const ServiceRecord& RequireService(const DeviceRecord& device, const std::string& word) {
  if (const ServiceRecord* service = FindService(device, word); service != nullptr) return *service;
  std::string text = device.name + " has no service " + word + "; it has";
  for (const ServiceRecord& one : device.services) text += " " + ShortType(one.type);
  if (device.services.empty()) text += " none";
  throw Failure(kNotFound, Printable(text));
}

DeviceRecord MakeDeviceRecord(const CPDetailedDeviceInfo& info) {
  DeviceRecord record;
  record.key = Text(info.udn);
  record.name = Text(info.friendly_name);
  record.display_name = Text(info.display_name);
  record.type = Text(info.device_type);
  record.interface_name = Text(info.interface_name);
  record.device_ip = Text(info.device_ip);
  record.device_port = info.device_port;
  record.local_ip = Text(info.local_ip);
  record.location = Text(info.location);
  record.url_base = Text(info.url_base);
  record.description_path = Text(info.description_path);
  record.manufacturer = Text(info.manufacturer);
  record.model_name = Text(info.model_name);
  record.model_number = Text(info.model_number);
  record.serial_number = Text(info.serial_number);
  record.description_xml = Text(info.description_xml);
  record.domain = info.device_domain;
  for (const CPDeviceIcon* icon = info.icons; icon != nullptr; icon = icon->next)
    record.icons.push_back({Text(icon->mimetype), Text(icon->width), Text(icon->height),
                            Text(icon->depth), Text(icon->url)});
  for (const CPDeviceServiceInfo* service = info.services; service != nullptr;
       service = service->next)
    record.services.push_back({Text(service->service_type), Text(service->service_id),
                               Text(service->scpd_url), Text(service->control_url),
                               Text(service->event_sub_url)});
  return record;
}

}  // namespace vexcp

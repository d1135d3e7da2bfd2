#include "src/generic_cp_utils.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

#include "base/host_memory.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

// The values of device_domain that a host knows.
constexpr int kFirstDomain = 1;
constexpr int kLastDomain = 3;
constexpr int kNoDomain = 0;

struct StringField {
  char** target;
  const std::string& source;
};

// Allocates all before it copies any. False leaves the allocated ones to the record's owner.
bool CopyStrings(std::initializer_list<StringField> fields) {
  bool complete = true;
  for (const StringField& field : fields) {
    *field.target = static_cast<char*>(std::calloc(field.source.size() + 1, 1));
    complete = complete && *field.target != nullptr;
  }
  if (!complete) return false;
  for (const StringField& field : fields) {
    std::memcpy(*field.target, field.source.data(), field.source.size());
  }
  return true;
}

void FreeStrings(std::initializer_list<char*> strings) {
  for (char* const text : strings) std::free(text);
}

// Appends the conversion of each entry to a chain that belongs to a record already, so that whoever
// frees the record frees what there is of it.
template <typename Node, typename Source>
int ConvertChain(Node*& head, std::list<Source>& sources, int (*convert)(Node**, Source&)) {
  Node* tail = nullptr;
  for (Source& source : sources) {
    Node* node = nullptr;
    const int converted = convert(&node, source);
    if (converted != CP_ERR_NONE) return converted;
    AppendNode(head, tail, node);
  }
  return CP_ERR_NONE;
}

}  // namespace

int GetCPDeviceInfoFromDeviceInfo(CPDeviceInfo** out, cp_discovery::DeviceInfo& in) {
  if (out == nullptr) return CP_ERR_INVALID_PARAMS;
  Owned<CPDeviceInfo, FreeCPDeviceInfo> info(CallocRecord<CPDeviceInfo>());
  if (!info || !CopyStrings({{&info->friendly_name, in.friendly_name},
                             {&info->udn, in.udn},
                             {&info->display_name, in.display_name},
                             {&info->device_type, in.device_type},
                             {&info->interface_name, in.interface_name}})) {
    return CP_ERR_OUT_OF_MEMORY;
  }
  const int icons = ConvertChain(info->icons, in.icons, GetCPDeviceIconFromDeviceIcon);
  if (icons != CP_ERR_NONE) return icons;
  *out = info.release();
  return CP_ERR_NONE;
}

int GetCPDetailedDeviceInfoFromDetailedDeviceInfo(CPDetailedDeviceInfo** out,
                                                  cp_discovery::DetailedDeviceInfo& in) {
  if (out == nullptr) return CP_ERR_INVALID_PARAMS;
  Owned<CPDetailedDeviceInfo, FreeCPDetailedDeviceInfo> info(CallocRecord<CPDetailedDeviceInfo>());
  if (!info || !CopyStrings({{&info->friendly_name, in.friendly_name},
                             {&info->udn, in.udn},
                             {&info->display_name, in.display_name},
                             {&info->device_type, in.device_type},
                             {&info->device_ip, in.device_ip},
                             {&info->local_ip, in.local_ip},
                             {&info->interface_name, in.interface_name},
                             {&info->url_base, in.url_base},
                             {&info->location, in.location},
                             {&info->serial_number, in.serial_number},
                             {&info->manufacturer, in.manufacturer},
                             {&info->model_name, in.model_name},
                             {&info->model_number, in.model_number},
                             {&info->description_path, in.description_path},
                             {&info->description_xml, in.description_xml}})) {
    return CP_ERR_OUT_OF_MEMORY;
  }
  info->device_port = in.device_port;
  const bool known = in.device_domain >= kFirstDomain && in.device_domain <= kLastDomain;
  info->device_domain = known ? in.device_domain : kNoDomain;
  const int icons = ConvertChain(info->icons, in.icons, GetCPDeviceIconFromDeviceIcon);
  if (icons != CP_ERR_NONE) return icons;
  const int services =
      ConvertChain(info->services, in.services, GetCPDeviceServiceFromDeviceService);
  if (services != CP_ERR_NONE) return services;
  *out = info.release();
  return CP_ERR_NONE;
}

int GetCPDeviceIconFromDeviceIcon(CPDeviceIcon** out, cp_discovery::DeviceIconInfo& in) {
  if (out == nullptr) return CP_ERR_INVALID_PARAMS;
  Owned<CPDeviceIcon, FreeCPDeviceIcon> icon(CallocRecord<CPDeviceIcon>());
  if (!icon || !CopyStrings({{&icon->mimetype, in.mimetype},
                             {&icon->width, in.width},
                             {&icon->height, in.height},
                             {&icon->depth, in.depth},
                             {&icon->url, in.url}})) {
    return CP_ERR_OUT_OF_MEMORY;
  }
  *out = icon.release();
  return CP_ERR_NONE;
}

int GetCPDeviceServiceFromDeviceService(CPDeviceServiceInfo** out,
                                        cp_discovery::DeviceServiceInfo& in) {
  if (out == nullptr) return CP_ERR_INVALID_PARAMS;
  Owned<CPDeviceServiceInfo, FreeCPDeviceServiceInfo> service(CallocRecord<CPDeviceServiceInfo>());
  if (!service || !CopyStrings({{&service->service_key, in.service_key},
                                {&service->service_owner, in.service_owner},
                                {&service->service_type, in.service_type},
                                {&service->service_id, in.service_id},
                                {&service->scpd_url, in.scpd_url},
                                {&service->control_url, in.control_url},
                                {&service->event_sub_url, in.event_sub_url}})) {
    return CP_ERR_OUT_OF_MEMORY;
  }
  *out = service.release();
  return CP_ERR_NONE;
}

errorcodes GetCPArgumentListFromArgumentList(CPArgument** out,
                                             std::list<cp_utils::CPUtilsArgument>& in) {
  if (out == nullptr) return CP_ERR_INVALID_PARAMS;
  CPArgument* head = nullptr;
  CPArgument* tail = nullptr;
  for (const cp_utils::CPUtilsArgument& argument : in) {
    CPArgument* const node = CallocRecord<CPArgument>();
    // A node without its strings is part of the list already, which frees it either way.
    if (node != nullptr) AppendNode(head, tail, node);
    if (node == nullptr ||
        !CopyStrings({{&node->name, argument.name}, {&node->value, argument.value}})) {
      FreeCPArgumentList(head);
      return CP_ERR_OUT_OF_MEMORY;
    }
  }
  *out = head;
  return CP_ERR_NONE;
}

void FreeCPDeviceInfo(CPDeviceInfo* info) {
  if (info == nullptr) return;
  FreeStrings({info->friendly_name, info->udn, info->display_name, info->device_type,
               info->interface_name});
  FreeChain(info->icons, FreeCPDeviceIcon);
  std::free(info);
}

void FreeCPDetailedDeviceInfo(CPDetailedDeviceInfo* info) {
  if (info == nullptr) return;
  FreeStrings({info->friendly_name, info->udn, info->display_name, info->device_type,
               info->device_ip, info->local_ip, info->interface_name, info->url_base,
               info->location, info->serial_number, info->manufacturer, info->model_name,
               info->model_number, info->description_path, info->description_xml});
  FreeChain(info->icons, FreeCPDeviceIcon);
  FreeChain(info->services, FreeCPDeviceServiceInfo);
  std::free(info);
}

void FreeCPDeviceIcon(CPDeviceIcon* icon) {
  if (icon == nullptr) return;
  FreeStrings({icon->mimetype, icon->width, icon->height, icon->depth, icon->url});
  std::free(icon);
}

void FreeCPDeviceServiceInfo(CPDeviceServiceInfo* service) {
  if (service == nullptr) return;
  FreeStrings({service->service_key, service->service_owner, service->service_type,
               service->service_id, service->scpd_url, service->control_url,
               service->event_sub_url});
  std::free(service);
}

int FreeCPDeviceInfoList(CPDeviceInfo* list) {
  if (list == nullptr) return CP_ERR_INVALID_PARAMS;
  FreeChain(list, FreeCPDeviceInfo);
  return CP_ERR_NONE;
}

int FreeCPArgumentList(CPArgument* list) {
  FreeChain(list, [](CPArgument* argument) {
    FreeStrings({argument->name, argument->value});
    std::free(argument);
  });
  return CP_ERR_NONE;
}

}  // namespace generic_cp
}  // namespace vex_upnp

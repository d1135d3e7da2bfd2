#ifndef VEXUPNPCP_GENERIC_CP_H_
#define VEXUPNPCP_GENERIC_CP_H_

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CPDeviceTypeInfo {
  char* device_type;
  struct CPDeviceTypeInfo* next;
} CPDeviceTypeInfo;

typedef struct CPArgument {
  char* name;
  char* value;
  struct CPArgument* next;
} CPArgument;

typedef struct CPDeviceIcon {
  char* mimetype;
  char* width;
  char* height;
  char* depth;
  char* url;
  struct CPDeviceIcon* next;
} CPDeviceIcon;

typedef struct CPDeviceServiceInfo {
  char* service_key;
  char* service_owner;
  char* service_type;
  char* service_id;
  char* scpd_url;
  char* control_url;
  char* event_sub_url;
  struct CPDeviceServiceInfo* next;
} CPDeviceServiceInfo;

typedef struct CPDeviceInfo {
  char* friendly_name;
  char* udn;
  char* display_name;
  char* device_type;
  char* interface_name;
  CPDeviceIcon* icons;
  struct CPDeviceInfo* next;
} CPDeviceInfo;

typedef struct CPDetailedDeviceInfo {
  char* friendly_name;
  char* udn;
  char* display_name;
  char* device_type;
  CPDeviceIcon* icons;
  char* device_ip;
  char* local_ip;
  char* interface_name;
  char* url_base;
  int device_port;
  char* location;
  char* serial_number;
  char* manufacturer;
  char* model_name;
  char* model_number;
  char* description_path;
  char* description_xml;
  CPDeviceServiceInfo* services;
  int device_domain;
} CPDetailedDeviceInfo;

typedef struct ControlPointCalbacks {
  void (*event_callback)(const char* device_udn, errorcodes code, CPArgument* variables);
  void (*action_callback)(int action_id, errorcodes code, CPArgument* output,
                          const char* error_description);
  void (*device_callback)(int event, CPDeviceInfo* device);
  void (*reserved_callback)(void);
} ControlPointCalbacks;

VEX_EXPORT int InitializeGenericCP(void);
VEX_EXPORT int TerminateGenericCP(void);
VEX_EXPORT void GenericCPSetUserAgent(const char* agent);
VEX_EXPORT char* GenericCPGetUserAgent(void);
VEX_EXPORT int RegisterCP(const CPDeviceTypeInfo* types, ControlPointCalbacks* callbacks,
                          int* handle);
VEX_EXPORT int UnRegisterCP(int handle);
VEX_EXPORT int GetDeviceList(int handle, const char* device_type, CPDeviceInfo** list);
VEX_EXPORT int FreeDeviceList(CPDeviceInfo* list);
VEX_EXPORT int GetDetailedDeviceInfo(int handle, const char* udn, CPDetailedDeviceInfo** info);
VEX_EXPORT int FreeDetailedDeviceInfo(CPDetailedDeviceInfo* info);
VEX_EXPORT int GetServiceDescription(int handle, const char* udn, const char* service_type,
                                     char** description);
VEX_EXPORT int RescanNetwork(int handle, const char* device_type);
VEX_EXPORT int SendAction(int handle, const char* udn, const char* service_type,
                          const char* action_name, CPArgument* arguments, int* action_id);
VEX_EXPORT void CancelAction(int handle, int action_id);
VEX_EXPORT int SubscribeDevice(int handle, const char* udn);
VEX_EXPORT int UnSubscribeDevice(int handle, const char* udn);
VEX_EXPORT int SubscribeService(int handle, const char* udn, const char* service_type);
VEX_EXPORT int UnSubscribeService(int handle, const char* udn, const char* service_type);

#ifdef __cplusplus
}
#endif

#endif /* VEXUPNPCP_GENERIC_CP_H_ */

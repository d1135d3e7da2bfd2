#include <vexupnpcp/generic_cp.h>

#include <atomic>
#include <list>
#include <new>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/cp_utils.h>
#include "base/current_exception.h"
#include "base/host_memory.h"
#include "base/log.h"
#include "src/generic_cp_manager.h"
#include "src/generic_cp_utils.h"

using vex_upnp::CallocString;
using vex_upnp::kLogMajor;
using vex_upnp::kLogStep;
using vex_upnp::LogSite;
using vex_upnp::MallocString;
using vex_upnp::generic_cp::GenericCPManager;
using vex_upnp::log::kTagGenericCp;
namespace cp_discovery = vex_upnp::cp_discovery;
namespace cp_utils = vex_upnp::cp_utils;
namespace generic_cp = vex_upnp::generic_cp;

namespace {

// 1 from a successful InitializeGenericCP to TerminateGenericCP; read by every call.
std::atomic<int> IsCPInitialized{0};

// To be called inside a catch (...): nothing may pass the plain functions, whose callers may be
// written in C.
int Caught(const LogSite& site) {
  vex_upnp::LogCurrentException(site, kLogMajor, kTagGenericCp, "Exception: %s",
                                "Unknown exception");
  return vex_upnp::CaughtNoMemory() ? CP_ERR_OUT_OF_MEMORY : CP_ERR_OPERATION_FAILED;
}

// Never null once the library is initialised, save for want of memory.
boost::shared_ptr<GenericCPManager> Manager() {
  boost::shared_ptr<GenericCPManager> manager = GenericCPManager::GetInstance();
  if (!manager) throw std::bad_alloc();
  return manager;
}

std::string TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

int ConvertDeviceList(std::list<cp_discovery::DeviceInfo>& devices, CPDeviceInfo** list) {
  CPDeviceInfo* head = nullptr;
  CPDeviceInfo* tail = nullptr;
  for (cp_discovery::DeviceInfo& device : devices) {
    CPDeviceInfo* record = nullptr;
    const int converted = generic_cp::GetCPDeviceInfoFromDeviceInfo(&record, device);
    if (converted != CP_ERR_NONE) {
      FreeDeviceList(head);
      return converted;
    }
    vex_upnp::AppendNode(head, tail, record);
  }
  *list = head;
  return CP_ERR_NONE;
}

}  // namespace

int InitializeGenericCP(void) try {
  const boost::shared_ptr<GenericCPManager> manager = GenericCPManager::GetInstance();
  if (!manager) return CP_ERR_OUT_OF_MEMORY;
  const int initialized = manager->Initialize();
  if (initialized == CP_ERR_NONE) IsCPInitialized = 1;
  return initialized;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int TerminateGenericCP(void) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  const int terminated = Manager()->Terminate();
  GenericCPManager::DestroyInstance();
  IsCPInitialized = 0;
  return terminated;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

void GenericCPSetUserAgent(const char* agent) try {
  if (agent == nullptr) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Invalid params.");
    return;
  }
  Manager()->SetUserAgent(agent);
} catch (...) {
  Caught(VEX_LOG_SITE);
}

char* GenericCPGetUserAgent(void) try {
  return MallocString(Manager()->GetUserAgent());
} catch (...) {
  Caught(VEX_LOG_SITE);
  return nullptr;
}

int RegisterCP(const CPDeviceTypeInfo* types, ControlPointCalbacks* callbacks, int* handle) try {
  if (IsCPInitialized == 0) {
    VEX_LOG(kLogStep, kTagGenericCp, "Cannot register CP. Generic CP not started.");
    return CP_ERR_NOT_INITIALIZED;
  }
  if (types == nullptr || handle == nullptr) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Invalid params.");
    return CP_ERR_INVALID_PARAMS;
  }
  return Manager()->RegisterCP(types, callbacks, handle);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int UnRegisterCP(int handle) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  return Manager()->UnRegisterCP(handle);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetDeviceList(int handle, const char* device_type, CPDeviceInfo** list) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (device_type == nullptr || list == nullptr) return CP_ERR_INVALID_PARAMS;
  std::list<cp_discovery::DeviceInfo> devices;
  const int found = Manager()->GetDeviceList(handle, device_type, devices);
  return found == CP_ERR_NONE ? ConvertDeviceList(devices, list) : found;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int FreeDeviceList(CPDeviceInfo* list) {
  // KEPT: after the control point's end nothing is freed; a host releases its lists before.
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  return generic_cp::FreeCPDeviceInfoList(list);
}

int GetDetailedDeviceInfo(int handle, const char* udn, CPDetailedDeviceInfo** info) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr || info == nullptr) return CP_ERR_INVALID_PARAMS;
  cp_discovery::DetailedDeviceInfo device;
  const int found = Manager()->GetDetailedDeviceInfo(handle, udn, device);
  if (found != CP_ERR_NONE) return found;
  return generic_cp::GetCPDetailedDeviceInfoFromDetailedDeviceInfo(info, device);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int FreeDetailedDeviceInfo(CPDetailedDeviceInfo* info) {
  // KEPT: as with FreeDeviceList.
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  generic_cp::FreeCPDetailedDeviceInfo(info);
  return CP_ERR_NONE;
}

int GetServiceDescription(int handle, const char* udn, const char* service_type,
                          char** description) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr || service_type == nullptr || description == nullptr) {
    return CP_ERR_INVALID_PARAMS;
  }
  std::string text;
  const int found = Manager()->GetServiceDescription(handle, udn, service_type, text);
  if (found != CP_ERR_NONE) return found;
  char* const copy = CallocString(text);
  if (copy == nullptr) return CP_ERR_OUT_OF_MEMORY;
  *description = copy;
  return CP_ERR_NONE;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int RescanNetwork(int handle, const char* device_type) try {
  if (IsCPInitialized == 0) {
    VEX_LOG(kLogStep, kTagGenericCp, "Cannot rescan network. Generic CP not started.");
    return CP_ERR_NOT_INITIALIZED;
  }
  return Manager()->Rescan(handle, TextOrEmpty(device_type));
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int SendAction(int handle, const char* udn, const char* service_type, const char* action_name,
               CPArgument* arguments, int* action_id) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr || service_type == nullptr || action_name == nullptr || action_id == nullptr) {
    return CP_ERR_INVALID_PARAMS;
  }
  std::list<cp_utils::CPUtilsArgument> list;
  for (const CPArgument* argument = arguments; argument != nullptr; argument = argument->next) {
    list.push_back({TextOrEmpty(argument->name), TextOrEmpty(argument->value)});
  }
  return Manager()->SendAction(handle, udn, service_type, action_name, list, action_id);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

void CancelAction(int handle, int action_id) try {
  Manager()->CancelAction(handle, action_id);
} catch (...) {
  Caught(VEX_LOG_SITE);
}

int SubscribeDevice(int handle, const char* udn) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr) return CP_ERR_INVALID_PARAMS;
  return Manager()->SubscribeDevice(handle, udn);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int UnSubscribeDevice(int handle, const char* udn) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr) return CP_ERR_INVALID_PARAMS;
  return Manager()->UnSubscribeDevice(handle, udn);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int SubscribeService(int handle, const char* udn, const char* service_type) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr || service_type == nullptr) return CP_ERR_INVALID_PARAMS;
  return Manager()->SubscribeService(handle, udn, service_type);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int UnSubscribeService(int handle, const char* udn, const char* service_type) try {
  if (IsCPInitialized == 0) return CP_ERR_NOT_INITIALIZED;
  if (udn == nullptr || service_type == nullptr) return CP_ERR_INVALID_PARAMS;
  return Manager()->UnSubscribeService(handle, udn, service_type);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

#include <vexupnpcp/framework_controller_cp.h>

#include <atomic>
#include <cstdlib>
#include <vector>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>
#include "base/current_exception.h"
#include "base/host_memory.h"
#include "base/log.h"

namespace vex_upnp {
namespace framework_core {
namespace {

using log::kTagFrameworkController;

constexpr int kNotInitialized = -1;
constexpr int kInitialized = 0;
constexpr int kStarted = 1;

// From INIT_TYPE_NONE to this value InitializeUPnP refuses.
constexpr int kLastRefusedType = 1;

constexpr char kOtherMulticastGroup[] = "239.255.255.177";

using FrameworkLock = boost::lock_guard<boost::recursive_mutex>;

// Serialises start and stop. The outermost lock of all: it is held while the network's threads are
// joined, so none of the library's threads may want it. Recursive, since TerminateFrameworkCore
// calls two functions that take it again.
// Never destroyed: the process may exit while a host's thread is inside.
boost::recursive_mutex& fc_mutex_ = *new boost::recursive_mutex;

// Written under fc_mutex_, read without it by what a host calls between start and stop.
std::atomic<int> framework_start_type{kNotInitialized};
std::atomic<int> profile_start_type{INIT_TYPE_NONE};

enum class Profile { kNone, kDiscovery, kFull, kUnknown };

Profile ProfileOf(int type) {
  if (type >= INIT_TYPE_NONE && type <= kLastRefusedType) return Profile::kNone;
  if (type == INIT_TYPE_CP_DISCOVERY) return Profile::kDiscovery;
  if (type == INIT_TYPE_CP) return Profile::kFull;
  return Profile::kUnknown;
}

// To be called inside a catch (...): the last edge before the host, which nothing may pass.
int Caught(const LogSite& site) {
  LogCurrentException(site, kLogMajor, kTagFrameworkController, "Exception: %s",
                      "Unknown exception");
  return result::kFailure;
}

void FreeInterface(NetworkInfo* info) {
  std::free(info->name);
  std::free(info->ip);
  std::free(info);
}

}  // namespace

int InitFrameworkCore(const std::string&) try {
  log::FindSink();
  VEX_LOG(kLogMajor, kTagFrameworkController, "Entering InitFrameworkCore ");
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type != kNotInitialized) {
    VEX_LOG(kLogMajor, kTagFrameworkController, " Returning from InitFrameworkCore ");
    return result::VX_FC_ALREADY_INITIALIZED;
  }
  const int initialized = network_layer::InitializeNetworkLayer();
  if (initialized == result::kOk) framework_start_type = kInitialized;
  // KEPT: the timer and the network's threads come up also when the layer could not be built; a
  // repeated call finds them running.
  utils::Timer::InitializeManager();
  network_layer::StartNetworkLayer();
  VEX_LOG(kLogStep, kTagFrameworkController, "Exiting InitFrameworkCore ");
  return initialized;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int StartFrameworkCore() try {
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type == kNotInitialized) return result::VX_FC_UNINITIALIZED;
  framework_start_type = kStarted;
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int StopFrameworkCore() try {
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type != kStarted) return result::VX_FC_UNINITIALIZED;
  framework_start_type = kInitialized;
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int TerminateFrameworkCore() try {
  FrameworkLock lock(fc_mutex_);
  VEX_LOG(kLogStep, kTagFrameworkController, "Enter TerminateFrameworkCore ");
  if (framework_start_type == kNotInitialized) {
    VEX_LOG(kLogMajor, kTagFrameworkController, "Error: VX_FC_UNINITIALIZED");
    return result::VX_FC_UNINITIALIZED;
  }
  // The network's threads are gone before discovery and control are told to end, and the timer
  // outlives them.
  network_layer::StopNetworkLayer();
  VEX_LOG(kLogMajor, kTagFrameworkController, "StopNetworkLayer finished");
  StopFrameworkCore();
  VEX_LOG(kLogMajor, kTagFrameworkController, "StopFrameworkCore finished");
  TerminateUPnP();
  VEX_LOG(kLogMajor, kTagFrameworkController, "TerminateUPnP finished");
  utils::Timer::TerminateManager();
  VEX_LOG(kLogMajor, kTagFrameworkController, "Timer Terminate finished");
  framework_start_type = kNotInitialized;
  const int terminated = network_layer::TerminateNetworkLayer();
  VEX_LOG(kLogStep, kTagFrameworkController, "Exit");
  return terminated;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int InitializeUPnP(eInitType type) try {
  VEX_LOG(kLogMajor, kTagFrameworkController, "Calling InitializeUPnP");
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type == kNotInitialized) return result::VX_FC_UNINITIALIZED;
  if (profile_start_type != INIT_TYPE_NONE) return result::VX_FC_ALREADY_INITIALIZED;

  int started = result::kOk;
  switch (ProfileOf(type)) {
    case Profile::kNone:
      return result::kFailure;
    case Profile::kDiscovery:
      VEX_LOG(kLogStep, kTagFrameworkController, "INIT CP_D");
      started = cp_discovery::Initialize();
      break;
    case Profile::kFull:
      VEX_LOG(kLogStep, kTagFrameworkController, "INIT CP");
      started = cp_discovery::Initialize();
      if (started == result::kOk) cp_control::Initialize();
      break;
    case Profile::kUnknown:
      VEX_LOG(kLogMajor, kTagFrameworkController, "Invalid framework type!");
      break;
  }
  // KEPT: stored also when discovery failed or the type stands for nothing, so that only
  // TerminateUPnP makes room for another try.
  profile_start_type = type;
  return started;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int TerminateUPnP() try {
  VEX_LOG(kLogMajor, kTagFrameworkController, "Calling TerminateUPnP");
  FrameworkLock lock(fc_mutex_);
  switch (ProfileOf(profile_start_type)) {
    case Profile::kNone:
      break;
    case Profile::kDiscovery:
      cp_discovery::Terminate();
      break;
    case Profile::kFull:
      cp_discovery::Terminate();
      VEX_LOG(kLogStep, kTagFrameworkController, "cp_discovery Terminated");
      cp_control::Terminate();
      VEX_LOG(kLogStep, kTagFrameworkController, "cp_control Terminated");
      break;
    case Profile::kUnknown:
      VEX_LOG(kLogMajor, kTagFrameworkController, "Invalid framework type!");
      break;
  }
  profile_start_type = INIT_TYPE_NONE;
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int ConfigureServers(int tcpPort, int multicastPort, int udpPort, bool otherMulticast) try {
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type == kNotInitialized) return result::VX_FC_UNINITIALIZED;
  int configured = result::kOk;
  if (tcpPort != 0) configured = network_layer::ConfigureTCPServer(tcpPort, true);
  if (configured == result::kOk && multicastPort != 0) {
    configured = network_layer::ConfigureUPnPMulticastServer(multicastPort, true);
    if (configured == result::kOk && otherMulticast) {
      configured =
          network_layer::ConfigureMulticastServer(kOtherMulticastGroup, multicastPort, true);
    }
  }
  if (configured == result::kOk && udpPort != 0) {
    configured = network_layer::ConfigureUDPServer(udpPort, true);
  }
  return configured;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int StartNetworkMonitor() try {
  VEX_LOG(kLogMajor, kTagFrameworkController, "StartNetworkMonitor");
  FrameworkLock lock(fc_mutex_);
  if (framework_start_type == kNotInitialized) return result::VX_FC_UNINITIALIZED;
  return network_layer::InitializeNetworkMonitor();
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int StopNetworkMonitor() try {
  VEX_LOG(kLogMajor, kTagFrameworkController, "StopNetworkMonitor ");
  FrameworkLock lock(fc_mutex_);
  return network_layer::TerminateNetworkMonitor();
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int ConfigureApplicationOnAllInterfaces() try {
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetNetworkInterfaces(&interfaces);
  for (network_layer::NetInfo& interface : interfaces) {
    network_layer::ConfigureNetworkInterface(interface.name, true);
  }
  network_layer::ConfigureOnAllNetworkInterfaces(true);
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int ConfigureApplicationOnInterface(const char* interfaceName) try {
  if (interfaceName == nullptr) return result::kOk;
  std::string name = interfaceName;
  network_layer::ConfigureNetworkInterface(name, true);
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int GetAvailableNetworkInterfaces(NetworkInfo** list) try {
  if (list == nullptr || *list != nullptr) return result::kFailure;
  std::vector<network_layer::NetInfo> interfaces;
  network_layer::GetActiveSelectedNetworkInterfaces(&interfaces);
  if (interfaces.empty()) return result::kFailure;

  NetworkInfo* tail = nullptr;
  for (const network_layer::NetInfo& interface : interfaces) {
    NetworkInfo* const node = CallocRecord<NetworkInfo>();
    if (node == nullptr) {
      // KEPT: the host's pointer is left as it stands, at the freed head; the header says so.
      FreeInterfaceList(*list);
      return result::kFailure;
    }
    node->name = CallocString(interface.name);
    node->ip = CallocString(interface.ip_address);
    AppendNode(*list, tail, node);
  }
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

void FreeInterfaceList(NetworkInfo* list) { FreeChain(list, FreeInterface); }

void SetDefaultUserAgent(const std::string& agent) try {
  switch (ProfileOf(profile_start_type)) {
    case Profile::kNone:
      VEX_LOG(kLogStep, kTagFrameworkController, "Framework core not started!");
      break;
    case Profile::kDiscovery:
      cp_discovery::SetDefaultUserAgent(agent);
      break;
    case Profile::kFull:
      cp_discovery::SetDefaultUserAgent(agent);
      cp_control::SetDefaultUserAgent(agent);
      break;
    case Profile::kUnknown:
      VEX_LOG(kLogMajor, kTagFrameworkController, "Invalid framework type!");
      break;
  }
} catch (...) {
  Caught(VEX_LOG_SITE);
}

void GetDefaultUserAgent(std::string& agent) try {
  switch (ProfileOf(profile_start_type)) {
    case Profile::kNone:
      VEX_LOG(kLogStep, kTagFrameworkController, "Framework core not started!");
      break;
    case Profile::kDiscovery:
    case Profile::kFull:
      cp_discovery::GetDefaultUserAgent(agent);
      break;
    case Profile::kUnknown:
      VEX_LOG(kLogMajor, kTagFrameworkController, "Invalid framework type!");
      break;
  }
} catch (...) {
  Caught(VEX_LOG_SITE);
}

int ConfigureMulticastSupport(bool enable) try {
  if (framework_start_type != kStarted) return result::VX_FC_UNINITIALIZED;
  const int configured = network_layer::ConfigureMulticastSupport(enable);
  // Announcements were missed while multicast was off.
  if (configured == result::kOk && enable) cp_discovery::RescanForRegisteredCP();
  return configured;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int ConfigureAutoRescanFeature(bool enable) try {
  const int profile = profile_start_type;
  if (profile != INIT_TYPE_CP_DISCOVERY && profile != INIT_TYPE_CP &&
      profile != INIT_TYPE_CP_EXTENDED) {
    VEX_LOG(kLogMajor, kTagFrameworkController, "CP discovery not initialized");
    return result::VX_FC_UNINITIALIZED;
  }
  if (enable) {
    cp_discovery::EnableAutoRescanFeature();
  } else {
    cp_discovery::DisableAutoRescanFeature();
  }
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int NotifyNICAdded(const std::string& name, const std::string& ip, const std::string& mask) try {
  return network_layer::NotifyNICAdded(name, ip, mask);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

int NotifyNICRemoved(const std::string& name) try {
  return network_layer::NotifyNICRemoved(name);
} catch (...) {
  return Caught(VEX_LOG_SITE);
}

}  // namespace framework_core
}  // namespace vex_upnp

#include <vexupnpcp/networkmonitor.h>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "src/networkinterface.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr int kNoListener = -1;

// To be called inside a catch (...): nothing is thrown at whoever uses the registry.
int Caught(const LogSite& site, int failure) {
  LogCurrentException(site, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  return failure;
}

}  // namespace

// None of these builds the registry: before the network layer is there, and after it has gone,
// each gives its failure value.

void GetNetworkInterfaces(std::vector<NetInfo>* interfaces) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance && interfaces != nullptr) instance->ScanNetworkInterface(*interfaces);
} catch (...) {
  Caught(VEX_LOG_SITE, result::kFailure);
}

void GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>* interfaces) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance && interfaces != nullptr) {
    instance->GetActiveSelectedNetworkInterfaces(*interfaces);
  }
} catch (...) {
  Caught(VEX_LOG_SITE, result::kFailure);
}

int GetNetworkInterface(const std::string& name, NetInfo& info) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) {
    VEX_LOG(kLogMajor, kTag, "Network Instance NULL!");
    return result::kFailure;
  }
  return instance->GetNetworkInformationMA(name, info);
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

int GetNetworkInterfaceByIP(const std::string& ip, NetInfo& info) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) {
    VEX_LOG(kLogMajor, kTag, "Network Instance NULL!");
    return result::kFailure;
  }
  return instance->GetNetworkInformationByIp(ip, info);
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

int ConfigureNetworkInterface(std::string& name, const bool& enable) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kNo;
  if (enable) {
    instance->SelectNetworkInterface(name);
  } else {
    instance->UnselectNetworkInterface(name);
  }
  return result::kYes;
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kNo);
}

int ConfigureOnAllNetworkInterfaces(const bool& enable) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kNo;
  instance->SetConfigureAllNetworkInterfaces(enable);
  return result::kYes;
}

int InitializeNetworkMonitor() try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  instance->StartScanNetworkInterface();
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

int TerminateNetworkMonitor() try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  instance->StopScanNetworkInterface();
  return result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

int RegisterNetworkEventListener(NetworkEventListener* listener, int& id) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  id = instance->AddNetIfListener(listener);
  return id == kNoListener ? result::kNullListener : result::kOk;
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

void UnRegisterEventListener(const int& id) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance) instance->DeleteNetIfListener(id);
} catch (...) {
  Caught(VEX_LOG_SITE, result::kFailure);
}

int NotifyNICAdded(const std::string& name, const std::string& ip, const std::string& mask) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  return !instance ? result::kFailure : instance->NotifyNICAdded(name, ip, mask);
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

int NotifyNICRemoved(const std::string& name) try {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  return !instance ? result::kFailure : instance->NotifyNICRemoved(name);
} catch (...) {
  return Caught(VEX_LOG_SITE, result::kFailure);
}

}  // namespace network_layer
}  // namespace vex_upnp

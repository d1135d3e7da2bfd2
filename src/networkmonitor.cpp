#include <vexupnpcp/networkmonitor.h>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "src/networkinterface.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr int kNoListener = -1;

}  // namespace

// None of these builds the registry: before the network layer is there, and after it has gone,
// each gives its failure value.

void GetNetworkInterfaces(std::vector<NetInfo>* interfaces) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance && interfaces != nullptr) instance->ScanNetworkInterface(*interfaces);
}

void GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>* interfaces) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance && interfaces != nullptr) {
    instance->GetActiveSelectedNetworkInterfaces(*interfaces);
  }
}

int GetNetworkInterface(const std::string& name, NetInfo& info) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) {
    VEX_LOG(kLogMajor, kTag, "Network Instance NULL!");
    return result::kFailure;
  }
  return instance->GetNetworkInformationMA(name, info);
}

int GetNetworkInterfaceByIP(const std::string& ip, NetInfo& info) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) {
    VEX_LOG(kLogMajor, kTag, "Network Instance NULL!");
    return result::kFailure;
  }
  return instance->GetNetworkInformationByIp(ip, info);
}

int ConfigureNetworkInterface(std::string& name, const bool& enable) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kNo;
  if (enable) {
    instance->SelectNetworkInterface(name);
  } else {
    instance->UnselectNetworkInterface(name);
  }
  return result::kYes;
}

int ConfigureOnAllNetworkInterfaces(const bool& enable) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kNo;
  instance->SetConfigureAllNetworkInterfaces(enable);
  return result::kYes;
}

int InitializeNetworkMonitor() {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  instance->StartScanNetworkInterface();
  return result::kOk;
}

int TerminateNetworkMonitor() {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  instance->StopScanNetworkInterface();
  return result::kOk;
}

int RegisterNetworkEventListener(NetworkEventListener* listener, int& id) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (!instance) return result::kFailure;
  id = instance->AddNetIfListener(listener);
  return id == kNoListener ? result::kNullListener : result::kOk;
}

void UnRegisterEventListener(const int& id) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  if (instance) instance->DeleteNetIfListener(id);
}

int NotifyNICAdded(const std::string& name, const std::string& ip, const std::string& mask) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  return !instance ? result::kFailure : instance->NotifyNICAdded(name, ip, mask);
}

int NotifyNICRemoved(const std::string& name) {
  const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
  return !instance ? result::kFailure : instance->NotifyNICRemoved(name);
}

}  // namespace network_layer
}  // namespace vex_upnp

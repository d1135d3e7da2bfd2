#ifndef VEXUPNPCP_SRC_DESCRIPTION_LISTENER_H_
#define VEXUPNPCP_SRC_DESCRIPTION_LISTENER_H_

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_listeners.h>

#include "base/use_count.h"
#include "src/device.h"
#include "src/now_requesting.h"

namespace vex_upnp {
namespace cp_discovery {

class CPDiscoveryManager;
class DeviceList;

// Receives descriptions. A device description becomes entries of the device list, one for the root
// device and one for each that is embedded in it; each of them is told as added when the
// descriptions of all its services have come, or at once when it has no services.
class DescriptionListener : public network_layer::ResponseListener {
 public:
  // Made at the first use.
  static boost::shared_ptr<DescriptionListener> GetInstance();
  // Null before the first use and after termination.
  static boost::shared_ptr<DescriptionListener> ExistingInstance();
  // Waits until no answer is being handled and refuses later ones.
  static void DestroyInstance();

  void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> http_info,
                          const int& session_id) override;

  // 0 when the call may go on, 1 after termination.
  int IncrementUseCount() { return use_count_.Increment(); }
  void DecrementUseCount() { use_count_.Decrement(); }

  // The absolute form of a service's description URL; StringUtils::GetAbsoluteUri treats slashes
  // and missing parts differently.
  static std::string MakeServiceUrl(const std::string& scpd_url, const Device& device);

 private:
  DescriptionListener() = default;

  void HandleResponse(CPDiscoveryManager& manager,
                      const boost::shared_ptr<utils::HTTPInfo>& http_info, int session_id);
  void DeviceDescriptionReceived(CPDiscoveryManager& manager, utils::HTTPInfo* http_info,
                                 const NowRequesting& request);
  boost::shared_ptr<Device> ReadDescription(utils::HTTPInfo* http_info);
  void ServiceDescriptionReceived(CPDiscoveryManager& manager, utils::HTTPInfo* http_info,
                                  const NowRequesting& request);

  int GetServiceDescription(CPDiscoveryManager& manager, const boost::shared_ptr<Device>& device,
                            int& requests);
  void PopulateServiceDescription(CPDiscoveryManager& manager,
                                  const std::list<boost::shared_ptr<Device>>& listed);
  bool DescribeServices(CPDiscoveryManager& manager, const boost::shared_ptr<Device>& device,
                        int& requests);
  void CheckEmbeddedDeviceExistance(CPDiscoveryManager& manager, const std::string& udn,
                                    const boost::shared_ptr<Device>& root);

  static void Deleter(DescriptionListener* instance);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<DescriptionListener>& m_instance_;
  static boost::mutex& singleton_mutex_;
};

// The name of the active interface with this address; `name` stays as it is without one.
void getInterfaceName(const std::string& ip, std::string& name);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DESCRIPTION_LISTENER_H_

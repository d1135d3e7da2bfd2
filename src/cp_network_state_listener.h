#ifndef VEXUPNPCP_SRC_CP_NETWORK_STATE_LISTENER_H_
#define VEXUPNPCP_SRC_CP_NETWORK_STATE_LISTENER_H_

#include <atomic>
#include <string>

#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

namespace vex_upnp {
namespace cp_discovery {

// Keeps discovery in step with the network interfaces: the devices of a lost one are gone at once,
// and after a change the registered types are searched for anew.
class CPNetworkStateListener : public network_layer::NetworkEventListener {
 public:
  static CPNetworkStateListener* GetInstance();
  // When it has been unregistered from the network layer.
  static void DestroyInstance();

  void OnNetworkChanged(std::string& interface_name, network_layer::NicEvent event) override;

 private:
  // Never destroyed: a thread of the library may still look while the process exits.
  static std::atomic<CPNetworkStateListener*> instance_;
  static boost::mutex& singleton_mutex_;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CP_NETWORK_STATE_LISTENER_H_

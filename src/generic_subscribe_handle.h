#ifndef VEXUPNPCP_SRC_GENERIC_SUBSCRIBE_HANDLE_H_
#define VEXUPNPCP_SRC_GENERIC_SUBSCRIBE_HANDLE_H_

#include <string>

#include <boost/smart_ptr/enable_shared_from_this.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace generic_cp {

// One subscribed service of one control point of the host: finds the addresses of the subscription
// and hands its events to the host. Held by boost::shared_ptr.
class GenericSubscribeHandle : public cp_control::DeviceEventListener,
                               public boost::enable_shared_from_this<GenericSubscribeHandle>,
                               public VEXUncopyable {
 public:
  GenericSubscribeHandle(int cp_handle, const std::string& udn, const std::string& service_type);

  std::string GetSubscribedDeviceUdn() const { return device_udn_; }
  std::string GetSubscribedServiceType() const { return service_type_; }

  // Finds the device and all addresses of the subscription, and must come first.
  int Prepare();
  // Where SubscribeService will send to.
  const std::string& event_url() const { return event_url_; }
  // Not more than once for an object.
  int SubscribeService();
  // Waits for an event of this process that is being delivered on another thread.
  int UnSubscribeService();
  // After a failed SubscribeService: takes out what the attempt left with control, whose record
  // would go on pointing here.
  void AbandonSubscription();

  void OnEventReceived(const std::string& body) override;

  // Guarded by the info_mutex of the control point that lists this handle: somebody is
  // unsubscribing it and will take it off the list, or clear the mark when that fails.
  bool leaving = false;

 private:
  const cp_discovery::DeviceServiceInfo* __FindService(
      const cp_discovery::DetailedDeviceInfo& device) const;

  const int cp_handle_;
  const std::string device_udn_;
  // Written by Prepare, read afterwards only.
  std::string host_header_;
  std::string callback_url_;
  std::string event_url_;
  std::string user_agent_;
  // Written by SubscribeService, read afterwards only.
  int handler_id_ = 0;
  const std::string service_type_;
};

}  // namespace generic_cp
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_GENERIC_SUBSCRIBE_HANDLE_H_

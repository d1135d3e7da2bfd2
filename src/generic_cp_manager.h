#ifndef VEXUPNPCP_SRC_GENERIC_CP_MANAGER_H_
#define VEXUPNPCP_SRC_GENERIC_CP_MANAGER_H_

#include <atomic>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/vexuncopyable.h>
#include "base/thread_marks.h"
#include "src/generic_cp_info.h"

namespace vex_upnp {
namespace generic_cp {

using EventCallback = void (*)(const char* device_udn, errorcodes code, CPArgument* variables);

// Receives device events for all control points of the host.
void device_notify_callback(int discovery_handle, cp_discovery::DeviceEventType event,
                            cp_discovery::DeviceInfo* info);

// Makes any number of control points of the host into one of discovery, which is registered once
// for all root devices, and filters the device events by each one's own types. Its operations are
// those of generic_cp.h, behind their tests.
class GenericCPManager : public cp_control::ControlResponseListener, public VEXUncopyable {
 public:
  // Built at first use, which may be before Initialize.
  static boost::shared_ptr<GenericCPManager> GetInstance();
  // Null when there is none: for what comes from below, which must not bring an ended one back.
  static boost::shared_ptr<GenericCPManager> ExistingInstance();
  static void DestroyInstance();

  void OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                          void* context) override;
  // Frees the context of an action that ends without an answer. A leaf: control calls it under a
  // lock of its own.
  void DeleteContext(void* context) override;

  int Initialize();
  int Terminate();
  void SetUserAgent(const std::string& agent);
  std::string GetUserAgent() const;

  int RegisterCP(const CPDeviceTypeInfo* types, const ControlPointCalbacks* callbacks, int* handle);
  int UnRegisterCP(int handle);
  int GetDeviceList(int handle, const std::string& device_type,
                    std::list<cp_discovery::DeviceInfo>& list);
  int GetDetailedDeviceInfo(int handle, const std::string& udn,
                            cp_discovery::DetailedDeviceInfo& info);
  int GetServiceDescription(int handle, const std::string& udn, const std::string& service_type,
                            std::string& description);
  int Rescan(int handle, const std::string& device_type);
  int SendAction(int handle, const std::string& udn, const std::string& service_type,
                 const std::string& action_name, std::list<cp_utils::CPUtilsArgument>& arguments,
                 int* action_id);
  void CancelAction(int handle, int action_id);
  int SubscribeDevice(int handle, const std::string& udn);
  int UnSubscribeDevice(int handle, const std::string& udn);
  int SubscribeService(int handle, const std::string& udn, const std::string& service_type);
  int UnSubscribeService(int handle, const std::string& udn, const std::string& service_type);

  void DeviceNotifyCallback(int discovery_handle, cp_discovery::DeviceEventType event,
                            cp_discovery::DeviceInfo* info);
  // Takes a leaf only, so that an event never waits for an action's result or for a subscription.
  int GetEventListenerForCP(int handle, EventCallback& callback) const;

 private:
  using InfoPointer = boost::shared_ptr<GenericCPInfo>;
  using DeviceCallback = void (*)(int event, CPDeviceInfo* device);

  // What one look at a control point's subscriptions gave.
  struct SubscriptionLook {
    bool decided = true;
    int code = CP_ERR_NONE;
    InfoPointer info;
    GenericCPInfo::HandlePointer handle;
  };

  GenericCPManager() = default;

  InfoPointer __Find(int handle) const;
  InfoPointer __TakeOut(int handle);
  bool __IsRegistered(int handle) const;
  static void __TearDown(GenericCPInfo& info);
  int __FindDevice(int handle, const std::string& udn,
                   cp_discovery::DetailedDeviceInfo& device) const;
  std::vector<DeviceCallback> __CollectDeviceCallbacks(const std::string& device_type) const;
  int __SubscribeWhenFree(int handle, const std::string& udn, const std::string& service_type,
                          const GenericCPInfo::HandlePointer& made);
  SubscriptionLook __TrySubscribe(int handle, const std::string& udn,
                                  const std::string& service_type,
                                  const GenericCPInfo::HandlePointer& made);
  SubscriptionLook __TryLeave(int handle, const std::string& udn, const std::string& service_type);

  // Never destroyed: a thread of the library may still look while the process exits. Both are
  // handed to base/singleton.h together, which takes the lock.
  static boost::mutex& m_singleton_lock_;
  static boost::shared_ptr<GenericCPManager>& m_instance_;

  // Serialises the calls of the host with each other and with action_callback, which runs under it.
  // Outer to info_mutex and to the leaves below; inner to the delivery of device events and of
  // subscriptions. Who registers or unregisters holds it.
  mutable boost::mutex cp_mutex_;
  int last_cp_handle_ VEX_GUARDED_BY(cp_mutex_) = -1;
  // A leaf, for single operations on the map.
  mutable boost::mutex map_mutex_;
  std::map<int, InfoPointer> registered_cps_ VEX_GUARDED_BY(map_mutex_);
  // A leaf.
  mutable boost::mutex agent_mutex_;
  std::string user_agent_ VEX_GUARDED_BY(agent_mutex_);

  std::atomic<int> discovery_handle_{-1};
};

}  // namespace generic_cp
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_GENERIC_CP_MANAGER_H_

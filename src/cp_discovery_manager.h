#ifndef VEXUPNPCP_SRC_CP_DISCOVERY_MANAGER_H_
#define VEXUPNPCP_SRC_CP_DISCOVERY_MANAGER_H_

#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/thread_marks.h"
#include "src/auto_rescan.h"
#include "src/device.h"
#include "src/device_list.h"
#include "src/discovery_workers.h"
#include "src/now_requesting_list.h"
#include "src/observer.h"
#include "src/rescan.h"

namespace vex_upnp {
namespace cp_discovery {

// The centre of discovery: the registered control points, the description requests in flight, the
// searches and the threads that check their outcome.
//
// Locks, outer to inner: the observers' delivery mutex; the device list's; that of the requests in
// flight. Each of the others is a leaf.
class CPDiscoveryManager : public Observable {
 public:
  // Made at the first use.
  static boost::shared_ptr<CPDiscoveryManager> GetInstance();
  // Null before the first use and after termination; for whatever comes by itself: timers, packets.
  static boost::shared_ptr<CPDiscoveryManager> ExistingInstance();

  // Registers with the network layer and takes a reference on streaming.
  int Init();
  // Waits for handlers and worker threads; must not be called from inside one.
  static void Terminate();
  void CleanUp();

  // Returns the new observer's id, from 1; its search is on its way then.
  int AddDeviceChangeListener(const boost::shared_ptr<Observer>& observer);
  // Once it has returned, no call to the observer is running on another thread or will come.
  void RemoveDeviceChangeListener(const int& id);

  int Rescan(const std::string& type) { return rescans_.Rescan(type); }
  void RescanForRegisteredCP();
  void CancelRescanTimers() { rescans_.CancelRescanTimers(); }
  void clearRescanProgress() { rescans_.clearRescanProgress(); }
  void SetRescanConnectTimeout(int seconds) { rescans_.SetRescanConnectTimeout(seconds); }
  void RescanTimerExpired(int timer_id, void* data);
  // These two put the work of an expired timer on a thread, which keeps the manager alive.
  static void StartRescanCheck(const boost::shared_ptr<CPDiscoveryManager>& manager, int timer_id,
                               void* data);
  static void StartDescriptionCheck(const boost::shared_ptr<CPDiscoveryManager>& manager,
                                    int timer_id);
  void ProgressTimerExpired(int timer_id);

  int EnableAutoRescan();
  int DisableAutoRescan();
  void UpdateAutoRescanTimer(int& timer_id) { auto_rescan_.ArmAgain(timer_id); }

  void GetUserAgentByDeviceType(const std::string& type, std::string& agent) const;
  void SetDefaultUserAgent(const std::string& agent);
  void GetDefaultUserAgent(std::string& agent) const;

  std::unique_ptr<DeviceList::Devices> GetDeviceListByType(const std::string& type) const;

  // Tells the observers whose type it is, in order of registration, on this thread. What one of
  // them throws is logged; nothing is thrown.
  void NotifyToDeviceChangeListener(DeviceStatus_ status, boost::shared_ptr<Device> device);
  // Makes a listed device ready and tells it as added; nothing happens when it has left the list.
  void NotifyDeviceReady(const boost::shared_ptr<Device>& device);
  // Tells devices that have left the list as removed, in their order, and ends what is asked for
  // them.
  void NotifyRemovedDevices(const DeviceList::Devices& removed);
  // To be held over the removal of devices and its telling, so that no added event of the same
  // device comes between the two.
  boost::recursive_mutex& delivery_mutex() { return observers_.delivery_mutex(); }
  void WaitForDelivery() { observers_.WaitForDelivery(); }

  int AddNowRequesting(const boost::shared_ptr<NowRequesting>& request) {
    return now_requesting_.Add(request);
  }
  void StartNowRequesting(const boost::shared_ptr<NowRequesting>& request) {
    now_requesting_.StartTimer(request);
  }
  int SendNowRequesting(const boost::shared_ptr<NowRequesting>& request, const std::string& packet,
                        const boost::shared_ptr<network_layer::ResponseListener>& listener) {
    return now_requesting_.Send(request, packet, listener);
  }
  boost::shared_ptr<NowRequesting> GetNowRequesting(const int& session_id) {
    return now_requesting_.FindBySession(session_id);
  }
  boost::shared_ptr<NowRequesting> GetNowRequestingByTimerId(int timer_id) {
    return now_requesting_.FindByTimer(timer_id);
  }
  void RemoveNowRequestingByUdn(const std::string& udn) { now_requesting_.RemoveByUdn(udn); }
  void RemoveNowRequestingBySessionId(const int& session_id) {
    now_requesting_.RemoveBySession(session_id);
  }
  void RemoveNowRequestingAll() { now_requesting_.RemoveAll(); }
  // A device of which a part cannot be had leaves the list, with all its requests. It was never
  // told as added, so it goes without an event.
  void LoseDevice(const std::string& udn);
  // Ends the request whose answer could not be handled, so that the device may be asked for
  // afresh. Needs no memory.
  void GiveUp(int session_id);
  void CheckNowRequesting(int timer_id);

 private:
  void SearchFirst(const std::string& type);
  CPDiscoveryManager() = default;

  int RegisterWithNetwork();
  static int HoldStreaming();
  static void UnRegisterFromNetwork();
  std::vector<std::string> RegisteredTypes() const;
  bool RetryDescription(const boost::shared_ptr<NowRequesting>& request);
  void TellObserver(Observer& observer, DeviceStatus_ status, boost::shared_ptr<Device>& device,
                    int version);

  boost::mutex id_mutex_;
  int observer_id_ VEX_GUARDED_BY(id_mutex_) = 0;
  NowRequestingList now_requesting_;
  Rescans rescans_;
  AutoRescan auto_rescan_;
  mutable boost::mutex user_agent_mutex_;
  std::string default_user_agent_ VEX_GUARDED_BY(user_agent_mutex_);
  // Last, so that its threads end before what they work on goes.
  DiscoveryWorkers discovery_threads_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<CPDiscoveryManager>& instance_;
  static boost::mutex& singleton_mutex_;
  // What the network layer gave at Init; -1 when not registered.
  static int udp_handle_;
  static int network_handle_;
  // Whether Init took a reference on streaming that Terminate gives back.
  static bool streaming_held_;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CP_DISCOVERY_MANAGER_H_

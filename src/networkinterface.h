#ifndef VEXUPNPCP_SRC_NETWORKINTERFACE_H_
#define VEXUPNPCP_SRC_NETWORKINTERFACE_H_

#include <atomic>
#include <list>
#include <string>
#include <vector>

#include <net/if.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/io_threads.h"
#include "base/thread_marks.h"
#include "src/net_change_listener.h"

namespace vex_upnp {
namespace network_layer {

// Whether the monitor thread is to go on.
extern std::atomic<bool> netruntimer_thread;

// What the monitor thread runs: a scan every two seconds, until it is told or interrupted to end.
class NetworkMonitor {
 public:
  void operator()() const;

 private:
  static void __Watch();
};

// The record of the IPv4 interfaces that are up (available) and of the names that the application
// wants served (selected), which may be up or not. An interface is active when it is both.
//
// Results differ from function to function and callers rely on them; each says its own.
class NetworkInterface : public VEXUncopyable,
                         public boost::enable_shared_from_this<NetworkInterface> {
 public:
  // Made at the first call.
  static boost::shared_ptr<NetworkInterface> GetInstance();
  // Null before the first GetInstance and after DestroyInstance.
  static boost::shared_ptr<NetworkInterface> ExistingInstance();
  // Ends the threads; whoever still holds the object may ask it, and hears of no more changes.
  static void DestroyInstance();

  ~NetworkInterface() override;

  // Whether every interface found is selected by itself.
  void SetConfigureAllNetworkInterfaces(const bool& enable);

  // 0 and the first available interface of exactly this name; 1 when there is none.
  int GetNetworkInformationMA(const std::string& name, NetInfo& info);
  // 0 and the interface of exactly this address; 1 when there is none.
  int GetNetworkInformationByIp(const std::string& ip, NetInfo& info);
  // A copy of the available interfaces. Looks at the record only.
  void ScanNetworkInterface(std::vector<NetInfo>& interfaces);
  std::vector<std::string> GetSelectedNetworkInterfaces();
  // Appends the active interfaces, in the order of the available ones.
  void GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>& interfaces);

  // 1 when the interface is up or was selected before, 0 when it will be served once it comes up.
  int SelectNetworkInterface(const std::string& name);
  // 1 when the name was selected.
  int UnselectNetworkInterface(const std::string& name);
  // 0 when an entry of that name was erased, the first one only; 1 when there was none.
  int RemoveNetworkInterfaceInfo(std::vector<NetInfo>& interfaces, const std::string& name);

  void StartScanNetworkInterface();
  void StopScanNetworkInterface();
  // One look at the kernel's interfaces, and what follows from it.
  void Scan();
  // The kernel's interfaces as they are now; 1, or 0 when they could not be read.
  int ScanAndGetNetworkInterface(std::vector<NetInfo>& found);
  // Takes over what a scan found, raises an event for each difference, and empties the list.
  void ScanAvailableNetworkInterface(std::vector<NetInfo>& found);

  // The id, or -1 for a null listener.
  int AddNetIfListener(NetworkEventListener* listener);
  // No call reaches the listener after this has returned.
  void DeleteNetIfListener(const int& id);
  // Lets the servers follow the change, then tells the listeners on the delivery threads.
  void NotifyNICIfEvent(const NicEvent& event, const std::string& name);
  void NotifyNICEventByID(int id, std::string& name, NicEvent event);
  // On a delivery thread: all that waits for one listener, in order.
  void __Deliver(NetChangeListener& listener);

  int NotifyNICAdded(const std::string& name, const std::string& ip, const std::string& mask);
  int NotifyNICRemoved(const std::string& name);

  // Whether multicast can be used on a local address: 1 or 0. Throws when `ip` is no address.
  int checkMulticastResourceAvailability(const std::string& ip);

 private:
  friend class NetworkMonitor;

  enum class Known { kAsRecorded = 0, kUnknown = 1, kOtherAddress = 2 };

  NetworkInterface();

  void __EndThreads();
  int __GetNetInfo(int& socket, ifreq* entry, NetInfo& info);
  int __add_in_selcted_Interfaces(const std::string& name);
  int __RemoveSelectedNetworkInterface(const std::string& name);
  bool __IsSelected(const std::string& name);
  bool __IsAvailable(const std::string& name);
  void __CheckRemovedInterface(const std::vector<NetInfo>& found);
  void __TellLosses();
  Known __CheckAvailableNetworkInterfaces(const std::vector<NetInfo>& found,
                                          const std::string& name, const std::string& ip);
  void __TakeOverNewInterface(const NetInfo& info);
  // Tells of an interface that is there now. One that could not be told is not recorded either, so
  // that the next look finds it.
  void __NotifyPresence(const NicEvent& event, const std::string& name);
  // False when the name is known already.
  bool __AddAvailableNetworkInterface(const NetInfo& info);
  void __HandleDifferentIPAddress(const std::string& name, const std::string& ip);
  void __UpdateIPAddrOfAvailableNetworkInterface(const std::string& name, const std::string& ip);
  void __PauseOfAddressChange();

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<NetworkInterface>& instance_;
  static boost::mutex& singleton_mutex_;

  // One scan at a time, through comparison and events: outer to every other lock of this class.
  boost::mutex scan_mutex_;
  std::atomic<int> next_listener_id_{0};

  // Serialises start and stop of the monitor, across the join; the monitor itself never takes it.
  boost::mutex monitor_mutex_;
  boost::thread* monitor_thread_ VEX_GUARDED_BY(monitor_mutex_) = nullptr;

  // Before the listeners, whose strands refer to it.
  IoPool notify_io_service_;

  // The three leaves below are held for one list operation each and never nested.
  boost::mutex listeners_mutex_;
  std::vector<boost::shared_ptr<NetChangeListener>> listeners_ VEX_GUARDED_BY(listeners_mutex_);
  boost::mutex available_mutex_;
  // In order of discovery.
  std::vector<NetInfo> available_net_interfaces_ VEX_GUARDED_BY(available_mutex_);
  // Selected ones that have left the record and whose end could not be told yet.
  std::list<std::string> untold_losses_ VEX_GUARDED_BY(available_mutex_);
  boost::mutex selected_mutex_;
  // In order of selection.
  std::vector<std::string> selected_net_interfaces_ VEX_GUARDED_BY(selected_mutex_);

  std::atomic<bool> configure_all_{false};
  // Set once the monitor has been interrupted in a pause: the comparison goes on without pauses.
  std::atomic<bool> pauses_cut_{false};

  boost::thread_group notify_threads_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_NETWORKINTERFACE_H_

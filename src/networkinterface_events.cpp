// How differences between scans, and reports of the host, become events.

#include <algorithm>
#include <list>

#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/log.h"
#include "base/timing.h"
#include "src/networkinterface.h"
#include "src/servermanager.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

void SleepMs(int milliseconds) {
  boost::this_thread::sleep_for(boost::chrono::milliseconds(timing::Scaled(milliseconds)));
}

bool HasName(const std::vector<NetInfo>& interfaces, const std::string& name) {
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const NetInfo& info) { return info.name == name; });
}

}  // namespace

std::atomic<bool> netruntimer_thread{false};

void NetworkMonitor::operator()() const {
  try {
    __Watch();
  } catch (const boost::thread_interrupted&) {
    VEX_LOG(kLogStep, kTag, "network monitor thread interrupted");
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
}

void NetworkMonitor::__Watch() {
  while (netruntimer_thread) {
    SleepMs(timing::kInterfaceScanMs);
    if (!netruntimer_thread) return;
    const boost::shared_ptr<NetworkInterface> instance = NetworkInterface::ExistingInstance();
    if (!instance) return;
    try {
      boost::lock_guard<boost::mutex> lock(instance->scan_mutex_);
      instance->Scan();
    } catch (const boost::thread_interrupted&) {
      throw;
    } catch (...) {
      // The next look finds what this one could not take in.
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    }
  }
}

void NetworkInterface::StartScanNetworkInterface() {
  boost::lock_guard<boost::mutex> monitor_lock(monitor_mutex_);
  if (monitor_thread_ != nullptr) {
    VEX_LOG(kLogStep, kTag, "Already monitoring network");
    return;
  }
  pauses_cut_ = false;
  {
    // On the caller's thread, so that the interfaces are known and their events raised on return.
    boost::lock_guard<boost::mutex> scan_lock(scan_mutex_);
    std::vector<NetInfo> found;
    try {
      if (ScanAndGetNetworkInterface(found) == result::kYes) ScanAvailableNetworkInterface(found);
    } catch (...) {
      // The monitor's first look finds what this one could not take in.
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    }
  }
  netruntimer_thread = true;
  VEX_LOG(kLogStep, kTag, "NetworkInterface::NetworkMonitor");
  try {
    std::string prefix;
    ThreadNamePrefix(prefix);
    monitor_thread_ = StartNamedThread(prefix + "VexNetMon", NetworkMonitor());
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "thread_resource_error exception:[%s]",
                        "Unknown Exception in StartScanNetworkInterface");
  }
}

void NetworkInterface::StopScanNetworkInterface() {
  boost::lock_guard<boost::mutex> lock(monitor_mutex_);
  if (monitor_thread_ == nullptr) {
    VEX_LOG(kLogStep, kTag, "Already stopped monitoring network");
    return;
  }
  netruntimer_thread = false;
  monitor_thread_->interrupt();
  monitor_thread_->join();
  delete monitor_thread_;
  monitor_thread_ = nullptr;
}

void NetworkInterface::Scan() {
  std::vector<NetInfo> found;
  if (ScanAndGetNetworkInterface(found) != result::kYes) return;
  if (configure_all_) {
    for (const NetInfo& info : found) {
      if (__add_in_selcted_Interfaces(info.name) == 0) SelectNetworkInterface(info.name);
    }
  }
  ScanAvailableNetworkInterface(found);
}

void NetworkInterface::ScanAvailableNetworkInterface(std::vector<NetInfo>& found) {
  __CheckRemovedInterface(found);
  for (const NetInfo& info : found) {
    if (info.name.empty() || info.ip_address.empty()) continue;
    switch (__CheckAvailableNetworkInterfaces(found, info.name, info.ip_address)) {
      case Known::kAsRecorded:
        break;
      case Known::kUnknown:
        __TakeOverNewInterface(info);
        break;
      case Known::kOtherAddress:
        __HandleDifferentIPAddress(info.name, info.ip_address);
        break;
    }
  }
  found.clear();
}

void NetworkInterface::__CheckRemovedInterface(const std::vector<NetInfo>& found) {
  const std::vector<std::string> selected = GetSelectedNetworkInterfaces();
  const auto gone = [&](const NetInfo& known) {
    return !known.name.empty() && !HasName(found, known.name);
  };
  {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    // Noted before any of them leaves the record: without memory all stay for the next look.
    std::list<std::string> lost;
    for (const NetInfo& known : available_net_interfaces_) {
      if (!gone(known)) continue;
      if (std::find(selected.begin(), selected.end(), known.name) != selected.end()) {
        lost.push_back(known.name);
      }
    }
    untold_losses_.splice(untold_losses_.end(), lost);
    available_net_interfaces_.erase(
        std::remove_if(available_net_interfaces_.begin(), available_net_interfaces_.end(), gone),
        available_net_interfaces_.end());
  }
  __TellLosses();
}

// One that could not be told waits for the next look, unless it is there again by then.
void NetworkInterface::__TellLosses() {
  std::list<std::string> losses;
  {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    losses.swap(untold_losses_);
  }
  while (!losses.empty()) {
    std::list<std::string> loss;
    loss.splice(loss.end(), losses, losses.begin());
    try {
      if (!__IsAvailable(loss.front())) NotifyNICIfEvent(NIC_REMOVED, loss.front());
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
      boost::lock_guard<boost::mutex> lock(available_mutex_);
      untold_losses_.splice(untold_losses_.end(), loss);
    }
  }
}

NetworkInterface::Known NetworkInterface::__CheckAvailableNetworkInterfaces(
    const std::vector<NetInfo>& found, const std::string& name, const std::string& ip) {
  std::string recorded;
  {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    const auto known =
        std::find_if(available_net_interfaces_.begin(), available_net_interfaces_.end(),
                     [&](const NetInfo& info) { return info.name == name; });
    if (known == available_net_interfaces_.end()) return Known::kUnknown;
    recorded = known->ip_address;
  }
  if (recorded == ip) return Known::kAsRecorded;
  // Several addresses can stand under one name. While the recorded one is among them it has not
  // changed; taking each for a change would end and start the servers with every scan.
  const bool still_there = std::any_of(found.begin(), found.end(), [&](const NetInfo& info) {
    return info.name == name && info.ip_address == recorded;
  });
  return still_there ? Known::kAsRecorded : Known::kOtherAddress;
}

void NetworkInterface::__TakeOverNewInterface(const NetInfo& info) {
  if (!__AddAvailableNetworkInterface(info)) return;
  if (configure_all_) {
    __add_in_selcted_Interfaces(info.name);
    __NotifyPresence(NIC_ADDED, info.name);
  } else if (__IsSelected(info.name)) {
    __NotifyPresence(NIC_ADDED, info.name);
  }
}

void NetworkInterface::__NotifyPresence(const NicEvent& event, const std::string& name) {
  try {
    NotifyNICIfEvent(event, name);
  } catch (...) {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    RemoveNetworkInterfaceInfo(available_net_interfaces_, name);
    throw;
  }
}

void NetworkInterface::__HandleDifferentIPAddress(const std::string& name, const std::string& ip) {
  if (!__IsSelected(name)) {
    __UpdateIPAddrOfAvailableNetworkInterface(name, ip);
    return;
  }
  NotifyNICIfEvent(NIC_REMOVED, name);
  __UpdateIPAddrOfAvailableNetworkInterface(name, ip);
  __PauseOfAddressChange();
  __NotifyPresence(NIC_IPCHANGED, name);
}

void NetworkInterface::__PauseOfAddressChange() {
  if (pauses_cut_) return;
  try {
    SleepMs(timing::kAddressChangePauseMs);
  } catch (const boost::thread_interrupted&) {
    // Listeners have been told of a removal: the comparison runs to its end, only faster.
    pauses_cut_ = true;
  }
}

void NetworkInterface::NotifyNICIfEvent(const NicEvent& event, const std::string& name) {
  // An interruption is meant for the monitor's pauses, not for the middle of a server's start.
  const boost::this_thread::disable_interruption no_interruption;
  const boost::shared_ptr<ServerManager> servers = ServerManager::ExistingInstance();
  if (servers) servers->OnNetworkChanged(name, event);

  boost::lock_guard<boost::mutex> lock(listeners_mutex_);
  if (listeners_.empty()) {
    VEX_LOG(kLogStep, kTag, "event listener vector is empty!!");
    return;
  }
  // Weak: an event that is never delivered keeps nothing alive.
  const boost::weak_ptr<NetworkInterface> weak_self = weak_from_this();
  for (const boost::shared_ptr<NetChangeListener>& listener : listeners_) {
    if (!listener->Queue(name, event)) continue;
    const boost::weak_ptr<NetChangeListener> weak_listener = listener;
    try {
      boost::asio::post(*notify_io_service_.io, [weak_self, weak_listener] {
        const boost::shared_ptr<NetworkInterface> self = weak_self.lock();
        const boost::shared_ptr<NetChangeListener> waiting = weak_listener.lock();
        if (self && waiting) self->__Deliver(*waiting);
      });
    } catch (...) {
      listener->GiveUpDelivery();
      throw;
    }
  }
  VEX_LOG(kLogStep, kTag, "%u event listeners are notified!!!",
          static_cast<unsigned>(listeners_.size()));
}

void NetworkInterface::__Deliver(NetChangeListener& listener) {
  std::string name;
  NicEvent event = NIC_ADDED;
  // By the id each time: a listener that goes before its turn is skipped.
  while (listener.TakeNext(name, event)) NotifyNICEventByID(listener.GetID(), name, event);
}

void NetworkInterface::NotifyNICEventByID(int id, std::string& name, NicEvent event) {
  boost::shared_ptr<NetChangeListener> listener;
  {
    boost::lock_guard<boost::mutex> lock(listeners_mutex_);
    for (const boost::shared_ptr<NetChangeListener>& registered : listeners_) {
      if (registered->GetID() == id) listener = registered;
    }
  }
  if (!listener) return;
  VEX_LOG(kLogStep, kTag, "Notifying NIC Change %d for %s listener_id %d", static_cast<int>(event),
          name.c_str(), id);
  try {
    listener->InvokeListenerCallback(name, event);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
}

int NetworkInterface::AddNetIfListener(NetworkEventListener* listener) {
  if (listener == nullptr) return -1;
  const int id = next_listener_id_++;
  const auto entry = boost::make_shared<NetChangeListener>(id, listener);
  boost::lock_guard<boost::mutex> lock(listeners_mutex_);
  listeners_.push_back(entry);
  return id;
}

void NetworkInterface::DeleteNetIfListener(const int& id) {
  boost::shared_ptr<NetChangeListener> removed;
  {
    boost::lock_guard<boost::mutex> lock(listeners_mutex_);
    const auto found = std::find_if(listeners_.begin(), listeners_.end(),
                                    [&](const boost::shared_ptr<NetChangeListener>& registered) {
                                      return registered->GetID() == id;
                                    });
    if (found == listeners_.end()) return;
    removed = *found;
    listeners_.erase(found);
  }
  removed->ResetEventListener();
}

int NetworkInterface::NotifyNICAdded(const std::string& name, const std::string& ip,
                                     const std::string& mask) {
  if (name.empty() || ip.empty() || mask.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid Params!!!");
    return result::kFailure;
  }
  NetInfo info;
  info.name = name;
  info.ip_address = ip;
  info.subnet_mask = mask;
  // The host's report selects the interface, also when nothing else is to be served.
  const bool is_new = __AddAvailableNetworkInterface(info);
  __add_in_selcted_Interfaces(name);
  if (!is_new) {
    // KEPT: another address for a known name is not taken over; the next scan does that.
    VEX_LOG(kLogStep, kTag, "Interface [%s] is already added!!", name.c_str());
    return result::kOk;
  }
  __NotifyPresence(NIC_ADDED, name);
  return result::kOk;
}

int NetworkInterface::NotifyNICRemoved(const std::string& name) {
  if (name.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid Params!!!");
    return result::kFailure;
  }
  std::list<std::string> loss(1, name);
  int erased = result::kOk;
  {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    erased = RemoveNetworkInterfaceInfo(available_net_interfaces_, name);
  }
  if (erased != result::kOk) {
    VEX_LOG(kLogStep, kTag, "Interface [%s] is already removed!!", name.c_str());
    return result::kOk;
  }
  if (!__IsSelected(name)) return result::kOk;
  try {
    NotifyNICIfEvent(NIC_REMOVED, name);
  } catch (...) {
    boost::lock_guard<boost::mutex> lock(available_mutex_);
    untold_losses_.splice(untold_losses_.end(), loss);
    throw;
  }
  return result::kOk;
}

}  // namespace network_layer
}  // namespace vex_upnp

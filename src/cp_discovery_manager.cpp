#include "src/cp_discovery_manager.h"

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/singleton.h"
#include "src/cp_network_state_listener.h"
#include "src/description_listener.h"
#include "src/device_type.h"
#include "src/discovery_listener.h"
#include "src/request_packets.h"
#include "src/upnp_constants.h"
#include "src/user_agent.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

constexpr int kNotRegistered = -1;

// What the network layer looks for in a datagram's header.
constexpr char kSearchResponsePattern[] = "HTTP/1.1,200,OK,LOCATION,SERVER,USN,ST";
constexpr char kAnnouncementPattern[] = "NOTIFY,HOST,NTS,NT,USN,1900";

constexpr char kRescanThread[] = "VexDscRescan";
constexpr char kRetryThread[] = "VexDscRetry";

// Only as many characters as the wanted stem has are compared; the device list's comparison for
// look-ups is a stricter one.
bool IsWanted(const std::string& wanted_type, const std::string& device_type, int device_version) {
  if (wanted_type == kRootDevice) return true;
  const DeviceTypeParts wanted = SplitDeviceType(wanted_type);
  return device_type.compare(0, wanted.stem.size(), wanted.stem) == 0 &&
         VersionAccepted(device_version, wanted.version);
}

}  // namespace

boost::shared_ptr<CPDiscoveryManager>& CPDiscoveryManager::instance_ =
    *new boost::shared_ptr<CPDiscoveryManager>;
boost::mutex& CPDiscoveryManager::singleton_mutex_ = *new boost::mutex;
int CPDiscoveryManager::udp_handle_ = kNotRegistered;
int CPDiscoveryManager::network_handle_ = kNotRegistered;
bool CPDiscoveryManager::streaming_held_ = false;

boost::shared_ptr<CPDiscoveryManager> CPDiscoveryManager::GetInstance() {
  return GetOrCreateShared(instance_, singleton_mutex_, [] { return new CPDiscoveryManager; });
}

boost::shared_ptr<CPDiscoveryManager> CPDiscoveryManager::ExistingInstance() {
  return ExistingShared(instance_, singleton_mutex_);
}

int CPDiscoveryManager::Init() {
  // A second start takes the place of the first: a registration whose handle is overwritten could
  // never be taken back, and outlive its listener.
  UnRegisterFromNetwork();
  int result = result::kFailure;
  try {
    result = RegisterWithNetwork();
    if (result == result::kOk) result = HoldStreaming();
  } catch (...) {
    UnRegisterFromNetwork();
    throw;
  }
  if (result != result::kOk) UnRegisterFromNetwork();
  return result;
}

int CPDiscoveryManager::HoldStreaming() {
  if (streaming_held_) return result::kOk;
  const int result = streaming::InitializeStreamingManager();
  streaming_held_ = result == result::kOk;
  if (!streaming_held_) VEX_LOG(kLogMajor, kTag, "Initialize streaming manager failed");
  return result;
}

int CPDiscoveryManager::RegisterWithNetwork() {
  int result = network_layer::RegisterNetworkEventListener(CPNetworkStateListener::GetInstance(),
                                                           network_handle_);
  if (result != result::kOk) {
    VEX_LOG(kLogStep, kTag, "RegisterNetworkEventListener failed");
    return result;
  }
  const std::vector<std::string> patterns{kSearchResponsePattern, kAnnouncementPattern};
  result = network_layer::RegisterUDPRequestListener(patterns, DiscoveryListener::GetInstance(),
                                                     udp_handle_);
  if (result != result::kOk) VEX_LOG(kLogStep, kTag, "RegisterUDPRequestListener failed");
  return result;
}

void CPDiscoveryManager::UnRegisterFromNetwork() {
  if (udp_handle_ != kNotRegistered &&
      network_layer::UnRegisterRequestListener(udp_handle_) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Unregister Request Listener failed.");
  }
  udp_handle_ = kNotRegistered;
  if (network_handle_ != kNotRegistered) network_layer::UnRegisterEventListener(network_handle_);
  network_handle_ = kNotRegistered;
}

void CPDiscoveryManager::Terminate() {
  if (streaming_held_ && streaming::TerminateStreamingManager() != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "Terminate streaming manager failed");
  }
  streaming_held_ = false;
  UnRegisterFromNetwork();
  const boost::shared_ptr<CPDiscoveryManager> manager = ExistingInstance();
  if (manager) manager->RemoveNowRequestingAll();
  DiscoveryListener::Terminate();
  DescriptionListener::DestroyInstance();
  CPNetworkStateListener::DestroyInstance();
  if (!manager) return;
  manager->CancelRescanTimers();
  manager->CleanUp();
  DestroyShared(instance_, singleton_mutex_);
}

void CPDiscoveryManager::CleanUp() {
  VEX_LOG(kLogStep, kTag, "cleanup start");
  auto_rescan_.Disable();
  rescans_.CancelAll();
  now_requesting_.Close();
  now_requesting_.RemoveAll();
  observers_.TakeAll();
  VEX_LOG(kLogStep, kTag, "joining rescan threads");
  rescans_.StopChecks();
  discovery_threads_.JoinAll();
  // A search of the host's may have slipped in while the threads were being joined.
  rescans_.CancelAll();
  VEX_LOG(kLogStep, kTag, "cleanup done");
}

int CPDiscoveryManager::AddDeviceChangeListener(const boost::shared_ptr<Observer>& observer) {
  std::string type;
  observer->GetDeviceType(type);
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  int id = 0;
  {
    boost::lock_guard<boost::mutex> lock(id_mutex_);
    id = ++observer_id_;
    observer->SetId(id);
    observers_.Append(observer);
  }
  try {
    SearchFirst(type);
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    list->AddAcceptedDevice(type);
  } catch (...) {
    // Nobody knows the id: it could never be unregistered.
    RemoveDeviceChangeListener(id);
    throw;
  }
  return id;
}

// A registered control point is of use without its first search, so a failure is only noted.
void CPDiscoveryManager::SearchFirst(const std::string& type) try {
  if (Rescan(type) != result::kOk) VEX_LOG(kLogDetail, kTag, "Rescan failed. ");
} catch (const std::bad_alloc&) {
  VEX_LOG(kLogDetail, kTag, "Rescan failed. ");
}

// The type stays accepted: the list of accepted types only grows.
void CPDiscoveryManager::RemoveDeviceChangeListener(const int& id) {
  const int wanted = id;
  const auto removed =
      observers_.Remove([wanted](const Observer& observer) { return observer.GetId() == wanted; });
  if (!removed.empty()) observers_.WaitForDelivery();
}

std::vector<std::string> CPDiscoveryManager::RegisteredTypes() const {
  std::vector<std::string> types;
  for (const boost::shared_ptr<Observer>& observer : observers_.Snapshot()) {
    std::string type;
    observer->GetDeviceType(type);
    if (type != kRootDevice && type != kSearchAll) types.push_back(type);
  }
  return types;
}

// KEPT: observers of all devices are passed over, so a host that registers for those only gets no
// search after a network change and none from the automatic rescan.
void CPDiscoveryManager::RescanForRegisteredCP() {
  for (const std::string& type : RegisteredTypes()) {
    if (Rescan(type) != result::kOk) {
      VEX_LOG(kLogDetail, kTag, "Auto rescan failed for device type: %s", type.c_str());
    }
  }
}

void CPDiscoveryManager::StartRescanCheck(const boost::shared_ptr<CPDiscoveryManager>& manager,
                                          int timer_id, void* data) {
  bool started = false;
  try {
    started = manager->discovery_threads_.Start(timer_id, kRescanThread, [manager, timer_id, data] {
      manager->RescanTimerExpired(timer_id, data);
    });
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
  // Without its check the search would stand in the way of the next one for ever.
  if (!started) manager->rescans_.Remove(timer_id);
}

void CPDiscoveryManager::RescanTimerExpired(int timer_id, void* data) {
  (void)data;
  // On every path: a search that stayed listed would stand in the way of the next one for ever.
  struct Removal {
    ~Removal() { rescans.Remove(timer_id); }
    Rescans& rescans;
    const int timer_id;
  } const removal{rescans_, timer_id};
  std::string type;
  if (!rescans_.FindType(timer_id, type)) {
    VEX_LOG(kLogMajor, kTag, "Invalid timer id..!!");
    return;
  }
  boost::unique_lock<boost::recursive_mutex> delivery(delivery_mutex(), boost::defer_lock);
  const std::unique_ptr<DeviceList::Devices> removed = rescans_.TakeUnreachable(type, delivery);
  if (!removed) return;
  for (const boost::shared_ptr<Device>& device : *removed) {
    NotifyToDeviceChangeListener(DEVICE_REMOVED, device);
    RemoveNowRequestingByUdn(device->udn);
  }
}

void CPDiscoveryManager::ProgressTimerExpired(int timer_id) {
  rescans_.ForgetProgressTimer(timer_id);
  clearRescanProgress();
}

int CPDiscoveryManager::EnableAutoRescan() {
  if (!auto_rescan_.Enable()) {
    VEX_LOG(kLogStep, kTag, "Auto rescan already enabled");
    return result::kOk;
  }
  try {
    RescanForRegisteredCP();
    auto_rescan_.Arm();
  } catch (...) {
    // Enabled without a timer it would never search, and could not be enabled any more.
    auto_rescan_.Disable();
    throw;
  }
  VEX_LOG(kLogStep, kTag, "Auto rescan started");
  return result::kOk;
}

int CPDiscoveryManager::DisableAutoRescan() {
  if (auto_rescan_.Disable()) {
    VEX_LOG(kLogStep, kTag, "Auto rescan stopped ");
  } else {
    VEX_LOG(kLogStep, kTag, "Auto rescan already stopped ");
  }
  return result::kOk;
}

void CPDiscoveryManager::GetUserAgentByDeviceType(const std::string& type,
                                                  std::string& agent) const {
  GetDefaultUserAgent(agent);
  if (type.empty()) {
    VEX_LOG(kLogDetail, kTag, "Invalid param!");
    return;
  }
  if (observers_.Empty()) {
    VEX_LOG(kLogDetail, kTag, "No control points!");
    return;
  }
  std::string own_agent;
  observers_.Find([&](const Observer& observer) {
    std::string observed_type;
    observer.GetDeviceType(observed_type);
    if (observed_type == type) observer.GetUserAgent(own_agent);
    return !own_agent.empty();
  });
  agent = ChooseUserAgent(own_agent, agent);
}

void CPDiscoveryManager::SetDefaultUserAgent(const std::string& agent) {
  boost::lock_guard<boost::mutex> lock(user_agent_mutex_);
  default_user_agent_ = agent;
}

void CPDiscoveryManager::GetDefaultUserAgent(std::string& agent) const {
  boost::lock_guard<boost::mutex> lock(user_agent_mutex_);
  agent = default_user_agent_;
}

std::unique_ptr<DeviceList::Devices> CPDiscoveryManager::GetDeviceListByType(
    const std::string& type) const {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  return list->GetDeviceListByType(type);
}

// KEPT: an observer of "ssdp:all" receives nothing; "ssdp" begins no device type.
void CPDiscoveryManager::NotifyToDeviceChangeListener(DeviceStatus_ status,
                                                      boost::shared_ptr<Device> device) {
  boost::lock_guard<boost::recursive_mutex> delivery(delivery_mutex());
  try {
    const int version = SplitDeviceType(device->device_type).version;
    for (const boost::shared_ptr<Observer>& observer : observers_.Snapshot()) {
      TellObserver(*observer, status, device, version);
    }
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
}

void CPDiscoveryManager::TellObserver(Observer& observer, DeviceStatus_ status,
                                      boost::shared_ptr<Device>& device, int version) {
  try {
    std::string type;
    observer.GetDeviceType(type);
    if (!IsWanted(type, device->device_type, version)) return;
    // An observer told before this one may have unregistered it from inside its call.
    if (!observers_.Find([&observer](const Observer& other) { return other == observer; })) return;
    observer.Update(status, device);
  } catch (...) {
    // The observers behind it hear of the device all the same.
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
}

void CPDiscoveryManager::NotifyDeviceReady(const boost::shared_ptr<Device>& device) {
  boost::lock_guard<boost::recursive_mutex> delivery(delivery_mutex());
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    // Looked at with delivery held: whoever removes the device later also tells it later.
    if (!list->MarkReady(device)) return;
  }
  NotifyToDeviceChangeListener(DEVICE_ADDED, device);
}

// KEPT: a device that was not ready is told as removed too, with no added event before.
void CPDiscoveryManager::NotifyRemovedDevices(const DeviceList::Devices& removed) {
  for (const boost::shared_ptr<Device>& device : removed) {
    RemoveNowRequestingByUdn(device->udn);
    NotifyToDeviceChangeListener(DEVICE_REMOVED, device);
  }
}

void CPDiscoveryManager::StartDescriptionCheck(const boost::shared_ptr<CPDiscoveryManager>& manager,
                                               int timer_id) {
  bool started = false;
  try {
    started = manager->discovery_threads_.StartInLine(
        timer_id, kRetryThread, [manager, timer_id] { manager->CheckNowRequesting(timer_id); });
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
  // With no thread to be had, a request must still not stay in the list for ever.
  if (!started) manager->CheckNowRequesting(timer_id);
}

void CPDiscoveryManager::CheckNowRequesting(int timer_id) {
  const boost::shared_ptr<NowRequesting> request = GetNowRequestingByTimerId(timer_id);
  if (!request) {
    VEX_LOG(kLogMajor, kTag, "Now requesting not found for %d", timer_id);
    return;
  }
  try {
    if (RetryDescription(request)) return;
  } catch (...) {
    // A request whose timer has run out must be tried again or go.
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }

  VEX_LOG(kLogMajor, kTag, "Description request failed for device %s", request->udn.c_str());
  if (request->IsForService()) {
    LoseDevice(request->udn);
  } else {
    RemoveNowRequestingByUdn(request->udn);
  }
}

// What has become ready meanwhile stays: an answer may come while its request is given up.
void CPDiscoveryManager::LoseDevice(const std::string& udn) {
  boost::shared_ptr<Device> removed;
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    removed = list->RemoveUnreadyByUdn(udn);
  }
  // Behind the device: whoever is still asking for its services lists no request without it.
  RemoveNowRequestingByUdn(udn);
}

// A device of which a part is missing for good could never become ready; one that is ready stays.
void CPDiscoveryManager::GiveUp(int session_id) {
  const boost::shared_ptr<NowRequesting> request = GetNowRequesting(session_id);
  if (!request) return;
  bool ready = false;
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    const boost::shared_ptr<Device> device = list->IsDeviceAdded(request->udn);
    ready = device && device->services_ready;
  }
  if (ready) {
    RemoveNowRequestingBySessionId(session_id);
  } else {
    LoseDevice(request->udn);
  }
}

// KEPT: the retry of a device description has the absolute URL on its request line, the first try
// the path only. The session of the first try is left to end by itself.
bool CPDiscoveryManager::RetryDescription(const boost::shared_ptr<NowRequesting>& request) {
  if (--request->retry_count <= 0) return false;
  const boost::shared_ptr<DescriptionListener> listener = DescriptionListener::ExistingInstance();
  if (!listener) return false;
  const std::string packet = FormatDescriptionRequest(request->request_target, request->ip,
                                                      request->port, request->user_agent);
  StartNowRequesting(request);
  SendNowRequesting(request, packet, listener);
  return true;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

#include "src/generic_cp_manager.h"

#include <memory>
#include <new>
#include <utility>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/result_codes.h>
#include "base/log.h"
#include "base/singleton.h"
#include "src/device_type.h"
#include "src/discovery_delivery.h"
#include "src/event_delivery.h"
#include "src/generic_cp_utils.h"
#include "src/generic_host_callback.h"
#include "src/looked_up_ahead.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

using log::kTagGenericCp;

constexpr char kRootDevice[] = "upnp:rootdevice";
// Control points get the handles 1, 3, 5 and so on.
constexpr int kHandleStep = 2;
constexpr int kNoDiscoveryHandle = -1;
constexpr int kHttpOk = 200;
constexpr char kUndescribedFault[] = "Action Failed";

// What action_callback is told.
struct ActionResult {
  errorcodes code = CP_ERR_ACTION_FAILED;
  Owned<CPArgument, FreeCPArgumentList> output;
  boost::shared_ptr<std::string> description;
};

// False when the answer is to be read like a success all the same.
bool ReadFault(const std::string& xml, ActionResult& result) {
  int code = 0;
  boost::shared_ptr<std::string> description;
  const bool described =
      cp_utils::GetErrCodeDescription(xml, code, description) == result::kOk && description;
  // KEPT: a description without an error code does not make a fault, whatever the status.
  if (described && code == 0) return false;
  if (code != 0) {
    result.description = described
                             ? description
                             : boost::shared_ptr<std::string>(new std::string(kUndescribedFault));
  }
  return true;
}

ActionResult ReadAnswer(int status, const std::string& body) {
  ActionResult result;
  std::string xml;
  if (cp_utils::GetXMLFromSoap(body, xml) != result::kOk) return result;
  if (status != kHttpOk && ReadFault(xml, result)) return result;
  std::list<cp_utils::CPUtilsArgument> list;
  // KEPT: an answer without output arguments counts as failed here; hosts are told to expect it.
  if (cp_utils::GetOutputArglist(xml, list) != result::kOk) return result;
  CPArgument* output = nullptr;
  result.code = GetCPArgumentListFromArgumentList(&output, list);
  result.output.reset(output);
  return result;
}

// A registered type wants all devices whose type begins as it does, from its version on.
bool TypeWants(const std::string& registered, const std::string& device_type, int device_version) {
  if (registered == kRootDevice) return true;
  const DeviceTypeParts wanted = SplitDeviceType(registered);
  return device_type.compare(0, wanted.stem.size(), wanted.stem) == 0 &&
         VersionAccepted(device_version, wanted.version);
}

// Discovery's own code for it means nothing to a host.
int HostCode(int discovered) {
  return discovered == result::kOutOfMemory ? CP_ERR_OUT_OF_MEMORY : discovered;
}

// Ends the leaving of a handle on every path.
class LeavingGuard {
 public:
  LeavingGuard(GenericCPInfo& info, const GenericCPInfo::HandlePointer& handle)
      : info_(info), handle_(handle) {}
  LeavingGuard(const LeavingGuard&) = delete;
  LeavingGuard& operator=(const LeavingGuard&) = delete;
  ~LeavingGuard() { info_.FinishLeaving(handle_, unsubscribed_); }

  void set_unsubscribed() { unsubscribed_ = true; }

 private:
  GenericCPInfo& info_;
  const GenericCPInfo::HandlePointer& handle_;
  bool unsubscribed_ = false;
};

}  // namespace

boost::mutex& GenericCPManager::m_singleton_lock_ = *new boost::mutex;
boost::shared_ptr<GenericCPManager>& GenericCPManager::m_instance_ =
    *new boost::shared_ptr<GenericCPManager>;

void device_notify_callback(int discovery_handle, cp_discovery::DeviceEventType event,
                            cp_discovery::DeviceInfo* info) {
  const boost::shared_ptr<GenericCPManager> manager = GenericCPManager::ExistingInstance();
  if (manager) manager->DeviceNotifyCallback(discovery_handle, event, info);
}

boost::shared_ptr<GenericCPManager> GenericCPManager::GetInstance() {
  try {
    return GetOrCreateShared(m_instance_, m_singleton_lock_, [] { return new GenericCPManager; });
  } catch (const std::bad_alloc&) {
    return boost::shared_ptr<GenericCPManager>();
  }
}

boost::shared_ptr<GenericCPManager> GenericCPManager::ExistingInstance() {
  return ExistingShared(m_instance_, m_singleton_lock_);
}

void GenericCPManager::DestroyInstance() { DestroyShared(m_instance_, m_singleton_lock_); }

int GenericCPManager::Initialize() {
  if (framework_core::InitializeUPnP(framework_core::INIT_TYPE_CP) != result::kOk) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Generic CP initialization failed.");
    return CP_ERR_INIT_FAILED;
  }
  if (discovery_handle_ != kNoDiscoveryHandle) {
    VEX_LOG(kLogStep, kTagGenericCp, "Generic CP already initialized.");
    return CP_ERR_ALREADY_INITIALIZED;
  }
  int registered = kNoDiscoveryHandle;
  if (cp_discovery::RegisterCP(kRootDevice, GetUserAgent(), device_notify_callback, &registered) !=
      result::kOk) {
    framework_core::TerminateUPnP();
    VEX_LOG(kLogMajor, kTagGenericCp, "Generic CP initialization failed.");
    return CP_ERR_INIT_FAILED;
  }
  discovery_handle_ = registered;
  return CP_ERR_NONE;
}

int GenericCPManager::Terminate() {
  std::map<int, InfoPointer> taken;
  {
    // Waits for a running action_callback. Answers and events that come from here on find nobody.
    boost::lock_guard<boost::mutex> lock(cp_mutex_);
    boost::lock_guard<boost::mutex> map_lock(map_mutex_);
    taken.swap(registered_cps_);
  }
  for (const auto& entry : taken) __TearDown(*entry.second);
  // Waits for a running device_callback.
  if (discovery_handle_ != kNoDiscoveryHandle) cp_discovery::UnRegisterCP(discovery_handle_);
  framework_core::TerminateUPnP();
  return CP_ERR_NONE;
}

void GenericCPManager::SetUserAgent(const std::string& agent) {
  boost::lock_guard<boost::mutex> lock(agent_mutex_);
  user_agent_ = agent;
}

std::string GenericCPManager::GetUserAgent() const {
  boost::lock_guard<boost::mutex> lock(agent_mutex_);
  return user_agent_;
}

int GenericCPManager::RegisterCP(const CPDeviceTypeInfo* types,
                                 const ControlPointCalbacks* callbacks, int* handle) try {
  const InfoPointer info(new GenericCPInfo(types, callbacks));
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  last_cp_handle_ += kHandleStep;
  {
    boost::lock_guard<boost::mutex> map_lock(map_mutex_);
    registered_cps_[last_cp_handle_] = info;
  }
  *handle = last_cp_handle_;
  return CP_ERR_NONE;
} catch (const std::bad_alloc&) {
  VEX_LOG(kLogMajor, kTagGenericCp, "malloc failed!");
  return CP_ERR_FAILURE;
}

int GenericCPManager::UnRegisterCP(int handle) {
  InfoPointer info;
  {
    boost::lock_guard<boost::mutex> lock(cp_mutex_);
    info = __TakeOut(handle);
  }
  if (!info) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Invalid params.");
    return CP_ERR_INVALID_PARAMS;
  }
  __TearDown(*info);
  // What was gathered before may be on its way to the host still: a device event, or the event in
  // whose callback the host has ended the subscription.
  if (!HostCallbackScope::Inside()) {
    cp_discovery::WaitForDelivery();
    cp_control::WaitForEvents();
  }
  return CP_ERR_NONE;
}

int GenericCPManager::GetDeviceList(int handle, const std::string& device_type,
                                    std::list<cp_discovery::DeviceInfo>& list) {
  if (!__IsRegistered(handle)) return CP_ERR_INVALID_PARAMS;
  return HostCode(cp_discovery::GetDeviceList(device_type, &list));
}

int GenericCPManager::GetDetailedDeviceInfo(int handle, const std::string& udn,
                                            cp_discovery::DetailedDeviceInfo& info) {
  if (!__IsRegistered(handle)) return CP_ERR_INVALID_PARAMS;
  return HostCode(cp_discovery::GetDeviceDetailInfo(udn, &info));
}

int GenericCPManager::GetServiceDescription(int handle, const std::string& udn,
                                            const std::string& service_type,
                                            std::string& description) {
  if (!__IsRegistered(handle)) return CP_ERR_INVALID_PARAMS;
  return HostCode(cp_discovery::GetServiceDescription(udn, service_type, description));
}

int GenericCPManager::Rescan(int handle, const std::string& device_type) {
  InfoPointer info;
  {
    boost::lock_guard<boost::mutex> lock(cp_mutex_);
    info = __Find(handle);
  }
  if (!info) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Handle not valid");
    return CP_ERR_FAILURE;
  }
  if (!device_type.empty()) {
    cp_discovery::Rescan(device_type);
    return CP_ERR_NONE;
  }
  for (const std::string& type : info->device_types()) cp_discovery::Rescan(type);
  return CP_ERR_NONE;
}

int GenericCPManager::SendAction(int handle, const std::string& udn,
                                 const std::string& service_type, const std::string& action_name,
                                 std::list<cp_utils::CPUtilsArgument>& arguments, int* action_id) {
  InfoPointer info;
  {
    boost::lock_guard<boost::mutex> lock(cp_mutex_);
    info = __Find(handle);
  }
  if (!info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Invalid params.");
    return CP_ERR_INVALID_PARAMS;
  }
  if (info->callbacks().action_callback == nullptr) {
    VEX_LOG(kLogStep, kTagGenericCp, "Callback not registered for given handle.");
    return CP_ERR_NO_CALLBACK;
  }

  std::string whole_type = service_type;
  std::string host;
  std::string control_uri;
  if (cp_utils::GetHostAndControlUri(udn, whole_type, host, control_uri) != result::kOk) {
    VEX_LOG(kLogMajor, kTagGenericCp, "GetHostAndControlUri Operation failed.");
    return CP_ERR_OPERATION_FAILED;
  }
  std::string body;
  if (cp_utils::GenerateSoapRequestBody(action_name, whole_type, arguments, body) != result::kOk) {
    VEX_LOG(kLogMajor, kTagGenericCp, "GenerateSoapRequestBody Operation failed.");
    return CP_ERR_OPERATION_FAILED;
  }
  std::unique_ptr<int> context(new int(handle));
  const std::string header = "SOAPACTION: \"" + whole_type + "#" + action_name + "\"";
  const std::string user_agent = GetUserAgent();
  // Made before the send: once it is out, the action's id is listed whatever the memory.
  std::list<int> id(1, 0);
  const network_layer::LookedUpAhead ahead(control_uri);

  // An answer cannot pass RemoveActionId before the id stands in the list, so the lock spans both.
  boost::lock_guard<boost::mutex> lock(info->info_mutex);
  if (info->closed) {
    VEX_LOG(kLogStep, kTagGenericCp, "Invalid params.");
    return CP_ERR_INVALID_PARAMS;
  }
  if (cp_control::SendAction(udn, host, header, control_uri, body, user_agent, this, context.get(),
                             id.front()) != result::kOk) {
    VEX_LOG(kLogMajor, kTagGenericCp, "SendAction Operation failed.");
    return CP_ERR_OPERATION_FAILED;
  }
  static_cast<void>(context.release());
  *action_id = id.front();
  info->action_ids.splice(info->action_ids.end(), id);
  return CP_ERR_NONE;
}

void GenericCPManager::CancelAction(int handle, int action_id) {
  cp_control::CancelAction(action_id);
  InfoPointer info;
  {
    boost::lock_guard<boost::mutex> lock(cp_mutex_);
    info = __Find(handle);
  }
  if (!info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Invalid cp handle");
    return;
  }
  info->RemoveActionId(action_id);
}

void GenericCPManager::OnResponseReceived(const int& action_id, const int& status,
                                          const std::string& body, void* context) {
  if (context == nullptr) {
    VEX_LOG(kLogStep, kTagGenericCp, "Invalid context!");
    return;
  }
  const int handle = *static_cast<const int*>(context);
  DeleteContext(context);
  // Held across the callback: results come one at a time and not beside a call of the host.
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  const InfoPointer info = __Find(handle);
  if (!info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Registered cp list for given context is empty.");
    return;
  }
  info->RemoveActionId(action_id);
  if (info->callbacks().action_callback == nullptr) return;

  ActionResult result;
  try {
    result = ReadAnswer(status, body);
  } catch (const std::bad_alloc&) {
    result.code = CP_ERR_OUT_OF_MEMORY;
  }
  const HostCallbackScope inside;
  info->callbacks().action_callback(action_id, result.code, result.output.get(),
                                    result.description ? result.description->c_str() : nullptr);
}

void GenericCPManager::DeleteContext(void* context) { delete static_cast<int*>(context); }

void GenericCPManager::DeviceNotifyCallback(int, cp_discovery::DeviceEventType event,
                                            cp_discovery::DeviceInfo* info) {
  if (info == nullptr) {
    VEX_LOG(kLogStep, kTagGenericCp, "device info is null.");
    return;
  }
  CPDeviceInfo* converted = nullptr;
  if (GetCPDeviceInfoFromDeviceInfo(&converted, *info) != CP_ERR_NONE) {
    VEX_LOG(kLogMajor, kTagGenericCp, "GetCPDeviceInfoFromDeviceInfo failed.");
    return;
  }
  const Owned<CPDeviceInfo, FreeCPDeviceInfo> record(converted);
  const int host_event = event == cp_discovery::DEVICE_ADDED ? cp_discovery::DEVICE_ADDED
                                                             : cp_discovery::DEVICE_REMOVED;
  // Gathered under the lock and called without it, so that a host may call back.
  for (const DeviceCallback callback : __CollectDeviceCallbacks(info->device_type)) {
    const HostCallbackScope inside;
    callback(host_event, record.get());
  }
}

std::vector<GenericCPManager::DeviceCallback> GenericCPManager::__CollectDeviceCallbacks(
    const std::string& device_type) const {
  std::vector<DeviceCallback> collected;
  const int version = SplitDeviceType(device_type).version;
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  boost::lock_guard<boost::mutex> map_lock(map_mutex_);
  for (const auto& entry : registered_cps_) {
    const GenericCPInfo& info = *entry.second;
    if (info.callbacks().device_callback == nullptr) continue;
    // KEPT: a control point whose types match twice is told twice.
    for (const std::string& type : info.device_types()) {
      if (TypeWants(type, device_type, version)) {
        collected.push_back(info.callbacks().device_callback);
      }
    }
  }
  return collected;
}

int GenericCPManager::GetEventListenerForCP(int handle, EventCallback& callback) const {
  const InfoPointer info = __Find(handle);
  if (!info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Registered cp list for given handle is empty.");
    return CP_ERR_INVALID_PARAMS;
  }
  callback = info->callbacks().event_callback;
  return CP_ERR_NONE;
}

int GenericCPManager::SubscribeService(int handle, const std::string& udn,
                                       const std::string& service_type) {
  // Who cannot subscribe is told so before a name server is asked.
  const int refused = __SubscribeWhenFree(handle, udn, service_type, nullptr);
  if (refused != CP_ERR_NONE) return refused;
  const GenericCPInfo::HandlePointer made(new GenericSubscribeHandle(handle, udn, service_type));
  const int prepared = made->Prepare();
  if (prepared != CP_ERR_NONE) return prepared;
  const network_layer::LookedUpAhead ahead(made->event_url());
  const int subscribed = __SubscribeWhenFree(handle, udn, service_type, made);
  // With no lock held: ending what is left waits for an event in progress.
  if (subscribed != CP_ERR_NONE) made->AbandonSubscription();
  return subscribed;
}

// Waits while another thread ends the pair.
int GenericCPManager::__SubscribeWhenFree(int handle, const std::string& udn,
                                          const std::string& service_type,
                                          const GenericCPInfo::HandlePointer& made) {
  SubscriptionLook look = __TrySubscribe(handle, udn, service_type, made);
  while (!look.decided) {
    look.info->WaitWhileLeaving(look.handle);
    look = __TrySubscribe(handle, udn, service_type, made);
  }
  return look.code;
}

// Subscribes with `made`; with none it only tells whether the pair is free.
GenericCPManager::SubscriptionLook GenericCPManager::__TrySubscribe(
    int handle, const std::string& udn, const std::string& service_type,
    const GenericCPInfo::HandlePointer& made) {
  SubscriptionLook look;
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  look.info = __Find(handle);
  if (!look.info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Registered cp list for given handle is empty.");
    look.code = CP_ERR_INVALID_PARAMS;
    return look;
  }
  GenericCPInfo& info = *look.info;
  boost::lock_guard<boost::mutex> info_lock(info.info_mutex);
  if (info.GetSubscribeHandle(udn, service_type, look.handle)) {
    if (look.handle->leaving && !HostCallbackScope::Inside()) {
      look.decided = false;
      return look;
    }
    VEX_LOG(kLogMajor, kTagGenericCp,
            "Cannot subscribe service again. Service is already subscribed.");
    look.code = CP_ERR_ALREADY_SUBSCRIBED;
    return look;
  }
  if (!made) return look;
  // Made before the subscription, which would be lost without its place.
  std::list<GenericCPInfo::HandlePointer> place(1, made);
  look.code = made->SubscribeService();
  if (look.code == CP_ERR_NONE) info.subscribe_handles.splice(info.subscribe_handles.end(), place);
  return look;
}

int GenericCPManager::UnSubscribeService(int handle, const std::string& udn,
                                         const std::string& service_type) {
  SubscriptionLook look = __TryLeave(handle, udn, service_type);
  while (!look.decided) {
    look.info->WaitWhileLeaving(look.handle);
    look = __TryLeave(handle, udn, service_type);
  }
  if (look.code != CP_ERR_NONE) return look.code;
  LeavingGuard leaving(*look.info, look.handle);
  const int unsubscribed = look.handle->UnSubscribeService();
  // KEPT: on failure the handle stays listed, although control knows nothing of it any more.
  if (unsubscribed == result::kOk) leaving.set_unsubscribed();
  return unsubscribed;
}

// On success the handle is marked as leaving, and the caller ends it without any lock: it may wait
// for an event whose callback calls SendAction.
GenericCPManager::SubscriptionLook GenericCPManager::__TryLeave(int handle, const std::string& udn,
                                                                const std::string& service_type) {
  SubscriptionLook look;
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  look.info = __Find(handle);
  if (!look.info) {
    VEX_LOG(kLogStep, kTagGenericCp, "Registered cp list for given handle is empty.");
    look.code = CP_ERR_INVALID_PARAMS;
    return look;
  }
  boost::lock_guard<boost::mutex> info_lock(look.info->info_mutex);
  const bool listed = look.info->GetSubscribeHandle(udn, service_type, look.handle);
  if (listed && look.handle->leaving && !HostCallbackScope::Inside()) {
    look.decided = false;
  } else if (!listed || look.handle->leaving) {
    VEX_LOG(kLogMajor, kTagGenericCp, "Cannot unsubscribe service. Service is not subscribed.");
    look.code = CP_ERR_NOT_SUBSCRIBED;
  } else {
    look.handle->leaving = true;
  }
  return look;
}

int GenericCPManager::SubscribeDevice(int handle, const std::string& udn) {
  cp_discovery::DetailedDeviceInfo device;
  const int found = __FindDevice(handle, udn, device);
  if (found != CP_ERR_NONE) return found;
  for (const cp_discovery::DeviceServiceInfo& service : device.services) {
    const int subscribed = SubscribeService(handle, udn, service.service_type);
    if (subscribed != CP_ERR_NONE) return subscribed;
  }
  return CP_ERR_NONE;
}

int GenericCPManager::UnSubscribeDevice(int handle, const std::string& udn) {
  cp_discovery::DetailedDeviceInfo device;
  const int found = __FindDevice(handle, udn, device);
  if (found != CP_ERR_NONE) return found;
  for (const cp_discovery::DeviceServiceInfo& service : device.services) {
    UnSubscribeService(handle, udn, service.service_type);
  }
  return CP_ERR_NONE;
}

int GenericCPManager::__FindDevice(int handle, const std::string& udn,
                                   cp_discovery::DetailedDeviceInfo& device) const {
  if (!__IsRegistered(handle)) return CP_ERR_INVALID_PARAMS;
  const int found = cp_discovery::GetDeviceDetailInfo(udn, &device);
  if (found == result::kOk) return CP_ERR_NONE;
  VEX_LOG(kLogMajor, kTagGenericCp, "GetDeviceDetailInfo failed.");
  return found == result::kOutOfMemory ? CP_ERR_OUT_OF_MEMORY : CP_ERR_INVALID_PARAMS;
}

GenericCPManager::InfoPointer GenericCPManager::__Find(int handle) const {
  boost::lock_guard<boost::mutex> lock(map_mutex_);
  const auto found = registered_cps_.find(handle);
  return found == registered_cps_.end() ? InfoPointer() : found->second;
}

GenericCPManager::InfoPointer GenericCPManager::__TakeOut(int handle) {
  boost::lock_guard<boost::mutex> lock(map_mutex_);
  const auto found = registered_cps_.find(handle);
  if (found == registered_cps_.end()) return InfoPointer();
  InfoPointer taken = found->second;
  registered_cps_.erase(found);
  return taken;
}

bool GenericCPManager::__IsRegistered(int handle) const {
  boost::lock_guard<boost::mutex> lock(cp_mutex_);
  if (__Find(handle)) return true;
  VEX_LOG(kLogMajor, kTagGenericCp, "Invalid params.");
  return false;
}

// With no lock held: both wait for callbacks in progress, which may call back into the manager.
void GenericCPManager::__TearDown(GenericCPInfo& info) {
  info.CancelAllActions();
  info.UnSubscribeAllServices();
}

}  // namespace generic_cp
}  // namespace vex_upnp

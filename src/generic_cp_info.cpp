#include "src/generic_cp_info.h"

#include <algorithm>
#include <functional>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/cp_control.h>
#include "src/generic_host_callback.h"

namespace vex_upnp {
namespace generic_cp {

GenericCPInfo::GenericCPInfo(const CPDeviceTypeInfo* types, const ControlPointCalbacks* given)
    : callbacks_() {
  if (given != nullptr) callbacks_ = *given;
  for (const CPDeviceTypeInfo* type = types; type != nullptr; type = type->next) {
    if (type->device_type != nullptr) device_types_.push_back(type->device_type);
  }
}

bool GenericCPInfo::GetSubscribeHandle(const std::string& udn, const std::string& service_type,
                                       HandlePointer& out) const {
  for (const HandlePointer& handle : subscribe_handles) {
    if (handle->GetSubscribedDeviceUdn() == udn &&
        handle->GetSubscribedServiceType() == service_type) {
      out = handle;
      return true;
    }
  }
  return false;
}

void GenericCPInfo::RemoveActionId(const int& action_id) {
  boost::lock_guard<boost::mutex> lock(info_mutex);
  const auto found = std::find(action_ids.begin(), action_ids.end(), action_id);
  if (found != action_ids.end()) action_ids.erase(found);
}

void GenericCPInfo::CancelAllActions() {
  std::list<int> open;
  {
    boost::lock_guard<boost::mutex> lock(info_mutex);
    closed = true;
    // Taken, not copied: what ends must not need memory.
    open.swap(action_ids);
  }
  // Cancelling waits for a time-out in progress, which wants the mutex.
  for (const int action_id : open) cp_control::CancelAction(action_id);
  // KEPT: what was cancelled stays listed.
  boost::lock_guard<boost::mutex> lock(info_mutex);
  action_ids.splice(action_ids.begin(), open);
}

// boost::unique_lock carries no marks for the analysis.
void GenericCPInfo::UnSubscribeAllServices() VEX_NO_THREAD_SAFETY_ANALYSIS {
  std::list<HandlePointer> taken;
  {
    const boost::this_thread::disable_interruption to_the_end;
    boost::unique_lock<boost::mutex> lock(info_mutex);
    const auto leaving = [](const HandlePointer& handle) { return handle->leaving; };
    if (!HostCallbackScope::Inside()) {
      leaving_changed_.wait(lock, [&]() VEX_NO_THREAD_SAFETY_ANALYSIS {
        return std::none_of(subscribe_handles.begin(), subscribe_handles.end(), leaving);
      });
    }
    // What is leaving still is seen to by the thread that ends it.
    taken.swap(subscribe_handles);
    subscribe_handles.splice(
        subscribe_handles.end(), taken,
        std::stable_partition(taken.begin(), taken.end(), std::not_fn(leaving)), taken.end());
  }
  for (const HandlePointer& handle : taken) handle->UnSubscribeService();
}

void GenericCPInfo::WaitWhileLeaving(const HandlePointer& handle) VEX_NO_THREAD_SAFETY_ANALYSIS {
  const boost::this_thread::disable_interruption to_the_end;
  boost::unique_lock<boost::mutex> lock(info_mutex);
  leaving_changed_.wait(lock, [&] { return !handle->leaving; });
}

void GenericCPInfo::FinishLeaving(const HandlePointer& handle, bool unsubscribed) {
  boost::lock_guard<boost::mutex> lock(info_mutex);
  // The caller's reference outlives the lock.
  if (unsubscribed) subscribe_handles.remove(handle);
  handle->leaving = false;
  leaving_changed_.notify_all();
}

}  // namespace generic_cp
}  // namespace vex_upnp

#include "src/rescan.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "src/cp_discovery_manager.h"
#include "src/request_packets.h"
#include "src/upnp_constants.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

// Datagrams get lost, so every search goes out twice.
constexpr int kSearchCopies = 2;

bool IsGlobal(const std::string& type) { return type == kSearchAll || type == kRootDevice; }

std::vector<std::string> SearchGroups(const std::string& type) {
  std::vector<std::string> groups(1, kSsdpGroup);
  const std::size_t length = sizeof(kFileTransferType) - 1;
  if (type.compare(0, length, kFileTransferType) == 0) groups.push_back(kFileTransferGroup);
  return groups;
}

}  // namespace

int Rescans::Rescan(const std::string& type) {
  if (IsGlobal(type) && !EnterGlobalRescan(type)) return result::kOk;
  int result = result::kOk;
  const RescanTimerPtr entry = Enter(type, result);
  if (!entry) return result;

  VEX_LOG(kLogStep, kTag, "Sending Rescan for [%s]", type.c_str());
  try {
    DeviceList::GetInstance()->ResetDeviceListValidity(type);
    result = SendSearch(type);
    if (result == result::kOk) StartCheckTimer(entry);
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    result = result::kOutOfMemory;
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    result = result::kFailure;
  }
  // Without its check the search would stand in the way of the next one for ever.
  if (result != result::kOk) Leave(entry);
  return result;
}

void Rescans::Leave(const RescanTimerPtr& entry) {
  boost::lock_guard<boost::mutex> lock(rescan_mutex_);
  rescan_timers_.remove(entry);
}

bool Rescans::EnterGlobalRescan(const std::string& type) {
  boost::lock_guard<boost::mutex> lock(rescan_progress_mutex_);
  if (rescan_in_progress_) {
    VEX_LOG(kLogDetail, kTag, "Rescan already in progress for [%s]", type.c_str());
    return false;
  }
  // The timer's place first: a guard without a timer would never go.
  auto place = std::set<int>({0});
  const int timer_id = utils::Timer::Start(timing::Scaled(timing::kGlobalRescanGuardMs),
                                           RescanProgressTimerExpiredCallback, nullptr);
  auto entry = place.extract(place.begin());
  entry.value() = timer_id;
  progress_timers_.insert(std::move(entry));
  rescan_in_progress_ = true;
  VEX_LOG(kLogStep, kTag, "Rescan progress timer started");
  return true;
}

// Null when nothing is to be sent; `result` tells whether that is a failure.
Rescans::RescanTimerPtr Rescans::Enter(const std::string& type, int& result) {
  boost::lock_guard<boost::mutex> lock(rescan_mutex_);
  const bool waiting =
      std::any_of(rescan_timers_.begin(), rescan_timers_.end(), [&](const RescanTimerPtr& other) {
        return IsGlobal(other->device_type) || other->device_type == type;
      });
  if (waiting) {
    VEX_LOG(kLogDetail, kTag, "Rescan already in progress for [%s]", type.c_str());
    return RescanTimerPtr();
  }
  try {
    RescanTimerPtr entry(new RescanTimer);
    entry->device_type = type;
    rescan_timers_.push_back(entry);
    return entry;
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "memory allocation failed");
    result = result::kOutOfMemory;
    return RescanTimerPtr();
  }
}

int Rescans::SendSearch(const std::string& type) {
  for (const std::string& group : SearchGroups(type)) {
    const std::string packet = FormatSearchRequest(type, timing::kSearchMx, group);
    for (int copy = 0; copy < kSearchCopies; ++copy) {
      const int result = network_layer::SendMulticastPacket(group, kAllInterfaces, packet,
                                                            static_cast<int>(packet.size()));
      if (result != result::kOk) {
        VEX_LOG(kLogMajor, kTag, "SendMulticastPacket failed with error %d", result);
        return result;
      }
    }
  }
  return result::kOk;
}

void Rescans::StartCheckTimer(const RescanTimerPtr& entry) {
  boost::lock_guard<boost::mutex> lock(rescan_mutex_);
  // A network change may have cancelled this search while it was being sent.
  const auto end = rescan_timers_.end();
  if (std::find(rescan_timers_.begin(), end, entry) == end) return;
  entry->timer_id = utils::Timer::Start(timing::Scaled(timing::kRescanCheckMs),
                                        RescanTimerExpiredCallBack, nullptr);
}

void Rescans::CancelRescanTimers() {
  std::list<RescanTimerPtr> cancelled;
  {
    boost::lock_guard<boost::mutex> lock(rescan_mutex_);
    cancelled.swap(rescan_timers_);
  }
  for (const RescanTimerPtr& timer : cancelled) {
    if (timer->timer_id != 0) utils::Timer::Cancel(timer->timer_id, nullptr);
  }
  clearRescanProgress();
}

// KEPT: the guard's own timer goes on when a network change clears the guard, and clears it once
// more when it fires. A global search may come early then; none is ever held back for it.
void Rescans::clearRescanProgress() {
  boost::lock_guard<boost::mutex> lock(rescan_progress_mutex_);
  rescan_in_progress_ = false;
}

bool Rescans::FindType(int timer_id, std::string& type) {
  boost::lock_guard<boost::mutex> lock(rescan_mutex_);
  for (const RescanTimerPtr& timer : rescan_timers_) {
    if (timer->timer_id != timer_id) continue;
    type = timer->device_type;
    return true;
  }
  return false;
}

VEX_NO_THREAD_SAFETY_ANALYSIS
std::unique_ptr<DeviceList::Devices> Rescans::TakeUnreachable(
    const std::string& type, boost::unique_lock<boost::recursive_mutex>& delivery) {
  boost::unique_lock<boost::mutex> lock(rescan_check_mutex_);
  if (rescan_check_stopped_) {
    VEX_LOG(kLogStep, kTag, "Rescan connect check has been stopped.");
    return std::unique_ptr<DeviceList::Devices>();
  }
  return DeviceList::GetInstance()->RemoveAndGetInvalidDevicesByType(
      type, rescan_connect_timeout_, lock, rescan_check_condition_, rescan_check_stopped_,
      delivery);
}

void Rescans::Remove(int timer_id) {
  boost::lock_guard<boost::mutex> lock(rescan_mutex_);
  rescan_timers_.remove_if(
      [timer_id](const RescanTimerPtr& timer) { return timer->timer_id == timer_id; });
}

void Rescans::StopChecks() {
  boost::lock_guard<boost::mutex> lock(rescan_check_mutex_);
  rescan_check_stopped_ = true;
  rescan_check_condition_.notify_all();
}

void Rescans::CancelAll() {
  CancelRescanTimers();
  std::set<int> guards;
  {
    boost::lock_guard<boost::mutex> lock(rescan_progress_mutex_);
    guards.swap(progress_timers_);
  }
  for (const int timer_id : guards) utils::Timer::Cancel(timer_id, nullptr);
}

void Rescans::ForgetProgressTimer(int timer_id) {
  boost::lock_guard<boost::mutex> lock(rescan_progress_mutex_);
  progress_timers_.erase(timer_id);
}

void RescanProgressTimerExpiredCallback(int timer_id, void* data) {
  (void)data;
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;
  VEX_LOG(kLogStep, kTag, "Rescan progress timer stopped");
  manager->ProgressTimerExpired(timer_id);
}

void RescanTimerExpiredCallBack(int timer_id, void* data) {
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;
  VEX_LOG(kLogStep, kTag, "Creating new thread for invalid device removal. timer_id: %d", timer_id);
  CPDiscoveryManager::StartRescanCheck(manager, timer_id, data);
}

}  // namespace cp_discovery
}  // namespace vex_upnp

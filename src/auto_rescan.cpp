#include "src/auto_rescan.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/retry.h"
#include "base/timing.h"
#include "src/cp_discovery_manager.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

int StartTimer() {
  return utils::Timer::Start(timing::Scaled(timing::kAutoRescanMs), AutoRescanTimerExpiredCallback,
                             nullptr);
}

}  // namespace

bool AutoRescan::Enable() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (enabled_) return false;
  enabled_ = true;
  return true;
}

void AutoRescan::Arm() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (enabled_ && auto_rescan_timer_id_ == 0) auto_rescan_timer_id_ = StartTimer();
}

bool AutoRescan::Disable() {
  int running = 0;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!enabled_) return false;
    enabled_ = false;
    running = auto_rescan_timer_id_;
    auto_rescan_timer_id_ = 0;
  }
  if (running != 0) utils::Timer::Cancel(running, nullptr);
  return true;
}

void AutoRescan::ArmAgain(int fired_timer_id) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (enabled_ && auto_rescan_timer_id_ == fired_timer_id) auto_rescan_timer_id_ = StartTimer();
}

void AutoRescanTimerExpiredCallback(int timer_id, void* data) {
  (void)data;
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (!manager) return;
  VEX_LOG(kLogStep, kTag, "Auto refreshing device list");
  try {
    manager->RescanForRegisteredCP();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  }
  // Whatever became of this search, the next one comes.
  RetryWithoutMemory([&] { manager->UpdateAutoRescanTimer(timer_id); });
}

}  // namespace cp_discovery
}  // namespace vex_upnp

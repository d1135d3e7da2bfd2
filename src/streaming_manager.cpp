#include "src/streaming_manager.h"

#include <new>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include "base/log.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

boost::mutex& StreamingManager::m_singleton_mutex_ = *new boost::mutex;
boost::shared_ptr<StreamingManager>& StreamingManager::m_instance_ =
    *new boost::shared_ptr<StreamingManager>;
std::atomic<int> StreamingManager::ref_count_{0};

boost::shared_ptr<StreamingManager> StreamingManager::GetInstance() {
  try {
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    if (!m_instance_) {
      const boost::shared_ptr<StreamingManager> made(new StreamingManager);
      made->__RegisterNetworkListener();
      m_instance_ = made;
    }
    return m_instance_;
  } catch (const std::bad_alloc&) {
    return boost::shared_ptr<StreamingManager>();
  }
}

void StreamingManager::DestroyInstance() {
  VEX_LOG(kLogStep, kTagStreaming, "StreamingManager::DestroyInstance Ref Count [%d]",
          ref_count_.load());
  if (ref_count_.load() >= 1) return;
  boost::shared_ptr<StreamingManager> last;
  {
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    if (ref_count_.load() < 1) last.swap(m_instance_);
  }
  // Outside the lock: unregistering waits for a network event in progress.
  if (last) last->__UnregisterNetworkListener();
}

void StreamingManager::AddReference() {
  boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
  ++ref_count_;
}

void StreamingManager::DeleteReference() {
  int left = 0;
  {
    boost::lock_guard<boost::mutex> lock(m_singleton_mutex_);
    left = --ref_count_;
    VEX_LOG(kLogStep, kTagStreaming, "StreamingManager::DeleteReference Ref Count [%d]", left);
  }
  if (left == 0) VEX_LOG(kLogStep, kTagStreaming, "Stopping streaming threads");
}

int StreamingManager::GetRunningSessionInfo(stRunningSession** sessions) {
  *sessions = nullptr;
  return result::kOk;
}

void StreamingManager::OnNetworkChanged(std::string& name, network_layer::NicEvent) {
  VEX_LOG(kLogStep, kTagStreaming, "NW event arrived for interface name %s", name.c_str());
}

void StreamingManager::__RegisterNetworkListener() {
  m_listener_registered_ =
      network_layer::RegisterNetworkEventListener(this, m_network_listener_id_) == result::kOk;
  if (!m_listener_registered_) {
    VEX_LOG(kLogMajor, kTagStreaming, "Register Network Event Listener failed.");
  }
}

void StreamingManager::__UnregisterNetworkListener() {
  if (m_listener_registered_) network_layer::UnRegisterEventListener(m_network_listener_id_);
  m_listener_registered_ = false;
}

}  // namespace streaming
}  // namespace vex_upnp

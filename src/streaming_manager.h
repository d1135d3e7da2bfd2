#ifndef VEXUPNPCP_SRC_STREAMING_MANAGER_H_
#define VEXUPNPCP_SRC_STREAMING_MANAGER_H_

#include <atomic>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/streaming_types.h>
#include <vexupnpcp/vexuncopyable.h>
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

// The one owner of what streams. It is built by the first call of the interface and lives until a
// TerminateStreamingManager finds fewer than one reference.
class StreamingManager : public network_layer::NetworkEventListener, public VEXUncopyable {
 public:
  // Builds the manager on first use; null when that is not possible. Whoever works on the manager
  // holds the pointer, so that an end on another thread takes nothing away under his hands.
  static boost::shared_ptr<StreamingManager> GetInstance();
  // Ends the manager when fewer than one reference is left.
  static void DestroyInstance();

  void AddReference();
  // Stops all that streams when the count comes to exactly 0.
  void DeleteReference();

  int GetRunningSessionInfo(stRunningSession** sessions);

  void OnNetworkChanged(std::string& name, network_layer::NicEvent event) override;

 private:
  StreamingManager() = default;

  void __RegisterNetworkListener();
  void __UnregisterNetworkListener();

  // Order: the singleton's mutex is outer to everything that the network layer locks when a
  // listener is registered. Nothing else is called under it.
  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& m_singleton_mutex_;
  static boost::shared_ptr<StreamingManager>& m_instance_ VEX_GUARDED_BY(m_singleton_mutex_);
  // Written under m_singleton_mutex_, looked at once without it. It outlives the instance: what was
  // given back too often stays counted.
  static std::atomic<int> ref_count_;

  // Set before the instance is shown, taken by the one who takes the instance out.
  bool m_listener_registered_ = false;
  int m_network_listener_id_ = 0;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_MANAGER_H_

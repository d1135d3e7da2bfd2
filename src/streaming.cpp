#include <vexupnpcp/streaming.h>

#include <cstdlib>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/result_codes.h>
#include "base/host_memory.h"
#include "src/streaming_manager.h"

namespace vex_upnp {
namespace streaming {

int InitializeStreamingManager() {
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  if (!manager) return result::kStreamingInitFailed;
  manager->AddReference();
  return result::kOk;
}

int TerminateStreamingManager() {
  {
    // KEPT: built anew for a surplus call, which drives the count below 0 and takes effect on the
    // next Initialize. Hosts that pair their calls never see it.
    const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
    if (!manager) return result::kStreamingTerminateFailed;
    manager->DeleteReference();
  }
  StreamingManager::DestroyInstance();
  return result::kOk;
}

int GetRunningSessionInfo(stRunningSession** sessions) {
  if (sessions == nullptr) return result::kStreamingInvalidParams;
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  return manager ? manager->GetRunningSessionInfo(sessions) : result::kFailure;
}

void FreeRunningSession(stRunningSession* sessions) {
  FreeChain(sessions, [](stRunningSession* session) {
    std::free(session->ip);
    std::free(session);
  });
}

}  // namespace streaming
}  // namespace vex_upnp

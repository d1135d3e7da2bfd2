#include "src/now_requesting.h"

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

#include "base/timing.h"
#include "src/cp_discovery_manager.h"

namespace vex_upnp {
namespace cp_discovery {

NowRequesting::NowRequesting(const std::string& device_udn, const std::string& location,
                             const std::string& host, int host_port,
                             const std::string& location_base, const std::string& agent)
    : udn(device_udn),
      request_target(location),
      ip(host),
      port(host_port),
      base_url(location_base),
      user_agent(agent) {}

NowRequesting::NowRequesting(const std::string& device_udn, const std::string& service,
                             const std::string& path, const std::string& host, int host_port,
                             const std::string& agent)
    : udn(device_udn),
      request_target(path),
      ip(host),
      port(host_port),
      service_id(service),
      user_agent(agent) {}

NowRequesting::~NowRequesting() {
  if (session_id != 0) network_layer::CancelTCPHTTPPacket(session_id);
  Stop();
}

void NowRequesting::Start() {
  timer_id = utils::Timer::Start(timing::Scaled(timing::kDescriptionTimeoutMs),
                                 TimerExpiredCallBack, nullptr);
}

void NowRequesting::Stop() {
  const int running = timer_id.exchange(0);
  if (running != 0) utils::Timer::Cancel(running, nullptr);
}

void TimerExpiredCallBack(int timer_id, void* data) {
  (void)data;
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::ExistingInstance();
  if (manager) CPDiscoveryManager::StartDescriptionCheck(manager, timer_id);
}

}  // namespace cp_discovery
}  // namespace vex_upnp

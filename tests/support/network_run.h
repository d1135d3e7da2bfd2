#ifndef VEXUPNPCP_TESTS_SUPPORT_NETWORK_RUN_H_
#define VEXUPNPCP_TESTS_SUPPORT_NETWORK_RUN_H_

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

namespace vex_test {

// The timer and the network layer with all its threads, for the scope.
class NetworkRun {
 public:
  NetworkRun() {
    vex_upnp::network_layer::InitializeNetworkLayer();
    vex_upnp::utils::Timer::InitializeManager();
    vex_upnp::network_layer::StartNetworkLayer();
  }
  NetworkRun(const NetworkRun&) = delete;
  NetworkRun& operator=(const NetworkRun&) = delete;
  ~NetworkRun() {
    vex_upnp::network_layer::StopNetworkLayer();
    vex_upnp::utils::Timer::TerminateManager();
    vex_upnp::network_layer::TerminateNetworkLayer();
  }
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_NETWORK_RUN_H_

#include "src/subscribe_requestor.h"

#include <gtest/gtest.h>

#include <string>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using vex_test::LogCapture;

class Listener : public DeviceEventListener {
 public:
  void OnEventReceived(const std::string&) override { ++calls; }
  void OnSubscribeResponseReceived(const int&, const errorcodes&, const std::string&) override {
    ++calls;
  }
  int calls = 0;
};

// Without the network layer there is nothing that could listen for events.
TEST(SubscribeWithoutNetworkLayer, FailsAndLeavesTheRecordForUnsubscribe) {
  Initialize();
  LogCapture log;
  Listener listener;
  int handle = 0;
  EXPECT_EQ(result::kFailure,
            Subscribe("uuid:1+lan0", "HOST:10.77.0.2:80", "", "http://10.77.0.1:49500",
                      "http://10.77.0.2:80/event", &listener, handle));
  EXPECT_LT(0, handle);
  EXPECT_EQ(1, log.Count("Event Callback registration failed!!!"));
  EXPECT_EQ(0, log.Count("Sending subscribe to device"));
  EXPECT_EQ(result::kRequestFailed, Unsubscribe(handle, "HOST:10.77.0.2:80"));
  EXPECT_EQ(result::kNoUpperLayer, Unsubscribe(handle, "HOST:10.77.0.2:80"));
  Terminate();
  EXPECT_EQ(0, listener.calls);
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

// Configurations that a host stops from inside the status of an interface.

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/serving_fixture.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::MediaHost;
using vex_test::TcpClient;

class StreamingConfigurations : public vex_test::ServingTest {
 protected:
  // Starts one more configuration, on one interface or on all.
  int Start(const char* ip, int port) {
    int id = 0;
    EXPECT_EQ(result::kOk, StartServers(MediaHost::callbacks(), ip, port, &servers_, &id));
    return id;
  }
  static void Tell(std::string name, network_layer::NicEvent event) {
    StreamingManager::GetInstance()->OnNetworkChanged(name, event);
  }
  static bool Listens(const std::string& ip, int port) { return TcpClient(ip, port).connected(); }

  static constexpr int kOtherPort = kFirstPort + 500;

  std::atomic<int> statuses_{0};
};

TEST_F(StreamingConfigurations, RegressionAStopFromAStatusTakesEffectAtOnceOnAllInterfaces) {
  const std::string other_ip = "127.251" + ip_.substr(ip_.find('.', 4));
  network_layer::NotifyNICAdded("serve1", other_ip, "255.0.0.0");
  const int all = Start(nullptr, kFirstPort);
  ASSERT_TRUE(Listens(ip_, kFirstPort));
  ASSERT_TRUE(Listens(other_ip, kFirstPort));
  bool listens = true;
  host_.DoOnStatus([&](int, int session, int) {
    if (session != 0) return;
    EXPECT_EQ(result::kOk, StopServers(all));
    listens = Listens(other_ip, kFirstPort) || Listens(ip_, kFirstPort);
  });
  Tell("serve0", network_layer::NIC_REMOVED);
  EXPECT_FALSE(listens);
  EXPECT_EQ(result::kStreamingNoServer, StopServers(all));
}

TEST_F(StreamingConfigurations, RegressionAConfigurationStoppedByAnothersStatusHearsNothingMore) {
  const int first = Start(ip_.c_str(), kFirstPort);
  const int second = Start(ip_.c_str(), kOtherPort);
  host_.DoOnStatus([&](int, int session, int code) {
    if (session != 0) return;
    EXPECT_EQ(STREAMING_SERVER_STOPPED, code);
    ++statuses_;
    StopServers(second);
  });
  Tell("serve0", network_layer::NIC_REMOVED);
  EXPECT_EQ(1, statuses_);
  EXPECT_FALSE(Listens(ip_, kOtherPort));
  EXPECT_EQ(result::kOk, StopServers(first));
}

TEST_F(StreamingConfigurations, RegressionAConfigurationStoppedByAnothersStartIsNotStarted) {
  const int first = Start(ip_.c_str(), kFirstPort);
  const int second = Start(ip_.c_str(), kOtherPort);
  Tell("serve0", network_layer::NIC_REMOVED);
  ASSERT_FALSE(Listens(ip_, kOtherPort));
  host_.DoOnStatus([&](int, int session, int code) {
    if (session != 0) return;
    EXPECT_EQ(STREAMING_SERVER_STARTED, code);
    ++statuses_;
    StopServers(second);
  });
  Tell("serve0", network_layer::NIC_ADDED);
  EXPECT_EQ(1, statuses_);
  EXPECT_TRUE(Listens(ip_, kFirstPort));
  EXPECT_FALSE(Listens(ip_, kOtherPort));
  EXPECT_EQ(result::kOk, StopServers(first));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

#include <vexupnpcp/networkmonitor.h>

#include <gmock/gmock.h>

#include <chrono>

#include <vexupnpcp/result_codes.h>

#include "src/networkinterface.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;
using vex_test::WaitUntil;

class NetworkMonitorTest : public testing::Test {
 protected:
  void SetUp() override { NetworkInterface::GetInstance(); }
  void TearDown() override { NetworkInterface::DestroyInstance(); }
};

TEST_F(NetworkMonitorTest, StoppingEndsASleepingMonitorAtOnce) {
  const vex_test::SlowerTime slower(20);
  LogCapture log;
  EXPECT_EQ(result::kOk, InitializeNetworkMonitor());
  EXPECT_EQ(1, log.Count("NetworkInterface::NetworkMonitor"));
  EXPECT_EQ(1, vex_test::ThreadsNamed("tstVexNetMon"));
  EXPECT_TRUE(WaitUntil([] { return vex_test::IsAsleep("tstVexNetMon"); }));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(result::kOk, TerminateNetworkMonitor());
  // Far below its sleep, which takes forty seconds here.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_EQ(1, log.Count("network monitor thread interrupted"));
  EXPECT_EQ(0, vex_test::ThreadsNamed("tstVexNetMon"));
  EXPECT_FALSE(netruntimer_thread);
}

TEST_F(NetworkMonitorTest, ASecondStartAndASecondStopOnlyLog) {
  LogCapture log;
  InitializeNetworkMonitor();
  EXPECT_EQ(0, log.Count("Already monitoring network"));
  EXPECT_EQ(result::kOk, InitializeNetworkMonitor());
  EXPECT_EQ(1, log.Count("Already monitoring network"));
  EXPECT_EQ(1, vex_test::ThreadsNamed("tstVexNetMon"));
  TerminateNetworkMonitor();
  EXPECT_EQ(0, log.Count("Already stopped monitoring network"));
  EXPECT_EQ(result::kOk, TerminateNetworkMonitor());
  EXPECT_EQ(1, log.Count("Already stopped monitoring network"));
}

TEST_F(NetworkMonitorTest, ItScansAgainAndAgain) {
  vex_test::FasterTime faster(200);
  // An entry that no kernel has is gone with the next scan.
  for (int round = 0; round < 3; ++round) {
    if (round == 0) InitializeNetworkMonitor();
    NotifyNICAdded("nosuch0", "10.9.9.9", "255.0.0.0");
    NetInfo info;
    EXPECT_TRUE(WaitUntil([&] { return GetNetworkInterface("nosuch0", info) != result::kOk; }));
  }
}

TEST_F(NetworkMonitorTest, ItEndsWithTheRegistry) {
  const int before = vex_test::ThreadCount();
  InitializeNetworkMonitor();
  NetworkInterface::DestroyInstance();
  EXPECT_TRUE(vex_test::ThreadsBecome(before - 2));
}

TEST_F(NetworkMonitorTest, StartAndStopCyclesLeaveNothing) {
  vex_test::FasterTime faster(1000);
  const int threads = vex_test::ThreadCount();
  const int descriptors = vex_test::DescriptorCount();
  for (int i = 0; i < 20; ++i) {
    InitializeNetworkMonitor();
    TerminateNetworkMonitor();
  }
  EXPECT_TRUE(vex_test::ThreadsBecome(threads));
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

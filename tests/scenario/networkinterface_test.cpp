// The registry and the monitor against the kernel's own interfaces.

#include "src/networkinterface.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/interface_recorder.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/private_network.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::Pair;
using vex_test::InterfaceRecorder;
using vex_test::LogCapture;
using vex_test::ScopedAddress;
using vex_test::WaitUntil;

class KernelInterfaceTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vex_test::InPrivateNetwork()) << "started by tools/in_netns";
  }

  // Name and address of every interface that a look at the kernel finds.
  std::vector<std::pair<std::string, std::string>> FoundNow() {
    std::vector<NetInfo> found;
    EXPECT_EQ(result::kYes, registry()->ScanAndGetNetworkInterface(found));
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const NetInfo& info : found) pairs.emplace_back(info.name, info.ip_address);
    return pairs;
  }
  static boost::shared_ptr<NetworkInterface> registry() {
    return NetworkInterface::ExistingInstance();
  }
  static void Select(std::string name) { ConfigureNetworkInterface(name, true); }

  // Scans come every 40 ms, the pause of an address change takes 10 ms.
  vex_test::FasterTime faster_{50};
  vex_test::NetworkRun run_;
  LogCapture log_;
};

TEST_F(KernelInterfaceTest, TheFirstPassRunsBeforeTheMonitorsStartReturns) {
  Select("lan0");
  InterfaceRecorder recorder;
  InitializeNetworkMonitor();
  NetInfo info;
  EXPECT_EQ(result::kOk, GetNetworkInterface("lan0", info));
  EXPECT_EQ("10.77.0.1", info.ip_address);
  EXPECT_EQ("255.255.255.0", info.subnet_mask);
  std::vector<NetInfo> all;
  GetNetworkInterfaces(&all);
  EXPECT_EQ(4U, all.size());
  EXPECT_EQ(1, log_.Count("Interface Info: Name[lan0] IP Address[10.77.0.1]"));
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
  EXPECT_THAT(recorder.events(), ElementsAre(Pair("lan0", NIC_ADDED)));
  TerminateNetworkMonitor();
}

TEST_F(KernelInterfaceTest, LoopbackIsToldByItsTextAlone) {
  EXPECT_THAT(FoundNow(), Not(Contains(Pair("lo", testing::_))));
  const ScopedAddress inside("lan0", "10.127.0.1/24", "lan0:1");
  EXPECT_THAT(FoundNow(), Contains(Pair("lan0:1", "10.127.0.1")));
}

TEST_F(KernelInterfaceTest, KeptALoopbackAddressOfAnotherRangePasses) {
  const ScopedAddress other("lo", "127.1.0.1/8", "lo:1");
  EXPECT_THAT(FoundNow(), Contains(Pair("lo:1", "127.1.0.1")));
  const ScopedAddress same("lo", "127.0.0.77/8", "lo:2");
  EXPECT_THAT(FoundNow(), Not(Contains(Pair("lo:2", testing::_))));
}

TEST_F(KernelInterfaceTest, ALinkThatIsDownOrHasNoCarrierDoesNotCount) {
  {
    const vex_test::ScopedLinkDown down("lan1");
    EXPECT_THAT(FoundNow(), Not(Contains(Pair("lan1", testing::_))));
  }
  EXPECT_THAT(FoundNow(), Contains(Pair("lan1", "10.77.1.1")));
  // Up still, but its other end is not.
  const vex_test::ScopedLinkDown no_carrier("peer1");
  EXPECT_TRUE(WaitUntil([] { return !vex_test::IsRunning("lan1"); }));
  EXPECT_THAT(FoundNow(), Not(Contains(Pair("lan1", testing::_))));
}

TEST_F(KernelInterfaceTest, AnInterfaceThatGoesDownAndUpStaysSelected) {
  InitializeNetworkMonitor();
  Select("lan1");
  InterfaceRecorder recorder;
  {
    const vex_test::ScopedLinkDown down("lan1");
    EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
    NetInfo info;
    EXPECT_EQ(result::kFailure, GetNetworkInterface("lan1", info));
  }
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(recorder.events(), ElementsAre(Pair("lan1", NIC_REMOVED), Pair("lan1", NIC_ADDED)));
}

TEST_F(KernelInterfaceTest, AnotherAddressBetweenTwoScansIsARemovalAndAChange) {
  InitializeNetworkMonitor();
  Select("lan1");
  InterfaceRecorder recorder;
  // In one step, so that no scan can fall between.
  vex_test::Ip(
      "-batch - <<'END'\naddr add 10.77.9.1/24 brd + dev lan1\n"
      "addr del 10.77.1.1/24 dev lan1\nEND");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(recorder.events(),
              ElementsAre(Pair("lan1", NIC_REMOVED), Pair("lan1", NIC_IPCHANGED)));
  NetInfo info;
  EXPECT_EQ(result::kOk, GetNetworkInterface("lan1", info));
  EXPECT_EQ("10.77.9.1", info.ip_address);
  vex_test::Ip("addr add 10.77.1.1/24 brd + dev lan1");
  vex_test::Ip("addr del 10.77.9.1/24 dev lan1");
}

TEST_F(KernelInterfaceTest, AnAddressThatIsAwayDuringAScanIsARemovalAndAnAddition) {
  InitializeNetworkMonitor();
  Select("lan1");
  InterfaceRecorder recorder;
  vex_test::Ip("addr del 10.77.1.1/24 dev lan1");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
  vex_test::Ip("addr add 10.77.1.1/24 brd + dev lan1");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(recorder.events(), ElementsAre(Pair("lan1", NIC_REMOVED), Pair("lan1", NIC_ADDED)));
}

TEST_F(KernelInterfaceTest, AnAliasIsAnInterfaceOfItsOwn) {
  InitializeNetworkMonitor();
  Select("lan0:7");
  InterfaceRecorder recorder;
  {
    const ScopedAddress alias("lan0", "10.77.7.1/24", "lan0:7");
    EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
    NetInfo info;
    EXPECT_EQ(result::kOk, GetNetworkInterfaceByIP("10.77.7.1", info));
    EXPECT_EQ("lan0:7", info.name);
  }
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(recorder.events(),
              ElementsAre(Pair("lan0:7", NIC_ADDED), Pair("lan0:7", NIC_REMOVED)));
}

TEST_F(KernelInterfaceTest, ASecondAddressUnderOneNameRaisesNothing) {
  InitializeNetworkMonitor();
  Select("lan0");
  InterfaceRecorder recorder;
  const ScopedAddress second("lan0", "10.77.8.1/24");
  EXPECT_THAT(FoundNow(),
              testing::IsSupersetOf({Pair("lan0", "10.77.0.1"), Pair("lan0", "10.77.8.1")}));
  // One that no kernel has goes with the next scan: so three have taken place.
  for (int i = 0; i < 3; ++i) {
    NotifyNICAdded("gone0", "10.9.9.9", "255.0.0.0");
    NetInfo info;
    EXPECT_TRUE(WaitUntil([&] { return GetNetworkInterface("gone0", info) != result::kOk; }));
  }
  for (const InterfaceRecorder::Event& event : recorder.events()) EXPECT_EQ("gone0", event.first);
}

TEST_F(KernelInterfaceTest, KeptWhatIsSelectedByItselfLaterRaisesNothing) {
  InitializeNetworkMonitor();
  InterfaceRecorder recorder;
  ConfigureOnAllNetworkInterfaces(true);
  EXPECT_TRUE(WaitUntil([] {
    std::vector<NetInfo> active;
    GetActiveSelectedNetworkInterfaces(&active);
    return active.size() == 4;
  }));
  EXPECT_EQ(4, log_.Count("NetworkInterface is already selected"));
  TerminateNetworkMonitor();
  EXPECT_EQ(0U, recorder.count());
}

TEST_F(KernelInterfaceTest, InterfacesBehindTheThirtySecondEntryStayUnseen) {
  std::vector<std::unique_ptr<ScopedAddress>> aliases;
  for (int i = 1; i <= 40; ++i) {
    aliases.push_back(std::make_unique<ScopedAddress>(
        "peer1", "10.78." + std::to_string(i) + ".1/24", "peer1:" + std::to_string(i)));
  }
  // Of the 32 entries one is the loopback.
  EXPECT_EQ(31U, FoundNow().size());
  aliases.resize(27);
  EXPECT_EQ(31U, FoundNow().size());
  aliases.resize(26);
  EXPECT_EQ(30U, FoundNow().size());
}

TEST_F(KernelInterfaceTest, ServersFollowAChangeBeforeListenersHearOfIt) {
  ASSERT_EQ(result::kOk, ConfigureTCPServer(46000, true));
  std::vector<std::size_t> servers;
  InterfaceRecorder recorder([&](const InterfaceRecorder::Event&) {
    std::list<boost::shared_ptr<IpInfo>> ports;
    GetConfiguredTcpPorts(ports);
    servers.push_back(ports.size());
  });
  InitializeNetworkMonitor();
  Select("lan0");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
  std::string name = "lan0";
  ConfigureNetworkInterface(name, false);
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(servers, ElementsAre(1U, 0U));
}

TEST_F(KernelInterfaceTest, AnInterruptedAddressChangeRunsToItsEnd) {
  // The change is there before the monitor's two seconds of sleep are over.
  faster_.~FasterTime();
  new (&faster_) vex_test::FasterTime(1);
  InitializeNetworkMonitor();
  Select("lan1");
  InterfaceRecorder recorder;
  std::chrono::milliseconds stop_took{0};
  EXPECT_TRUE(WaitUntil([] { return vex_test::IsAsleep("tstVexNetMon"); }));
  {
    // The pause takes ten seconds here.
    const vex_test::SlowerTime slower(20);
    vex_test::Ip(
        "-batch - <<'END'\naddr add 10.77.9.1/24 brd + dev lan1\n"
        "addr del 10.77.1.1/24 dev lan1\nEND");
    EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
    const auto begin = std::chrono::steady_clock::now();
    TerminateNetworkMonitor();
    stop_took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
  }
  EXPECT_LT(stop_took, std::chrono::milliseconds(5000));
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 2; }));
  EXPECT_THAT(recorder.events(),
              ElementsAre(Pair("lan1", NIC_REMOVED), Pair("lan1", NIC_IPCHANGED)));
  vex_test::Ip("addr add 10.77.1.1/24 brd + dev lan1");
  vex_test::Ip("addr del 10.77.9.1/24 dev lan1");
}

TEST_F(KernelInterfaceTest, ManyDescriptorsAreDumpedAndTheScanGoesOn) {
  const vex_test::ScopedDescriptorLimit limit(2000);
  std::vector<int> taken;
  while (taken.empty() || taken.back() < 999) {
    taken.push_back(::dup(0));
    ASSERT_GE(taken.back(), 0);
  }
  EXPECT_THAT(FoundNow(), Contains(Pair("lan0", "10.77.0.1")));
  EXPECT_EQ(1, log_.Count("Too Many Socket Fds Opened [1000]"));
  EXPECT_EQ(1, log_.Count("Total Fd Count "));
  for (const int fd : taken) ::close(fd);
}

TEST_F(KernelInterfaceTest, MulticastIsProbedOnAnAddressOfThisMachine) {
  EXPECT_EQ(result::kYes, registry()->checkMulticastResourceAvailability("10.77.0.1"));
  EXPECT_EQ(1, log_.Count("[VEX Socket Closed ] UDP"));
  EXPECT_EQ(result::kNo, registry()->checkMulticastResourceAvailability("10.77.0.99"));
  EXPECT_EQ(1, log_.Count("checkMulticastResourceAvailability:failed error message Cannot assign "
                          "requested address"));
  EXPECT_EQ(2, log_.Count("[VEX Socket Closed ] UDP"));
  EXPECT_THROW(registry()->checkMulticastResourceAvailability("nowhere"), std::exception);
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

// Streaming servers on real interfaces: where they start, what they are called, how they follow the
// interfaces, and how they end.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include <sys/socket.h>

#include "src/streaming_manager.h"
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_host.h"
#include "tests/support/network_run.h"
#include "tests/support/private_network.h"
#include "tests/support/raw_socket.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::LogCapture;
using vex_test::MediaHost;
using vex_test::Response;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kLan0[] = "10.77.0.1";
constexpr char kLan1[] = "10.77.1.1";
constexpr int kPort = 22000;
// Where a test takes ports away itself: no connection that has ended lingers there.
constexpr int kHeldPort = 22500;
constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kOkHeader[] = "HTTP/1.1 200 OK\r\n\r\n";

class StreamingInterfaces : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vex_test::InPrivateNetwork()) << "started by tools/in_netns";
    ASSERT_EQ(result::kOk, InitializeStreamingManager());
    host_.DoOnRequest([](const MediaHost::Request& request) {
      const ResHeaderInfo ok = Response(200);
      SendHTTPResponse(request.server, request.session, &ok, true);
    });
  }
  void TearDown() override {
    if (monitoring_) network_layer::TerminateNetworkMonitor();
    FreeServerInfoList(servers_);
    EXPECT_EQ(result::kOk, TerminateStreamingManager());
  }

  void Monitor(const std::vector<std::string>& names) {
    for (std::string name : names) network_layer::ConfigureNetworkInterface(name, true);
    network_layer::InitializeNetworkMonitor();
    monitoring_ = true;
  }
  int Start(const char* ip, int port = kPort) {
    return StartServers(MediaHost::callbacks(), ip, port, &servers_, &configuration_);
  }
  static std::string Told(int server, int code) {
    return "status " + std::to_string(server) + " 0 " + std::to_string(code);
  }
  static bool IsGone(int server) {
    return WaitUntil([&] {
      stServer* const known = GetConfiguredServers(server);
      FreeServerInfoList(known);
      return known == nullptr;
    });
  }
  static std::string Ask(const std::string& ip, int port) {
    TcpClient peer(ip, port);
    return peer.connected() && peer.Send(kGet) ? peer.ReadToEnd() : "not connected";
  }

  // Scans come every 40 ms, the pause of an address change takes 10 ms.
  vex_test::FasterTime faster_{50};
  vex_test::NetworkRun run_;
  MediaHost host_;
  LogCapture log_;
  bool monitoring_ = false;
  stServer* servers_ = nullptr;
  int configuration_ = 0;
};

TEST_F(StreamingInterfaces, NullStartsOneServerForEachActiveInterface) {
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(nullptr));
  EXPECT_EQ(100, configuration_);
  ASSERT_NE(nullptr, servers_);
  EXPECT_EQ(1000, servers_->server_id);
  EXPECT_STREQ(kLan0, servers_->ip);
  EXPECT_STREQ("lan0", servers_->interface_name);
  EXPECT_EQ(kPort, servers_->port);
  ASSERT_NE(nullptr, servers_->next);
  EXPECT_EQ(1001, servers_->next->server_id);
  EXPECT_STREQ(kLan1, servers_->next->ip);
  EXPECT_EQ(kPort, servers_->next->port);
  EXPECT_EQ(nullptr, servers_->next->next);
  EXPECT_EQ(kOkHeader, Ask(kLan0, kPort));
  EXPECT_EQ(kOkHeader, Ask(kLan1, kPort));
  EXPECT_EQ(1, host_.Count("connect 1000 1001 0"));
  EXPECT_EQ(1, host_.Count("connect 1001 1002 0"));
}

TEST_F(StreamingInterfaces, AnAddressStartsOneServerAndTheNextCallAnother) {
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(kLan1));
  EXPECT_EQ(1, log_.Count(16, kTag, "Got request to start on interface 10.77.1.1"));
  EXPECT_EQ(1, log_.Count(16, kTag, "Server started on interface 10.77.1.1 @759"));
  EXPECT_EQ(1, log_.Count("TCP Server Started."));
  EXPECT_EQ(1, log_.Count("TCP Server Started 10.77.1.1, Port :22000"));
  EXPECT_EQ(100, configuration_);
  // A taken port moves on, and the chain grows.
  ASSERT_EQ(result::kOk, Start(kLan1));
  EXPECT_EQ(101, configuration_);
  ASSERT_NE(nullptr, servers_->next);
  EXPECT_EQ(1001, servers_->next->server_id);
  EXPECT_EQ(kPort + 1, servers_->next->port);
  EXPECT_EQ(1, log_.Count("acceptor bind error Address already in use: for IP [10.77.1.1] and "
                          "port[22000]"));
  EXPECT_EQ(1, log_.Count("Bind error Address already in use!"));
  EXPECT_EQ(kOkHeader, Ask(kLan1, kPort + 1));

  int port = 0;
  EXPECT_EQ(result::kOk, GetStreamingServerPort(101, kLan1, &port));
  EXPECT_EQ(kPort + 1, port);
  EXPECT_EQ(result::kStreamingNoServer, GetStreamingServerPort(101, kLan0, &port));
  EXPECT_EQ(result::kStreamingNoServer, GetStreamingServerPort(102, kLan1, &port));
  EXPECT_EQ(result::kStreamingInvalidParams, GetStreamingServerPort(0, kLan1, &port));
  EXPECT_EQ(result::kStreamingInvalidParams, GetStreamingServerPort(101, nullptr, &port));
  EXPECT_EQ(result::kStreamingInvalidParams, GetStreamingServerPort(101, kLan1, nullptr));

  stServer* const one = GetConfiguredServers(1001);
  ASSERT_NE(nullptr, one);
  EXPECT_EQ(1001, one->server_id);
  EXPECT_STREQ(kLan1, one->ip);
  EXPECT_STREQ("lan1", one->interface_name);
  EXPECT_EQ(kPort + 1, one->port);
  FreeServerInfoList(one);
  EXPECT_EQ(nullptr, GetConfiguredServers(1002));
  EXPECT_EQ(nullptr, GetConfiguredServers(-1));

  EXPECT_EQ(result::kStreamingInvalidParams, StopServers(0));
  EXPECT_EQ(result::kOk, StopServers(101));
  EXPECT_EQ(result::kStreamingNoServer, StopServers(101));
  EXPECT_EQ("not connected", Ask(kLan1, kPort + 1));
  EXPECT_EQ(kOkHeader, Ask(kLan1, kPort));
}

// A search looks at what streams. A host that waited in its callback for discovery, whose thread
// was in a search, waited for ever.
TEST_F(StreamingInterfaces, RegressionWhatStreamsCanBeSeenWhileAHostIsToldOfAServer) {
  const vex_test::Watchdog watchdog(60);
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(nullptr));
  host_.DoOnRequest(nullptr);
  TcpClient peer(kLan0, kPort);
  ASSERT_TRUE(peer.Send(kGet));
  const auto streams = [] {
    stRunningSession* sessions = nullptr;
    EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
    const bool any = sessions != nullptr;
    FreeRunningSession(sessions);
    return any;
  };
  ASSERT_TRUE(WaitUntil(streams));
  std::atomic<int> seen{0};
  host_.DoOnStatus([&](int, int, int code) {
    if (code != STREAMING_SERVER_STOPPED) return;
    std::thread search([&] { seen = streams() ? 1 : 0; });
    search.join();
  });
  const vex_test::ScopedLinkDown down("lan1");
  ASSERT_TRUE(host_.Await(Told(1001, STREAMING_SERVER_STOPPED)));
  EXPECT_TRUE(WaitUntil([&] { return seen == 1; }));
}

TEST_F(StreamingInterfaces, OneHundredPortsAreTriedAndNoMore) {
  Monitor({"lan0"});
  const vex_test::HeldPorts held(SOCK_STREAM, kLan0, kHeldPort, 100);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(result::kStreamingBindFailed, Start(kLan0, kHeldPort));
  EXPECT_EQ(100, log_.Count("Bind error Address already in use!"));
  EXPECT_EQ(nullptr, servers_);
  EXPECT_EQ(0, configuration_);
  EXPECT_EQ(result::kOk, Start(kLan0, kHeldPort + 1));
  EXPECT_EQ(kHeldPort + 100, servers_->port);
  // The failed call used up no id.
  EXPECT_EQ(100, configuration_);
  EXPECT_EQ(1000, servers_->server_id);
}

TEST_F(StreamingInterfaces, WhatCannotStartSaysWhy) {
  Monitor({"lan0"});
  EXPECT_EQ(result::kStreamingNoInterface, Start("10.77.5.5"));
  EXPECT_EQ(1, log_.Count(16, kTag, "Network Info Not found for interface 10.77.5.5"));
  EXPECT_EQ(result::kStreamingBindFailed, Start(kLan0, 70000));
  ServerAppCallbacks incomplete = *MediaHost::callbacks();
  incomplete.on_data = nullptr;
  EXPECT_EQ(result::kStreamingInvalidParams,
            StartServers(&incomplete, kLan0, kPort, &servers_, &configuration_));
  EXPECT_EQ(result::kStreamingInvalidParams,
            StartServers(nullptr, kLan0, kPort, &servers_, &configuration_));
  EXPECT_EQ(result::kStreamingInvalidParams, Start(kLan0, -1));
  EXPECT_EQ(result::kStreamingInvalidParams,
            StartServers(MediaHost::callbacks(), kLan0, kPort, nullptr, &configuration_));
  EXPECT_EQ(result::kStreamingInvalidParams,
            StartServers(MediaHost::callbacks(), kLan0, kPort, &servers_, nullptr));
  EXPECT_EQ(nullptr, servers_);
}

TEST_F(StreamingInterfaces, KeptPort0IsReportedAs0) {
  Monitor({"lan0"});
  EXPECT_EQ(result::kOk, Start(kLan0, 0));
  EXPECT_EQ(0, servers_->port);
}

TEST_F(StreamingInterfaces, WithoutAnInterfaceAConfigurationWaitsForOne) {
  EXPECT_EQ(result::kOk, Start(nullptr));
  EXPECT_EQ(100, configuration_);
  EXPECT_EQ(nullptr, servers_);
  Monitor({"lan0"});
  ASSERT_TRUE(host_.Await(Told(1000, STREAMING_SERVER_STARTED)));
  int port = 0;
  EXPECT_EQ(result::kOk, GetStreamingServerPort(configuration_, kLan0, &port));
  EXPECT_EQ(kPort, port);
  EXPECT_EQ(kOkHeader, Ask(kLan0, kPort));
}

TEST_F(StreamingInterfaces, AServerGoesAndComesWithItsInterface) {
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(kLan1));
  const int first = servers_->server_id;
  TcpClient open(kLan1, kPort);
  ASSERT_TRUE(open.connected());
  ASSERT_TRUE(WaitUntil([&] { return host_.LastSession() == first + 1; }));
  {
    const vex_test::ScopedLinkDown down("lan1");
    ASSERT_TRUE(host_.Await(Told(first, STREAMING_SERVER_STOPPED)));
    EXPECT_EQ(1, log_.Count("Sending Network Notification to profile"));
    EXPECT_TRUE(open.PeerCloses());
    EXPECT_TRUE(IsGone(first));
    // The configuration stays, and only its own interface brings it back.
    int port = 0;
    EXPECT_EQ(result::kStreamingNoServer, GetStreamingServerPort(configuration_, kLan1, &port));
  }
  ASSERT_TRUE(host_.Await(Told(first + 1, STREAMING_SERVER_STARTED)));
  EXPECT_EQ(kOkHeader, Ask(kLan1, kPort));
  EXPECT_EQ(1, host_.Count("connect " + std::to_string(first + 1) + " " +
                           std::to_string(first + 2) + " 0"));
  EXPECT_EQ(result::kOk, StopServers(configuration_));
}

TEST_F(StreamingInterfaces, ANamedServerDoesNotFollowOtherInterfaces) {
  Monitor({"lan0"});
  ASSERT_EQ(result::kOk, Start(kLan0));
  ASSERT_EQ(result::kOk, Start(nullptr, kPort + 300));
  std::string lan1("lan1");
  network_layer::ConfigureNetworkInterface(lan1, true);
  // Only the second configuration is for all.
  ASSERT_TRUE(host_.Await(Told(1002, STREAMING_SERVER_STARTED)));
  EXPECT_EQ(kOkHeader, Ask(kLan1, kPort + 300));
  EXPECT_EQ("not connected", Ask(kLan1, kPort));
  EXPECT_EQ(1, log_.Count(16, kTag, "NW event arrived for interface name lan1"));
}

TEST_F(StreamingInterfaces, AnIdIsUsedUpByAServerThatCannotComeBack) {
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(kLan1, kHeldPort));
  {
    const vex_test::ScopedLinkDown down("lan1");
    ASSERT_TRUE(host_.Await(Told(1000, STREAMING_SERVER_STOPPED)));
    EXPECT_TRUE(
        WaitUntil([&] { return log_.Count("Sending Network Notification to profile") == 1; }));
  }
  ASSERT_TRUE(host_.Await(Told(1001, STREAMING_SERVER_STARTED)));
  std::unique_ptr<vex_test::HeldPorts> held;
  {
    const vex_test::ScopedLinkDown down("lan1");
    ASSERT_TRUE(host_.Await(Told(1001, STREAMING_SERVER_STOPPED)));
    ASSERT_TRUE(IsGone(1001));
    held.reset(new vex_test::HeldPorts(SOCK_STREAM, kLan1, kHeldPort, 100));
    ASSERT_TRUE(held->all());
  }
  ASSERT_TRUE(
      WaitUntil([&] { return log_.Count(16, kTag, "Not able to start TCP server!") == 1; }));
  EXPECT_TRUE(WaitUntil(
      [&] { return log_.Count(16, kTag, "Not able to start TCP on interface 10.77.1.1") == 1; }));
  held.reset();
  {
    const vex_test::ScopedLinkDown down("lan1");
    ASSERT_TRUE(
        WaitUntil([&] { return log_.Count("NW event arrived for interface name lan1") == 6; }));
  }
  EXPECT_TRUE(host_.Await(Told(1003, STREAMING_SERVER_STARTED)));
}

TEST_F(StreamingInterfaces, AStatusMayStopAndStartServers) {
  Monitor({"lan0", "lan1"});
  ASSERT_EQ(result::kOk, Start(kLan1));
  std::atomic<int> stopped{-1};
  std::atomic<int> started{-1};
  host_.DoOnStatus([&](int, int, int code) {
    if (code != STREAMING_SERVER_STOPPED) return;
    stopped = StopServers(configuration_);
    stServer* chain = nullptr;
    int configuration = 0;
    started = StartServers(MediaHost::callbacks(), kLan0, kPort, &chain, &configuration);
    FreeServerInfoList(chain);
  });
  {
    const vex_test::ScopedLinkDown down("lan1");
    ASSERT_TRUE(WaitUntil([&] { return started.load() != -1; }));
  }
  EXPECT_EQ(result::kOk, stopped);
  EXPECT_EQ(result::kOk, started);
  EXPECT_EQ(kOkHeader, Ask(kLan0, kPort));
}

TEST_F(StreamingInterfaces, KeptAServerStaysOnAnAddressThatChangedBetweenTwoEvents) {
  Monitor({"lan0"});
  ASSERT_EQ(result::kOk, Start(kLan0));
  // The registry tells a change as a removal first; a change that comes alone touches nothing.
  std::string lan0("lan0");
  StreamingManager::GetInstance()->OnNetworkChanged(lan0, network_layer::NIC_IPCHANGED);
  StreamingManager::GetInstance()->OnNetworkChanged(lan0, network_layer::NIC_ADDED);
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_EQ(kOkHeader, Ask(kLan0, kPort));
  std::string unknown("tun7");
  StreamingManager::GetInstance()->OnNetworkChanged(unknown, network_layer::NIC_ADDED);
  EXPECT_EQ(1, log_.Count(16, kTag, "Network Info Not found for interface tun7"));
}

// The pool, the references, and the end.

TEST_F(StreamingInterfaces, TwentyThreadsServe) {
  Monitor({"lan0"});
  EXPECT_EQ(0, vex_test::ThreadsNamed("tstVexStrmIo0"));
  ASSERT_EQ(result::kOk, Start(kLan0));
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(1, vex_test::ThreadsNamed("tstVexStrmIo" + std::to_string(i))) << i;
  EXPECT_EQ(0, vex_test::ThreadsNamed("tstVexStrmIo20"));
  EXPECT_EQ(1, log_.Count(16, kTag, "StreamingManager::StartStreamingThreads"));
  EXPECT_EQ(1, log_.Count("Streaming threads initialized"));
  ASSERT_EQ(result::kOk, Start(kLan0));
  EXPECT_EQ(1, log_.Count("StreamingManager::StartStreamingThreads"));
}

TEST_F(StreamingInterfaces, OnlyTheLastReferenceStopsTheServers) {
  Monitor({"lan0"});
  ASSERT_EQ(result::kOk, InitializeStreamingManager());
  ASSERT_EQ(result::kOk, Start(kLan0));
  EXPECT_EQ(result::kOk, TerminateStreamingManager());
  EXPECT_EQ(kOkHeader, Ask(kLan0, kPort));
  TcpClient open(kLan0, kPort);
  ASSERT_TRUE(open.connected());
  EXPECT_EQ(result::kOk, TerminateStreamingManager());
  EXPECT_TRUE(open.PeerCloses());
  EXPECT_EQ(0, vex_test::ThreadsNamed("tstVexStrmIo0"));
  EXPECT_EQ("not connected", Ask(kLan0, kPort));
  ASSERT_EQ(result::kOk, InitializeStreamingManager());
}

TEST_F(StreamingInterfaces, TwentyCyclesUnderLoadLeaveNothing) {
  Monitor({"lan0"});
  host_.DoOnRequest([](const MediaHost::Request& request) {
    const ResHeaderInfo ok = Response(200);
    SendHTTPResponse(request.server, request.session, &ok, false);
  });
  static char block[65536];
  host_.DoOnWritten([](int server, int session, unsigned int) {
    SendHTTPPayload(server, session, block, sizeof(block), false);
  });
  EXPECT_EQ(result::kOk, TerminateStreamingManager());
  const int threads = vex_test::ThreadCount();
  const int descriptors = vex_test::DescriptorCount();
  for (int cycle = 0; cycle < 20; ++cycle) {
    ASSERT_EQ(result::kOk, InitializeStreamingManager());
    ASSERT_EQ(result::kOk, Start(kLan0));
    const int port = servers_->port;
    FreeServerInfoList(servers_);
    servers_ = nullptr;
    std::vector<std::unique_ptr<TcpClient>> peers;
    for (int i = 0; i < 5; ++i) {
      peers.emplace_back(new TcpClient(kLan0, port));
      peers.back()->Send(kGet);
    }
    EXPECT_EQ(sizeof(block), peers.front()->ReadBytes(sizeof(block)).size());
    EXPECT_EQ(result::kOk, TerminateStreamingManager());
    peers.clear();
    EXPECT_TRUE(vex_test::ThreadsBecome(threads));
    // The monitor of interfaces opens one for a moment.
    EXPECT_TRUE(WaitUntil([&] { return descriptors == vex_test::DescriptorCount(); }));
  }
  ASSERT_EQ(result::kOk, InitializeStreamingManager());
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

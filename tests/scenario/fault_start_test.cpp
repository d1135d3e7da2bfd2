// A host that has used up its descriptors before it starts the library, in the middle of the start,
// or all but a few: each step gives a result that its header names, what came up of the library can
// be ended without a rest, and the next start brings up the whole.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/servermanager.h"
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_host.h"
#include "tests/support/private_network.h"
#include "tests/support/raw_socket.h"
#include "tests/support/still_works.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HostRig;
using vex_test::WaitUntil;
namespace core = vex_upnp::framework_core;
namespace network = vex_upnp::network_layer;
namespace result = vex_upnp::result;
namespace streaming = vex_upnp::streaming;

// So many descriptors are left and no more, from here to the end of the scope.
class FewDescriptors {
 public:
  explicit FewDescriptors(std::size_t left) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit limit = before_;
    // Small enough to be filled, and above all that a test has open.
    limit.rlim_cur = 256;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    // A look at the interfaces may hold one just now, and give it back.
    for (int quiet = 0; quiet < 4; quiet = Fill() ? 0 : quiet + 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (; left > 0 && !filling_.empty(); --left) {
      ::close(filling_.back());
      filling_.pop_back();
    }
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;
  ~FewDescriptors() {
    for (const int fd : filling_) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &before_);
  }

 private:
  // False when there was none to be had.
  bool Fill() {
    const std::size_t before = filling_.size();
    for (int fd = Open(); fd >= 0; fd = Open()) filling_.push_back(fd);
    return filling_.size() > before;
  }
  static int Open() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

  rlimit before_ = {};
  std::vector<int> filling_;
};

// One step of a start, and the results that its header has for it.
struct Step {
  const char* name;
  std::function<int()> take;
  std::vector<int> results;
};

class FaultStart : public testing::Test {
 protected:
  void SetUp() override {
    {
      // What is made at its first use stays with the process.
      HostRig rig;
      ASSERT_TRUE(vex_test::StillWorks(rig.Register()));
    }
    threads_ = vex_test::ThreadCount();
    descriptors_ = vex_test::DescriptorCount();
  }

  std::vector<Step> Steps() {
    return {
        {"InitFrameworkCore", [] { return core::InitFrameworkCore(""); }, {0, result::kFailure}},
        {"ConfigureServers",
         [] { return core::ConfigureServers(5100, 1900, 5300, false); },
         {0, result::VX_FC_UNINITIALIZED, result::kTcpStartFailed, result::kBindFailed,
          result::kFailure}},
        {"StartFrameworkCore",
         [] { return core::StartFrameworkCore(); },
         {0, result::VX_FC_UNINITIALIZED}},
        {"StartNetworkMonitor",
         [] { return core::StartNetworkMonitor(); },
         {0, result::VX_FC_UNINITIALIZED, result::kFailure}},
        {"ConfigureApplicationOnInterface",
         [] { return core::ConfigureApplicationOnInterface("lan0"); },
         {0, result::kFailure}},
        {"InitializeGenericCP",
         [] { return InitializeGenericCP(); },
         {0, CP_ERR_INIT_FAILED, CP_ERR_OUT_OF_MEMORY}},
        {"RegisterCP",
         [this] {
           char root[] = "upnp:rootdevice";
           CPDeviceTypeInfo types = {root, nullptr};
           ControlPointCalbacks callbacks = vex_test::RecordingCallbacks();
           return static_cast<int>(RegisterCP(&types, &callbacks, &handle_));
         },
         {0, CP_ERR_NOT_INITIALIZED, CP_ERR_INVALID_PARAMS, CP_ERR_OPERATION_FAILED}},
        {"StartServers",
         [] {
           streaming::stServer* servers = nullptr;
           int configuration = 0;
           const int started = streaming::StartServers(vex_test::MediaHost::callbacks(), nullptr,
                                                       21000, &servers, &configuration);
           streaming::FreeServerInfoList(servers);
           return started;
         },
         {0, result::kFailure, result::kStreamingInitFailed, result::kStreamingNotInitialized,
          result::kStreamingBindFailed, result::kStreamingOutOfMemory}},
    };
  }
  // The results of all steps, in order.
  static std::vector<int> Take(const Step& step, std::vector<int>& taken) {
    const int outcome = step.take();
    bool named = false;
    for (const int expected : step.results) named = named || outcome == expected;
    EXPECT_TRUE(named) << step.name << " gave " << outcome;
    taken.push_back(outcome);
    return taken;
  }
  void ExpectEndWithoutRest() {
    TerminateGenericCP();
    core::StopNetworkMonitor();
    // What a start that failed has left is known to the next one, which can be ended.
    if (core::TerminateFrameworkCore() == result::VX_FC_UNINITIALIZED) {
      EXPECT_EQ(0, core::InitFrameworkCore(""));
      EXPECT_EQ(0, core::TerminateFrameworkCore());
    }
    // The reference first: without one it would be counted below zero.
    streaming::InitializeStreamingManager();
    streaming::TerminateStreamingManager();
    EXPECT_TRUE(vex_test::ThreadsBecome(threads_));
    EXPECT_TRUE(WaitUntil([this] { return vex_test::DescriptorCount() == descriptors_; }))
        << vex_test::DescriptorCount() << " descriptors instead of " << descriptors_;
  }
  static void ExpectWholeStart() {
    HostRig rig;
    const int handle = rig.Register();
    EXPECT_TRUE(vex_test::StillWorks(handle));
    vex_test::MediaHost serving;
    serving.DoOnRequest([](const vex_test::MediaHost::Request& got) {
      const streaming::ResHeaderInfo response = vex_test::Response(200);
      streaming::SendHTTPResponse(got.server, got.session, &response, true);
    });
    streaming::stServer* servers = nullptr;
    int configuration = 0;
    ASSERT_EQ(0, streaming::StartServers(vex_test::MediaHost::callbacks(), "10.77.0.1", 21000,
                                         &servers, &configuration));
    vex_test::TcpClient viewer("10.77.0.1", servers->port);
    ASSERT_TRUE(viewer.Send("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_NE(std::string::npos, viewer.ReadToEnd().find("200"));
    streaming::FreeServerInfoList(servers);
    EXPECT_EQ(0, streaming::StopServers(configuration));
  }
  static std::size_t EventServers() {
    std::list<boost::shared_ptr<network::IpInfo>> servers;
    network::GetConfiguredTcpPorts(servers);
    return servers.size();
  }
  static std::size_t SearchServers() {
    std::list<boost::shared_ptr<network::IpInfo>> servers;
    network::ServerManager::ExistingInstance()->GetConfiguredUdpPorts(servers);
    return servers.size();
  }

  const vex_test::Watchdog watchdog_{240};
  const vex_test::FasterTime faster_{50};
  int handle_ = 0;
  int threads_ = 0;
  int descriptors_ = 0;
};

// None at all at the start of each step, and for all that follow.
TEST_F(FaultStart, WithoutDescriptorsFromAnyStepOnItCanBeEndedAndMadeAgain) {
  const std::vector<Step> steps = Steps();
  vex_test::MediaHost serving;
  for (std::size_t first = 0; first < steps.size(); ++first) {
    SCOPED_TRACE(steps[first].name);
    {
      std::unique_ptr<FewDescriptors> none;
      std::vector<int> taken;
      for (std::size_t i = 0; i < steps.size(); ++i) {
        if (i == first) none.reset(new FewDescriptors(0));
        Take(steps[i], taken);
      }
      if (first == 0) {
        EXPECT_EQ(result::kFailure, taken[0]);
      }
    }
    ExpectEndWithoutRest();
  }
  ExpectWholeStart();
}

// One more with each try, up to the one that brings up everything.
TEST_F(FaultStart, WithAFewDescriptorsItCanBeEndedAndMadeAgain) {
  const std::vector<Step> steps = Steps();
  vex_test::MediaHost serving;
  std::size_t left = 0;
  bool whole = false;
  for (; !whole && left < 100; ++left) {
    SCOPED_TRACE(left);
    {
      const FewDescriptors few(left);
      std::vector<int> taken;
      for (const Step& step : steps) Take(step, taken);
      whole = EventServers() == 1 && SearchServers() == 1;
      for (const int outcome : taken) whole = whole && outcome == 0;
    }
    ExpectEndWithoutRest();
  }
  EXPECT_TRUE(whole);
  EXPECT_GT(left, 10U);
  ExpectWholeStart();
}

// The interfaces could not be looked at when the monitor started; the next look finds them.
TEST_F(FaultStart, InterfacesThatCouldNotBeLookedAtAreFoundWhenTheyCan) {
  ASSERT_EQ(0, core::InitFrameworkCore(""));
  ASSERT_EQ(0, core::ConfigureServers(5100, 0, 5300, false));
  ASSERT_EQ(0, core::StartFrameworkCore());
  {
    const FewDescriptors none(0);
    EXPECT_EQ(0, core::StartNetworkMonitor());
    EXPECT_EQ(0, core::ConfigureApplicationOnInterface("lan0"));
    EXPECT_EQ(0U, EventServers());
  }
  ASSERT_EQ(0, InitializeGenericCP());
  EXPECT_TRUE(WaitUntil([] { return EventServers() == 1; }));
  EXPECT_TRUE(WaitUntil([] {
    core::NetworkInfo* list = nullptr;
    const int listed = core::GetAvailableNetworkInterfaces(&list);
    core::FreeInterfaceList(list);
    return listed == 0;
  }));
  char root[] = "upnp:rootdevice";
  CPDeviceTypeInfo types = {root, nullptr};
  ControlPointCalbacks callbacks = vex_test::RecordingCallbacks();
  ASSERT_EQ(0, RegisterCP(&types, &callbacks, &handle_));
  {
    const vex_test::FacingRoutes routes;
    EXPECT_TRUE(vex_test::StillWorks(handle_));
  }
  ExpectEndWithoutRest();
}

// KEPT: its threads come up all the same and wait for a start that succeeds; they are no more than
// that one needs, however often it is tried.
TEST_F(FaultStart, KeptAFailedStartLeavesThreadsAndNoMoreEachTime) {
  int left = 0;
  {
    const FewDescriptors none(0);
    EXPECT_EQ(result::kFailure, core::InitFrameworkCore(""));
    EXPECT_EQ(result::VX_FC_UNINITIALIZED, core::TerminateFrameworkCore());
  }
  left = vex_test::ThreadCount();
  for (std::size_t few = 0; few < 4; ++few) {
    const FewDescriptors still(few / 2);
    EXPECT_EQ(result::kFailure, core::InitFrameworkCore(""));
  }
  EXPECT_TRUE(vex_test::ThreadsBecome(left));
  ASSERT_EQ(0, core::InitFrameworkCore(""));
  const int whole = vex_test::ThreadCount();
  EXPECT_EQ(0, core::TerminateFrameworkCore());
  EXPECT_TRUE(vex_test::ThreadsBecome(threads_));
  ASSERT_EQ(0, core::InitFrameworkCore(""));
  EXPECT_EQ(whole, vex_test::ThreadCount());
  EXPECT_EQ(0, core::TerminateFrameworkCore());
  ExpectWholeStart();
}

// An interface that comes while there is nothing to serve it with, at the start and later.
TEST_F(FaultStart, RegressionAnInterfaceThatComesWithoutDescriptorsIsServedWhenThereAreSome) {
  for (const bool at_the_start : {true, false}) {
    SCOPED_TRACE(at_the_start);
    std::unique_ptr<vex_test::ScopedLinkDown> down;
    if (!at_the_start) down.reset(new vex_test::ScopedLinkDown("lan0"));
    ASSERT_EQ(0, core::InitFrameworkCore(""));
    ASSERT_EQ(0, core::ConfigureServers(5100, 0, 5300, false));
    ASSERT_EQ(0, core::StartFrameworkCore());
    EXPECT_EQ(0, core::ConfigureApplicationOnInterface("lan0"));
    if (!at_the_start) {
      EXPECT_EQ(0, core::StartNetworkMonitor());
    }
    {
      const vex_test::LogCapture log;
      // Enough to look at the interfaces; the first server wants more.
      const FewDescriptors one(1);
      if (at_the_start) {
        EXPECT_EQ(0, core::StartNetworkMonitor());
      } else {
        vex_test::Ip("link set lan0 up");
      }
      EXPECT_TRUE(WaitUntil([&] { return log.Holds("Too many open files"); }));
      EXPECT_EQ(0U, EventServers());
    }
    down.reset();
    EXPECT_TRUE(WaitUntil([] { return EventServers() == 1; }));
    ExpectEndWithoutRest();
  }
}

// KEPT: a server that cannot be opened when its interface comes waits for its return.
TEST_F(FaultStart, KeptAServerThatFoundNoDescriptorComesWithTheInterfacesReturn) {
  HostRig rig;
  const int handle = rig.Register();
  ASSERT_EQ(1U, SearchServers());
  const int with_servers = vex_test::DescriptorCount();
  {
    const vex_test::ScopedLinkDown down("lan0");
    ASSERT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == with_servers - 2; }));
    {
      // The look at the interfaces gives it back, and the event server takes it.
      const FewDescriptors one(1);
      vex_test::Ip("link set lan0 up");
      EXPECT_TRUE(WaitUntil([] { return EventServers() == 1; }));
      EXPECT_EQ(0U, SearchServers());
    }
    EXPECT_EQ(0U, SearchServers());
    vex_test::Ip("link set lan0 down");
    ASSERT_TRUE(WaitUntil([] { return EventServers() == 0; }));
  }
  EXPECT_TRUE(WaitUntil([] { return SearchServers() == 1 && EventServers() == 1; }));
  EXPECT_TRUE(vex_test::StillWorks(handle));
}

}  // namespace

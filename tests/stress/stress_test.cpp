// Eight host threads call the exported functions at random while a fake network talks, falls silent
// and changes; the library is stopped and started again meanwhile. VEX_STRESS_SECONDS tells how
// long, VEX_STRESS_SEED which way.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>

#include "tests/stress/direct_calls.h"
#include "tests/stress/fake_network.h"
#include "tests/stress/host_calls.h"
#include "tests/stress/stress_watch.h"
#include "tests/support/facing_routes.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;
namespace fw = vex_upnp::framework_core;

// 30 seconds become 600 ms, so that time-outs and renewals come all the time.
constexpr int kTimesFaster = 50;
constexpr int kLongestLifeSeconds = 6;

unsigned FromEnvironment(const char* name, unsigned fallback) {
  const char* const text = std::getenv(name);
  return text == nullptr ? fallback : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

void Start() {
  const Call call("start of the library");
  ASSERT_EQ(0, fw::InitFrameworkCore(""));
  ASSERT_EQ(0, fw::ConfigureServers(kEventPort, 1900, kSearchPort, false));
  ASSERT_EQ(0, fw::StartFrameworkCore());
  ASSERT_EQ(0, fw::StartNetworkMonitor());
  fw::ConfigureApplicationOnInterface("lan0");
  fw::ConfigureApplicationOnInterface("lan1");
  ASSERT_EQ(0, InitializeGenericCP());
}

void Stop() {
  {
    const Call call("stop of the library: TerminateGenericCP");
    EXPECT_EQ(0, TerminateGenericCP());
  }
  CloseAllSlots();
  {
    const Call call("stop of the library: StopNetworkMonitor");
    EXPECT_EQ(0, fw::StopNetworkMonitor());
  }
  const Call call("stop of the library: TerminateFrameworkCore");
  EXPECT_EQ(0, fw::TerminateFrameworkCore());
}

class Host {
 public:
  Host(const FakeNetwork& network, unsigned seed) {
    for (int i = 0; i < kHostThreads; ++i) {
      threads_.push_back(
          std::make_unique<HostThread>(i, seed * 100 + static_cast<unsigned>(i), network));
    }
  }

  // One life of the library; the network goes on through its start and its end.
  void Live(Clock::duration time) {
    Start();
    gate_.Open();
    const auto end = Clock::now() + time;
    while (Clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    gate_.Close();
    Stop();
    Counts::Add("library: lives");
    for (const auto& thread : threads_) thread->Forget();
    Counts::Add("direct action: open at the end of the library", OpenContexts());
    DropOpenContexts();
    ForgetTransfers();
  }

  void Run(std::chrono::seconds time) {
    gate_.Close();
    std::vector<std::thread> running;
    for (const auto& thread : threads_) running.emplace_back([&] { CallUntilEnd(*thread); });
    const int before = vex_test::ThreadCount();
    const auto end = Clock::now() + time;
    const auto life =
        std::min<Clock::duration>(std::chrono::seconds(kLongestLifeSeconds), time / 3);
    while (Clock::now() < end && !testing::Test::HasFatalFailure()) {
      Live(std::min<Clock::duration>(life, end - Clock::now()));
      EXPECT_TRUE(vex_test::WaitUntil([&] { return vex_test::ThreadCount() == before; }))
          << vex_test::ThreadCount() - before << " threads were left";
    }
    ended_ = true;
    gate_.Open();
    for (std::thread& thread : running) thread.join();
  }

 private:
  void CallUntilEnd(HostThread& thread) {
    for (;;) {
      gate_.Enter();
      if (ended_) {
        gate_.Leave();
        return;
      }
      thread.CallAtRandom();
      gate_.Leave();
      // Between two calls, now and then, so that the network's threads get their share.
      if (thread.Dice(4) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  Gate gate_;
  std::atomic<bool> ended_{false};
  std::vector<std::unique_ptr<HostThread>> threads_;
};

TEST(Stress, EveryFunctionFromEightThreadsWhileTheNetworkTalks) {
  const unsigned seconds = FromEnvironment("VEX_STRESS_SECONDS", 60);
  const unsigned seed = FromEnvironment("VEX_STRESS_SEED", std::random_device()() % 1000000);
  std::printf("%u seconds, VEX_STRESS_SEED=%u\n", seconds, seed);
  std::fflush(stdout);
  const vex_test::FacingRoutes routes;
  const vex_test::FasterTime faster(kTimesFaster);
  const Watchdog watchdog;
  {
    const FakeNetwork network(seed);
    Host(network, seed).Run(std::chrono::seconds(seconds));
  }
  Counts::Print();
  // It would be no test if these had not happened.
  for (const char* what : {"action: succeeded",
                           "action: Not now",
                           "action: Action Timeout",
                           "action: Action Failed",
                           "action: answer not understood",
                           "callback: event",
                           "callback: direct event",
                           "device: added",
                           "device: removed",
                           "network: renewals",
                           "network: unsubscribes",
                           "network: events answered 200",
                           "network: events answered 412",
                           "network: interface taken down",
                           "direct action: context given back by cancel",
                           "direct subscription: granted",
                           "streaming client: whole",
                           "streaming client: body written",
                           "synchronous streaming client: whole",
                           "streaming server: body handed over",
                           "streaming server: whole body taken",
                           "network: media fetched whole",
                           "network: bodies taken",
                           "callback: TCP request",
                           "callback: datagram"}) {
    EXPECT_LT(0, Counts::Of(what)) << what;
  }
  EXPECT_LE(2, Counts::Of("library: lives"));
}

}  // namespace
}  // namespace vex_stress

// The time of day set back and forth by a year while times run: nothing comes early, nothing late.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/timer.h>

#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/fail_calls.h"
#include "tests/support/host_rig.h"
#include "tests/support/private_network.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using vex_test::FasterTime;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::JumpingClock;
using vex_test::ScriptedDevice;
using vex_test::ShiftedClock;
using vex_test::WaitUntil;
using vex_upnp::utils::Timer;

constexpr std::chrono::hours kYear{365 * 24};
// What a busy machine may add; a wait on the wrong clock is off by a year.
constexpr milliseconds kLate{10000};

milliseconds Since(steady_clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// The shim itself: without it the tests below could not fail.
TEST(FaultClock, TheTimeOfDayIsShiftedAndTheMonotonicOneIsNot) {
  const std::time_t before = std::time(nullptr);
  const auto system_before = std::chrono::system_clock::now();
  const auto steady_before = steady_clock::now();
  const ShiftedClock later(kYear);
  EXPECT_GE(std::time(nullptr) - before, 364 * 24 * 3600);
  EXPECT_GE(std::chrono::system_clock::now() - system_before, kYear - std::chrono::hours(1));
  EXPECT_LT(Since(steady_before), kLate);
}

struct Fired {
  steady_clock::time_point started;
  std::atomic<long> after_ms{-1};
};

void NoteFired(int, void* argument) {
  Fired* const fired = static_cast<Fired*>(argument);
  fired->after_ms = static_cast<long>(Since(fired->started).count());
}

void ExpectToFireInTime(int duration) {
  Fired fired;
  fired.started = steady_clock::now();
  Timer::Start(duration, &NoteFired, &fired);
  ASSERT_TRUE(WaitUntil([&] { return fired.after_ms >= 0; }, milliseconds(duration) + kLate));
  EXPECT_GE(fired.after_ms, duration - 1);
}

TEST(FaultClock, RegressionTimersRunOnTheMonotonicClock) {
  Timer::InitializeManager();
  Fired pending;
  pending.started = steady_clock::now();
  Timer::Start(400, &NoteFired, &pending);
  {
    // A step forward would have it due at once.
    const ShiftedClock later(kYear);
    ExpectToFireInTime(150);
    EXPECT_EQ(-1, pending.after_ms);
  }
  {
    // After a step back it would be a year away.
    const ShiftedClock earlier(-kYear);
    ExpectToFireInTime(50);
    ASSERT_TRUE(WaitUntil([&] { return pending.after_ms >= 0; }, kLate));
  }
  EXPECT_GE(pending.after_ms, 399);
  {
    const JumpingClock jumping;
    for (const int duration : {0, 30, 100}) ExpectToFireInTime(duration);
  }
  Timer::TerminateManager();
}

TEST(FaultClock, AnActionTimesOutInItsTime) {
  const FasterTime faster(100);
  vex_test::ActionLog actions;
  vex_test::ControlPeer peer(vex_test::kDeviceAddress, 0,
                             [](const vex_test::PeerRequest&) { return vex_test::Silence(); });
  vex_test::ControlStack stack;
  const JumpingClock jumping;
  const auto start = steady_clock::now();
  int id = 0;
  ASSERT_EQ(0, vex_upnp::cp_control::SendAction("uuid:1", peer.HostLine(), "SOAPACTION: \"x#Go\"",
                                                peer.Url("/c"), "x", "", &actions, nullptr, id));
  ASSERT_TRUE(WaitUntil([&] { return actions.ResultCount() == 1; }, kLate));
  EXPECT_GE(Since(start).count(), 299);
  EXPECT_EQ(500, actions.Results()[0].status);
}

TEST(FaultClock, ASubscriptionIsRenewedInItsTime) {
  vex_test::EventLog events;
  vex_test::ControlPeer peer(vex_test::kDeviceAddress, 0, [](const vex_test::PeerRequest&) {
    return vex_test::Text(
        "HTTP/1.1 200 OK\r\nSID: uuid:s1\r\nTIMEOUT: Second-1\r\n"
        "CONTENT-LENGTH: 0\r\n\r\n");
  });
  vex_test::ControlStack stack;
  const JumpingClock jumping;
  int handler = 0;
  ASSERT_EQ(0, vex_upnp::cp_control::Subscribe("uuid:1", peer.HostLine(), "", stack.CallbackUrl(),
                                               peer.Url("/e"), &events, handler));
  ASSERT_TRUE(WaitUntil([&] { return peer.CountOf("SUBSCRIBE") == 3; }, kLate));
  const std::vector<vex_test::PeerRequest> requests = peer.Requests();
  // Three quarters of the second that was granted.
  for (std::size_t i = 1; i < 3; ++i) {
    const auto apart = requests[i].at - requests[i - 1].at;
    EXPECT_GE(std::chrono::duration_cast<milliseconds>(apart).count(), 700) << i;
  }
  vex_upnp::cp_control::Unsubscribe(handler, peer.HostLine());
}

TEST(FaultClock, AnInterfaceIsMissedInTime) {
  const FasterTime faster(20);
  HostRig rig({5100, 0, 5300, {"lan0", "lan1"}, ""});
  ScriptedDevice device("uuid:clock", {"RenderingControl"}, "10.77.1.2");
  rig.Register();
  rig.Meet(device, "lan1");
  const JumpingClock jumping;
  const vex_test::ScopedLinkDown down("lan1");
  EXPECT_TRUE(WaitUntil(
      [] {
        const std::vector<vex_test::ToldDevice> told = HostLog::Devices();
        return !told.empty() && told.back().event == 2;
      },
      kLate));
}

// The pause between two looks is one of the monotonic clock: no look comes early.
TEST(FaultClock, TheInterfacesAreNotLookedAtInALoop) {
  HostRig rig;
  const std::clock_t before = std::clock();
  {
    // Each step forward would end a pause of two seconds at once.
    const JumpingClock jumping;
    std::this_thread::sleep_for(milliseconds(300));
  }
  EXPECT_LT(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC, 0.2);
}

TEST(FaultClock, ADeviceThatDoesNotAnswerGoesInTime) {
  const FasterTime faster(20);
  HostRig rig;
  std::unique_ptr<ScriptedDevice> device(new ScriptedDevice("uuid:gone", {"RenderingControl"}));
  const int handle = rig.Register();
  const std::string name = rig.Meet(*device);
  device.reset();
  const JumpingClock jumping;
  // Asked again while an earlier search is still being checked.
  ASSERT_TRUE(WaitUntil(
      [&] {
        RescanNetwork(handle, "urn:schemas-upnp-org:device:MediaServer:1");
        return HostLog::Devices().back().event == 2;
      },
      2 * kLate));
}

}  // namespace

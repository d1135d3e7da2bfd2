// The time of day set back and forth by a year while times run. Timers move with it, by promise,
// and all is as it was when the clock is right again; what the network layer waits for does not
// move.

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
constexpr milliseconds kLate{15000};

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

TEST(FaultClock, KeptPendingTimersMoveWithTheClockAndNewOnesDoNot) {
  const FasterTime faster(100);
  Timer::InitializeManager();
  Fired due;
  due.started = steady_clock::now();
  Timer::Start(10 * 60 * 1000, &NoteFired, &due);
  {
    const ShiftedClock later(kYear);
    ExpectToFireInTime(50);
    EXPECT_TRUE(WaitUntil([&] { return due.after_ms >= 0; }, kLate));
  }
  Fired moved;
  moved.started = steady_clock::now();
  Timer::Start(1500, &NoteFired, &moved);
  {
    const ShiftedClock earlier(-kYear);
    ExpectToFireInTime(1600);
    EXPECT_EQ(-1, moved.after_ms);
  }
  EXPECT_TRUE(WaitUntil([&] { return moved.after_ms >= 0; }, kLate));
  {
    const JumpingClock jumping;
    Fired any;
    any.started = steady_clock::now();
    Timer::Start(30, &NoteFired, &any);
    EXPECT_TRUE(WaitUntil([&] { return any.after_ms >= 0; }, kLate));
  }
  ExpectToFireInTime(30);
  Timer::TerminateManager();
}

TEST(FaultClock, AnActionHasOneOutcomeWhateverTheClockDoes) {
  const FasterTime faster(30);
  vex_test::ActionLog actions;
  vex_test::ControlPeer silent(vex_test::kDeviceAddress, 0,
                               [](const vex_test::PeerRequest&) { return vex_test::Silence(); });
  vex_test::ControlStack stack;
  const auto send = [&] {
    int id = 0;
    EXPECT_EQ(0,
              vex_upnp::cp_control::SendAction("uuid:1", silent.HostLine(), "SOAPACTION: \"x#Go\"",
                                               silent.Url("/c"), "x", "", &actions, nullptr, id));
  };
  // KEPT: a step forward ends the time of what is open. It is noticed within 10 s.
  send();
  {
    const ShiftedClock later(kYear);
    ASSERT_TRUE(WaitUntil([&] { return actions.ResultCount() == 1; }, kLate));
  }
  send();
  {
    const ShiftedClock earlier(-kYear);
    send();
    ASSERT_TRUE(WaitUntil([&] { return actions.ResultCount() == 2; }, kLate));
  }
  send();
  EXPECT_TRUE(WaitUntil([&] { return actions.ResultCount() == 4; }, kLate));
  for (const auto& result : actions.Results()) EXPECT_EQ(500, result.status);
}

TEST(FaultClock, ASubscriptionGoesOnWhenTheClockHasBeenSetBackAndForth) {
  const FasterTime faster(10);
  vex_test::EventLog events;
  vex_test::ControlPeer peer(vex_test::kDeviceAddress, 0, [](const vex_test::PeerRequest&) {
    return vex_test::Text(
        "HTTP/1.1 200 OK\r\nSID: uuid:s1\r\nTIMEOUT: Second-1\r\n"
        "CONTENT-LENGTH: 0\r\n\r\n");
  });
  vex_test::ControlStack stack;
  int handler = 0;
  ASSERT_EQ(0, vex_upnp::cp_control::Subscribe("uuid:1", peer.HostLine(), "", stack.CallbackUrl(),
                                               peer.Url("/e"), &events, handler));
  ASSERT_TRUE(WaitUntil([&] { return peer.CountOf("SUBSCRIBE") == 1; }, kLate));
  {
    const ShiftedClock earlier(-kYear);
    // Longer than the renewal takes, which may be pending by now or not.
    std::this_thread::sleep_for(milliseconds(200));
  }
  EXPECT_TRUE(WaitUntil([&] { return peer.CountOf("SUBSCRIBE") >= 3; }, kLate));
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

TEST(FaultClock, ADeviceThatDoesNotAnswerGoesWhenTheClockIsRightAgain) {
  const FasterTime faster(20);
  HostRig rig;
  std::unique_ptr<ScriptedDevice> device(new ScriptedDevice("uuid:gone", {"RenderingControl"}));
  const int handle = rig.Register();
  const std::string name = rig.Meet(*device);
  device.reset();
  {
    const ShiftedClock later(kYear);
    const ShiftedClock earlier(-kYear);
  }
  // Asked again while an earlier search is still being checked.
  ASSERT_TRUE(WaitUntil(
      [&] {
        RescanNetwork(handle, "urn:schemas-upnp-org:device:MediaServer:1");
        return HostLog::Devices().back().event == 2;
      },
      2 * kLate));
}

}  // namespace

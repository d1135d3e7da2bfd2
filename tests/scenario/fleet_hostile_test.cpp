// Many devices that mean no good at once: what they may cost together.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "base/limits.h"
#include "tests/support/endless_server.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/raw_socket.h"
#include "tests/support/sanitizers.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::FasterTime;
using vex_test::NothingInFlight;
using vex_test::PeakMemory;
using vex_test::StillWorks;
using vex_test::TcpClient;
using vex_test::WaitUntil;
namespace limits = vex_upnp::limits;

constexpr int kDevices = 5000;
constexpr int kConnections = 300;

std::string Name(int number) { return "uuid:endless-" + std::to_string(number); }

void ExpectPeakBelow(const PeakMemory& peak, std::size_t bytes) {
  // A sanitizer keeps for a while what has been given back.
  if (vex_test::kUnderSanitizer) return;
  EXPECT_LT(peak.Bytes(), static_cast<long long>(bytes));
}

class FleetHostile : public vex_test::HostileRig {};

TEST_F(FleetHostile, RegressionSlowFiveThousandDescriptionsThatNeverEndFitIntoMemory) {
  vex_test::EndlessServer server(kPeer);
  const PeakMemory peak;
  {
    const FasterTime faster(20);
    for (int i = 0; i < kDevices; ++i) {
      SayAlive(Name(i), "http://" + server.authority() + "/" + std::to_string(i));
    }
    // In the middle of it others are served.
    EXPECT_TRUE(StillWorks(handle_));
    for (int i = 0; i < kDevices; ++i) {
      EXPECT_TRUE(
          WaitUntil([&] { return NothingInFlight(Name(i) + "+lan0"); }, std::chrono::minutes(2)));
    }
  }
  // Of some 700 exchanges at a time each keeps its small share.
  ExpectPeakBelow(peak, 2 * limits::kAnswersTogether + 1000 * limits::kSmallMessage);
}

TEST_F(FleetHostile, RegressionThreeHundredEventsThatNeverEndFitIntoMemory) {
  const std::string header = "NOTIFY /eventing_1/ HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n";
  const std::string body(999000, 'b');
  const PeakMemory peak;
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < kConnections; ++i) {
    clients.push_back(std::make_unique<TcpClient>(kLibrary, kEventPort));
    ASSERT_TRUE(clients.back()->connected());
    clients.back()->Send(header);
    clients.back()->Send(body);
  }
  EXPECT_TRUE(StillWorks(handle_));
  ExpectPeakBelow(peak, 2 * limits::kEventRequestsTogether + kConnections * limits::kSmallMessage);
}

}  // namespace

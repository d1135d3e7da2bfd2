// Many devices at once: what one costs must not depend on how many there are.

#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <vexupnpcp/cp_discovery.h>

#include "tests/support/discovery_rig.h"
#include "tests/support/fake_device.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using vex_test::DescriptionServer;
using vex_test::DiscoveryRig;
using vex_test::FakeDevice;
using vex_test::WaitUntil;

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Cost {
  double wall;
  double cpu;
};

// From the first answer to the last added event; the scripted devices' share is in it.
Cost DescribeAll(int devices) {
  DiscoveryRig rig;
  DescriptionServer server("127.0.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  std::vector<std::string> answers;
  for (int i = 0; i < devices; ++i) {
    FakeDevice device;
    device.udn = "uuid:00000000-0000-0000-0000-" + std::to_string(100000000000 + i);
    device.services = vex_test::FakeServices(3, "/" + std::to_string(i));
    const std::string url = ServeDevice(server, "/" + std::to_string(i) + "/d.xml", device);
    answers.push_back(
        vex_test::SearchAnswerDatagram(device.udn + "::upnp:rootdevice", "upnp:rootdevice", url));
  }
  const double wall = Seconds(CLOCK_MONOTONIC);
  const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
  for (const std::string& answer : answers) DiscoveryRig::Receive(answer);
  EXPECT_TRUE(
      WaitUntil([&] { return DiscoveryRig::Events().size() == static_cast<std::size_t>(devices); },
                std::chrono::seconds(60)));
  return {Seconds(CLOCK_MONOTONIC) - wall, Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu};
}

TEST(DiscoveryScale, EachOfAThousandDevicesCostsNoMoreThanEachOfAHundred) {
  const Cost hundred = DescribeAll(100);
  const Cost thousand = DescribeAll(1000);
  std::printf("100 devices: %.3f s, %.3f ms CPU each; 1000 devices: %.3f s, %.3f ms CPU each\n",
              hundred.wall, hundred.cpu * 10, thousand.wall, thousand.cpu);
  EXPECT_LT(thousand.cpu / 1000, 3 * hundred.cpu / 100 + 0.001);
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

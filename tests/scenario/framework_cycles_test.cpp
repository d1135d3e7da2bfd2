#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include "tests/support/facing_routes.h"
#include "tests/support/host_rig.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::ScriptedDevice;
using vex_test::WaitUntil;
using vex_test::Watchdog;
namespace framework_core = vex_upnp::framework_core;

constexpr int kCycles = 20;

// One life of the library with a device met, actions open and a subscription active.
void LiveOnce(ScriptedDevice& device) {
  HostRig rig;
  const int handle = rig.Register();
  const std::string udn = rig.Meet(device);
  EXPECT_EQ(0, SubscribeDevice(handle, udn.c_str()));
  EXPECT_TRUE(WaitUntil([&] {
    return device.Notify("AVTransport", 0, "<e:property><A>1</A></e:property>") ==
           "HTTP/1.1 200 OK";
  }));
  int id = 0;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(0, SendAction(handle, udn.c_str(), "AVTransport", "Play", nullptr, &id));
  }
  EXPECT_EQ(0, RescanNetwork(handle, nullptr));
}

struct Footprint {
  int threads;
  int descriptors;
};

Footprint Now() { return {vex_test::ThreadCount(), vex_test::DescriptorCount()}; }

// The device's side closes its connections in its own time.
Footprint AtRest() { return {vex_test::ThreadCount(), vex_test::DescriptorsAtRest()}; }

TEST(FrameworkCycles, TwentyLivesLeaveNoThreadDescriptorOrByteBehind) {
  const Watchdog watchdog(300);
  ScriptedDevice device("uuid:dev-1", {"AVTransport", "RenderingControl"});
  device.OnAction([](const vex_test::PeerRequest&) { return vex_test::Silence(); });
  // The first lives fill what lives as long as the process: locks, names, the allocator's own.
  for (int i = 0; i < 3; ++i) LiveOnce(device);
  const Footprint before = AtRest();
  const std::size_t bytes_before = mallinfo2().uordblks;
  for (int i = 0; i < kCycles; ++i) {
    LiveOnce(device);
    // The device's side closes its connections when it has seen ours closed.
    EXPECT_TRUE(WaitUntil([&] {
      return Now().threads == before.threads && Now().descriptors == before.descriptors;
    })) << "life "
        << i << ": " << Now().threads << " threads, " << Now().descriptors << " descriptors";
  }
  // The requests that the device keeps are ours, not the library's: a few hundred bytes each.
  const std::size_t kept = device.peer().Requests().size() * 2048;
  EXPECT_LT(mallinfo2().uordblks, bytes_before + kept + 16 * 1024);
}

// Starts and stops in every order that the states allow.

using Step = std::function<int()>;

const std::map<char, Step>& Steps() {
  static const std::map<char, Step> steps = {
      {'I', [] { return framework_core::InitFrameworkCore(""); }},
      {'S', [] { return framework_core::StartFrameworkCore(); }},
      {'s', [] { return framework_core::StopFrameworkCore(); }},
      {'T', [] { return framework_core::TerminateFrameworkCore(); }},
      {'U', [] { return framework_core::InitializeUPnP(framework_core::INIT_TYPE_CP); }},
      {'u', [] { return framework_core::TerminateUPnP(); }},
      {'G', [] { return InitializeGenericCP(); }},
      {'g', [] { return TerminateGenericCP(); }},
      {'M', [] { return framework_core::StartNetworkMonitor(); }},
      {'m', [] { return framework_core::StopNetworkMonitor(); }},
  };
  return steps;
}

// The states as a host can tell them: 'I', 'S' and so on with the code that each gives.
class Model {
 public:
  int Apply(char step) {
    const int before = framework_;
    switch (step) {
      case 'I':
        if (before != -1) return 100;
        framework_ = 0;
        return 0;
      case 'S':
        if (before == -1) return 101;
        framework_ = 1;
        return 0;
      case 's':
        if (before != 1) return 101;
        framework_ = 0;
        return 0;
      case 'T':
        if (before == -1) return 101;
        framework_ = -1;
        profile_ = false;
        return 0;
      case 'U':
        if (before == -1) return 101;
        if (profile_) return 100;
        profile_ = true;
        return 0;
      case 'u':
        profile_ = false;
        return 0;
      case 'G':
        return InitializeGeneric();
      case 'g':
        if (!generic_) return 15003;
        generic_ = false;
        registered_ = false;
        profile_ = false;
        return 0;
      case 'M':
        return before == -1 ? 101 : 0;
      default:
        return before == -1 ? 1 : 0;
    }
  }

 private:
  int InitializeGeneric() {
    if (framework_ == -1 || profile_) return 15002;
    profile_ = true;
    if (registered_) return 15001;
    registered_ = true;
    generic_ = true;
    return 0;
  }

  int framework_ = -1;
  bool profile_ = false;
  bool generic_ = false;
  bool registered_ = false;
};

TEST(FrameworkCycles, EveryOrderOfStartsAndStopsGivesItsCodesAndEndsClean) {
  const Watchdog watchdog(300);
  // Each state followed by each step, and the wrong ends of a right start among them.
  const std::vector<std::string> orders = {
      "ISMGgmsT", "IT",      "IST",      "ISMGT",    "ISMGTg",    "ISMGuGg",  "IGgGgT",
      "IGTIGgT",  "GgIGgT",  "IUGuGgT",  "IUuGgT",   "IISSssTT",  "MmIMMmmT", "IMT",
      "ISMUT",    "ISMUuUT", "ISMGGgGT", "ISMGugGT", "ISMGTISMG", "uUIUUuuT", "gGsSTmMIG",
  };
  framework_core::InitFrameworkCore("");
  framework_core::TerminateFrameworkCore();
  const Footprint before = Now();
  for (const std::string& order : orders) {
    Model model;
    for (std::size_t i = 0; i < order.size(); ++i) {
      EXPECT_EQ(model.Apply(order[i]), Steps().at(order[i])())
          << order << ", step " << i << " '" << order[i] << "'";
    }
    TerminateGenericCP();
    framework_core::TerminateFrameworkCore();
    EXPECT_TRUE(vex_test::ThreadsBecome(before.threads)) << order;
    EXPECT_EQ(before.descriptors, vex_test::DescriptorCount()) << order;
  }
}

}  // namespace

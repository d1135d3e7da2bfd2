#ifndef VEXUPNPCP_TESTS_SUPPORT_HOSTILE_RIG_H_
#define VEXUPNPCP_TESTS_SUPPORT_HOSTILE_RIG_H_

#include <gtest/gtest.h>

#include <string>

#include "tests/support/descriptor_limit.h"
#include "tests/support/host_rig.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/still_works.h"

namespace vex_test {

// Whether the device with this key may be asked for: nothing is in flight for it then.
bool NothingInFlight(const std::string& key);

// A whole library that listens on lan0, and somebody at 10.77.0.2 who means it no good. Whatever a
// test does to it, at the test's end the library must still work.
class HostileRig : public testing::Test {
 protected:
  static constexpr char kLibrary[] = "10.77.0.1";
  static constexpr char kPeer[] = "10.77.0.2";
  static constexpr int kUdpPort = 5300;
  static constexpr int kEventPort = 5100;

  void SetUp() override { handle_ = rig_.Register(); }
  void TearDown() override { EXPECT_TRUE(StillWorks(handle_, kUdpPort)); }

  // One datagram to the library's own port.
  void Say(const std::string& datagram) { peer_.Send(datagram, kLibrary, kUdpPort); }
  void SayAlive(const std::string& udn, const std::string& location) {
    Say(AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", location));
  }
  void SayByebye(const std::string& udn) {
    Say(ByebyeDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice"));
  }
  // Whether the host has been told that a device appeared (1) or went (2).
  static bool WasTold(int event, const std::string& udn);
  // Announces a device until it is there, and gives its key.
  std::string Meet(const std::string& udn, const std::string& location);
  // Sends an action and waits for what the host is told of it.
  ToldAction Act(const std::string& key, const std::string& service_type);

  const Watchdog watchdog_{300};
  // What hosts usually give their processes; peers of this process take theirs from it too.
  const ScopedDescriptorLimit descriptors_{1024};
  HostRig rig_;
  SsdpPeer peer_{kPeer};
  int handle_ = 0;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_HOSTILE_RIG_H_

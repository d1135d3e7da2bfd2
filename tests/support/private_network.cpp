#include "tests/support/private_network.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/scoped_fd.h"
#include "tests/support/wait_until.h"

namespace vex_test {

bool InPrivateNetwork() { return std::getenv("IN_NETNS_INSIDE") != nullptr; }

void Ip(const std::string& arguments) {
  ASSERT_TRUE(InPrivateNetwork()) << "these tests are started by tools/in_netns";
  const std::string command = "ip " + arguments;
  ASSERT_EQ(0, std::system(command.c_str())) << command;
}

ScopedAddress::ScopedAddress(const std::string& device, const std::string& address_and_prefix,
                             const std::string& label)
    : device_(device), address_(address_and_prefix) {
  Ip("addr add " + address_ + " brd + dev " + device_ + (label.empty() ? "" : " label " + label));
}

ScopedAddress::~ScopedAddress() { Ip("addr del " + address_ + " dev " + device_); }

ScopedLinkDown::ScopedLinkDown(const std::string& device) : device_(device) {
  Ip("link set " + device_ + " down");
}

ScopedLinkDown::~ScopedLinkDown() {
  Ip("link set " + device_ + " up");
  // The kernel reports carrier with a delay.
  EXPECT_TRUE(WaitUntil([this] { return IsRunning(device_); }));
}

bool IsRunning(const std::string& device) {
  const vex_upnp::ScopedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  std::strncpy(request.ifr_name, device.c_str(), IFNAMSIZ - 1);
  if (::ioctl(socket.get(), SIOCGIFFLAGS, &request) != 0) return false;
  return (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0;
}

ScopedHosts::ScopedHosts(const std::string& lines) : path_(folder_.path() + "/hosts") {
  std::ofstream(path_) << "127.0.0.1 localhost\n" << lines;
  EXPECT_TRUE(InPrivateNetwork()) << "these tests are started by tools/in_netns";
  EXPECT_EQ(0, ::mount(path_.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr));
}

ScopedHosts::~ScopedHosts() { EXPECT_EQ(0, ::umount("/etc/hosts")); }

}  // namespace vex_test

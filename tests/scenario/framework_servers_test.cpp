#include <vexupnpcp/framework_controller_cp.h>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <list>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include "tests/support/fail_alloc.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace framework_core {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using vex_test::WaitUntil;

// The IPv4 groups that an interface has joined, without the kernel's own.
std::set<std::string> JoinedGroups(const std::string& interface) {
  std::ifstream table("/proc/net/igmp");
  std::set<std::string> groups;
  std::string line;
  bool ours = false;
  while (std::getline(table, line)) {
    std::istringstream words(line);
    std::string first;
    std::string second;
    words >> first >> second;
    if (line[0] != '\t') {
      ours = second == interface;
    } else if (ours) {
      in_addr address = {};
      address.s_addr = static_cast<in_addr_t>(std::stoul(first, nullptr, 16));
      const std::string group = inet_ntoa(address);
      if (group != "224.0.0.1") groups.insert(group);
    }
  }
  return groups;
}

std::vector<std::string> EventServers() {
  std::list<boost::shared_ptr<network_layer::IpInfo>> list;
  network_layer::GetConfiguredTcpPorts(list);
  std::vector<std::string> servers;
  for (const auto& server : list)
    servers.push_back(server->ip + ":" + std::to_string(server->port));
  return servers;
}

class FrameworkServers : public testing::Test {
 protected:
  FrameworkServers() {
    InitFrameworkCore("");
    StartFrameworkCore();
    StartNetworkMonitor();
  }
  ~FrameworkServers() override {
    StopNetworkMonitor();
    TerminateFrameworkCore();
  }

  void Select(const std::string& name) {
    ConfigureApplicationOnInterface(name.c_str());
    ASSERT_TRUE(WaitUntil([&] { return Listed().count(name) == 1; }));
  }
  static std::set<std::string> Listed() {
    std::set<std::string> names;
    NetworkInfo* list = nullptr;
    if (GetAvailableNetworkInterfaces(&list) != 0) return names;
    for (const NetworkInfo* one = list; one != nullptr; one = one->next) names.insert(one->name);
    FreeInterfaceList(list);
    return names;
  }
};

TEST_F(FrameworkServers, SelectedInterfacesAreListedWithTheirAddresses) {
  Select("lan1");
  Select("lan0");
  NetworkInfo* list = nullptr;
  ASSERT_EQ(0, GetAvailableNetworkInterfaces(&list));
  std::vector<std::string> shown;
  for (const NetworkInfo* one = list; one != nullptr; one = one->next) {
    shown.push_back(std::string(one->name) + " " + one->ip);
  }
  EXPECT_THAT(shown, UnorderedElementsAre("lan0 10.77.0.1", "lan1 10.77.1.1"));
  NetworkInfo* const head = list;
  EXPECT_EQ(1, GetAvailableNetworkInterfaces(&list));
  EXPECT_EQ(head, list);
  FreeInterfaceList(list);
}

TEST_F(FrameworkServers, KeptAListWithoutMemoryLeavesItsFreedHeadBehind) {
  Select("lan0");
  Select("lan1");
  int code = 0;
  NetworkInfo* list = nullptr;
  int failed_with_head = 0;
  int nodes_without_text = 0;
  vex_test::EachAllocationFails(
      [&] {
        list = nullptr;
        code = GetAvailableNetworkInterfaces(&list);
      },
      [&](bool) {
        if (code != 0) {
          EXPECT_EQ(1, code);
          // Only looked at, never looked through: it is freed.
          failed_with_head += list != nullptr ? 1 : 0;
          return;
        }
        for (const NetworkInfo* one = list; one != nullptr; one = one->next) {
          nodes_without_text += (one->name == nullptr ? 1 : 0) + (one->ip == nullptr ? 1 : 0);
        }
        FreeInterfaceList(list);
      });
  // The second node of two; the four texts.
  EXPECT_EQ(1, failed_with_head);
  EXPECT_EQ(4, nodes_without_text);
}

TEST_F(FrameworkServers, AllInterfacesAreSelectedAtOnce) {
  EXPECT_EQ(0, ConfigureApplicationOnAllInterfaces());
  EXPECT_TRUE(
      WaitUntil([&] { return Listed().count("lan0") == 1 && Listed().count("lan1") == 1; }));
}

TEST_F(FrameworkServers, BothMulticastGroupsAreOpenedOnDemand) {
  Select("lan0");
  EXPECT_EQ(0, ConfigureServers(0, 1900, 0, true));
  EXPECT_THAT(JoinedGroups("lan0"), UnorderedElementsAre("239.255.255.250", "239.255.255.177"));
  EXPECT_THAT(EventServers(), IsEmpty());
}

TEST_F(FrameworkServers, TheOtherGroupStaysOutUnlessAskedFor) {
  Select("lan0");
  EXPECT_EQ(0, ConfigureServers(0, 1900, 0, false));
  EXPECT_THAT(JoinedGroups("lan0"), UnorderedElementsAre("239.255.255.250"));
  EXPECT_EQ(0, ConfigureMulticastSupport(false));
  EXPECT_THAT(JoinedGroups("lan0"), IsEmpty());
  EXPECT_EQ(0, ConfigureMulticastSupport(true));
  EXPECT_THAT(JoinedGroups("lan0"), UnorderedElementsAre("239.255.255.250"));
}

TEST_F(FrameworkServers, WithoutPortsNothingIsOpened) {
  Select("lan0");
  EXPECT_EQ(0, ConfigureServers(0, 0, 0, true));
  EXPECT_THAT(JoinedGroups("lan0"), IsEmpty());
  EXPECT_THAT(EventServers(), IsEmpty());
}

TEST_F(FrameworkServers, ATakenPortIsNoFailure) {
  Select("lan0");
  const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(5500);
  inet_pton(AF_INET, "10.77.0.1", &address.sin_addr);
  ASSERT_EQ(0, bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  ASSERT_EQ(0, listen(taken, 1));
  EXPECT_EQ(0, ConfigureServers(5500, 0, 0, false));
  EXPECT_THAT(EventServers(), Contains("10.77.0.1:5501"));
  close(taken);
}

TEST_F(FrameworkServers, TheFirstFailureKeepsTheRestClosed) {
  Select("lan0");
  std::vector<int> taken;
  for (int port = 5600; port < 5700; ++port) {
    const int one = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, "10.77.0.1", &address.sin_addr);
    ASSERT_EQ(0, bind(one, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(one, 1));
    taken.push_back(one);
  }
  EXPECT_EQ(result::kBindFailed, ConfigureServers(5600, 1900, 5300, true));
  EXPECT_THAT(JoinedGroups("lan0"), IsEmpty());
  // What was configured before a failure stays.
  EXPECT_EQ(0, ConfigureServers(5700, 0, 0, false));
  EXPECT_EQ(result::kBindFailed, ConfigureServers(5600, 0, 0, false));
  EXPECT_THAT(EventServers(), Contains("10.77.0.1:5700"));
  for (const int one : taken) close(one);
}

TEST_F(FrameworkServers, WhatTheHostReportsIsSelected) {
  Select("lan0");
  EXPECT_EQ(0, ConfigureServers(5800, 0, 0, false));
  EXPECT_EQ(0U, Listed().count("lan1"));
  // One that the scan knows already; no event is raised for it.
  EXPECT_EQ(0, NotifyNICAdded("lan1", "10.77.1.1", "255.255.255.0"));
  EXPECT_EQ(1U, Listed().count("lan1"));
  // Gone until the next scan finds it again.
  EXPECT_EQ(0, StopNetworkMonitor());
  EXPECT_EQ(0, NotifyNICRemoved("lan0"));
  EXPECT_EQ(0U, Listed().count("lan0"));
  EXPECT_THAT(EventServers(), IsEmpty());
  EXPECT_EQ(0, NotifyNICAdded("lan0", "10.77.0.1", "255.255.255.0"));
  EXPECT_THAT(EventServers(), Contains("10.77.0.1:5800"));
}

}  // namespace
}  // namespace framework_core
}  // namespace vex_upnp

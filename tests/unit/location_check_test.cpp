#include "src/location_check.h"

#include <gtest/gtest.h>

#include <string>

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr char kOtherMachine[] = "192.168.1.20";
constexpr char kThisMachine[] = "127.0.0.1";

std::string Why(const std::string& host, int port = 80, const std::string& peer = kOtherMachine) {
  const char* const reason = WhyUnusable("http://" + host + "/", host, port, peer);
  return reason == nullptr ? "" : reason;
}

TEST(LocationCheck, WhatMayBeRightPasses) {
  for (const char* host : {"192.168.1.20", "10.0.0.1", "1.2.3.4", "169.254.169.254", "8.8.8.8",
                           "223.255.255.255", "240.0.0.1", "tv.local", "tv", "my-tv_2.example.org",
                           "tv.local.", "0x.example", "localhost.example", "notlocalhost"}) {
    EXPECT_EQ("", Why(host)) << host;
  }
  EXPECT_EQ("", Why("10.0.0.1", 1));
  EXPECT_EQ("", Why("10.0.0.1", 65535));
}

TEST(LocationCheck, AddressesThatNoDeviceHasAreRefused) {
  EXPECT_EQ("unspecified address", Why("0.0.0.0"));
  EXPECT_EQ("unspecified address", Why("0.1.2.3"));
  EXPECT_EQ("broadcast address", Why("255.255.255.255"));
  EXPECT_EQ("multicast address", Why("224.0.0.0"));
  EXPECT_EQ("multicast address", Why("239.255.255.250"));
}

TEST(LocationCheck, LoopbackBelongsToThisMachineOnly) {
  for (const char* host :
       {"127.0.0.1", "127.1.2.3", "localhost", "LOCALHOST", "localhost.", "x.localhost"}) {
    EXPECT_EQ("loopback of another machine", Why(host)) << host;
    EXPECT_EQ("", Why(host, 80, kThisMachine)) << host;
    EXPECT_EQ("", Why(host, 80, "127.3.3.3")) << host;
  }
}

TEST(LocationCheck, OtherFormsOfAnAddressAreRefused) {
  for (const char* host : {"2130706433", "4294967296", "0x7f000001", "0X7F.0.0.1", "0x7f.1",
                           "0177.0.0.1", "017700000001", "127.1", "127.0.1", "127.0.0.01",
                           "127.0.0.1.", "1.2.3.4.5", "256.1.1.1", "1.2.3.", "tv.1", "tv.0x1"}) {
    EXPECT_EQ("address is not in dotted decimal form", Why(host, 80, kThisMachine)) << host;
  }
}

TEST(LocationCheck, WhatIsNoHostIsRefused) {
  for (const char* host : {"", "user@10.0.0.1", "a b", "10.0.0.1\t", "[fe80", "a/b", "a?b", "a%62",
                           "\xc3\xa4", "\x80"}) {
    EXPECT_EQ("host is no address", Why(host)) << host;
  }
  EXPECT_EQ("address is not in dotted decimal form", Why("."));
  EXPECT_EQ("address is not in dotted decimal form", Why(".."));
}

TEST(LocationCheck, PortsOutOfRangeAreRefused) {
  for (int port : {0, -1, 65536, 2147483647}) EXPECT_EQ("port out of range", Why("10.0.0.1", port));
}

TEST(LocationCheck, LineEndsAreRefused) {
  for (const std::string& url : {std::string("http://h:1/a\rb"), std::string("http://h:1/a\nb"),
                                 std::string("http://h:1/a\0b", 14)}) {
    EXPECT_STREQ("line end in URL", WhyUnusable(url, "10.0.0.1", 1, kOtherMachine));
    EXPECT_STREQ("line end in URL", WhyUrlUnusable(url, kOtherMachine));
  }
  EXPECT_STREQ("line end in URL", WhyUrlUnusable("http://10.0.0.1/no-port\r", kOtherMachine));
}

TEST(LocationCheck, UrlsThatCannotBeReadAreLeftToTheirUser) {
  EXPECT_EQ(nullptr, WhyUrlUnusable("", kOtherMachine));
  EXPECT_EQ(nullptr, WhyUrlUnusable("http://0.0.0.0/no-port", kOtherMachine));
  EXPECT_EQ(nullptr, WhyUrlUnusable("http://10.0.0.1:80/x", kOtherMachine));
  EXPECT_STREQ("unspecified address", WhyUrlUnusable("http://0.0.0.0:80/x", kOtherMachine));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

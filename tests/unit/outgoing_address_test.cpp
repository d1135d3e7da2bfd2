#include "src/outgoing_address.h"

#include <gtest/gtest.h>

namespace vex_upnp {
namespace network_layer {
namespace {

std::string AddressOf(const std::string& host) {
  const std::vector<tcp::endpoint> endpoints = EndpointsOfAddress(host, 80);
  return endpoints.empty() ? "none" : endpoints[0].address().to_string();
}

TEST(OutgoingAddress, APortHasSixteenBits) {
  for (const int port : {0, 1, 80, 65535}) EXPECT_TRUE(IsPort(port)) << port;
  for (const int port : {-1, 65536, 1 << 30}) EXPECT_FALSE(IsPort(port)) << port;
}

TEST(OutgoingAddress, NumericHostsAreReadWithoutAskingAnybody) {
  EXPECT_EQ("192.168.1.2", AddressOf("192.168.1.2"));
  EXPECT_EQ("127.0.0.1", AddressOf("127.1"));
  EXPECT_EQ("127.0.0.1", AddressOf("0x7f000001"));
  EXPECT_EQ("8.0.0.1", AddressOf("010.0.0.1"));
  EXPECT_EQ(65535, EndpointsOfAddress("10.0.0.1", 65535).at(0).port());
}

TEST(OutgoingAddress, NamesAndOddTextsAreNoAddresses) {
  for (const std::string& host :
       {std::string(), std::string("device"), std::string("1.2.3.4.5"), std::string("256.1.1.1"),
        std::string("1.2.3.4 x"), std::string(" 1.2.3.4"), std::string("1.2.3.4\0", 8),
        std::string("::1")}) {
    EXPECT_EQ("none", AddressOf(host)) << host;
  }
}

TEST(OutgoingAddress, AnEmptyHostIsNotThisMachine) {
  io_service io;
  EXPECT_THROW(EndpointsOfHost(io, "", 80), system_error);
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

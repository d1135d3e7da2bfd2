#include "src/request_packets.h"

#include <gtest/gtest.h>

#include <string>

namespace vex_upnp {
namespace {

TEST(RequestPackets, SearchRequestByteForByte) {
  EXPECT_EQ(
      "M-SEARCH * HTTP/1.1\r\nST: urn:schemas-upnp-org:device:MediaServer:1\r\nMX: 4\r\n"
      "MAN: \"ssdp:discover\"\r\nHOST: 239.255.255.250:1900\r\n\r\n",
      FormatSearchRequest("urn:schemas-upnp-org:device:MediaServer:1", 4, "239.255.255.250"));
}

TEST(RequestPackets, DescriptionRequestByteForByte) {
  EXPECT_EQ(
      "GET /desc.xml HTTP/1.1\r\nHOST: 10.0.0.7:49152\r\nACCEPT-LANGUAGE: en-us\r\n"
      "Connection: Keep-Alive\r\nUSER-AGENT: agent/1.0\r\nContent-Length: 0\r\n\r\n",
      FormatDescriptionRequest("/desc.xml", "10.0.0.7", 49152, "agent/1.0"));
}

TEST(RequestPackets, AnEmptyAgentLeavesTheHeaderInItsPlace) {
  EXPECT_EQ(
      "GET / HTTP/1.1\r\nHOST: h:1\r\nACCEPT-LANGUAGE: en-us\r\nConnection: Keep-Alive\r\n"
      "USER-AGENT: \r\nContent-Length: 0\r\n\r\n",
      FormatDescriptionRequest("/", "h", 1, ""));
}

TEST(RequestPackets, PercentSignsOfTheNetworkStayAsTheyAre) {
  EXPECT_EQ(0U, FormatDescriptionRequest("/a%20b%s%n", "h", 1, "%d").find("GET /a%20b%s%n HTTP"));
  EXPECT_NE(std::string::npos, FormatSearchRequest("%s", 4, "g").find("ST: %s\r\n"));
}

}  // namespace
}  // namespace vex_upnp

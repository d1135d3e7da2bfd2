#include "src/request_packets.h"

#include <gtest/gtest.h>

#include <locale>
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

// Puts a separator behind every digit.
class Grouping : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\1"; }
};

class HostLocale {
 public:
  HostLocale() : before_(std::locale::global(std::locale(std::locale(), new Grouping))) {}
  ~HostLocale() { std::locale::global(before_); }

 private:
  const std::locale before_;
};

TEST(RequestPackets, TheHostsLocalePutsNoSeparatorsIntoNumbers) {
  const HostLocale grouping;
  EXPECT_NE(std::string::npos,
            FormatDescriptionRequest("/", "h", 49152, "").find("HOST: h:49152\r\n"));
  EXPECT_NE(std::string::npos, FormatSearchRequest("t", 4000, "g").find("MX: 4000\r\n"));
  EXPECT_EQ("HOST:h:49152", FormatHostLine("h", 49152));
  const std::string action = FormatActionRequest("/", "H", "a", "S", std::string(1234, 'b'));
  EXPECT_NE(std::string::npos, action.find("CONTENT-LENGTH: 1234\r\n"));
  EXPECT_NE(std::string::npos,
            FormatSubscribeRequest("/", "u", 1800, "H", "a").find("TIMEOUT: Second-1800\r\n"));
  EXPECT_NE(std::string::npos,
            FormatRenewalRequest("/", "H", "s", 1800, "a").find("TIMEOUT: Second-1800\r\n"));
}

}  // namespace
}  // namespace vex_upnp

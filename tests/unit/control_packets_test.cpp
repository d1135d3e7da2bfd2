#include <gtest/gtest.h>

#include <locale>
#include <string>

#include "src/request_packets.h"

namespace vex_upnp {
namespace {

TEST(ControlPackets, HostLineHasNoBlankBehindTheColon) {
  EXPECT_EQ("HOST:10.0.0.7:49152", FormatHostLine("10.0.0.7", 49152));
}

TEST(ControlPackets, ActionByteForByte) {
  EXPECT_EQ(
      "POST /ctl/CD?x=1 HTTP/1.1\r\n"
      "HOST:10.0.0.7:49152\r\n"
      "Accept: */*\r\n"
      "CONTENT-LENGTH: 5\r\n"
      "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
      "USER-AGENT: agent/1.0\r\n"
      "SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\n"
      "Connection: close\r\n"
      "\r\n"
      "<a/>\n",
      FormatActionRequest("/ctl/CD?x=1", "HOST:10.0.0.7:49152", "agent/1.0",
                          "SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"",
                          "<a/>\n"));
}

TEST(ControlPackets, LengthCountsTheBytesOfTheBodyOnly) {
  const std::string empty = FormatActionRequest("/", "H", "a", "S", "");
  EXPECT_NE(std::string::npos, empty.find("\r\nCONTENT-LENGTH: 0\r\n"));
  EXPECT_EQ("\r\n\r\n", empty.substr(empty.size() - 4));
  const std::string umlaut = FormatActionRequest("/", "H", "a", "S", "\xc3\xa4");
  EXPECT_NE(std::string::npos, umlaut.find("\r\nCONTENT-LENGTH: 2\r\n"));
}

TEST(ControlPackets, SubscribeByteForByte) {
  EXPECT_EQ(
      "SUBSCRIBE /evt HTTP/1.1\r\n"
      "CALLBACK: <http://10.0.0.1:5000/eventing_7/>\r\n"
      "NT: upnp:event\r\n"
      "TIMEOUT: Second-1800\r\n"
      "HOST:10.0.0.7:49152\r\n"
      "USER-AGENT: agent/1.0\r\n"
      "\r\n",
      FormatSubscribeRequest("/evt", "http://10.0.0.1:5000/eventing_7", 1800, "HOST:10.0.0.7:49152",
                             "agent/1.0"));
}

TEST(ControlPackets, RenewalByteForByte) {
  EXPECT_EQ(
      "SUBSCRIBE /evt HTTP/1.1\r\n"
      "HOST:10.0.0.7:49152\r\n"
      "SID: uuid:1234\r\n"
      "TIMEOUT: Second-1800\r\n"
      "USER-AGENT: agent/1.0\r\n"
      "\r\n",
      FormatRenewalRequest("/evt", "HOST:10.0.0.7:49152", "uuid:1234", 1800, "agent/1.0"));
}

TEST(ControlPackets, UnsubscribeByteForByte) {
  EXPECT_EQ(
      "UNSUBSCRIBE /evt HTTP/1.1\r\n"
      "HOST:10.0.0.7:49152\r\n"
      "SID: uuid:1234\r\n"
      "\r\n",
      FormatUnsubscribeRequest("/evt", "HOST:10.0.0.7:49152", "uuid:1234"));
}

TEST(ControlPackets, PercentSignsStayAsTheyAre) {
  const std::string packet = FormatActionRequest("/%s%20%n", "%d", "%1%", "%|", "%%");
  EXPECT_EQ(0U, packet.find("POST /%s%20%n HTTP/1.1\r\n%d\r\n"));
  EXPECT_NE(std::string::npos, packet.find("USER-AGENT: %1%\r\n%|\r\n"));
  EXPECT_EQ("%%", packet.substr(packet.size() - 2));
}

// A host may put separators into every stream of its process.
struct Separators : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(ControlPackets, NumbersDoNotFollowTheLocaleOfTheHost) {
  const std::locale before = std::locale::global(std::locale(std::locale(), new Separators));
  const std::string host = FormatHostLine("10.0.0.7", 49152);
  const std::string action = FormatActionRequest("/", "H", "a", "S", std::string(12345, 'x'));
  const std::string subscribe = FormatSubscribeRequest("/", "c", 1800, "H", "a");
  std::locale::global(before);
  EXPECT_EQ("HOST:10.0.0.7:49152", host);
  EXPECT_NE(std::string::npos, action.find("CONTENT-LENGTH: 12345\r\n"));
  EXPECT_NE(std::string::npos, subscribe.find("TIMEOUT: Second-1800\r\n"));
}

}  // namespace
}  // namespace vex_upnp

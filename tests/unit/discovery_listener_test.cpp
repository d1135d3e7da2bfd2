#include "src/discovery_listener.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";

TEST(DiscoveryListener, CutsTheUdnFromTheUsn) {
  const struct {
    const char* usn;
    const char* udn;
  } cases[] = {
      {"uuid:abc::upnp:rootdevice", "uuid:abc"},
      {"uuid:abc", "uuid:abc"},
      {" uuid:abc::upnp:rootdevice", "uuid:abc"},
      {" uuid:abc", "uuid:abc"},
      {"  uuid:abc", " uuid:abc"},
      {"uuid:abc::urn:x::y", "uuid:abc"},
      {"uuid:abc:", "uuid:abc:"},
      {"uuid:abc:::x", "uuid:abc"},
      {"::", ""},
      {" ", ""},
      {"abc\r\ndef", ""},
      {"abc\r\ndef::x", "abc\r\ndef"},
      {"abc\ndef", "abc\ndef"},
  };
  for (const auto& row : cases) {
    std::string udn = "before";
    EXPECT_EQ(0, DiscoveryListener::RetrieveUDN(row.usn, udn)) << row.usn;
    EXPECT_EQ(row.udn, udn) << row.usn;
  }
}

TEST(DiscoveryListener, AnEmptyUsnIsRefused) {
  LogCapture log;
  std::string udn = "before";
  EXPECT_EQ(2200, DiscoveryListener::RetrieveUDN("", udn));
  EXPECT_EQ(1, log.Count(4, kTag, "String length of USN is <= 0"));
}

TEST(DiscoveryListener, ReadsLocations) {
  const struct {
    const char* url;
    const char* ip;
    int port;
    const char* path;
  } cases[] = {
      {"http://10.0.0.7:49152/d.xml", "10.0.0.7", 49152, "/d.xml"},
      {"http://10.0.0.7:80", "10.0.0.7", 80, "/"},
      {"http://10.0.0.7:80/", "10.0.0.7", 80, "/"},
      {"http://10.0.0.7:80/a/b?c=d:e", "10.0.0.7", 80, "/a/b?c=d:e"},
      {"//h:1//", "h", 1, "//"},
      {"http://h:+80/x", "h", 80, "/x"},
      {"http://:80/x", "", 80, "/x"},
      {"http://h/a:1/b", "h/a", 1, "/b"},
  };
  for (const auto& row : cases) {
    std::string ip;
    std::string path;
    int port = 0;
    EXPECT_EQ(1, DiscoveryListener::ParseURI(row.url, ip, port, path)) << row.url;
    EXPECT_EQ(row.ip, ip) << row.url;
    EXPECT_EQ(row.port, port) << row.url;
    EXPECT_EQ(row.path, path) << row.url;
  }
}

TEST(DiscoveryListener, RefusesLocationsWithTheirLines) {
  const struct {
    const char* url;
    const char* line;
  } cases[] = {
      {"http://10.0.0.7/d.xml", "No IP value"},
      {"http://", "No IP value"},
      {"http://10.0.0.7:80a/d.xml", "Invalid string value"},
      {"http://10.0.0.7:/d.xml", "Invalid string value"},
      {"http://10.0.0.7: 80/d.xml", "Invalid string value"},
      {"http://10.0.0.7:99999999999/", "Invalid string value"},
      {"http://a:b:80/", "Invalid string value"},
      {"10.0.0.7:80/d.xml", nullptr},
      {"", nullptr},
  };
  for (const auto& row : cases) {
    LogCapture log;
    std::string ip;
    std::string path;
    int port = 0;
    EXPECT_EQ(0, DiscoveryListener::ParseURI(row.url, ip, port, path)) << row.url;
    EXPECT_EQ(row.line == nullptr ? 0U : 1U, log.Lines().size()) << row.url;
    if (row.line != nullptr) {
      EXPECT_EQ(1, log.Count(16, kTag, row.line)) << row.url;
    }
  }
}

TEST(DiscoveryListener, KeptTheBaseEndsBeforeTheLastSlashEvenInsideTheScheme) {
  std::string base;
  EXPECT_EQ(1, DiscoveryListener::ParseLocationURL("http://h:1/a/d.xml", base));
  EXPECT_EQ("http://h:1/a", base);
  EXPECT_EQ(1, DiscoveryListener::ParseLocationURL("http://h:1", base));
  EXPECT_EQ("http:/", base);
  LogCapture log;
  EXPECT_EQ(0, DiscoveryListener::ParseLocationURL("d.xml", base));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid uri"));
}

boost::shared_ptr<utils::HTTPInfo> Packet(const std::string& nts, const std::string& usn) {
  boost::shared_ptr<utils::HTTPInfo> info(new utils::HTTPInfo);
  if (!nts.empty()) info->SetHeader("nts", nts);
  if (!usn.empty()) info->SetHeader("usn", usn);
  return info;
}

TEST(DiscoveryListener, TellsPacketsApart) {
  EXPECT_EQ(1, DiscoveryListener::RetrieveResponse(Packet("ssdp:alive", "u")));
  EXPECT_EQ(1, DiscoveryListener::RetrieveResponse(Packet("ssdp:alive", "")));
  EXPECT_EQ(2, DiscoveryListener::RetrieveResponse(Packet("ssdp:byebye", "u")));
  EXPECT_EQ(3, DiscoveryListener::RetrieveResponse(Packet("ssdp:update", "u")));
  EXPECT_EQ(3, DiscoveryListener::RetrieveResponse(Packet("SSDP:ALIVE", "u")));
  LogCapture log;
  EXPECT_EQ(3, DiscoveryListener::RetrieveResponse(Packet("", "u")));
  EXPECT_EQ(1, log.Count(2, kTag, "Header Value not found."));
  EXPECT_EQ(4, DiscoveryListener::RetrieveResponse(Packet("", "")));
  EXPECT_EQ(1, log.Count(2, kTag, "Header value not found."));
}

TEST(DiscoveryListener, CountsItsCalls) {
  const boost::shared_ptr<DiscoveryListener> listener = DiscoveryListener::GetInstance();
  EXPECT_EQ(listener, DiscoveryListener::GetInstance());
  EXPECT_EQ(0, listener->IncrementUseCount());
  listener->DecrementUseCount();
  DiscoveryListener::Terminate();
  EXPECT_EQ(1, listener->IncrementUseCount());
  EXPECT_NE(listener, DiscoveryListener::GetInstance());
  DiscoveryListener::Terminate();
  DiscoveryListener::Terminate();
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

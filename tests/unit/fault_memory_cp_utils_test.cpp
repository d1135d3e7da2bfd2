// The exported helpers for SOAP and metadata, called with each of their allocations failing.

#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_utils.h>

#include "src/device_list.h"
#include "tests/support/memory_table.h"

namespace vex_upnp {
namespace cp_utils {
namespace {

using vex_test::FailEach;
using vex_test::MemoryRow;
using Arguments = std::list<CPUtilsArgument>;

constexpr char kService[] = "urn:schemas-upnp-org:service:AVTransport:1";
constexpr char kAnswer[] =
    "<s:Envelope xmlns:s=\"x\"><s:Body><u:PlayResponse xmlns:u=\"urn:x\"><Name>a value that is "
    "long "
    "enough</Name><Other val=\"one in an attribute, long too\"/></u:PlayResponse></s:Body>"
    "</s:Envelope>";
constexpr char kFault[] =
    "<s:Envelope xmlns:s=\"x\"><s:Body><s:Fault><detail><UPnPError><errorCode>701</errorCode>"
    "<errorDescription>a description of some length</errorDescription></UPnPError></detail>"
    "</s:Fault></s:Body></s:Envelope>";

const MemoryRow kOneForFailure = {0, {1}, {}, false};
const MemoryRow kNoneForFailure = {1, {0}, {}, false};

TEST(FaultMemory, CpUtilsSoap) {
  const std::string action = "AnActionWithAVeryLongName";
  const std::string service = kService;
  Arguments in = {{"AnArgumentWithALongName", "and a value that is long as well"}};
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GenerateSoapRequestBody",
                [&] {
                  std::string body;
                  return GenerateSoapRequestBody(action, service, in, body);
                },
                kOneForFailure),
            0);
  const std::string answer = kAnswer;
  std::string xml;
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetXMLFromSoap",
                [&] {
                  std::string cut;
                  return GetXMLFromSoap(answer, cut);
                },
                kOneForFailure),
            0);
  ASSERT_EQ(0, GetXMLFromSoap(answer, xml));
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetOutputArglist",
                [&] {
                  Arguments arguments;
                  return GetOutputArglist(xml, arguments);
                },
                kOneForFailure),
            3);
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetActionName",
                [&] {
                  std::string name;
                  return GetActionName(xml, name);
                },
                kOneForFailure),
            -1);
  FailEach(
      "vex_upnp::cp_utils::GetServiceType",
      [&] {
        std::string type;
        return GetServiceType(service, type);
      },
      kOneForFailure);
  const std::string events =
      "<e:propertyset xmlns:e=\"x\"><e:property><AVariableOfLength>its value of some length"
      "</AVariableOfLength></e:property></e:propertyset>";
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::ParseEventNotification",
                [&] {
                  Arguments variables;
                  return ParseEventNotification(events, variables);
                },
                kOneForFailure),
            3);
  const std::string name = action;
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::SetListArgument",
                [&] {
                  Arguments arguments;
                  SetListArgument(name, service, arguments);
                  return arguments.empty() ? 1 : 0;
                },
                kOneForFailure),
            1);
}

TEST(FaultMemory, CpUtilsFault) {
  const std::string soap = kFault;
  std::string xml;
  ASSERT_EQ(0, GetXMLFromSoap(soap, xml));
  int code = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetErrCodeDescription",
                [&] {
                  boost::shared_ptr<std::string> description;
                  return GetErrCodeDescription(xml, code, description);
                },
                kOneForFailure),
            3);
  utils::XmlParser parser;
  utils::NodeXml* node = nullptr;
  boost::shared_ptr<std::string> description;
  const auto parse = [&](int) {
    utils::XmlParserDestroy(parser);
    EXPECT_EQ(1, utils::XmlParserGetDomMA(xml, parser));
    EXPECT_EQ(1, utils::XmlParserGetFirstNode(parser, node));
    description.reset();
  };
  parse(0);
  FailEach("vex_upnp::cp_utils::_Extract_ErrorDescription",
           [&] {
             _Extract_ErrorDescription(parser, node, code, description);
             return node == nullptr ? 0 : 1;
           },
           {0, {}, parse, false});
  utils::XmlParserFreeNode(node);
  utils::XmlParserDestroy(parser);
}

TEST(FaultMemory, CpUtilsArgumentList) {
  std::string xml;
  ASSERT_EQ(0, GetXMLFromSoap(kAnswer, xml));
  utils::XmlParser parser;
  utils::NodeXml* node = nullptr;
  // The copy of the parser is the caller's, so a failure of that one is no failure of the call; the
  // document is the caller's then, too.
  bool called = false;
  const auto parse = [&](int) {
    if (!called) {
      utils::XmlParserFreeNode(node);
      utils::XmlParserDestroy(parser);
    }
    parser = utils::XmlParser();
    EXPECT_EQ(1, utils::XmlParserGetDomMA(xml, parser));
    EXPECT_EQ(1, utils::XmlParserGetFirstNode(parser, node));
    called = false;
  };
  called = true;
  parse(0);
  FailEach("vex_upnp::cp_utils::MakeArgumentList",
           [&] {
             utils::XmlParser copy = parser;
             called = true;
             Arguments arguments;
             return MakeArgumentList(node, std::move(copy), arguments);
           },
           {0, {1}, parse, true});
  utils::XmlParserFreeNode(node);
  utils::XmlParserDestroy(parser);
}

TEST(FaultMemory, CpUtilsDevice) {
  const boost::shared_ptr<cp_discovery::DeviceList> list = cp_discovery::DeviceList::GetInstance();
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    boost::shared_ptr<cp_discovery::Device> device(new cp_discovery::Device);
    device->udn = "uuid:a-device-with-a-long-name+lan0";
    device->ip = "192.168.100.100";
    device->port = 5000;
    device->device_type = "urn:schemas-upnp-org:device:MediaRenderer:1";
    std::unique_ptr<cp_discovery::ServiceInfo> service(new cp_discovery::ServiceInfo);
    service->service_type = kService;
    service->control_url = "/a/control/url/that/is/long";
    device->services.push_back(std::move(service));
    ASSERT_TRUE(list->Add(device));
    device->services_ready = true;
  }
  const std::string udn = "uuid:a-device-with-a-long-name+lan0";
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetHostAndControlUri",
                [&] {
                  std::string type("AVTransport");
                  std::string host;
                  std::string uri;
                  return GetHostAndControlUri(udn, type, host, uri);
                },
                kOneForFailure),
            1);
  cp_discovery::DeviceList::Terminate();
}

TEST(FaultMemory, CpUtilsText) {
  const std::string tag = "dc:title";
  const std::string text = "a text <with> \"things\" & that's to be escaped, of some length";
  FailEach(
      "vex_upnp::cp_utils::ValidateDIDLProperty",
      [&] {
        std::string value;
        return ValidateDIDLProperty(tag, value);
      },
      kOneForFailure);
  std::string out;
  // Its result is 0 in every case; what it was to write stays away without memory.
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::EscapeMetaDataValue",
                [&] {
                  std::string escaped;
                  return EscapeMetaDataValue(2, text, escaped);
                },
                kOneForFailure),
            0);
  std::string broken = text + "&am";
  FailEach("vex_upnp::cp_utils::ResizeEscapedString", [&] { ResizeEscapedString(broken); });
  const std::string escaped = "a text &lt;with&gt; &quot;things&quot; to be decoded &amp; so on";
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::UnescapeXmlValue",
                [&] {
                  std::string decoded;
                  return UnescapeXmlValue(escaped, decoded);
                },
                kOneForFailure),
            0);
  const std::string info =
      "http-get-of-some-length:*-and-a-network:audio/mpeg-with-more:*-and-more";
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::ParseProtocolInfo",
                [&] {
                  std::string a;
                  std::string b;
                  std::string c;
                  return ParseProtocolInfo(info, a, b, c);
                },
                kNoneForFailure),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::ParseProtocolInfo",
                [&] {
                  std::string a;
                  std::string b;
                  std::string c;
                  std::string d;
                  return ParseProtocolInfo(info, a, b, c, d);
                },
                kNoneForFailure),
            0);
  const std::string uri = "http://a.host.with.a.rather.long.name:8080/x";
  EXPECT_GT(FailEach(
                "vex_upnp::cp_utils::GetIPFromResource",
                [&] {
                  std::string ip;
                  return GetIPFromResource(uri, ip);
                },
                kOneForFailure),
            0);
}

}  // namespace
}  // namespace cp_utils
}  // namespace vex_upnp

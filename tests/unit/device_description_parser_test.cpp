#include "src/device_description_parser.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/limits.h"
#include "tests/support/cpu_seconds.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_stack.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";

struct Parsed {
  boost::shared_ptr<Device> device = boost::make_shared<Device>();
  int code = -1;
  Device* operator->() const { return device.get(); }
};

Parsed Parse(const std::string& xml) {
  Parsed parsed;
  parsed.code = DeviceDescriptionParser::MakeDeviceInfo(xml, parsed.device);
  return parsed;
}

// A description whose root device has these children.
Parsed ParseDevice(const std::string& children) {
  Parsed parsed = Parse("<root><device>" + children + "</device></root>");
  EXPECT_EQ(0, parsed.code);
  return parsed;
}

// The same for a device embedded in the root device.
boost::shared_ptr<Device> ParseEmbedded(const std::string& children) {
  const Parsed parsed = ParseDevice("<deviceList><device>" + children + "</device></deviceList>");
  EXPECT_EQ(1U, parsed->embedded_devices.size());
  return parsed->embedded_devices.front();
}

std::vector<std::string> Types(const Device& device) {
  std::vector<std::string> types;
  for (const auto& service : device.services) types.push_back(service->service_type);
  return types;
}

std::vector<std::string> Urls(const Device& device) {
  std::vector<std::string> urls;
  for (const auto& icon : device.icons) urls.push_back(icon->url);
  return urls;
}

std::vector<std::string> Udns(const std::list<boost::shared_ptr<Device>>& devices) {
  std::vector<std::string> udns;
  for (const auto& device : devices) udns.push_back(device->udn);
  return udns;
}

std::vector<std::string> Fields(const Device& device) {
  std::vector<std::string> fields;
  for (const auto& field : device.additional_fields) {
    fields.push_back(field->name + "=" + field->value);
  }
  return fields;
}

TEST(Description, WholeDeviceIsRead) {
  const Parsed parsed = Parse(
      "<?xml version=\"1.0\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\n"
      "  <specVersion><major>1</major><minor>0</minor></specVersion>\n"
      "  <URLBase>http://10.0.0.1:80/</URLBase>\n  <device>\n"
      "    <deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>\n"
      "    <friendlyName>Lounge</friendlyName>\n    <manufacturer>Maker</manufacturer>\n"
      "    <manufacturerURL>http://maker/</manufacturerURL>\n"
      "    <modelDescription>Server</modelDescription>\n    <modelName>M</modelName>\n"
      "    <modelNumber>1.3</modelNumber>\n    <modelURL>http://maker/m</modelURL>\n"
      "    <serialNumber>42</serialNumber>\n    <UDN>uuid:1</UDN>\n    <UPC>123456789012</UPC>\n"
      "    <dlna:X_DLNACAP>av-upload</dlna:X_DLNACAP>\n"
      "    <iconList>\n      <icon>\n        <mimetype>image/png</mimetype>\n"
      "        <width>48</width><height>49</height><depth>24</depth>\n"
      "        <url>/i.png</url>\n      </icon>\n    </iconList>\n"
      "    <serviceList>\n      <service>\n        <serviceType>urn:s:1</serviceType>\n"
      "        <serviceId>urn:id:1</serviceId>\n        <SCPDURL>/scpd</SCPDURL>\n"
      "        <controlURL>/control</controlURL>\n        <eventSubURL>/event</eventSubURL>\n"
      "      </service>\n    </serviceList>\n"
      "    <presentationURL>/index.html</presentationURL>\n  </device>\n</root>\n");
  ASSERT_EQ(0, parsed.code);
  EXPECT_EQ("1", parsed->spec_major);
  EXPECT_EQ("0", parsed->spec_minor);
  EXPECT_EQ("http://10.0.0.1:80/", parsed->url_base);
  EXPECT_EQ("urn:schemas-upnp-org:device:MediaServer:1", parsed->device_type);
  EXPECT_EQ("Lounge", parsed->friendly_name);
  EXPECT_EQ("Maker", parsed->manufacturer);
  EXPECT_EQ("http://maker/", parsed->manufacturer_url);
  EXPECT_EQ("Server", parsed->model_description);
  EXPECT_EQ("M", parsed->model_name);
  EXPECT_EQ("1.3", parsed->model_number);
  EXPECT_EQ("http://maker/m", parsed->model_url);
  EXPECT_EQ("42", parsed->serial_number);
  EXPECT_EQ("uuid:1", parsed->udn);
  EXPECT_EQ("123456789012", parsed->upc);
  EXPECT_EQ("av-upload", parsed->dlna_cap);
  EXPECT_EQ("/index.html", parsed->presentation_url);
  ASSERT_EQ(1U, parsed->icons.size());
  const DeviceIcon& icon = *parsed->icons.front();
  EXPECT_EQ("image/png 48 49 24 /i.png ", icon.mimetype + " " + icon.width + " " + icon.height +
                                              " " + icon.depth + " " + icon.url + " " +
                                              icon.reserved);
  ASSERT_EQ(1U, parsed->services.size());
  const ServiceInfo& service = *parsed->services.front();
  EXPECT_EQ("urn:s:1 urn:id:1 /scpd /control /event",
            service.service_type + " " + service.service_id + " " + service.scpd_url + " " +
                service.control_url + " " + service.event_sub_url);
  EXPECT_EQ("", service.service_key + service.service_owner);
  EXPECT_TRUE(parsed->additional_fields.empty());
  EXPECT_EQ("", service.scpd_xml);
  EXPECT_FALSE(parsed->description_xml);
}

TEST(Description, RootMayHaveAnyName) {
  for (const char* name : {"root", "foo", "a:b"}) {
    const std::string tag = name;
    const Parsed parsed = Parse("<" + tag + "><device><UDN>u</UDN></device></" + tag + ">");
    EXPECT_EQ(0, parsed.code);
    EXPECT_EQ("u", parsed->udn);
  }
}

TEST(Description, MalformedDocumentIsToldApart) {
  const vex_test::LogCapture log;
  EXPECT_EQ(4001, Parse("<root><device></root>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "XmlParserGetDomMA failed"));
  EXPECT_EQ(4001, Parse("").code);
  EXPECT_EQ(2, log.Count(16, kTag, "XmlParserGetDomMA failed"));
  EXPECT_EQ(result::kMalformedDocument, 4001);
}

TEST(Description, DocumentWithoutRootFails) {
  const vex_test::LogCapture log;
  EXPECT_EQ(4001, Parse("<!-- nothing -->").code);
  EXPECT_EQ(1, log.Count(16, kTag, "No Root Node"));
}

TEST(Description, RootWithoutChildFails) {
  for (const char* xml : {"<root/>", "<root>text</root>", "<root>text<device/></root>"}) {
    const vex_test::LogCapture log;
    EXPECT_EQ(4001, Parse(xml).code);
    EXPECT_EQ(1, log.Count(4, kTag, "Child Node empty"));
    EXPECT_EQ(1, log.Count(16, kTag, "__ParseDescription failed"));
  }
}

TEST(Description, OtherChildrenOfTheRootAreSkipped) {
  const Parsed parsed = Parse(
      "<root><x>1</x><Device><UDN>no</UDN></Device><device><UDN>u</UDN></device>"
      "<\v>2</\v><URLBASE>no</URLBASE><URLBase>b</URLBase></root>");
  EXPECT_EQ(0, parsed.code);
  EXPECT_EQ("u", parsed->udn);
  EXPECT_EQ("b", parsed->url_base);
  EXPECT_TRUE(parsed->additional_fields.empty());
}

TEST(Description, VersionIsTakenVerbatim) {
  const Parsed parsed =
      Parse("<r><specVersion><minor> one </minor><x/><major>abc.d</major></specVersion></r>");
  EXPECT_EQ(0, parsed.code);
  EXPECT_EQ("abc.d", parsed->spec_major);
  EXPECT_EQ(" one ", parsed->spec_minor);
}

TEST(Description, EmptyPiecesAreNoFailure) {
  const Parsed parsed = Parse("<r><specVersion/><device/><URLBase/></r>");
  EXPECT_EQ(0, parsed.code);
  EXPECT_EQ("", parsed->udn);
  const Parsed lists =
      ParseDevice("<iconList/><serviceList/><deviceList/><iconList>x</iconList><UDN>u</UDN>");
  EXPECT_EQ("u", lists->udn);
}

TEST(Description, UrlBaseInTheDeviceCountsToo) {
  EXPECT_EQ("in", ParseDevice("<URLBase>in</URLBase>")->url_base);
}

TEST(Description, UrlBaseOfTheRootIsNotTheEmbeddedDevices) {
  const Parsed parsed = Parse(
      "<r><URLBase>http://h/</URLBase><device><deviceList><device><UDN>e</UDN></device>"
      "</deviceList></device></r>");
  ASSERT_EQ(0, parsed.code);
  EXPECT_EQ("http://h/", parsed->url_base);
  EXPECT_EQ("", parsed->embedded_devices.front()->url_base);
}

TEST(Description, FiveFieldsOfTheRootDeviceAreUnescaped) {
  const Parsed parsed = ParseDevice(
      "<friendlyName>a &amp; b</friendlyName><manufacturer>&lt;m&gt;</manufacturer>"
      "<modelDescription>&quot;d&quot;</modelDescription><modelName>&#65;</modelName>"
      "<modelNumber>&apos;1&apos;</modelNumber>");
  EXPECT_EQ("a & b", parsed->friendly_name);
  EXPECT_EQ("<m>", parsed->manufacturer);
  EXPECT_EQ("\"d\"", parsed->model_description);
  EXPECT_EQ("A", parsed->model_name);
  EXPECT_EQ("'1'", parsed->model_number);
}

TEST(Description, OtherFieldsStayAsTheyStand) {
  const Parsed parsed = ParseDevice(
      "<deviceType>&amp;1</deviceType><manufacturerURL>&amp;2</manufacturerURL>"
      "<modelURL>&amp;3</modelURL><serialNumber>&amp;4</serialNumber><UDN>&amp;5</UDN>"
      "<UPC>&amp;6</UPC><presentationURL>&amp;7</presentationURL><URLBase>&amp;8</URLBase>"
      "<dlna:X_DLNACAP>&amp;9</dlna:X_DLNACAP><other>&amp;10</other>");
  EXPECT_EQ("&amp;1", parsed->device_type);
  EXPECT_EQ("&amp;2", parsed->manufacturer_url);
  EXPECT_EQ("&amp;3", parsed->model_url);
  EXPECT_EQ("&amp;4", parsed->serial_number);
  EXPECT_EQ("&amp;5", parsed->udn);
  EXPECT_EQ("&amp;6", parsed->upc);
  EXPECT_EQ("&amp;7", parsed->presentation_url);
  EXPECT_EQ("&amp;8", parsed->url_base);
  EXPECT_EQ("&amp;9", parsed->dlna_cap);
  EXPECT_THAT(Fields(*parsed.device), ElementsAre("other=&amp;10"));
}

TEST(Description, KeptEmptyUnescapedFieldStaysAsItWas) {
  const vex_test::LogCapture log;
  const Parsed parsed =
      ParseDevice("<friendlyName>first</friendlyName><friendlyName/><UDN>first</UDN><UDN/>");
  EXPECT_EQ("first", parsed->friendly_name);
  EXPECT_EQ("", parsed->udn);
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Empty string"));
}

TEST(Description, KeptFieldsOfAnEmbeddedDeviceStayEscaped) {
  const boost::shared_ptr<Device> embedded = ParseEmbedded(
      "<friendlyName>a &amp; b</friendlyName><manufacturer>&lt;</manufacturer>"
      "<modelDescription>&gt;</modelDescription><modelName>&#65;</modelName>"
      "<modelNumber>&apos;</modelNumber><UDN>u</UDN><URLBase>http://e/</URLBase>");
  EXPECT_EQ("a &amp; b", embedded->friendly_name);
  EXPECT_EQ("&lt;", embedded->manufacturer);
  EXPECT_EQ("&gt;", embedded->model_description);
  EXPECT_EQ("&#65;", embedded->model_name);
  EXPECT_EQ("&apos;", embedded->model_number);
  EXPECT_EQ("u", embedded->udn);
  EXPECT_EQ("http://e/", embedded->url_base);
}

TEST(Description, KeptCapabilityNeedsAPrefixOfFiveCharacters) {
  EXPECT_EQ("c", ParseDevice("<dlna:X_DLNACAP>c</dlna:X_DLNACAP>")->dlna_cap);
  EXPECT_EQ("c", ParseDevice("<abcdeX_DLNACAP>c</abcdeX_DLNACAP>")->dlna_cap);
  EXPECT_EQ("c", ParseDevice("<dlna:X_DLNACAPtive>c</dlna:X_DLNACAPtive>")->dlna_cap);
  for (const char* name : {"X_DLNACAP", "dl:X_DLNACAP", "dlna1:X_DLNACAP", "dlna:X_DLNACA",
                           "dlna:x_dlnacap", "dlna:X_DLNADOC"}) {
    const std::string tag = name;
    const Parsed parsed = ParseDevice("<" + tag + ">c</" + tag + ">");
    EXPECT_EQ("", parsed->dlna_cap) << name;
    EXPECT_THAT(Fields(*parsed.device), ElementsAre(tag + "=c")) << name;
  }
}

TEST(Description, UnknownElementsAreKeptInOrder) {
  const Parsed parsed =
      ParseDevice("<tmk:ProductCap>Resolution:1920X1080</tmk:ProductCap><UDN>u</UDN><a/><a>2</a>");
  EXPECT_THAT(Fields(*parsed.device),
              ElementsAre("tmk:ProductCap=Resolution:1920X1080", "a=", "a=2"));
}

TEST(Description, ChildrenOfAnUnknownElementAreNotRead) {
  const Parsed parsed = ParseDevice("<x><UDN>inner</UDN></x><UDN>outer</UDN>");
  EXPECT_THAT(Fields(*parsed.device), ElementsAre("x="));
  EXPECT_EQ("outer", parsed->udn);
}

TEST(Description, NamesAreTrimmedAndEmptyOnesPassedOver) {
  const Parsed parsed = ParseDevice("<\vUDN\v>u</\vUDN\v><\v>x</\v>");
  EXPECT_EQ("u", parsed->udn);
  EXPECT_TRUE(parsed->additional_fields.empty());
}

TEST(Description, KeptTextBetweenElementsEndsTheReading) {
  const Parsed parsed = ParseDevice("<UDN>u</UDN>stray<UPC>no</UPC>");
  EXPECT_EQ("u", parsed->udn);
  EXPECT_EQ("", parsed->upc);
}

TEST(Description, CommentsAndCdataAreReadPast) {
  const Parsed parsed = ParseDevice(
      "<!-- c --><UDN>u<!-- c --></UDN><friendlyName><![CDATA[no]]></friendlyName><UPC>1</UPC>");
  EXPECT_EQ("u", parsed->udn);
  EXPECT_EQ("", parsed->friendly_name);
  EXPECT_EQ("1", parsed->upc);
}

TEST(Description, IconsAndServicesComeInOrderAndOthersAreSkipped) {
  const Parsed parsed = ParseDevice(
      "<iconList><icon><url>1</url></icon><x><url>no</url></x><icon/><icon><url>3</url></icon>"
      "</iconList><serviceList><service><serviceType>1</serviceType></service><x/><service/>"
      "<service><x/><serviceType>3</serviceType></service></serviceList><UDN>u</UDN>");
  EXPECT_THAT(Urls(*parsed.device), ElementsAre("1", "", "3"));
  EXPECT_THAT(Types(*parsed.device), ElementsAre("1", "", "3"));
  EXPECT_EQ("u", parsed->udn);
}

TEST(Description, ServiceWithoutDescriptionUrlStays) {
  const Parsed parsed =
      ParseDevice("<serviceList><service><serviceType>t</serviceType></service></serviceList>");
  ASSERT_EQ(1U, parsed->services.size());
  EXPECT_EQ("", parsed->services.front()->scpd_url);
}

TEST(Description, EmbeddedDeviceHasServicesAndIconsButNoOtherFields) {
  const boost::shared_ptr<Device> embedded = ParseEmbedded(
      "<iconList><icon><url>1</url></icon><x/></iconList>"
      "<serviceList><service><serviceType>1</serviceType></service><x/><service/></serviceList>"
      "<dlna:X_DLNACAP>c</dlna:X_DLNACAP><other>o</other><deviceType>t</deviceType>"
      "<serialNumber>s</serialNumber><manufacturerURL>m</manufacturerURL><modelURL>n</modelURL>"
      "<UPC>p</UPC><presentationURL>r</presentationURL>");
  EXPECT_THAT(Urls(*embedded), ElementsAre("1"));
  EXPECT_THAT(Types(*embedded), ElementsAre("1", ""));
  EXPECT_EQ("", embedded->dlna_cap);
  EXPECT_TRUE(embedded->additional_fields.empty());
  EXPECT_EQ("tsmnpr", embedded->device_type + embedded->serial_number + embedded->manufacturer_url +
                          embedded->model_url + embedded->upc + embedded->presentation_url);
}

TEST(Description, EmbeddingIsReadToAnyDepthAsATree) {
  const Parsed parsed = ParseDevice(
      "<UDN>0</UDN><deviceList>"
      "<device><UDN>1</UDN><deviceList><device><UDN>1.1</UDN></device><x/>"
      "<device><deviceList><device><UDN>1.2.1</UDN></device></deviceList><UDN>1.2</UDN></device>"
      "</deviceList><UPC>upc1</UPC></device>"
      "<x/><device/><device><UDN>3</UDN></device></deviceList><UPC>upc0</UPC>");
  EXPECT_EQ("0", parsed->udn);
  EXPECT_EQ("upc0", parsed->upc);
  EXPECT_THAT(Udns(parsed->embedded_devices), ElementsAre("1", "", "3"));
  const Device& first = *parsed->embedded_devices.front();
  EXPECT_EQ("upc1", first.upc);
  EXPECT_THAT(Udns(first.embedded_devices), ElementsAre("1.1", "1.2"));
  EXPECT_THAT(Udns(first.embedded_devices.back()->embedded_devices), ElementsAre("1.2.1"));
}

TEST(Description, SeveralListsOfOneDeviceAreJoined) {
  const Parsed parsed = ParseDevice(
      "<deviceList><device><UDN>1</UDN></device></deviceList><deviceList/>"
      "<deviceList><device><UDN>2</UDN></device></deviceList>");
  EXPECT_THAT(Udns(parsed->embedded_devices), ElementsAre("1", "2"));
  const boost::shared_ptr<Device> embedded = ParseEmbedded(
      "<deviceList><device><UDN>1</UDN></device></deviceList><deviceList/>"
      "<deviceList><device><UDN>2</UDN></device></deviceList>");
  EXPECT_THAT(Udns(embedded->embedded_devices), ElementsAre("1", "2"));
}

TEST(Description, EqualIdentitiesAreAllKept) {
  const Parsed parsed = ParseDevice(
      "<UDN>same</UDN><deviceList><device><UDN>same</UDN></device><device><UDN>same</UDN></device>"
      "</deviceList><serviceList><service><serviceId>i</serviceId></service>"
      "<service><serviceId>i</serviceId></service></serviceList>");
  EXPECT_THAT(Udns(parsed->embedded_devices), ElementsAre("same", "same"));
  EXPECT_EQ(2U, parsed->services.size());
}

TEST(Description, UnescapedFieldPastItsBoundIsOutOfMemory) {
  std::string references;
  for (int i = 1; i <= 6000; ++i) references += "&#" + std::to_string(i) + ";";
  const vex_test::LogCapture log;
  EXPECT_EQ(2200,
            Parse("<r><device><friendlyName>" + references + "</friendlyName></device></r>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "__ParseDescription failed"));
  EXPECT_EQ(result::kOutOfMemory, 2200);
}

// Repeated often enough, fields that pass their own bounds by far or by little keep a processor
// busy for minutes.
TEST(Description, RegressionOfARepeatedFieldTheLastTextAloneIsUnescaped) {
  std::string references;
  for (int i = 1; i <= 6000; ++i) references += "&#" + std::to_string(i) + ";";
  for (const char* name :
       {"friendlyName", "manufacturer", "modelDescription", "modelName", "modelNumber"}) {
    const auto element = [name](const std::string& text) {
      return std::string("<") + name + ">" + text + "</" + name + ">";
    };
    const Parsed parsed =
        Parse("<r><device>" + element(references) + element("a &amp;lt; b") + "</device><device>" +
              element("") + "<UDN>uuid:a</UDN></device></r>");
    EXPECT_EQ(0, parsed.code) << name;
    EXPECT_EQ("uuid:a", parsed->udn) << name;
    const std::string all = parsed->friendly_name + parsed->manufacturer +
                            parsed->model_description + parsed->model_name + parsed->model_number;
    EXPECT_EQ("a &lt; b", all) << name;
    EXPECT_EQ(2200,
              Parse("<r><device>" + element("a") + element(references) + "</device></r>").code)
        << name;
  }
}

// Every allocation of a reading fails once; what is there afterwards is whole and nothing is lost.
TEST(Description, AnyAllocationMayFail) {
  const std::string xml =
      "<root><specVersion><major>one and long enough for the heap</major></specVersion><device>"
      "<UDN>uuid:long enough to be no short string</UDN><friendlyName>a &amp; b, also long "
      "enough for the heap</friendlyName><vendor>something unknown and also long</vendor>"
      "<iconList><icon><url>/a/path/that/is/long/enough.png</url></icon></iconList><serviceList>"
      "<service><serviceType>urn:schemas-upnp-org:service:AVTransport:1</serviceType></service>"
      "</serviceList><deviceList><device><UDN>uuid:long enough to be no short string</UDN>"
      "<iconList><icon/></iconList><serviceList><service/></serviceList><deviceList><device/>"
      "</deviceList></device></deviceList></device></root>";
  for (const int count : {1, std::numeric_limits<int>::max()}) {
    bool failed = true;
    for (int nth = 1; failed; ++nth) {
      Parsed parsed;
      {
        const vex_test::FailAlloc fail(nth, count);
        parsed.code = DeviceDescriptionParser::MakeDeviceInfo(xml, parsed.device);
        failed = fail.Failed();
      }
      const bool known = parsed.code == 0 || parsed.code == 2200 || parsed.code == 4001;
      EXPECT_TRUE(known) << nth;
      // Only an embedded device is tried a second time.
      if (failed && count > 1) {
        EXPECT_NE(0, parsed.code) << nth;
      }
      if (!failed) {
        EXPECT_EQ(0, parsed.code);
        EXPECT_LT(10, nth);
      }
    }
  }
}

// The first allocation that makes a run of reading log this line, or 0.
int AllocationThatLogs(const std::string& xml, const std::string& text, int count, int* code) {
  for (int nth = 1; nth < 1000; ++nth) {
    const vex_test::LogCapture log;
    Parsed parsed;
    {
      const vex_test::FailAlloc fail(nth, count);
      parsed.code = DeviceDescriptionParser::MakeDeviceInfo(xml, parsed.device);
      if (!fail.Failed()) return 0;
    }
    *code = parsed.code;
    if (log.Count(16, kTag, text) > 0) return nth;
  }
  return 0;
}

TEST(Description, EachListTellsItsOwnFailure) {
  struct Row {
    const char* children;
    const char* line;
    int code;
  };
  const Row rows[] = {
      {"<iconList><icon/></iconList>", "Icon Parsing Failed", 4001},
      {"<serviceList><service/></serviceList>", "Parsing Service Failed", 4001},
      {"<serviceList><service/></serviceList>", "memory allocation failed", 4001},
      {"<iconList><icon/></iconList>", "memory allocation failed", 4001},
      {"<other>x</other>", "Adding Embedded Device Failed", 2200},
  };
  for (const Row& row : rows) {
    int code = 0;
    const std::string xml = std::string("<r><device>") + row.children + "</device></r>";
    EXPECT_NE(0, AllocationThatLogs(xml, row.line, 1, &code)) << row.line;
    EXPECT_EQ(row.code, code) << row.line;
  }
}

TEST(Description, EachListOfAnEmbeddedDeviceTellsItsOwnFailure) {
  struct Row {
    const char* children;
    const char* line;
    int count;
  };
  const Row rows[] = {
      {"", "memory not available", 1},
      {"", "Adding Embedded Device Failed", 1},
      {"<iconList><icon/></iconList>", " ParseIcon failed \n", 1},
      {"<serviceList><service/></serviceList>", " Parse service failed \n", 1},
      {"<deviceList><device/></deviceList>", "Device failed \n", 2},
  };
  for (const Row& row : rows) {
    int code = 0;
    const std::string xml = std::string("<r><device><deviceList><device>") + row.children +
                            "</device></deviceList></device></r>";
    EXPECT_NE(0, AllocationThatLogs(xml, row.line, row.count, &code)) << row.line;
    EXPECT_EQ(4001, code) << row.line;
  }
}

TEST(Description, KeptSecondTryReadsAnEmbeddedDeviceIntoItsGrandparent) {
  const std::string xml =
      "<r><device><deviceList><device><UDN>a</UDN><deviceList><device><UDN>b</UDN></device>"
      "<device><UDN>c</UDN></device></deviceList></device></deviceList><UDN>root</UDN></device></"
      "r>";
  int second_tries = 0;
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    const vex_test::LogCapture log;
    Parsed parsed;
    {
      const vex_test::FailAlloc fail(nth);
      parsed.code = DeviceDescriptionParser::MakeDeviceInfo(xml, parsed.device);
      failed = fail.Failed();
    }
    if (parsed.code != 0 || log.Count(16, kTag, "memory not available") == 0) continue;
    ++second_tries;
    const std::vector<std::string> children = Udns(parsed->embedded_devices);
    ASSERT_EQ(2U, children.size());
    EXPECT_EQ("a", children[1]);
    const std::vector<std::string> rest = Udns(parsed->embedded_devices.back()->embedded_devices);
    if (children[0] == "b") {
      EXPECT_THAT(rest, ElementsAre("c"));
    } else {
      EXPECT_EQ("c", children[0]);
      EXPECT_THAT(rest, ElementsAre("b"));
    }
    EXPECT_EQ("root", parsed->udn);
  }
  EXPECT_LE(2, second_tries);
}

std::string Repeated(const std::string& piece, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += piece;
  return text;
}

TEST(Description, AHundredThousandLevelsOfEmbeddingOnASmallStack) {
  constexpr int kLevels = 100000;
  const std::string xml = "<r>" + Repeated("<device><deviceList>", kLevels) +
                          Repeated("</deviceList></device>", kLevels) + "</r>";
  vex_test::OnSmallStack([&] {
    const vex_test::CpuSeconds cpu;
    Parsed parsed = Parse(xml);
    ASSERT_EQ(0, parsed.code);
    int levels = 1;
    for (const Device* device = parsed.device.get(); !device->embedded_devices.empty();
         device = device->embedded_devices.front().get()) {
      ++levels;
    }
    EXPECT_EQ(kLevels, levels);
    parsed.device.reset();
    EXPECT_LT(cpu.Elapsed(), 10.0);
  });
}

TEST(Description, AHundredThousandListsOfOneDeviceOnASmallStack) {
  const std::string lists = Repeated("<deviceList/>", 100000);
  const std::string full = Repeated("<deviceList><device/></deviceList>", 50000);
  vex_test::OnSmallStack([&lists, &full] {
    const vex_test::CpuSeconds cpu;
    EXPECT_EQ(0U, ParseDevice(lists)->embedded_devices.size());
    EXPECT_EQ(0U, ParseEmbedded(lists)->embedded_devices.size());
    EXPECT_EQ(50000U, ParseDevice(full)->embedded_devices.size());
    EXPECT_EQ(50000U, ParseEmbedded(full)->embedded_devices.size());
    EXPECT_LT(cpu.Elapsed(), 10.0);
  });
}

// A description with this many of a piece, of which it has `others` that count beside them.
void ExpectAsManyAsTheBound(const std::string& begin, const std::string& piece,
                            const std::string& end, std::size_t bound, std::size_t others) {
  SCOPED_TRACE(piece);
  const int most = static_cast<int>(bound - others);
  EXPECT_EQ(0, Parse(begin + Repeated(piece, most) + end).code);
  const vex_test::LogCapture log;
  EXPECT_EQ(4001, Parse(begin + Repeated(piece, most + 1) + end).code);
  EXPECT_LE(log.Count(16, kTag, "Description holds too much"), 1);
}

TEST(Description, AsManyRecordsAsTheBoundAreMadeAndNoMore) {
  const std::size_t bound = limits::kDescriptionRecords;
  // The root device, and its list.
  ExpectAsManyAsTheBound("<r><device><deviceList>", "<device/>", "</deviceList></device></r>",
                         bound, 2);
  ExpectAsManyAsTheBound("<r><device><serviceList>", "<service/>", "</serviceList></device></r>",
                         bound, 2);
  ExpectAsManyAsTheBound("<r><device><iconList>", "<icon/>", "</iconList></device></r>", bound, 2);
  ExpectAsManyAsTheBound("<r><device>", "<a/>", "</device></r>", bound, 1);
  // All together, and in an embedded device.
  ExpectAsManyAsTheBound("<r><device><deviceList><device><iconList><icon/></iconList><serviceList>",
                         "<service/>", "</serviceList></device></deviceList><a/></device></r>",
                         bound, 5);
}

TEST(Description, AsManyTagsAsTheBoundAreReadAndNoMore) {
  const std::size_t bound = limits::kDescriptionTags;
  // Two of the root, two of the device, and two of the field in which they stand.
  ExpectAsManyAsTheBound("<r><device><f>", "<a/>", "</f></device></r>", bound, 6);
  ExpectAsManyAsTheBound("<r><device><f", " a='1'", "></f></device></r>", bound, 6);
}

TEST(Description, FailureInTheDepthUnwindsOnASmallStack) {
  constexpr int kLevels = 20000;
  const std::string xml = "<r>" + Repeated("<device><deviceList>", kLevels) +
                          Repeated("</deviceList></device>", kLevels) + "</r>";
  vex_test::OnSmallStack([&] {
    Parsed parsed;
    // Far behind the allocations of the document, in the middle of the levels.
    const vex_test::FailAlloc fail(kLevels, std::numeric_limits<int>::max());
    parsed.code = DeviceDescriptionParser::MakeDeviceInfo(xml, parsed.device);
    EXPECT_TRUE(fail.Failed());
    EXPECT_EQ(4001, parsed.code);
  });
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

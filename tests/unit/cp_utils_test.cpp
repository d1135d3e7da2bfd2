#include <vexupnpcp/cp_utils.h>

#include <gmock/gmock.h>

#include <list>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include "src/device_list.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace cp_utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTag[] = "VEX_CORE_CP_UTILS";
constexpr char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";

using Arguments = std::list<CPUtilsArgument>;

std::vector<std::string> Pairs(const Arguments& arguments) {
  std::vector<std::string> pairs;
  for (const CPUtilsArgument& argument : arguments) {
    pairs.push_back(argument.name + "=" + argument.value);
  }
  return pairs;
}

std::string Body(Arguments arguments) {
  std::string body = "old";
  EXPECT_EQ(0, GenerateSoapRequestBody("Play", "urn:s:AVTransport:1", arguments, body));
  return body;
}

TEST(SoapRequest, WholeBodyByteForByte) {
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
      "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n"
      "<s:Body>\r\n"
      "<u:Play xmlns:u=\"urn:s:AVTransport:1\">\r\n"
      "<InstanceID>0</InstanceID>\r\n"
      "<Speed>1</Speed>\r\n"
      "</u:Play>\r\n"
      "</s:Body>\r\n"
      "</s:Envelope>",
      Body({{"InstanceID", "0"}, {"Speed", "1"}}));
}

std::string Lines(const Arguments& arguments) {
  const std::string body = Body(arguments);
  const std::string start = "<u:Play xmlns:u=\"urn:s:AVTransport:1\">\r\n";
  const std::size_t begin = body.find(start) + start.size();
  return body.substr(begin, body.find("</u:Play>\r\n") - begin);
}

TEST(SoapRequest, WithoutArgumentsNothingStandsBetweenTheTwoLines) { EXPECT_EQ("", Lines({})); }

TEST(SoapRequest, EmptyValueGivesAnEmptyElement) {
  EXPECT_EQ("<name/>\r\n", Lines({{"name", ""}}));
}

TEST(SoapRequest, ArgumentWithoutNameIsLeftOut) {
  EXPECT_EQ("<a>1</a>\r\n<b>2</b>\r\n", Lines({{"a", "1"}, {"", "x"}, {"", ""}, {"b", "2"}}));
}

TEST(SoapRequest, ValuesGoInAsTheyStand) {
  EXPECT_EQ("<a>&<b>\"%s</a>\r\n", Lines({{"a", "&<b>\"%s"}}));
}

struct Cut {
  int code;
  std::string xml;
};

Cut CutOut(const std::string& soap) {
  Cut cut{-1, "untouched"};
  cut.code = GetXMLFromSoap(soap, cut.xml);
  return cut;
}

TEST(SoapBody, ContentIsCutOutOfBothEnvelopes) {
  for (const char* prefix : {"s", "SOAP-ENV"}) {
    const std::string p = prefix;
    const Cut cut =
        CutOut("<" + p + ":Envelope><" + p + ":Body x='1'>\r\n <u:R><a>1</a></u:R>\r\n</" + p +
               ":Body></" + p + ":Envelope>");
    EXPECT_EQ(0, cut.code);
    EXPECT_EQ(std::string(kDeclaration) + "<u:R><a>1</a></u:R>\r\n", cut.xml);
  }
}

TEST(SoapBody, KeptOtherPrefixesAreNotUnderstood) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, CutOut("<soapenv:Body><a/></soapenv:Body>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Soap body start tag is not present!"));
  EXPECT_EQ(1, CutOut("<Body xmlns='x'><a/></Body>").code);
  EXPECT_EQ(2, log.Count(16, kTag, "Soap body start tag is not present!"));
}

TEST(SoapBody, EndTagIsNeeded) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, CutOut("<s:Body><a/>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Soap body end tag is not present!"));
}

TEST(SoapBody, StartBehindTheEndIsInvalid) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, CutOut("</s:Body><s:Body>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid Soap tags"));
}

TEST(SoapBody, EmptyBodyGivesOneWithoutALog) {
  const vex_test::LogCapture log;
  const Cut cut = CutOut("<s:Envelope><s:Body></s:Body></s:Envelope>");
  EXPECT_EQ(1, cut.code);
  EXPECT_EQ("untouched", cut.xml);
  EXPECT_EQ(1, CutOut("<s:Body>text only</s:Body>").code);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(SoapBody, TwoBodiesEndWithTheFirst) {
  EXPECT_EQ(std::string(kDeclaration) + "<a/>",
            CutOut("<s:Body><a/></s:Body><s:Body><b/></s:Body>").xml);
}

TEST(SoapBody, KeptTheTwoPrefixesMayBeMixed) {
  EXPECT_EQ(std::string(kDeclaration) + "<a/>", CutOut("<s:Body><a/></SOAP-ENV:Body>").xml);
}

TEST(SoapBody, EveryCutIsRefusedOrReadWithinItsBounds) {
  const std::string whole = "<s:Envelope><s:Body><u:R><a>1</a></u:R></s:Body></s:Envelope>";
  const std::size_t enough = whole.find("</s:Body>") + 9;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(length >= enough ? 0 : 1, CutOut(whole.substr(0, length)).code) << length;
  }
}

struct Answer {
  int code;
  Arguments arguments;
};

Answer Output(const std::string& xml) {
  Answer answer{-1, {}};
  answer.code = GetOutputArglist(xml, answer.arguments);
  return answer;
}

TEST(SoapAnswer, ArgumentsComeInDocumentOrder) {
  const Answer answer = Output(
      "<u:R xmlns:u='x'><Track>1</Track><Empty/><Meta>&lt;DIDL&gt;</Meta> <Blank> 1 "
      "</Blank></u:R>");
  EXPECT_EQ(0, answer.code);
  EXPECT_THAT(Pairs(answer.arguments),
              ElementsAre("Track=1", "Empty=", "Meta=&lt;DIDL&gt;", "Blank= 1 "));
}

TEST(SoapAnswer, AttributesOfAnArgumentDoNotCount) {
  EXPECT_THAT(Pairs(Output("<R><a val='no'>yes</a></R>").arguments), ElementsAre("a=yes"));
}

TEST(SoapAnswer, ArgumentsAreAppended) {
  Arguments arguments{{"before", "0"}};
  EXPECT_EQ(0, GetOutputArglist("<R><a>1</a></R>", arguments));
  EXPECT_THAT(Pairs(arguments), ElementsAre("before=0", "a=1"));
}

TEST(SoapAnswer, ResponseWithoutArgumentsGivesOne) {
  for (const char* xml : {"<R/>", "<R></R>", "<R>text</R>", "<!-- c -->"}) {
    const vex_test::LogCapture log;
    const Answer answer = Output(xml);
    EXPECT_EQ(1, answer.code);
    EXPECT_THAT(answer.arguments, IsEmpty());
    EXPECT_EQ(1, log.Count(16, kTag, "GetChildNode Failed!")) << xml;
  }
}

TEST(SoapAnswer, MalformedDocumentGivesOne) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, Output("<R><a></R>").code);
  EXPECT_EQ(1, Output("").code);
  EXPECT_EQ(2, log.Count(16, kTag, "XML Parsing Failed"));
}

TEST(SoapAnswer, KeptTextBetweenArgumentsEndsTheList) {
  const Answer answer = Output("<R><a>1</a>stray<b>2</b></R>");
  EXPECT_EQ(0, answer.code);
  EXPECT_THAT(Pairs(answer.arguments), ElementsAre("a=1"));
}

Answer Event(const std::string& xml) {
  Answer answer{-1, {}};
  answer.code = ParseEventNotification(xml, answer.arguments);
  return answer;
}

TEST(EventBody, EachPropertyGivesItsVariable) {
  const Answer answer = Event(
      "<?xml version=\"1.0\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\n"
      "<e:property><Status>0</Status></e:property>\n<anything><Level>20</Level></anything>\n"
      "<e:property>\n<LastChange>&lt;Event/&gt;</LastChange>\n</e:property></e:propertyset>");
  EXPECT_EQ(0, answer.code);
  EXPECT_THAT(Pairs(answer.arguments),
              ElementsAre("Status=0", "Level=20", "LastChange=&lt;Event/&gt;"));
}

TEST(EventBody, AttributeValComesBeforeTheText) {
  EXPECT_THAT(Pairs(Event("<e><p><v val='attribute'>text</v></p></e>").arguments),
              ElementsAre("v=attribute"));
  EXPECT_THAT(Pairs(Event("<e><p><v val=''>text</v></p></e>").arguments), ElementsAre("v="));
  EXPECT_THAT(Pairs(Event("<e><p><v value='no' Val='no'>text</v></p></e>").arguments),
              ElementsAre("v=text"));
}

TEST(EventBody, KeptOnlyTheFirstVariableOfAPropertyIsRead) {
  EXPECT_THAT(Pairs(Event("<e><p><a>1</a><b>2</b></p><p><c>3</c></p></e>").arguments),
              ElementsAre("a=1", "c=3"));
}

TEST(EventBody, KeptPropertyWithoutVariableEndsTheWalk) {
  for (const char* empty : {"<p/>", "<p></p>", "<p>text</p>"}) {
    const Answer answer = Event(std::string("<e><p><a>1</a></p>") + empty + "<p><b>2</b></p></e>");
    EXPECT_EQ(0, answer.code);
    EXPECT_THAT(Pairs(answer.arguments), ElementsAre("a=1"));
  }
}

TEST(EventBody, WithoutPropertyItIsAFailure) {
  for (const char* xml : {"<e/>", "<e>text</e>"}) {
    const vex_test::LogCapture log;
    EXPECT_EQ(1, Event(xml).code);
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST(EventBody, EachFailureHasItsLine) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, Event("<e><p></e>").code);
  EXPECT_EQ(1, log.Count(16, kTag, "XML Parsing Failed"));
  EXPECT_EQ(1, Event("<!-- nothing -->").code);
  EXPECT_EQ(1, log.Count(16, kTag, "ROOT node is empty in the XML"));
}

// What MakeArgumentList makes of a document from its root on.
Answer Flattened(const std::string& xml) {
  Answer answer{-1, {}};
  utils::XmlParser parser;
  EXPECT_EQ(1, utils::XmlParserGetDomMA(xml, parser));
  utils::NodeXml* root = nullptr;
  EXPECT_EQ(1, utils::XmlParserGetFirstNode(parser, root));
  answer.code = MakeArgumentList(root, parser, answer.arguments);
  return answer;
}

TEST(Flattening, ElementsComeInDocumentOrder) {
  const Answer answer = Flattened(
      "<Event><InstanceID val='0'><TransportState val='PLAYING'/><Track val='1'>no</Track>"
      "<Text>text</Text></InstanceID></Event>");
  EXPECT_EQ(0, answer.code);
  EXPECT_THAT(
      Pairs(answer.arguments),
      ElementsAre("Event=", "InstanceID=0", "TransportState=PLAYING", "Track=1", "Text=text"));
}

TEST(Flattening, KeptElementBehindADescentGivesItsFirstChildInstead) {
  EXPECT_THAT(Pairs(Flattened("<r><a><b/></a><c><d/><e/></c></r>").arguments),
              ElementsAre("r=", "a=", "b=", "d=", "e="));
}

TEST(Flattening, KeptItClimbsOneLevelOnly) {
  EXPECT_THAT(Pairs(Flattened("<r><a><b><c/></b></a><d><e/></d></r>").arguments),
              ElementsAre("r=", "a=", "b=", "c="));
  EXPECT_THAT(Pairs(Flattened("<r><a><b/></a><c/><d><e/></d></r>").arguments),
              ElementsAre("r=", "a=", "b="));
}

TEST(Flattening, NoNodeIsAFailure) {
  const vex_test::LogCapture log;
  Arguments arguments;
  utils::XmlParser parser;
  ASSERT_EQ(1, utils::XmlParserGetDomMA("<r/>", parser));
  EXPECT_EQ(1, MakeArgumentList(nullptr, parser, arguments));
  EXPECT_EQ(1, log.Count(16, kTag, "XML Parsing Failed"));
  EXPECT_THAT(arguments, IsEmpty());
}

TEST(Flattening, CallerMayDestroyItsOwnRecordToo) {
  utils::ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<r>a text that is too long to lie in the record itself</r>"));
  Arguments arguments;
  EXPECT_EQ(0, MakeArgumentList(utils::FirstNode(parser.get()).release(), parser.get(), arguments));
  EXPECT_THAT(Pairs(arguments),
              ElementsAre("r=a text that is too long to lie in the record itself"));
}

struct Fault {
  int result = -1;
  int code = 77;
  boost::shared_ptr<std::string> description;
};

Fault ReadFault(const std::string& xml) {
  Fault fault;
  fault.result = GetErrCodeDescription(xml, fault.code, fault.description);
  return fault;
}

std::string FaultWith(const std::string& detail) {
  return "<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
         "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">" +
         detail + "</UPnPError></detail></s:Fault>";
}

TEST(SoapFault, CodeAndDescriptionAreRead) {
  const Fault fault = ReadFault(FaultWith(
      "<errorCode>701</errorCode>\r\n<errorDescription>No such object error</errorDescription>"));
  EXPECT_EQ(0, fault.result);
  EXPECT_EQ(701, fault.code);
  ASSERT_TRUE(fault.description);
  EXPECT_EQ("No such object error", *fault.description);
}

TEST(SoapFault, NamesAreFoundInAnyCaseAndWithinOthers) {
  const Fault fault = ReadFault(
      FaultWith("<u:ERRORCODEx>-5</u:ERRORCODEx><ns:errordescription>d</ns:errordescription>"));
  EXPECT_EQ(0, fault.result);
  EXPECT_EQ(-5, fault.code);
  EXPECT_EQ("d", *fault.description);
}

TEST(SoapFault, CodeAloneIsStoredAndAFailure) {
  const Fault fault = ReadFault(FaultWith("<errorCode>402</errorCode>"));
  EXPECT_EQ(1, fault.result);
  EXPECT_EQ(402, fault.code);
  EXPECT_FALSE(fault.description);
}

TEST(SoapFault, EmptyDescriptionIsAFailure) {
  const Fault fault = ReadFault(FaultWith("<errorCode>402</errorCode><errorDescription/>"));
  EXPECT_EQ(1, fault.result);
  EXPECT_EQ(402, fault.code);
}

TEST(SoapFault, CodeThatIsNoNumberEndsTheWalk) {
  for (const char* code : {"abc", "", "99999999999", "402 ", " 402", "4x", "0x1"}) {
    const vex_test::LogCapture log;
    const Fault fault = ReadFault(FaultWith("<errorCode>" + std::string(code) +
                                            "</errorCode><errorDescription>d</errorDescription>"));
    EXPECT_EQ(1, fault.result) << code;
    EXPECT_EQ(77, fault.code) << code;
    EXPECT_FALSE(fault.description) << code;
    EXPECT_EQ(1, log.Count(16, kTag, "Input errorCode string was not valid!!!")) << code;
  }
}

TEST(SoapFault, DescriptionInFrontOfABadCodeCounts) {
  const Fault fault =
      ReadFault(FaultWith("<errorDescription>d</errorDescription><errorCode>x</errorCode>"));
  EXPECT_EQ(0, fault.result);
  EXPECT_EQ(77, fault.code);
  EXPECT_EQ("d", *fault.description);
}

TEST(SoapFault, KeptWalkDoesNotClimb) {
  const Fault fault =
      ReadFault("<f><a><b/></a><errorCode>1</errorCode><errorDescription>d</errorDescription></f>");
  EXPECT_EQ(1, fault.result);
  EXPECT_EQ(77, fault.code);
}

TEST(SoapFault, EachFailureHasItsLine) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, ReadFault("").result);
  EXPECT_EQ(1, log.Count(16, kTag, "GetErrCodeDescription :: xmldata is empty"));
  EXPECT_EQ(1, ReadFault("<f>").result);
  EXPECT_EQ(1, log.Count(16, kTag, "XML Parsing Failed"));
  EXPECT_EQ(1, ReadFault("<!-- c -->").result);
  EXPECT_EQ(1, log.Count(16, kTag, "ROOT node is empty in the XML"));
  EXPECT_EQ(1, ReadFault("<f/>").result);
}

TEST(SoapFault, LongDescriptionIsReadWhole) {
  const std::string text(10 * 1024 * 1024, 'd');
  const Fault fault = ReadFault(
      FaultWith("<errorCode>1</errorCode><errorDescription>" + text + "</errorDescription>"));
  EXPECT_EQ(0, fault.result);
  EXPECT_EQ(text, *fault.description);
}

TEST(SoapFault, WalkFreesItsNode) {
  utils::ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<errorCode>5</errorCode>"));
  utils::NodeXml* node = utils::FirstNode(parser.get()).release();
  int code = 0;
  boost::shared_ptr<std::string> description;
  _Extract_ErrorDescription(parser.get(), node, code, description);
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(5, code);
  _Extract_ErrorDescription(parser.get(), node, code, description);
}

struct Named {
  int code;
  std::string text;
};

Named ActionOf(const std::string& xml) {
  Named named{-1, "untouched"};
  named.code = GetActionName(xml, named.text);
  return named;
}

TEST(ActionName, StandsInFrontOfResponse) {
  EXPECT_EQ("Play", ActionOf("<u:PlayResponse xmlns:u=\"urn:s\"/>").text);
  EXPECT_EQ("Play", ActionOf("<m:PlayResponse xmlns:m=\"urn:s\"/>").text);
  EXPECT_EQ(0, ActionOf("<m:PlayResponse xmlns:m=\"urn:s\"/>").code);
  EXPECT_EQ("Get", ActionOf("<u:GetResponseResponse xmlns:u=''/>").text);
}

TEST(ActionName, RequestHasNone) {
  const Named named = ActionOf("<u:Play xmlns:u=\"urn:s\"></u:Play>");
  EXPECT_EQ(1, named.code);
  EXPECT_EQ("untouched", named.text);
}

TEST(ActionName, WhatIsNoResponseHasNone) {
  for (const char* xml : {"", "<PlayResponse/>", "<u:PlayResponse>", "<x:PlayResponse xmlns:x=''/>",
                          "xmlns:u <u:PlayResponse", "<u:Play xmlns:u='Response'/>"}) {
    EXPECT_EQ(1, ActionOf(xml).code) << xml;
  }
}

TEST(ActionName, EmptyNameIsAFailure) {
  const Named named = ActionOf("<u:Response xmlns:u=''/>");
  EXPECT_EQ(1, named.code);
  EXPECT_EQ("", named.text);
}

Named TypeOf(const std::string& urn) {
  Named named{-1, "untouched"};
  named.code = GetServiceType(urn, named.text);
  return named;
}

TEST(ServiceType, StandsBetweenServiceAndVersion) {
  const Named named = TypeOf("urn:schemas-upnp-org:service:AVTransport:1");
  EXPECT_EQ(0, named.code);
  EXPECT_EQ("AVTransport", named.text);
  EXPECT_EQ("a", TypeOf("service:a:b:c").text);
}

TEST(ServiceType, ControlNamespaceStandsForItself) {
  EXPECT_EQ("control-1-0", TypeOf("urn:schemas-upnp-org:control-1-0").text);
  EXPECT_EQ("control-1-0", TypeOf("urn:service:control-1-0x:1").text);
}

TEST(ServiceType, EachFailureHasItsLine) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, TypeOf("urn:x:AVTransport:1").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Service not found"));
  EXPECT_EQ(1, TypeOf("urn:service:AVTransport").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid index value"));
  EXPECT_EQ(1, TypeOf("urn:service::1").code);
  EXPECT_EQ(1, log.Count(16, kTag, "Service type is empty"));
  EXPECT_EQ("untouched", TypeOf("urn:service::1").text);
}

class Destination : public testing::Test {
 protected:
  void SetUp() override {
    device_ = boost::make_shared<cp_discovery::Device>();
    device_->udn = "uuid:1+lan0";
    device_->ip = "10.0.0.9";
    device_->port = 8200;
    device_->url_base = "http://10.0.0.9:8200/";
    device_->base_url = "http://10.0.0.9:8200/desc";
    device_->interface_ip = "10.0.0.1";
    for (const char* name : {"ConnectionManager", "AVTransport"}) {
      std::unique_ptr<cp_discovery::ServiceInfo> service(new cp_discovery::ServiceInfo);
      service->service_type = std::string("urn:schemas-upnp-org:service:") + name + ":1";
      service->control_url = std::string("/control/") + name;
      device_->services.push_back(std::move(service));
    }
  }
  void TearDown() override { cp_discovery::DeviceList::Terminate(); }

  void List() {
    const boost::shared_ptr<cp_discovery::DeviceList> list =
        cp_discovery::DeviceList::GetInstance();
    const boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    ASSERT_TRUE(list->Add(device_));
    ASSERT_TRUE(list->MarkReady(device_));
  }

  int Find(const std::string& type) {
    type_ = type;
    return GetHostAndControlUri("uuid:1+lan0", type_, host_, uri_);
  }

  boost::shared_ptr<cp_discovery::Device> device_;
  std::string type_;
  std::string host_ = "untouched";
  std::string uri_ = "untouched";
};

TEST_F(Destination, IsHostLineAndAbsoluteUrl) {
  List();
  EXPECT_EQ(0, Find("urn:schemas-upnp-org:service:AVTransport:1"));
  EXPECT_EQ("HOST:10.0.0.9:8200", host_);
  EXPECT_EQ("http://10.0.0.9:8200/control/AVTransport", uri_);
}

TEST_F(Destination, PartOfATypeInAnyCaseBecomesTheWholeType) {
  List();
  EXPECT_EQ(0, Find("avtransport"));
  EXPECT_EQ("urn:schemas-upnp-org:service:AVTransport:1", type_);
}

TEST_F(Destination, EmptyTypeTakesTheFirstService) {
  List();
  EXPECT_EQ(0, Find(""));
  EXPECT_EQ("urn:schemas-upnp-org:service:ConnectionManager:1", type_);
  EXPECT_EQ("http://10.0.0.9:8200/control/ConnectionManager", uri_);
}

TEST_F(Destination, TypeThatNoServiceHasStaysAndGivesNoUrl) {
  List();
  const vex_test::LogCapture log;
  EXPECT_EQ(1, Find("RenderingControl"));
  EXPECT_EQ("RenderingControl", type_);
  EXPECT_EQ("HOST:10.0.0.9:8200", host_);
  EXPECT_EQ(1, log.Count(16, kTag, "Error in Forming control URI"));
}

TEST_F(Destination, DeviceMustBeListed) {
  const vex_test::LogCapture log;
  EXPECT_EQ(1, Find(""));
  EXPECT_EQ(1, log.Count(16, kTag, "GetDeviceDetailInfo failed!"));
  EXPECT_EQ("untouched", host_);
}

TEST_F(Destination, DeviceMustHaveAnAddress) {
  device_->ip.clear();
  List();
  const vex_test::LogCapture log;
  EXPECT_EQ(1, Find(""));
  EXPECT_EQ(1, log.Count(16, kTag, "ip address empty!"));
  EXPECT_EQ("untouched", host_);
}

TEST(CpUtils, ShortageOfMemoryIsAFailureAndNoThrow) {
  const std::string text = "a value that is long enough to lie on the heap";
  const std::string xml = "<r><p><name val='" + text + "'><errorCode>5</errorCode>" +
                          "<errorDescription>" + text + "</errorDescription></name></p></r>";
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    Arguments arguments;
    std::string body;
    std::string cut;
    int code = 0;
    boost::shared_ptr<std::string> description;
    int results = 0;
    {
      const vex_test::FailAlloc fail(nth);
      results += GetOutputArglist(xml, arguments);
      results += ParseEventNotification(xml, arguments);
      results += GetErrCodeDescription(xml, code, description);
      results += GenerateSoapRequestBody("Play", "urn", arguments, body);
      results += GetXMLFromSoap(body, cut);
      failed = fail.Failed();
    }
    EXPECT_EQ(failed, results != 0) << nth;
    if (!failed) {
      EXPECT_LT(10, nth);
    }
  }
}

}  // namespace
}  // namespace cp_utils
}  // namespace vex_upnp

// The functions without a state of their own. What they give is known, also when all call at once.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/embeddedxmlparser.h>
#include <vexupnpcp/file_utils.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/string_utils.h>
#include <vexupnpcp/time_utils.h>
#include <vexupnpcp/xml_utils.h>
#include <vexupnpcp/xmlparsedata.h>
#include <vexupnpcp/xmlparser.h>

#include "tests/stress/host_calls.h"
#include "tests/stress/object_calls.h"
#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;
namespace cp_utils = vex_upnp::cp_utils;
namespace utils = vex_upnp::utils;

void Check(bool right, const char* what) {
  if (!right) Violation(std::string(what) + " gave something else");
}

constexpr char kFault[] =
    "<?xml version=\"1.0\"?><s:Envelope><s:Body><s:Fault><detail><UPnPError>"
    "<errorCode>701</errorCode><errorDescription>No</errorDescription>"
    "</UPnPError></detail></s:Fault></s:Body></s:Envelope>";
constexpr char kResponse[] =
    "<?xml version=\"1.0\"?><s:Envelope><s:Body><u:PlayResponse xmlns:u=\"x\"><Speed>1</Speed>"
    "</u:PlayResponse></s:Body></s:Envelope>";

void ReadSoap() {
  std::list<cp_utils::CPUtilsArgument> arguments;
  boost::shared_ptr<std::string> description;
  std::string xml, text;
  int code = 0;
  Check(cp_utils::GetXMLFromSoap(kFault, xml) == 0, "GetXMLFromSoap");
  cp_utils::GetErrCodeDescription(xml, code, description);
  Check(code == 701 && description && *description == "No", "GetErrCodeDescription");
  Check(cp_utils::GetXMLFromSoap(kResponse, xml) == 0, "GetXMLFromSoap");
  Check(cp_utils::GetOutputArglist(xml, arguments) == 0 && arguments.size() == 1,
        "GetOutputArglist");
  Check(cp_utils::GetActionName(xml, text) == 0 && text == "Play", "GetActionName");
  Check(cp_utils::GetServiceType("urn:schemas-upnp-org:service:AVTransport:1", text) == 0 &&
            text == "AVTransport",
        "GetServiceType");
  arguments.clear();
  Check(cp_utils::ParseEventNotification("<e:propertyset xmlns:e=\"x\"><e:property><A>1</A>"
                                         "</e:property></e:propertyset>",
                                         arguments) == 0 &&
            arguments.size() == 1,
        "ParseEventNotification");
  cp_utils::SetListArgument("B", "2", arguments);
  Check(arguments.size() == 2, "SetListArgument");
}

void HandleMetadata() {
  std::string protocol, network, format, info, text = "abc&am";
  cp_utils::ResizeEscapedString(text);
  Check(text == "abc", "ResizeEscapedString");
  Check(cp_utils::EscapeMetaDataValue(2, "&", text) == 0 && text == "&amp;amp;",
        "EscapeMetaDataValue");
  text.clear();
  Check(cp_utils::UnescapeXmlValue("&lt;", text) == 0 && text == "<", "UnescapeXmlValue");
  Check(cp_utils::ParseProtocolInfo("http-get:*:audio/mpeg:*", protocol, format, info) == 1 &&
            format == "audio/mpeg",
        "ParseProtocolInfo");
  Check(cp_utils::ParseProtocolInfo("http-get:*:audio/mpeg:*", protocol, network, format, info) ==
                1 &&
            network == "*",
        "ParseProtocolInfo");
  Check(cp_utils::GetIPFromResource("http://10.0.0.7:80/x", text) == 0 && text == "10.0.0.7",
        "GetIPFromResource");
  std::string title(2000, 't');
  Check(cp_utils::ValidateDIDLProperty("dc:title", title) == 0 && title.size() < 2000,
        "ValidateDIDLProperty");
}

void HandleTexts() {
  std::string host, path, port_text, text = " x ";
  int port = 0;
  utils::StringUtils::TrimStringOnLeft(text);
  utils::StringUtils::TrimStringOnRight(text);
  Check(text == "x", "TrimString");
  char* const copy = utils::StringUtils::StrDup("abc");
  char* const value = utils::StringUtils::GetValue("abc");
  Check(std::strcmp(copy, value) == 0, "StrDup");
  Check(utils::StringUtils::StrNStr(copy, 3, "bc") == copy + 1, "StrNStr");
  std::free(copy);
  std::free(value);
  Check(utils::StringUtils::GetHashValue("abc", text) && !text.empty(), "GetHashValue");
  utils::StringUtils::EscapeURI("a b/", text);
  Check(utils::StringUtils::ParseURI("http://h:1/p", host, port, path) && port == 1, "ParseURI");
  Check(utils::StringUtils::ParseRelayURI("h", host, port_text, path) == 0 && port_text == "80",
        "ParseRelayURI");
  Check(
      utils::StringUtils::GetAbsoluteUri("/x", "", "h", 1, "", text) == 0 && text == "http://h:1/x",
      "GetAbsoluteUri");
  Check(utils::XmlEscapeValue("<&>", text) == 0 && text == "&lt;&amp;&gt;", "XmlEscapeValue");
  Check(utils::XmlUnescapeValue(text, text) == 0 && text == "<&>", "XmlUnescapeValue");
  text = "&#65;";
  Check(utils::ConvertSpecialNumbers(text) == 0 && text == "A", "ConvertSpecialNumbers");
  Check(utils::Generate_CurrentDate(text) == 0 && !text.empty(), "Generate_CurrentDate");
}

void ReadDocument() {
  const std::string xml = "<a one=\"1\" two=\"2\"><b>text</b><c/></a>";
  utils::XmlParser parser;
  utils::NodeXml* node = nullptr;
  std::vector<std::string> attributes;
  std::string name = "two", value;
  int count = 0, type = 0;
  Check(utils::XmlParserGetDomMA(xml, parser) == 1, "XmlParserGetDomMA");
  Check(utils::XmlParserGetFirstNode(parser, node) == 1 && node->name == "a",
        "XmlParserGetFirstNode");
  Check(utils::XmlGetAttributeChar(node, "one", value) == 1 && value == "1", "XmlGetAttributeChar");
  Check(utils::XmlGetAttribute(node, name, value) == 1 && value == "2", "XmlGetAttribute");
  utils::XmlGetAttributeName(node, name, value);
  Check(utils::XmlGetAllNodeAttributes(node, attributes) == 1 && attributes.size() == 4,
        "XmlGetAllNodeAttributes");
  utils::XmlParserFreeNode(node);
  Check(utils::XmlGetCurrentNodeChildCount(parser, count) == 1 && count == 2,
        "XmlGetCurrentNodeChildCount");
  utils::XmlGetCurNodeFirstChildType(parser, type);
  node = nullptr;
  Check(utils::XmlParserGetChildNode(parser, node) == 1 && node->value == "text",
        "XmlParserGetChildNode");
  utils::XmlParserFreeNode(node);
  node = nullptr;
  Check(utils::XmlParserGetNextNode(parser, node) == 1 && node->name == "c",
        "XmlParserGetNextNode");
  utils::XmlParserFreeNode(node);
  utils::XmlParserStepBackToParentNode(parser);
  utils::XmlParserDestroy(parser);
}

void BuildTree() {
  std::string text = "<r><i/><i/></r>";
  utils::DomParser parser;
  Check(utils::EmXmlParser::InitializeCParser(text.c_str(), static_cast<int>(text.size()),
                                              parser) == 0 &&
            utils::EmXmlParser::ParseXmlData(parser) == 0,
        "ParseXmlData");
  utils::DomNode* const document = parser.document;
  utils::DomNode* const found = utils::MakeDomTree::GetElementsByTagNameDomDocument(document, "i");
  Check(found != nullptr && found->childCount == 2, "GetElementsByTagNameDomDocument");
  for (utils::DomNode* entry = found == nullptr ? nullptr : found->firstChild; entry != nullptr;) {
    utils::DomNode* const next = entry->nextSibling;
    utils::MakeDomTree::ClearDomNode(entry);
    entry = next;
  }
  if (found != nullptr) utils::MakeDomTree::ClearDomNode(found);
  char name[] = "new";
  utils::DomNode* const element = utils::MakeDomTree::CreateElementDomDocument(document, name);
  utils::DomNode* const root = utils::MakeDomTree::GetFirstChildDomDocument(document);
  Check(utils::MakeDomTree::SetAttributeDomElement(element, "a", "1") == 1 &&
            utils::MakeDomTree::InsertBeforeDomNode(root, element, nullptr) == element &&
            utils::MakeDomTree::RemoveChildDomNode(element, root) == element,
        "MakeDomTree");
  utils::MakeDomTree::FreeDomNode(element);
  utils::MakeDomTree::FreeDomDocument(document);
  parser.document = nullptr;
}

void ReadMessage() {
  const std::string first = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nX: y\r\n\r\nab", second = "cd";
  auto info = boost::make_shared<utils::HTTPInfo>();
  std::string text;
  Check(utils::HTTPParser::Parse(first.data(), static_cast<unsigned>(first.size()), info) == 0,
        "Parse");
  info->SetParsingStatus(utils::PARSING_CONTINUE);
  Check(utils::HTTPParser::Parse(second.data(), static_cast<unsigned>(second.size()), info) == 0 &&
            info->GetState() == utils::MESSAGE_COMPLETE && info->GetStatusCode() == 200,
        "Parse");
  Check(info->GetHeaderValue("x", text) == 0 && text == "y", "GetHeaderValue");
  text.clear();
  Check(info->ReadBody(text) == 0 && text == "abcd", "ReadBody");
  Check(utils::GetRequestType("GET") == utils::HTTP_GET, "GetRequestType");
  Check(std::strcmp(utils::GetRequestString(utils::HTTP_GET), "GET") == 0, "GetRequestString");
  Check(utils::GetStatusString(404) != nullptr, "GetStatusString");
}

// Tokens one by one, and a document read into a flat list.
void ReadTokens() {
  std::string text = "<a b='c'/>";
  utils::DomParser parser;
  utils::EmXmlParser::InitializeCParser(text.c_str(), static_cast<int>(text.size()), parser);
  Check(utils::EmXmlParser::NextToken(parser) == utils::kXmlTokenTagStart &&
            utils::EmXmlParser::NextToken(parser) == utils::kXmlTokenText &&
            utils::EmXmlParser::SkipSpaces(parser) == utils::kXmlTokenText &&
            utils::EmXmlParser::NextToken(parser) == utils::kXmlTokenEqual &&
            utils::EmXmlParser::NextToken(parser) == utils::kXmlTokenSingleQuote &&
            utils::EmXmlParser::NextToken2('\'', parser) == utils::kXmlTokenText,
        "NextToken");
  utils::XmlParser document;
  utils::NodeXml* node = nullptr;
  std::list<cp_utils::CPUtilsArgument> arguments;
  utils::XmlParserGetDomMA("<r><x>1</x><y val=\"2\"/></r>", document);
  utils::XmlParserGetFirstNode(document, node);
  Check(cp_utils::MakeArgumentList(node, document, arguments) == 0 && arguments.size() == 3 &&
            arguments.back().value == "2",
        "MakeArgumentList");
}

// A file that only this thread knows.
void HandleFile(int number) {
  const std::string path =
      "/tmp/vex-stress-" + std::to_string(getpid()) + "-" + std::to_string(number);
  utils::VEXFileStream stream;
  long long size = 0;
  Check(stream.Open(path, utils::VEXFileStream::OPEN_WRITE) == 0, "Open");
  Check(stream.WriteBuffer(3, "abc") == 0, "WriteBuffer");
  stream.Close();
  char* content = nullptr;
  Check(utils::ReadFileUTF8(path, &content) == 0 && std::strcmp(content, "abc") == 0,
        "ReadFileUTF8");
  delete[] content;
  std::fstream plain;
  Check(utils::OpenFileStream(path, std::ios::in, plain) == 0, "OpenFileStream");
  Check(stream.Open(path, utils::VEXFileStream::OPEN_READ) == 0 && stream.IsOpen() &&
            stream.GetSize(size) == 0 && size == 3,
        "GetSize");
  char bytes[4] = "";
  long long position = 1;
  Check(stream.SeekToPosition(position, utils::VEXFileStream::SEEK_FROM_START) == 0 &&
            stream.ReadBuffer(2, bytes) == 2 && std::strcmp(bytes, "bc") == 0,
        "ReadBuffer");
  stream.Close();
  std::string found, full;
  utils::CheckFileExistance("/tmp/", {path.substr(5)}, found, full);
  Check(full == path, "CheckFileExistance");
  stream.Delete(path);
}

}  // namespace

void HostThread::UseUtilities() {
  const Call call("utilities");
  switch (Dice(12)) {
    case 0:
      ReadSoap();
      break;
    case 1:
      HandleMetadata();
      break;
    case 2:
      HandleTexts();
      break;
    case 3:
      ReadDocument();
      break;
    case 4:
      BuildTree();
      break;
    case 5:
      ReadMessage();
      break;
    case 6:
      ReadTokens();
      break;
    case 7:
      HandleMessage();
      break;
    case 8:
      BuildDocument();
      break;
    case 9:
      WalkDocument();
      break;
    case 10:
      WalkFault();
      break;
    default:
      HandleFile(slot_);
  }
}

}  // namespace vex_stress

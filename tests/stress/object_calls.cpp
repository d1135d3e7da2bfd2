// Objects of the utilities that one thread has for itself. What they give is known, also when all
// threads work on theirs at once.
#include "tests/stress/object_calls.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/string_utils.h>
#include <vexupnpcp/xmlparsedata.h>
#include <vexupnpcp/xmlparser.h>

#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

namespace cp_utils = vex_upnp::cp_utils;
namespace utils = vex_upnp::utils;

void Check(bool right, const char* what) {
  if (!right) Violation(std::string(what) + " gave something else");
}

void AskMessage(utils::HTTPInfo& info) {
  std::string text;
  int major = 0, minor = 0;
  info.GetHTTPVersion(major, minor);
  Check(major == 1 && minor == 1, "GetHTTPVersion");
  Check(info.GetStartLine(text) == 0 && text == "POST /x HTTP/1.1", "GetStartLine");
  Check(info.GetURI(text) == 0 && text == "/x", "GetURI");
  Check(info.IsRequest() && info.GetRequestType() == utils::HTTP_POST, "IsRequest");
  Check(info.GetStatus() == utils::HEADER_COMPLETE, "GetStatus");
  Check(info.GetParsingStatus() == utils::PARSING_RETURN, "GetParsingStatus");
  Check(info.GetContentLength() == 4 && info.GetProcessedBodySize() == 2, "GetContentLength");
  Check(info.GetHeaderCount() == 2, "GetHeaderCount");
  Check(info.GetRawHeaderSize() > 0 && info.GetBodyCost() > 0 &&
            info.GetHeldSize() > info.GetRawHeaderSize(),
        "GetHeldSize");
  Check(info.CheckStringValidity("text"), "CheckStringValidity");
}

void ChangeMessage(utils::HTTPInfo& info) {
  std::string text;
  std::vector<utils::NameValue*> headers;
  unsigned int size = 0, consumed = 0;
  int port = 0;
  Check(info.GetHex("", 0, consumed) == nullptr, "GetHex");
  Check(info.StoreData("cd", 2) == 0, "StoreData");
  char* const body = info.GetBody(size);
  Check(size == 4 && std::memcmp(body, "abcd", 4) == 0, "GetBody");
  std::free(body);
  Check(info.SetHeader("Y", "z") == 0, "SetHeader");
  Check(info.GetHeader(headers) == 0 && headers.size() == 3, "GetHeader");
  info.FormatStartLine();
  Check(info.GetHeader(text) == 0 && text.find("Y: z\r\n") != std::string::npos, "GetHeader");
  info.SetClientIpAddress("10.0.0.7");
  info.SetMyIpAddress("10.0.0.8");
  info.SetClientPort(7);
  info.GetClientIpAddress(text);
  Check(text == "10.0.0.7", "GetClientIpAddress");
  info.GetMyIpAddress(text);
  Check(text == "10.0.0.8", "GetMyIpAddress");
  info.GetClientPort(port);
  Check(port == 7, "GetClientPort");
  info.CleanInfo();
  Check(info.GetHeaderCount() == 0, "CleanInfo");
}

char* Copy(const char* text) { return utils::StringUtils::StrDup(text); }

}  // namespace

void HandleMessage() {
  const std::string message = "POST /x HTTP/1.1\r\nContent-Length: 4\r\nX: y\r\n\r\nab";
  auto info = boost::make_shared<utils::HTTPInfo>();
  Check(utils::HTTPParser::Parse(message.data(), static_cast<unsigned>(message.size()), info) == 0,
        "Parse");
  AskMessage(*info);
  ChangeMessage(*info);
}

void BuildDocument() {
  utils::DomParser parser;
  utils::DomNode* document = nullptr;
  char name[] = "root", text[] = "text";
  Check(utils::MakeDomTree::CreateDocumentDomDocument(parser, document) == 1,
        "CreateDocumentDomDocument");
  utils::DomNode* const root = utils::MakeDomTree::CreateElementDomDocument(document, name);
  utils::DomNode* const leaf = utils::MakeDomTree::CreateTextNodeDomDocument(document, text);
  utils::DomNode* const loose = utils::MakeDomTree::CreateAttributeDomDocument(document, name);
  Check(utils::MakeDomTree::InsertBeforeDomNode(document, root, nullptr) == root &&
            utils::MakeDomTree::InsertBeforeDomNode(root, leaf, nullptr) == leaf &&
            utils::MakeDomTree::GetFirstChildDomNode(root) == leaf,
        "GetFirstChildDomNode");
  utils::MakeDomTree::ClearDomNode(loose);
  utils::MakeDomTree::ClearDomNode(utils::MakeDomTree::AllocateANode(nullptr));
  Check(utils::MakeDomTree::RemoveChildDomNode(root, document) == root, "RemoveChildDomNode");
  utils::MakeDomTree::FreeDomNodeRecursively(root);
  utils::MakeDomTree::FreeDomDocument(document);
}

void WalkDocument() {
  using Parser = utils::XMLDataParser;
  const auto is = [](utils::NodeXml* node, const char* name) {
    const std::unique_ptr<utils::NodeXml> owned(node);
    return owned && owned->name == name;
  };
  utils::XmlParser parser;
  Check(Parser::XMLParserInit(parser) == -1, "XMLParserInit");
  Check(Parser::XMLParserGetDomMA("<a><b> x </b><c/></a>", parser) == 1, "XMLParserGetDomMA");
  Check(is(Parser::XMLParserGetFirstNode(parser), "a"), "XMLParserGetFirstNode");
  Check(is(Parser::XMLParserGetChildNode(parser), "b"), "XMLParserGetChildNode");
  Check(is(Parser::XMLParserGetNextNode(parser), "c"), "XMLParserGetNextNode");
  Parser::XMLParserStepBackToParentNode(parser);
  utils::NodeXml* node = nullptr;
  Parser::CreateNodeData(parser, parser.document->firstChild, node);
  Check(is(node, "a"), "CreateNodeData");
  Parser::XMLParserDestroy(parser);
  std::string text = " x ";
  Parser::StringTrimRightLeft(text);
  Check(text == "x", "StringTrimRightLeft");
}

void WalkFault() {
  utils::XmlParser parser;
  utils::NodeXml* node = nullptr;
  boost::shared_ptr<std::string> description;
  int code = 0;
  utils::XmlParserGetDomMA("<e><errorCode>7</errorCode><errorDescription>No</errorDescription></e>",
                           parser);
  utils::XmlParserGetFirstNode(parser, node);
  cp_utils::_Extract_ErrorDescription(parser, node, code, description);
  Check(code == 7 && description && *description == "No" && node == nullptr,
        "_Extract_ErrorDescription");
  utils::XmlParserDestroy(parser);
  std::string text = " \tx ";
  utils::StringUtils::TrimString(text);
  Check(text == "x", "TrimString");
  auto* const header = static_cast<vex_upnp::streaming::stArgument*>(
      std::malloc(sizeof(vex_upnp::streaming::stArgument)));
  *header = {Copy("X"), Copy("y"), nullptr};
  vex_upnp::streaming::FreeAdditionalHeaders(header);
}

}  // namespace vex_stress

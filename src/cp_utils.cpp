#include <vexupnpcp/cp_utils.h>

#include <new>
#include <utility>

#include <boost/algorithm/string/find.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/log.h"
#include "base/number_text.h"
#include "src/request_packets.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace cp_utils {

using log::kTagCpUtils;
using utils::NodePtr;
using utils::NodeXml;
using utils::XmlParser;

namespace {

constexpr char kXmlDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
// SOAP 1.1, sections 3 and 5.
constexpr char kEnvelopeNamespace[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr char kEncodingNamespace[] = "http://schemas.xmlsoap.org/soap/encoding/";

// KEPT: an envelope under any other prefix is not understood.
constexpr const char* kBodyStarts[] = {"<s:Body", "<SOAP-ENV:Body"};
constexpr const char* kBodyEnds[] = {"</s:Body>", "</SOAP-ENV:Body>"};
// From the start tag's beginning on, the content's first "<" lies at least so far behind.
constexpr std::size_t kShortestPrefix = 5;

constexpr char kValueAttribute[] = "val";
constexpr char kErrorCode[] = "errorCode";
constexpr char kErrorDescription[] = "errorDescription";

template <std::size_t kCount>
std::size_t FindFirstOf(const std::string& text, const char* const (&candidates)[kCount]) {
  for (const char* candidate : candidates) {
    const std::size_t found = text.find(candidate);
    if (found != std::string::npos) return found;
  }
  return std::string::npos;
}

bool HoldsIgnoringCase(const std::string& text, const std::string& piece) {
  return piece.empty() || !boost::ifind_first(text, piece).empty();
}

CPUtilsArgument ArgumentOf(NodeXml& node) {
  CPUtilsArgument argument;
  argument.name = node.name;
  if (utils::XmlGetAttributeChar(&node, kValueAttribute, argument.value) != result::kYes) {
    argument.value = node.value;
  }
  return argument;
}

// Whether the cursor's element has children of which the first is an element.
bool HasElementChild(XmlParser& parser) {
  int children = 0;
  int first_type = 0;
  return utils::XmlGetCurrentNodeChildCount(parser, children) == result::kYes && children > 0 &&
         utils::XmlGetCurNodeFirstChildType(parser, first_type) == result::kYes &&
         first_type == utils::kDomElement;
}

NodePtr DownOrOn(XmlParser& parser) {
  return HasElementChild(parser) ? utils::ChildNode(parser) : utils::NextNode(parser);
}

// Opens a document and stands on its root. The caller logs a missing root in its own words.
bool OpenDocument(utils::ScopedXmlParser& document, const std::string& xml) {
  if (document.Parse(xml)) return true;
  VEX_LOG(kLogMajor, kTagCpUtils, "XML Parsing Failed");
  return false;
}

}  // namespace

int GenerateSoapRequestBody(const std::string& action, const std::string& service_type,
                            std::list<CPUtilsArgument>& args, std::string& body) {
  std::string lines;
  for (const CPUtilsArgument& argument : args) {
    if (argument.name.empty()) continue;
    if (argument.value.empty()) {
      lines.append("<").append(argument.name).append("/>\r\n");
    } else {
      lines.append("<").append(argument.name).append(">").append(argument.value);
      lines.append("</").append(argument.name).append(">\r\n");
    }
  }
  body.assign(kXmlDeclaration);
  body.append("<s:Envelope s:encodingStyle=\"").append(kEncodingNamespace);
  body.append("\" xmlns:s=\"").append(kEnvelopeNamespace).append("\">\r\n<s:Body>\r\n");
  body.append("<u:").append(action).append(" xmlns:u=\"").append(service_type).append("\">\r\n");
  body.append(lines);
  body.append("</u:").append(action).append(">\r\n");
  body.append("</s:Body>\r\n</s:Envelope>");
  return result::kOk;
}

int GetXMLFromSoap(const std::string& soap, std::string& xml) {
  const std::size_t start = FindFirstOf(soap, kBodyStarts);
  if (start == std::string::npos) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Soap body start tag is not present!");
    return result::kFailure;
  }
  const std::size_t end = FindFirstOf(soap, kBodyEnds);
  if (end == std::string::npos) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Soap body end tag is not present!");
    return result::kFailure;
  }
  if (start > end) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Invalid Soap tags");
    return result::kFailure;
  }
  const std::size_t content = soap.find('<', start + kShortestPrefix);
  if (content == std::string::npos) {
    VEX_LOG(kLogMajor, kTagCpUtils, " Invalid Soap Response");
    return result::kFailure;
  }
  if (content >= end) return result::kFailure;
  xml.assign(kXmlDeclaration).append(soap, content, end - content);
  return result::kOk;
}

int GetOutputArglist(const std::string& xml, std::list<CPUtilsArgument>& args) {
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  utils::FirstNode(document.get());
  NodePtr node = utils::ChildNode(document.get());
  if (!node) {
    VEX_LOG(kLogMajor, kTagCpUtils, "GetChildNode Failed!");
    return result::kFailure;
  }
  for (; node; node = utils::NextNode(document.get())) {
    CPUtilsArgument argument;
    argument.name.swap(node->name);
    argument.value.swap(node->value);
    args.push_back(std::move(argument));
  }
  return result::kOk;
}

int ParseEventNotification(const std::string& xml, std::list<CPUtilsArgument>& vars) {
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  XmlParser& parser = document.get();
  if (!utils::FirstNode(parser)) {
    VEX_LOG(kLogMajor, kTagCpUtils, "ROOT node is empty in the XML");
    return result::kFailure;
  }
  NodePtr property = utils::ChildNode(parser);
  if (!property) return result::kFailure;
  for (; property; property = utils::NextNode(parser)) {
    // KEPT: only the first variable of a property; one without a variable clears the cursor and
    // ends the walk.
    const NodePtr variable = utils::ChildNode(parser);
    if (!variable) break;
    vars.push_back(ArgumentOf(*variable));
    utils::XmlParserStepBackToParentNode(parser);
  }
  return result::kOk;
}

int MakeArgumentList(NodeXml* node, XmlParser parser, std::list<CPUtilsArgument>& args) {
  NodePtr current(node);
  if (!current) {
    VEX_LOG(kLogMajor, kTagCpUtils, "XML Parsing Failed");
    utils::XmlParserDestroy(parser);
    return result::kFailure;
  }
  while (current) {
    args.push_back(ArgumentOf(*current));
    NodePtr next = DownOrOn(parser);
    if (!next) {
      utils::XmlParserStepBackToParentNode(parser);
      if (utils::NextNode(parser)) next = utils::ChildNode(parser);
    }
    current = std::move(next);
  }
  utils::XmlParserDestroy(parser);
  return result::kOk;
}

void _Extract_ErrorDescription(XmlParser& parser, NodeXml*& node, int& code,
                               boost::shared_ptr<std::string>& description) {
  NodePtr current(node);
  node = nullptr;
  for (; current; current = DownOrOn(parser)) {
    if (HoldsIgnoringCase(current->name, kErrorCode)) {
      int value = 0;
      if (!ToNumber(current->value, value)) {
        VEX_LOG(kLogMajor, kTagCpUtils, "Input errorCode string was not valid!!!");
        return;
      }
      code = value;
    }
    if (HoldsIgnoringCase(current->name, kErrorDescription)) {
      description.reset(new std::string(current->value));
    }
  }
}

int GetErrCodeDescription(const std::string& xml, int& code,
                          boost::shared_ptr<std::string>& description) {
  if (xml.empty()) {
    VEX_LOG(kLogMajor, kTagCpUtils, "GetErrCodeDescription :: xmldata is empty");
    return result::kFailure;
  }
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  if (!utils::FirstNode(document.get())) {
    VEX_LOG(kLogMajor, kTagCpUtils, "ROOT node is empty in the XML");
    return result::kFailure;
  }
  NodeXml* child = utils::ChildNode(document.get()).release();
  _Extract_ErrorDescription(document.get(), child, code, description);
  return description && !description->empty() ? result::kOk : result::kFailure;
}

int GetActionName(const std::string& xml, std::string& action) {
  static constexpr const char* kStarts[] = {"<u:", "<m:"};
  static constexpr const char* kEnds[] = {"xmlns:u", "xmlns:m"};
  static constexpr std::size_t kPrefixLength = 3;
  static constexpr char kResponse[] = "Response";
  const std::size_t tag = FindFirstOf(xml, kStarts);
  if (tag == std::string::npos) return result::kFailure;
  const std::size_t start = tag + kPrefixLength;
  const std::size_t end = FindFirstOf(xml, kEnds);
  if (end == std::string::npos || end < start) return result::kFailure;
  const std::string element = xml.substr(start, end - start);
  const std::size_t name_end = element.find(kResponse);
  if (name_end == std::string::npos) return result::kFailure;
  action = element.substr(0, name_end);
  return action.empty() ? result::kFailure : result::kOk;
}

int GetServiceType(const std::string& urn, std::string& type) {
  static constexpr char kControlNamespace[] = "control-1-0";
  static const std::string kService = "service:";
  if (urn.find(kControlNamespace) != std::string::npos) {
    type = kControlNamespace;
    return result::kOk;
  }
  const std::size_t found = urn.find(kService);
  if (found == std::string::npos) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Service not found");
    return result::kFailure;
  }
  const std::size_t start = found + kService.size();
  const std::size_t end = urn.find(':', start);
  if (end == std::string::npos) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Invalid index value");
    return result::kFailure;
  }
  if (end == start) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Service type is empty");
    return result::kFailure;
  }
  type = urn.substr(start, end - start);
  return result::kOk;
}

int GetHostAndControlUri(const std::string& udn, std::string& service_type, std::string& host,
                         std::string& control_uri) {
  cp_discovery::DetailedDeviceInfo info;
  if (cp_discovery::GetDeviceDetailInfo(udn, &info) != result::kOk) {
    VEX_LOG(kLogMajor, kTagCpUtils, "GetDeviceDetailInfo failed!");
    return result::kFailure;
  }
  if (info.device_ip.empty()) {
    VEX_LOG(kLogMajor, kTagCpUtils, "ip address empty!");
    return result::kFailure;
  }
  host = FormatHostLine(info.device_ip, info.device_port);
  std::string control_url;
  for (const cp_discovery::DeviceServiceInfo& service : info.services) {
    if (!HoldsIgnoringCase(service.service_type, service_type)) continue;
    service_type = service.service_type;
    control_url = service.control_url;
    break;
  }
  if (utils::StringUtils::GetAbsoluteUri(control_url, info.url_base, info.device_ip,
                                         info.device_port, info.description_path,
                                         control_uri) != result::kOk) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Error in Forming control URI");
    return result::kFailure;
  }
  return result::kOk;
}

}  // namespace cp_utils
}  // namespace vex_upnp

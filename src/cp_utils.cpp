#include <vexupnpcp/cp_utils.h>

#include <algorithm>
#include <new>
#include <string_view>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>
#include <vexupnpcp/xml_utils.h>

#include "base/ascii_text.h"
#include "base/log.h"
#include "base/number_text.h"
#include "src/didl_properties.h"
#include "src/request_packets.h"
#include "xmlparser/src/dom_cursor.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace cp_utils {

using log::kTagCpUtils;
using utils::DomNode;
using utils::NodePtr;
using utils::NodeXml;
using utils::XmlParser;

namespace {

constexpr char kTagMrcp[] = "VEX_CORE_MRCP";

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

bool HoldsIgnoringCase(std::string_view text, std::string_view piece) {
  const auto found = std::search(text.begin(), text.end(), piece.begin(), piece.end(),
                                 [](char a, char b) { return ToLowerAscii(a) == ToLowerAscii(b); });
  return found != text.end() || piece.empty();
}

// With the attribute `val` as its value, or else its text.
CPUtilsArgument ArgumentOf(const DomNode& element) {
  std::string_view value = utils::ElementValue(element);
  utils::FindAttribute(element, kValueAttribute, value);
  return CPUtilsArgument{std::string(utils::ElementName(element)), std::string(value)};
}

CPUtilsArgument ArgumentOf(NodeXml& node) {
  CPUtilsArgument argument;
  argument.name = node.name;
  if (utils::XmlGetAttributeChar(&node, kValueAttribute, argument.value) != result::kYes) {
    argument.value = node.value;
  }
  return argument;
}

// Descends where the cursor's element begins with an element, else goes on to the next sibling.
DomNode* DownOrOn(XmlParser& parser) {
  int first_type = 0;
  const bool descends = utils::XmlGetCurNodeFirstChildType(parser, first_type) == result::kYes &&
                        first_type == utils::kDomElement;
  return descends ? utils::MoveToChild(parser) : utils::MoveToNext(parser);
}

// One element of a fault; false when it holds a code that is no number.
bool ReadErrorElement(std::string_view name, std::string_view value, int& code,
                      boost::shared_ptr<std::string>& description) {
  if (HoldsIgnoringCase(name, kErrorCode)) {
    int number = 0;
    if (!ToNumber(value.data(), value.size(), number)) {
      VEX_LOG(kLogMajor, kTagCpUtils, "Input errorCode string was not valid!!!");
      return false;
    }
    code = number;
  }
  if (HoldsIgnoringCase(name, kErrorDescription)) {
    description.reset(new std::string(value));
  }
  return true;
}

bool OpenDocument(utils::ScopedXmlParser& document, const std::string& xml) {
  if (document.Parse(xml)) return true;
  VEX_LOG(kLogMajor, kTagCpUtils, "XML Parsing Failed");
  return false;
}

}  // namespace

int GenerateSoapRequestBody(const std::string& action, const std::string& service_type,
                            std::list<CPUtilsArgument>& args, std::string& body) try {
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
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int GetXMLFromSoap(const std::string& soap, std::string& xml) try {
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
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int GetOutputArglist(const std::string& xml, std::list<CPUtilsArgument>& args) try {
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  utils::MoveToFirst(document.get());
  const DomNode* node = utils::MoveToChild(document.get());
  if (node == nullptr) {
    VEX_LOG(kLogMajor, kTagCpUtils, "GetChildNode Failed!");
    return result::kFailure;
  }
  for (; node != nullptr; node = utils::MoveToNext(document.get())) {
    args.push_back(CPUtilsArgument{std::string(utils::ElementName(*node)),
                                   std::string(utils::ElementValue(*node))});
  }
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int ParseEventNotification(const std::string& xml, std::list<CPUtilsArgument>& vars) try {
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  XmlParser& parser = document.get();
  if (utils::MoveToFirst(parser) == nullptr) {
    VEX_LOG(kLogMajor, kTagCpUtils, "ROOT node is empty in the XML");
    return result::kFailure;
  }
  const DomNode* property = utils::MoveToChild(parser);
  if (property == nullptr) return result::kFailure;
  for (; property != nullptr; property = utils::MoveToNext(parser)) {
    // KEPT: only the first variable of a property; one without a variable clears the cursor and
    // ends the walk.
    const DomNode* const variable = utils::MoveToChild(parser);
    if (variable == nullptr) break;
    vars.push_back(ArgumentOf(*variable));
    utils::StepBack(parser);
  }
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int MakeArgumentList(NodeXml* node, XmlParser parser, std::list<CPUtilsArgument>& args) try {
  NodePtr current(node);
  if (!current) {
    VEX_LOG(kLogMajor, kTagCpUtils, "XML Parsing Failed");
    utils::XmlParserDestroy(parser);
    return result::kFailure;
  }
  args.push_back(ArgumentOf(*current));
  for (;;) {
    const DomNode* next = DownOrOn(parser);
    if (next == nullptr) {
      utils::StepBack(parser);
      if (utils::MoveToNext(parser) != nullptr) next = utils::MoveToChild(parser);
    }
    if (next == nullptr) break;
    args.push_back(ArgumentOf(*next));
  }
  utils::XmlParserDestroy(parser);
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

void _Extract_ErrorDescription(XmlParser& parser, NodeXml*& node, int& code,
                               boost::shared_ptr<std::string>& description) try {
  const NodePtr first(node);
  node = nullptr;
  if (!first || !ReadErrorElement(first->name, first->value, code, description)) return;
  while (const DomNode* const element = DownOrOn(parser)) {
    if (!ReadErrorElement(utils::ElementName(*element), utils::ElementValue(*element), code,
                          description)) {
      return;
    }
  }
} catch (const std::bad_alloc&) {
  // What was found so far stands.
}

int GetErrCodeDescription(const std::string& xml, int& code,
                          boost::shared_ptr<std::string>& description) try {
  if (xml.empty()) {
    VEX_LOG(kLogMajor, kTagCpUtils, "GetErrCodeDescription :: xmldata is empty");
    return result::kFailure;
  }
  utils::ScopedXmlParser document;
  if (!OpenDocument(document, xml)) return result::kFailure;
  if (utils::MoveToFirst(document.get()) == nullptr) {
    VEX_LOG(kLogMajor, kTagCpUtils, "ROOT node is empty in the XML");
    return result::kFailure;
  }
  NodeXml* child = utils::ChildNode(document.get()).release();
  _Extract_ErrorDescription(document.get(), child, code, description);
  return description && !description->empty() ? result::kOk : result::kFailure;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int GetActionName(const std::string& xml, std::string& action) try {
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
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int GetServiceType(const std::string& urn, std::string& type) try {
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
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int GetHostAndControlUri(const std::string& udn, std::string& service_type, std::string& host,
                         std::string& control_uri) try {
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
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

int ValidateDIDLProperty(const std::string& tag, std::string& value) {
  if (tag.empty()) {
    VEX_LOG(kLogMajor, kTagCpUtils, "Invalid DIDL tag!");
    return result::kFailure;
  }
  const DIDL_Property* const property = FindDidlProperty(tag);
  if (property == nullptr) return result::kFailure;
  const std::size_t longest = static_cast<std::size_t>(property->max_length);
  if (value.size() >= longest) {
    VEX_LOG(kLogStep, kTagCpUtils, "Resizing property from %d to %d",
            static_cast<int>(value.size()), static_cast<int>(property->max_length));
    value.resize(longest);
  }
  return result::kOk;
}

int EscapeMetaDataValue(const int& passes, const std::string& in, std::string& out) try {
  if (in.empty()) {
    out.clear();
    return result::kOk;
  }
  std::string text(in);
  for (int pass = 0; pass < passes; ++pass) {
    out.clear();
    if (utils::XmlEscapeValue(text, out) != result::kOk) return result::kFailure;
    if (out == text) break;
    text = out;
  }
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

void ResizeEscapedString(std::string& text) {
  const std::size_t last = text.rfind('&');
  if (last != std::string::npos && text.find(';', last) == std::string::npos) text.resize(last);
}

int ParseProtocolInfo(const std::string& info, std::string& protocol, std::string& content_format,
                      std::string& additional_info) try {
  const std::size_t first = info.find(':');
  if (first == std::string::npos) return result::kNo;
  protocol = info.substr(0, first);
  // KEPT: without a second ":" the search goes on from the beginning, and the first field comes
  // out once more.
  const std::size_t second = info.find(':', first + 1);
  const std::size_t start = second == std::string::npos ? 0 : second + 1;
  const std::size_t third = info.find(':', start);
  if (third == std::string::npos) return result::kNo;
  content_format = info.substr(start, third - start);
  additional_info = info.substr(third + 1);
  return result::kYes;
} catch (const std::bad_alloc&) {
  return result::kNo;
}

int ParseProtocolInfo(const std::string& info, std::string& protocol, std::string& network,
                      std::string& content_format, std::string& additional_info) try {
  std::size_t start = 0;
  for (std::string* const field : {&protocol, &network, &content_format}) {
    const std::size_t end = info.find(':', start);
    if (end == std::string::npos) return result::kNo;
    *field = info.substr(start, end - start);
    start = end + 1;
  }
  additional_info = info.substr(start);
  return result::kYes;
} catch (const std::bad_alloc&) {
  return result::kNo;
}

int GetIPFromResource(const std::string& uri, std::string& ip) try {
  static constexpr std::string_view kScheme("http://");
  if (uri.compare(0, kScheme.size(), kScheme) != 0) {
    VEX_LOG(kLogMajor, kTagCpUtils, "URI empty!!!");
    return result::kFailure;
  }
  const std::size_t end = uri.find(':', kScheme.size());
  if (end == std::string::npos) {
    // KEPT: this one line has a tag of its own.
    VEX_LOG(kLogMajor, kTagMrcp, "Error in the URL");
    return result::kFailure;
  }
  ip = uri.substr(kScheme.size(), end - kScheme.size());
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

void SetListArgument(const std::string& name, const std::string& value,
                     std::list<CPUtilsArgument>& list) try {
  if (!name.empty()) list.push_back(CPUtilsArgument{name, value});
} catch (const std::bad_alloc&) {
  // The list stays as it was.
}

}  // namespace cp_utils
}  // namespace vex_upnp

#include <vexupnpcp/xmlparser.h>

#include <new>

#include <vexupnpcp/result_codes.h>

namespace vex_upnp {
namespace utils {

namespace {

int YesIfAny(const NodeXml* node) { return node != nullptr ? result::kYes : result::kNo; }

// Finds the first attribute that `matches`, and copies its name (0) or its value (1).
template <typename Matches>
int CopyAttribute(const NodeXml* node, Matches matches, std::size_t offset, std::string& out) {
  if (node == nullptr) return result::kNo;
  for (std::size_t i = 0; i + 1 < node->attributes.size(); i += 2) {
    if (!matches(node->attributes[i])) continue;
    try {
      out = node->attributes[i + offset];
    } catch (const std::bad_alloc&) {
      return result::kNo;
    }
    return result::kYes;
  }
  return result::kNo;
}

}  // namespace

int XmlParserGetDomMA(const std::string& xml, XmlParser& parser) {
  return XMLDataParser::XMLParserGetDomMA(xml, parser);
}

int XmlParserGetFirstNode(XmlParser& parser, NodeXml*& node) {
  node = XMLDataParser::XMLParserGetFirstNode(parser);
  return YesIfAny(node);
}

int XmlParserGetChildNode(XmlParser& parser, NodeXml*& node) {
  node = XMLDataParser::XMLParserGetChildNode(parser);
  return YesIfAny(node);
}

int XmlParserGetNextNode(XmlParser& parser, NodeXml*& node) {
  node = XMLDataParser::XMLParserGetNextNode(parser);
  return YesIfAny(node);
}

void XmlParserStepBackToParentNode(XmlParser& parser) {
  XMLDataParser::XMLParserStepBackToParentNode(parser);
}

void XmlParserFreeNode(NodeXml* node) { delete node; }

void XmlParserDestroy(XmlParser& parser) { XMLDataParser::XMLParserDestroy(parser); }

int XmlGetCurrentNodeChildCount(XmlParser& parser, int& count) {
  if (parser.currentNode == nullptr) return result::kNo;
  count = parser.currentNode->childCount;
  return result::kYes;
}

int XmlGetCurNodeFirstChildType(XmlParser& parser, int& type) {
  if (parser.currentNode == nullptr || parser.currentNode->firstChild == nullptr) {
    return result::kNo;
  }
  type = parser.currentNode->firstChild->nodeType;
  return result::kYes;
}

int XmlGetAttribute(NodeXml* node, std::string& name, std::string& value) {
  // KEPT: compares only as many characters as the wanted name has.
  return CopyAttribute(
      node, [&name](const std::string& entry) { return entry.compare(0, name.size(), name) == 0; },
      1, value);
}

int XmlGetAttributeChar(NodeXml* node, const std::string& name, std::string& value) {
  return CopyAttribute(
      node, [&name](const std::string& entry) { return entry == name; }, 1, value);
}

int XmlGetAttributeName(NodeXml* node, std::string& name, std::string& out) {
  return CopyAttribute(
      node, [&name](const std::string& entry) { return entry.compare(0, name.size(), name) == 0; },
      0, out);
}

int XmlGetAllNodeAttributes(NodeXml* node, std::vector<std::string>& attributes) {
  if (node == nullptr) return result::kNo;
  try {
    attributes = node->attributes;
  } catch (const std::bad_alloc&) {
    return result::kNo;
  }
  return result::kYes;
}

}  // namespace utils
}  // namespace vex_upnp

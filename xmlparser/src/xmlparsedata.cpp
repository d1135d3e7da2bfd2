#include <vexupnpcp/xmlparsedata.h>

#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "xmlparser/src/dom_cursor.h"

namespace vex_upnp {
namespace utils {

namespace {

constexpr const char* kTag = log::kTagUtils;

// Null when memory is short.
NodeXml* MakeNodeXml(const DomNode& element) {
  try {
    std::unique_ptr<NodeXml> node(new NodeXml);
    node->name = ElementName(element);
    if (element.attributeCount > 0) {
      node->attributes.reserve(2 * static_cast<std::size_t>(element.attributeCount));
    }
    for (const DomNode* attribute = element.attributes; attribute != nullptr;
         attribute = attribute->attributes) {
      node->attributes.emplace_back(Trimmed(TextOf(attribute->nodeName)));
      node->attributes.emplace_back(Trimmed(TextOf(attribute->nodeValue)));
    }
    node->value = ElementValue(element);
    return node.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

NodeXml* MakeNodeXml(const DomNode* element) {
  return element == nullptr ? nullptr : MakeNodeXml(*element);
}

void Clear(XmlParser& parser) {
  std::string().swap(parser.xml);
  parser.buffer = nullptr;
  parser.document = nullptr;
  parser.size = 0;
  parser.currentNode = nullptr;
  parser.parentNode = nullptr;
}

// Copies the text up to its first NUL. False when it is too long or memory is short.
bool CopyText(const std::string& xml, XmlParser& parser) {
  if (xml.size() >= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
    return false;
  parser.size = static_cast<std::int32_t>(xml.size());
  try {
    parser.xml.assign(xml, 0, std::strlen(xml.c_str()));
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace

int XMLDataParser::XMLParserGetDomMA(const std::string& xml, XmlParser& parser) {
  if (xml.empty()) {
    VEX_LOG(kLogStep, kTag, "Empty string");
    return result::kNo;
  }
  // Nodes of an earlier document refer to the text that is about to be replaced.
  parser.nodes.reset();
  if (!CopyText(xml, parser)) {
    Clear(parser);
    VEX_LOG(kLogMajor, kTag, "XMLParserInit failed");
    return result::kNo;
  }
  if (XMLParserInit(parser) != 0) {
    VEX_LOG(kLogMajor, kTag, "XMLParserInit failed");
    return result::kNo;
  }
  return result::kYes;
}

int XMLDataParser::XMLParserInit(XmlParser& parser) {
  parser.currentNode = nullptr;
  parser.parentNode = nullptr;
  // The length of the copy, since that ends at the first NUL of what was given.
  const int length = static_cast<int>(parser.xml.size());
  if (EmXmlParser::InitializeCParser(parser.xml.data(), length, parser) != 0) {
    Clear(parser);
    return -1;
  }
  if (EmXmlParser::ParseXmlData(parser) != 0) {
    XMLParserDestroy(parser);
    return -1;
  }
  return 0;
}

void XMLDataParser::XMLParserDestroy(XmlParser& parser) {
  Clear(parser);
  parser.nodes.reset();
}

void XMLDataParser::CreateNodeData(XmlParser& parser, DomNode* node, NodeXml*& out) {
  out = MakeNodeXml(ElementAt(parser, node));
}

NodeXml* XMLDataParser::XMLParserGetFirstNode(XmlParser& parser) {
  return MakeNodeXml(MoveToFirst(parser));
}

NodeXml* XMLDataParser::XMLParserGetChildNode(XmlParser& parser) {
  return MakeNodeXml(MoveToChild(parser));
}

NodeXml* XMLDataParser::XMLParserGetNextNode(XmlParser& parser) {
  return MakeNodeXml(MoveToNext(parser));
}

void XMLDataParser::XMLParserStepBackToParentNode(XmlParser& parser) { StepBack(parser); }

void XMLDataParser::StringTrimRightLeft(std::string& text) {
  const std::size_t last = text.find_last_not_of(kTrimmedSpace);
  // Nothing but white space: npos + 1 is 0.
  text.erase(last + 1);
  text.erase(0, text.find_first_not_of(kTrimmedSpace));
}

}  // namespace utils
}  // namespace vex_upnp

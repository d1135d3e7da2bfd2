#ifndef VEXUPNPCP_XMLPARSEDATA_H_
#define VEXUPNPCP_XMLPARSEDATA_H_

#include <cstdint>
#include <string>
#include <vector>

#include <vexupnpcp/embeddedxmlparser.h>
#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

/// A parsed document with a cursor. Made by XmlParserGetDomMA, given back by XmlParserDestroy, and
/// neither moved nor reassigned in between, since its nodes refer to it. A copy shares the nodes
/// and may be destroyed on its own; their texts stay with the record that was parsed.
struct XmlParser : DomParser {
  /// Working copy of the text, overwritten by parsing.
  std::string xml;
  /// Length of the text as it was given.
  std::int32_t size = 0;
  DomNode* currentNode = nullptr;
  /// The node that the cursor last descended from.
  DomNode* parentNode = nullptr;
};

/// One element as it is handed out; the receiver frees it with XmlParserFreeNode.
struct NodeXml {
  /// Without white space at its ends.
  std::string name;
  /// Name and value alternating, in document order, each without white space at its ends.
  std::vector<std::string> attributes;
  /// The text with which the element's content begins; empty when it begins with an element. White
  /// space at its ends is kept.
  std::string value;
};

/// What the functions of xmlparser.h do, one for one; see there.
class VEX_EXPORT XMLDataParser {
 public:
  static int XMLParserGetDomMA(const std::string& xml, XmlParser& parser);
  /// Parses `parser.xml`. @return 0 or -1, with the parser cleared.
  static int XMLParserInit(XmlParser& parser);
  static NodeXml* XMLParserGetFirstNode(XmlParser& parser);
  static NodeXml* XMLParserGetChildNode(XmlParser& parser);
  static NodeXml* XMLParserGetNextNode(XmlParser& parser);
  static void XMLParserStepBackToParentNode(XmlParser& parser);
  static void XMLParserDestroy(XmlParser& parser);

  /// Makes the record of an element. Null for null; for a text node null too, and the cursor moves
  /// to the first child of where it stood.
  static void CreateNodeData(XmlParser& parser, DomNode* node, NodeXml*& out);
  /// Removes white space at both ends.
  static void StringTrimRightLeft(std::string& text);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSEDATA_H_

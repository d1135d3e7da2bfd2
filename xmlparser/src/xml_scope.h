#ifndef VEXUPNPCP_XMLPARSER_SRC_XML_SCOPE_H_
#define VEXUPNPCP_XMLPARSER_SRC_XML_SCOPE_H_

#include <memory>
#include <string>

#include <vexupnpcp/xmlparser.h>

namespace vex_upnp {
namespace utils {

// A parser that is destroyed on every path. It can't be moved or copied, since its nodes refer to
// it.
class ScopedXmlParser {
 public:
  ScopedXmlParser() = default;
  ScopedXmlParser(const ScopedXmlParser&) = delete;
  ScopedXmlParser& operator=(const ScopedXmlParser&) = delete;
  ~ScopedXmlParser() { XmlParserDestroy(parser_); }

  // Whether the text could be parsed.
  bool Parse(const std::string& xml) { return XmlParserGetDomMA(xml, parser_) != 0; }
  XmlParser& get() { return parser_; }

 private:
  XmlParser parser_;
};

struct NodeXmlDeleter {
  void operator()(NodeXml* node) const { XmlParserFreeNode(node); }
};

// An element that is freed on every path.
using NodePtr = std::unique_ptr<NodeXml, NodeXmlDeleter>;

// The moves of the cursor; null where they give 0.
inline NodePtr FirstNode(XmlParser& parser) {
  NodeXml* node = nullptr;
  XmlParserGetFirstNode(parser, node);
  return NodePtr(node);
}

inline NodePtr ChildNode(XmlParser& parser) {
  NodeXml* node = nullptr;
  XmlParserGetChildNode(parser, node);
  return NodePtr(node);
}

inline NodePtr NextNode(XmlParser& parser) {
  NodeXml* node = nullptr;
  XmlParserGetNextNode(parser, node);
  return NodePtr(node);
}

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_SRC_XML_SCOPE_H_

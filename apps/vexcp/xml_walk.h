#ifndef VEXCP_XML_WALK_H_
#define VEXCP_XML_WALK_H_

#include <vexupnpcp/xmlparser.h>

#include <string>
#include <string_view>

namespace vexcp {

// A parsed document, for walking its nodes.
class XmlDocument {
 public:
  explicit XmlDocument(const std::string& xml);
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  // The document node; null when the text is no well-formed document.
  const vex_upnp::utils::DomNode* top() const { return parsed_ ? parser_.document : nullptr; }

 private:
  vex_upnp::utils::XmlParser parser_;
  bool parsed_;
};

bool IsElement(const vex_upnp::utils::DomNode* node, std::string_view name);

// The node behind this one in document order, not leaving `top`; null at the end. Needs no
// recursion, however deep a hostile document nests.
const vex_upnp::utils::DomNode* NextInDocument(const vex_upnp::utils::DomNode* node,
                                               const vex_upnp::utils::DomNode* top);

// The first child element of that name, or null.
const vex_upnp::utils::DomNode* ChildElement(const vex_upnp::utils::DomNode* node,
                                             std::string_view name);

// Text of that child, references replaced, without white space at its ends.
std::string ChildText(const vex_upnp::utils::DomNode* node, std::string_view name);

// Value of an attribute; empty without it.
std::string Attribute(const vex_upnp::utils::DomNode* node, std::string_view name);

}  // namespace vexcp

#endif  // VEXCP_XML_WALK_H_

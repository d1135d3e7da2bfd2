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

// The name behind a prefix and its colon.
std::string_view LocalName(const vex_upnp::utils::DomNode* node);

// This node or the first sibling behind it that is an element; null when there is none.
const vex_upnp::utils::DomNode* FirstElement(const vex_upnp::utils::DomNode* node);

// The first element of that name, whatever its prefix, in or at `top`; null without one.
const vex_upnp::utils::DomNode* FindElement(const vex_upnp::utils::DomNode* top,
                                            std::string_view local_name);

// The text directly in an element, references replaced; empty for null.
std::string Text(const vex_upnp::utils::DomNode* node);

// Text of that child, references replaced, without white space at its ends.
std::string ChildText(const vex_upnp::utils::DomNode* node, std::string_view name);

// Value of an attribute, references replaced; empty without it.
std::string Attribute(const vex_upnp::utils::DomNode* node, std::string_view name);

}  // namespace vexcp

#endif  // VEXCP_XML_WALK_H_

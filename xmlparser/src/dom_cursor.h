#ifndef VEXUPNPCP_XMLPARSER_SRC_DOM_CURSOR_H_
#define VEXUPNPCP_XMLPARSER_SRC_DOM_CURSOR_H_

#include <cstring>
#include <string_view>

#include <vexupnpcp/xmlparsedata.h>

#include "xmlparser/src/dom_node_pool.h"

namespace vex_upnp {
namespace utils {

// The moves of the cursor without the copies: each gives the element that the function of the same
// meaning in xmlparser.h hands out, null where that hands out none.

// The default locale's white space, one more than the scanner's.
constexpr std::string_view kTrimmedSpace(" \t\n\v\f\r");

inline std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kTrimmedSpace);
  if (first == std::string_view::npos) return std::string_view();
  return text.substr(first, text.find_last_not_of(kTrimmedSpace) - first + 1);
}

// A null text counts as empty.
inline std::string_view TextOf(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

// By name and not by kind: an element may be called that too.
inline bool IsNamedText(const DomNode& node) {
  return node.nodeName == kTextName ||
         (node.nodeName != nullptr && std::strcmp(node.nodeName, kTextName) == 0);
}

inline std::string_view ElementName(const DomNode& node) { return Trimmed(TextOf(node.nodeName)); }

inline std::string_view ElementValue(const DomNode& node) {
  const DomNode* const first = node.firstChild;
  return first != nullptr && IsNamedText(*first) ? TextOf(first->nodeValue) : std::string_view();
}

// Finds an attribute by its whole name, like XmlGetAttributeChar.
inline bool FindAttribute(const DomNode& node, std::string_view name, std::string_view& value) {
  for (const DomNode* attribute = node.attributes; attribute != nullptr;
       attribute = attribute->attributes) {
    if (Trimmed(TextOf(attribute->nodeName)) != name) continue;
    value = Trimmed(TextOf(attribute->nodeValue));
    return true;
  }
  return false;
}

// The element that can be handed out for a node. A text can't; it throws the cursor to the first
// child of where it stood.
inline DomNode* ElementAt(XmlParser& parser, DomNode* node) {
  if (node == nullptr) return nullptr;
  if (!IsNamedText(*node)) return node;
  if (parser.currentNode != nullptr) parser.currentNode = parser.currentNode->firstChild;
  return nullptr;
}

inline DomNode* MoveToFirst(XmlParser& parser) {
  parser.parentNode = nullptr;
  if (parser.document == nullptr) return nullptr;
  DomNode* const element = ElementAt(parser, parser.document->firstChild);
  parser.currentNode = parser.document->firstChild;
  return element;
}

inline DomNode* MoveToChild(XmlParser& parser) {
  if (parser.currentNode == nullptr) return nullptr;
  parser.parentNode = parser.currentNode;
  DomNode* const element = ElementAt(parser, parser.currentNode->firstChild);
  if (parser.currentNode != nullptr) parser.currentNode = parser.currentNode->firstChild;
  return element;
}

inline DomNode* MoveToNext(XmlParser& parser) {
  if (parser.currentNode == nullptr) return nullptr;
  DomNode* const element = ElementAt(parser, parser.currentNode->nextSibling);
  if (parser.currentNode != nullptr) parser.currentNode = parser.currentNode->nextSibling;
  return element;
}

inline void StepBack(XmlParser& parser) {
  parser.currentNode = parser.parentNode;
  if (parser.parentNode != nullptr) parser.parentNode = parser.parentNode->parentNode;
}

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_SRC_DOM_CURSOR_H_

#include "xml_walk.h"

#include "xml_text.h"

namespace vexcp {

using vex_upnp::utils::DomNode;

XmlDocument::XmlDocument(const std::string& xml)
    : parsed_(vex_upnp::utils::XmlParserGetDomMA(UnfoldCdata(xml), parser_) == 1) {}

XmlDocument::~XmlDocument() { vex_upnp::utils::XmlParserDestroy(parser_); }

bool IsElement(const DomNode* node, std::string_view name) {
  return node != nullptr && node->nodeType == vex_upnp::utils::kDomElement &&
         node->nodeName != nullptr && name == node->nodeName;
}

const DomNode* NextInDocument(const DomNode* node, const DomNode* top) {
  if (node->firstChild != nullptr) return node->firstChild;
  while (node != top && node->nextSibling == nullptr) node = node->parentNode;
  return node == top ? nullptr : node->nextSibling;
}

const DomNode* ChildElement(const DomNode* node, std::string_view name) {
  if (node == nullptr) return nullptr;
  for (const DomNode* child = node->firstChild; child != nullptr; child = child->nextSibling)
    if (IsElement(child, name)) return child;
  return nullptr;
}

std::string_view LocalName(const DomNode* node) {
  const std::string_view name =
      node == nullptr || node->nodeName == nullptr ? std::string_view() : node->nodeName;
  const std::size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

const DomNode* FirstElement(const DomNode* node) {
  while (node != nullptr && node->nodeType != vex_upnp::utils::kDomElement)
    node = node->nextSibling;
  return node;
}

const DomNode* FindElement(const DomNode* top, std::string_view local_name) {
  for (const DomNode* node = top; node != nullptr; node = NextInDocument(node, top))
    if (node->nodeType == vex_upnp::utils::kDomElement && LocalName(node) == local_name)
      return node;
  return nullptr;
}

std::string Text(const DomNode* node) {
  std::string text;
  if (node == nullptr) return text;
  for (const DomNode* child = node->firstChild; child != nullptr; child = child->nextSibling)
    if (child->nodeType == vex_upnp::utils::kDomText && child->nodeValue != nullptr)
      text += child->nodeValue;
  return DecodeReferences(text);
}

std::string ChildText(const DomNode* node, std::string_view name) {
  const DomNode* child = ChildElement(node, name);
  if (child == nullptr || child->firstChild == nullptr || child->firstChild->nodeValue == nullptr)
    return std::string();
  std::string text = child->firstChild->nodeValue;
  constexpr char kSpace[] = " \t\r\n";
  text.erase(0, text.find_first_not_of(kSpace));
  text.erase(text.find_last_not_of(kSpace) + 1);
  return DecodeReferences(text);
}

std::string Attribute(const DomNode* node, std::string_view name) {
  for (const DomNode* attribute = node->attributes; attribute != nullptr;
       attribute = attribute->attributes)
    if (attribute->nodeName != nullptr && name == attribute->nodeName)
      return attribute->nodeValue == nullptr ? std::string()
                                             : DecodeReferences(attribute->nodeValue);
  return std::string();
}

}  // namespace vexcp

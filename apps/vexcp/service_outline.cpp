#include "service_outline.h"

#include "xml_walk.h"

namespace vexcp {

namespace {

using vex_upnp::utils::DomNode;

OutlineAction ReadAction(const DomNode* node) {
  OutlineAction action;
  action.name = ChildText(node, "name");
  const DomNode* list = ChildElement(node, "argumentList");
  if (list == nullptr) return action;
  for (const DomNode* child = list->firstChild; child != nullptr; child = child->nextSibling)
    if (IsElement(child, "argument"))
      action.arguments.push_back({ChildText(child, "name"), ChildText(child, "direction") == "out",
                                  ChildText(child, "relatedStateVariable")});
  return action;
}

OutlineVariable ReadVariable(const DomNode* node) {
  OutlineVariable variable;
  variable.name = ChildText(node, "name");
  variable.data_type = ChildText(node, "dataType");
  variable.evented = Attribute(node, "sendEvents") != "no";
  variable.initial = ChildText(node, "defaultValue");
  if (const DomNode* list = ChildElement(node, "allowedValueList"))
    for (const DomNode* child = list->firstChild; child != nullptr; child = child->nextSibling)
      if (IsElement(child, "allowedValue") && child->firstChild != nullptr &&
          child->firstChild->nodeValue != nullptr)
        variable.allowed.emplace_back(child->firstChild->nodeValue);
  if (const DomNode* range = ChildElement(node, "allowedValueRange")) {
    variable.minimum = ChildText(range, "minimum");
    variable.maximum = ChildText(range, "maximum");
  }
  return variable;
}

}  // namespace

std::optional<ServiceOutline> ReadServiceOutline(const std::string& xml) {
  const XmlDocument document(xml);
  const DomNode* scpd = document.top() == nullptr ? nullptr : ChildElement(document.top(), "scpd");
  if (scpd == nullptr) return std::nullopt;
  ServiceOutline outline;
  if (const DomNode* list = ChildElement(scpd, "actionList"))
    for (const DomNode* node = list->firstChild; node != nullptr; node = node->nextSibling)
      if (IsElement(node, "action")) outline.actions.push_back(ReadAction(node));
  if (const DomNode* table = ChildElement(scpd, "serviceStateTable"))
    for (const DomNode* node = table->firstChild; node != nullptr; node = node->nextSibling)
      if (IsElement(node, "stateVariable")) outline.variables.push_back(ReadVariable(node));
  return outline;
}

}  // namespace vexcp

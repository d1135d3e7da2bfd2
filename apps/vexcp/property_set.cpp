#include "property_set.h"

#include "xml_walk.h"

namespace vexcp {

namespace {

using vex_upnp::utils::DomNode;

std::vector<InstanceChange> ReadLastChange(const std::string& xml) {
  std::vector<InstanceChange> changes;
  const XmlDocument document(xml);
  const DomNode* event = document.top() == nullptr ? nullptr : FindElement(document.top(), "Event");
  if (event == nullptr) return changes;
  for (const DomNode* instance = FirstElement(event->firstChild); instance != nullptr;
       instance = FirstElement(instance->nextSibling))
    for (const DomNode* variable = FirstElement(instance->firstChild); variable != nullptr;
         variable = FirstElement(variable->nextSibling))
      changes.push_back({Attribute(instance, "val"), std::string(LocalName(variable)),
                         Attribute(variable, "channel"), Attribute(variable, "val")});
  return changes;
}

}  // namespace

std::optional<std::vector<ChangedVariable>> ReadPropertySet(const std::string& body) {
  const XmlDocument document(body);
  const DomNode* set =
      document.top() == nullptr ? nullptr : FindElement(document.top(), "propertyset");
  if (set == nullptr) return std::nullopt;
  std::vector<ChangedVariable> variables;
  for (const DomNode* property = FirstElement(set->firstChild); property != nullptr;
       property = FirstElement(property->nextSibling)) {
    for (const DomNode* node = FirstElement(property->firstChild); node != nullptr;
         node = FirstElement(node->nextSibling)) {
      ChangedVariable variable{std::string(LocalName(node)), Text(node), {}};
      if (variable.name == "LastChange") variable.changes = ReadLastChange(variable.value);
      variables.push_back(std::move(variable));
    }
  }
  return variables;
}

}  // namespace vexcp

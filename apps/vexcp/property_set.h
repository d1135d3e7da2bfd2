#ifndef VEXCP_PROPERTY_SET_H_
#define VEXCP_PROPERTY_SET_H_

#include <optional>
#include <string>
#include <vector>

namespace vexcp {

// One variable inside a LastChange.
struct InstanceChange {
  std::string instance;
  std::string name;
  // Empty for a variable without one.
  std::string channel;
  std::string value;
};

struct ChangedVariable {
  std::string name;
  std::string value;
  // What a LastChange gathers; empty for other variables.
  std::vector<InstanceChange> changes;
};

// All variables of an event, also where a device puts several into one property. Nothing when the
// body is no well-formed event.
std::optional<std::vector<ChangedVariable>> ReadPropertySet(const std::string& body);

}  // namespace vexcp

#endif  // VEXCP_PROPERTY_SET_H_

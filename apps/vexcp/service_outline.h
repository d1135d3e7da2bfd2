#ifndef VEXCP_SERVICE_OUTLINE_H_
#define VEXCP_SERVICE_OUTLINE_H_

#include <optional>
#include <string>
#include <vector>

namespace vexcp {

struct OutlineArgument {
  std::string name;
  bool output = false;
  std::string variable;
};

struct OutlineAction {
  std::string name;
  std::vector<OutlineArgument> arguments;
};

struct OutlineVariable {
  std::string name;
  std::string data_type;
  bool evented = false;
  std::string initial;
  std::vector<std::string> allowed;
  std::string minimum;
  std::string maximum;
};

// What a service description offers.
struct ServiceOutline {
  std::vector<OutlineAction> actions;
  std::vector<OutlineVariable> variables;
};

// Nothing when the text is no well-formed service description.
std::optional<ServiceOutline> ReadServiceOutline(const std::string& xml);

}  // namespace vexcp

#endif  // VEXCP_SERVICE_OUTLINE_H_

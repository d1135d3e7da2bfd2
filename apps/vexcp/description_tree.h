#ifndef VEXCP_DESCRIPTION_TREE_H_
#define VEXCP_DESCRIPTION_TREE_H_

#include <string>
#include <vector>

namespace vexcp {

// One device of a description document.
struct DescribedDevice {
  std::string udn;
  std::string name;
  std::string type;
  // Index of the device that it is embedded in; -1 for the root device.
  int parent = -1;
};

// The devices of a description in document order, parents first; empty when it cannot be read.
std::vector<DescribedDevice> ReadDescription(const std::string& xml);

}  // namespace vexcp

#endif  // VEXCP_DESCRIPTION_TREE_H_

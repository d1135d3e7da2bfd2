#ifndef VEXCP_DEVICE_TREE_H_
#define VEXCP_DEVICE_TREE_H_

#include <cstddef>
#include <vector>

#include "device_record.h"

namespace vexcp {

// One line of the tree of devices.
struct TreeRow {
  // Index of the device in the list.
  std::size_t device = 0;
  // 0 for a device whose parent is not in the list.
  int depth = 0;
};

// For each device the index of the one it is embedded in, or -1. The library lists embedded devices
// beside their roots; what belongs together stands in the description that they share.
std::vector<int> FindParents(const std::vector<DeviceRecord>& devices);

// Every device once, each behind its parent, roots in the order of the list.
std::vector<TreeRow> MakeTree(const std::vector<DeviceRecord>& devices);

}  // namespace vexcp

#endif  // VEXCP_DEVICE_TREE_H_

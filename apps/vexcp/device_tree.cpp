#include "device_tree.h"

#include <map>
#include <string>
#include <utility>

#include "description_tree.h"

namespace vexcp {

namespace {

using Described = std::map<std::string, std::string>;

// UDN to parent's UDN, for the embedded devices of a description. Only a parent that stands in
// front of its child counts, so that no description can make a circle.
Described ParentsOf(const std::string& xml) {
  Described parents;
  std::map<std::string, int> first;
  const std::vector<DescribedDevice> devices = ReadDescription(xml);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const DescribedDevice& device = devices[i];
    if (!first.emplace(device.udn, static_cast<int>(i)).second || device.parent < 0) continue;
    const std::string& parent = devices[static_cast<std::size_t>(device.parent)].udn;
    if (parent != device.udn) parents[device.udn] = parent;
  }
  return parents;
}

}  // namespace

std::vector<int> FindParents(const std::vector<DeviceRecord>& devices) {
  std::map<std::string, int> indexes;
  for (std::size_t i = 0; i < devices.size(); ++i)
    indexes.emplace(devices[i].key, static_cast<int>(i));
  // One description for all devices of a location, whatever a later one may say.
  std::map<std::pair<std::string, std::string>, Described> descriptions;
  std::vector<int> parents;
  for (const DeviceRecord& device : devices) {
    const auto place = std::make_pair(device.location, device.interface_name);
    auto description = descriptions.find(place);
    if (description == descriptions.end())
      description = descriptions.emplace(place, ParentsOf(device.description_xml)).first;
    int found = -1;
    const auto parent = description->second.find(device.Udn());
    if (parent != description->second.end()) {
      const auto index = indexes.find(parent->second + "+" + device.interface_name);
      if (index != indexes.end() &&
          devices[static_cast<std::size_t>(index->second)].location == device.location)
        found = index->second;
    }
    parents.push_back(found);
  }
  return parents;
}

std::vector<TreeRow> MakeTree(const std::vector<DeviceRecord>& devices) {
  const std::vector<int> parents = FindParents(devices);
  std::vector<std::vector<std::size_t>> children(devices.size());
  std::vector<TreeRow> open;
  for (std::size_t i = devices.size(); i-- > 0;) {
    if (parents[i] < 0) {
      open.push_back({i, 0});
    } else {
      children[static_cast<std::size_t>(parents[i])].push_back(i);
    }
  }
  std::vector<TreeRow> rows;
  while (!open.empty()) {
    const TreeRow row = open.back();
    open.pop_back();
    rows.push_back(row);
    // Collected from the back, so the first child comes off first.
    for (const std::size_t child : children[row.device]) open.push_back({child, row.depth + 1});
  }
  return rows;
}

}  // namespace vexcp

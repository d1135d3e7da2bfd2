#include "description_tree.h"

#include <map>

#include "xml_walk.h"

namespace vexcp {

using vex_upnp::utils::DomNode;

std::vector<DescribedDevice> ReadDescription(const std::string& xml) {
  std::vector<DescribedDevice> devices;
  const XmlDocument document(xml);
  std::map<const DomNode*, int> indexes;
  for (const DomNode* node = document.top(); node != nullptr;
       node = NextInDocument(node, document.top())) {
    if (!IsElement(node, "device")) continue;
    DescribedDevice device;
    device.udn = ChildText(node, "UDN");
    device.name = ChildText(node, "friendlyName");
    device.type = ChildText(node, "deviceType");
    // An embedded device lies in the deviceList of its parent.
    if (IsElement(node->parentNode, "deviceList"))
      if (const auto parent = indexes.find(node->parentNode->parentNode); parent != indexes.end())
        device.parent = parent->second;
    indexes[node] = static_cast<int>(devices.size());
    devices.push_back(std::move(device));
  }
  return devices;
}

}  // namespace vexcp

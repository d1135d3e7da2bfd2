#include "didl.h"

#include "xml_walk.h"

namespace vexcp {

namespace {

using vex_upnp::utils::DomNode;

MediaObject ReadObject(const DomNode* node) {
  MediaObject object;
  object.container = LocalName(node) == "container";
  object.id = Attribute(node, "id");
  object.parent = Attribute(node, "parentID");
  object.child_count = Attribute(node, "childCount");
  for (const DomNode* child = FirstElement(node->firstChild); child != nullptr;
       child = FirstElement(child->nextSibling)) {
    const std::string_view name = LocalName(child);
    if (name == "title") object.title = Text(child);
    if (name == "class") object.upnp_class = Text(child);
    if (name == "artist" && object.artist.empty()) object.artist = Text(child);
    if (name == "res")
      object.resources.push_back({Text(child), Attribute(child, "protocolInfo"),
                                  Attribute(child, "size"), Attribute(child, "duration")});
  }
  return object;
}

}  // namespace

std::optional<std::vector<MediaObject>> ReadDidl(const std::string& xml) {
  const XmlDocument document(xml);
  const DomNode* didl =
      document.top() == nullptr ? nullptr : FindElement(document.top(), "DIDL-Lite");
  if (didl == nullptr) return std::nullopt;
  std::vector<MediaObject> objects;
  for (const DomNode* node = FirstElement(didl->firstChild); node != nullptr;
       node = FirstElement(node->nextSibling))
    if (LocalName(node) == "container" || LocalName(node) == "item")
      objects.push_back(ReadObject(node));
  return objects;
}

}  // namespace vexcp

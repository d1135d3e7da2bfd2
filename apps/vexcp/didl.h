#ifndef VEXCP_DIDL_H_
#define VEXCP_DIDL_H_

#include <optional>
#include <string>
#include <vector>

namespace vexcp {

struct MediaResource {
  std::string url;
  std::string protocol_info;
  // In bytes, as the server writes it.
  std::string size;
  std::string duration;
};

// One container or item of a media server.
struct MediaObject {
  bool container = false;
  std::string id;
  std::string parent;
  std::string title;
  std::string upnp_class;
  std::string artist;
  std::string child_count;
  std::vector<MediaResource> resources;
};

// The objects of a DIDL-Lite document in their order; nothing when it cannot be read.
std::optional<std::vector<MediaObject>> ReadDidl(const std::string& xml);

}  // namespace vexcp

#endif  // VEXCP_DIDL_H_

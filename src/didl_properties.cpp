#include "src/didl_properties.h"

#include <algorithm>
#include <iterator>

namespace vex_upnp {
namespace cp_utils {

const DIDL_Property didl_properties[kDidlPropertyCount] = {
    {"xmlns", "none", 256},
    {"xmlns:dc", "none", 256},
    {"xmlns:upnp", "none", 256},
    {"xmlns:dlna", "none", 256},
    {"dc:creator", "string", 1024},
    {"creator", "dc:title", 256},
    {"dc:date", "dateTime.tz", 29},
    {"dc:title", "dc:title", 200},
    {"res", "string", 1024},
    {"colorDepth", "unsigned integer", 10},
    {"bitrate", "unsigned integer", 10},
    {"duration", "string", 1024},
    {"size", "unsigned long", 20},
    {"resolution", "string", 1024},
    {"importUri", "none", 256},
    {"protocolInfo", "string", 1024},
    {"childCount", "string", 1024},
    {"id", "string", 1024},
    {"includeDerived", "boolean", 5},
    {"parentID", "string", 1024},
    {"searchable", "boolean", 5},
    {"refID", "string", 1024},
    {"restricted", "boolean", 5},
    {"upnp:album", "string", 1024},
    {"upnp:albumArtURI", "string", 1024},
    {"upnp:artist", "string", 1024},
    {"artist", "string", 1024},
    {"upnp:author", "string", 1024},
    {"upnp:class", "none", 256},
    {"upnp:channelName", "string", 1024},
    {"upnp:channelNr", "integer", 11},
    {"upnp:genre", "dc:title", 256},
    {"upnp:writeStatus", "string", 1024},
    {"role", "string", 1024},
    {"upnp:storageMedium", "string", 1024},
    {"dlna:importIfoFileURI", "none", 256},
    {"dlna:resumeUpload", "none", 256},
    {"dlna:dlnaManaged", "none", 256},
    {"tmk:location", "string", 256},
    {"tmk:CaptionInfo", "string", 256},
    {"tmk:CaptionInfoEx", "string", 256},
    {"none", "none", 256},
};

const DIDL_Property* FindDidlProperty(std::string_view name) {
  const DIDL_Property* const end = std::end(didl_properties);
  const DIDL_Property* const found =
      std::find_if(std::begin(didl_properties), end,
                   [name](const DIDL_Property& property) { return property.name == name; });
  return found == end ? nullptr : found;
}

}  // namespace cp_utils
}  // namespace vex_upnp

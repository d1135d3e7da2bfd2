#ifndef VEXUPNPCP_SRC_DEVICE_DESCRIPTION_PARSER_H_
#define VEXUPNPCP_SRC_DEVICE_DESCRIPTION_PARSER_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/xmlparsedata.h>

#include "src/device.h"

namespace vex_upnp {
namespace cp_discovery {

// Fills a device from its description document (UPnP Device Architecture, "Description"). Nothing
// is checked but the document's form: what a device must have is decided where it is listed.
class DeviceDescriptionParser {
 public:
  // Returns 0; result::kOutOfMemory; result::kMalformedDocument, also where memory runs out inside
  // a list. After a failure the device is filled as far as the reading came. Never throws.
  static int MakeDeviceInfo(const std::string& xml, boost::shared_ptr<Device>& device);

  // These read what lies below the parser's cursor, with results as above. Stepping back behind
  // __ParseService is left to the caller.
  static int __ParseDescription(utils::XmlParser& parser, boost::shared_ptr<Device>& device);
  static int __ParseSpecVersion(utils::XmlParser& parser, boost::shared_ptr<Device>& device);
  static int __ParseService(utils::XmlParser& parser, boost::shared_ptr<Device>& device);
  static int __ParseIcon(utils::XmlParser& parser, boost::shared_ptr<Device>& device);
  // Stepping back is left to the caller. Needs no more stack for a deeper embedding.
  static int __AddEmbeddedDevice(utils::XmlParser& parser, boost::shared_ptr<Device>& parent);
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DEVICE_DESCRIPTION_PARSER_H_

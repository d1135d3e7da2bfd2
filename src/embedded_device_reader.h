#ifndef VEXUPNPCP_SRC_EMBEDDED_DEVICE_READER_H_
#define VEXUPNPCP_SRC_EMBEDDED_DEVICE_READER_H_

#include <string>
#include <string_view>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/xmlparsedata.h>

#include "src/device.h"

namespace vex_upnp {
namespace cp_discovery {

// A child of `device` whose text is stored as a field.
struct DeviceField {
  std::string_view name;
  std::string Device::*member;
  // On the root device its value is stored unescaped.
  bool escaped;
};

// Null for a name that is none of them.
const DeviceField* FindDeviceField(std::string_view name);

// Reads a `device` element inside a `deviceList` with all that is embedded in it. A hostile
// description embeds a hundred thousand devices in one another, so the calls that each level would
// make of the next stand on a stack of our own.
class EmbeddedDeviceReader {
 public:
  explicit EmbeddedDeviceReader(utils::XmlParser& parser) : parser_(parser) {}

  // Appends the device under the cursor to its parent. Returns 0, result::kOutOfMemory or
  // result::kMalformedDocument.
  int Read(const boost::shared_ptr<Device>& parent);

 private:
  // One call that is not finished: the device it reads and the one that will own it.
  struct Level {
    boost::shared_ptr<Device> device;
    boost::shared_ptr<Device> parent;
    // The device embedded in this one could not be read as its child and is tried again.
    bool second_try = false;
  };

  // What a step of the walk came to.
  enum class Step { kEmbedded, kFinished };

  // Begins a call; false when memory is short.
  bool Enter(const boost::shared_ptr<Device>& parent);
  // Reads on from the end of an embedded device, or from its failure.
  Step Resume(int code);
  // Reads the children of the device, or of a device list in it, from a node on.
  Step ReadOn(utils::DomNode* node, bool in_device_list);
  Step Finish(int code);
  int ReadChild(const utils::DomNode& node, boost::shared_ptr<Device>& device);
  int ReadIcons(boost::shared_ptr<Device>& device);
  int ReadServices(boost::shared_ptr<Device>& device);

  utils::XmlParser& parser_;
  std::vector<Level> levels_;
  // For the call that is to begin, or of the one that has finished.
  boost::shared_ptr<Device> next_parent_;
  int code_ = 0;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_EMBEDDED_DEVICE_READER_H_

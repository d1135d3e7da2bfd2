#ifndef VEXSIM_DEVICE_H_
#define VEXSIM_DEVICE_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "device_model.h"

namespace vexsim {

// One simulated root device with what is embedded in it.
class Device {
 public:
  // `number` 0: the only one of its kind, whose name gets no number. `seed` goes into the UDNs, so
  // that the same devices come back with the same UDNs.
  Device(unsigned id, std::shared_ptr<const DeviceFolder> folder, unsigned number,
         const std::string& seed);

  unsigned id() const { return id_; }
  const DeviceFolder& folder() const { return *folder_; }
  std::shared_ptr<const DeviceFolder> shared_folder() const { return folder_; }
  // "/ID"
  const std::string& prefix() const { return values_.prefix; }
  std::string FriendlyName() const;
  // With "uuid:".
  std::string Udn(std::size_t device) const { return "uuid:" + values_.udns[device]; }
  std::size_t DeviceCount() const { return values_.udns.size(); }

  std::string Description(const std::string& authority) const;
  std::string Location(const std::string& authority) const;
  // The value of NT or ST, and of USN, for a target of the folder.
  std::string TargetText(const Target& target) const;
  std::string Usn(const Target& target, const std::string& text) const;

  // A dead device keeps silent.
  bool alive = true;
  // The TCP port that serves it.
  unsigned short port = 0;

 private:
  unsigned id_;
  std::shared_ptr<const DeviceFolder> folder_;
  TemplateValues values_;
};

}  // namespace vexsim

#endif  // VEXSIM_DEVICE_H_

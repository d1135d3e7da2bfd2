#ifndef VEXSIM_FLEET_H_
#define VEXSIM_FLEET_H_

#include <map>
#include <memory>
#include <string>

#include "device.h"

namespace vexsim {

// All simulated devices, by id.
class Fleet {
 public:
  explicit Fleet(std::string seed) : seed_(std::move(seed)) {}

  // `only`: the sole device of its folder, which gets no number to its name.
  Device& Add(const std::shared_ptr<const DeviceFolder>& folder, bool only);
  void Remove(unsigned id) { devices_.erase(id); }
  Device* Find(unsigned id);

  std::map<unsigned, std::unique_ptr<Device>>& devices() { return devices_; }
  const std::map<unsigned, std::unique_ptr<Device>>& devices() const { return devices_; }

 private:
  std::string seed_;
  unsigned last_id_ = 0;
  // How many have been made from a folder of that name.
  std::map<std::string, unsigned> made_;
  std::map<unsigned, std::unique_ptr<Device>> devices_;
};

}  // namespace vexsim

#endif  // VEXSIM_FLEET_H_

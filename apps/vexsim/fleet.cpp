#include "fleet.h"

namespace vexsim {

Device& Fleet::Add(const std::shared_ptr<const DeviceFolder>& folder, bool only) {
  const unsigned count = ++made_[folder->name];
  const unsigned number = only && count == 1 ? 0 : count;
  const unsigned id = ++last_id_;
  auto device = std::make_unique<Device>(id, folder, number, seed_);
  return *(devices_[id] = std::move(device));
}

Device* Fleet::Find(unsigned id) {
  const auto found = devices_.find(id);
  return found == devices_.end() ? nullptr : found->second.get();
}

}  // namespace vexsim

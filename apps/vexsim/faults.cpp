#include "faults.h"

#include <fnmatch.h>

#include <algorithm>

namespace vexsim {

void FaultList::Add(const Fault& fault) {
  Clear(fault.pattern);
  faults_.push_back(fault);
}

std::size_t FaultList::Clear(const std::string& pattern) {
  const std::size_t before = faults_.size();
  faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                               [&](const Fault& fault) {
                                 return pattern.empty() || fault.pattern == pattern;
                               }),
                faults_.end());
  return before - faults_.size();
}

std::optional<Fault> FaultList::Apply(const std::string& path) {
  for (auto fault = faults_.rbegin(); fault != faults_.rend(); ++fault) {
    if (fnmatch(fault->pattern.c_str(), path.c_str(), 0) != 0) continue;
    const Fault applied = *fault;
    if (fault->times > 0 && --fault->times == 0) faults_.erase(std::next(fault).base());
    return applied;
  }
  return std::nullopt;
}

}  // namespace vexsim

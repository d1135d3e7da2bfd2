#ifndef VEXSIM_STATISTICS_H_
#define VEXSIM_STATISTICS_H_

#include <cstdint>

namespace vexsim {

// What has happened since the start or the last reset.
struct Statistics {
  std::uint64_t searches = 0;
  std::uint64_t answers = 0;
  std::uint64_t announcements = 0;
  std::uint64_t connections = 0;
  std::uint64_t requests = 0;
  std::uint64_t descriptions = 0;
  std::uint64_t service_descriptions = 0;
  std::uint64_t actions = 0;
  std::uint64_t subscriptions = 0;
  std::uint64_t renewals = 0;
  std::uint64_t events = 0;
};

}  // namespace vexsim

#endif  // VEXSIM_STATISTICS_H_

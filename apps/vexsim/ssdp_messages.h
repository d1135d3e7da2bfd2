#ifndef VEXSIM_SSDP_MESSAGES_H_
#define VEXSIM_SSDP_MESSAGES_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device_model.h"

namespace vexsim {

constexpr char kServerHeader[] = "Linux/6.1 UPnP/1.0 vexsim/1.0";

struct Search {
  std::string target;
  // Seconds.
  unsigned mx = 0;
};

// Nothing unless the datagram is a proper M-SEARCH: MAN "ssdp:discover", ST, and MX of 1 or more.
std::optional<Search> ParseSearch(std::string_view datagram);

// The indexes of a folder's targets that answer a search for `target`, which is not an UDN. A type
// of a lower or equal version is answered too.
std::vector<std::size_t> MatchingTargets(const DeviceFolder& folder, std::string_view target);

// The three messages of UPnP Device Architecture 1.0, 1.2 and 1.1.
std::string SearchAnswer(const std::string& target, const std::string& usn,
                         const std::string& location, unsigned max_age);
std::string AliveMessage(const std::string& target, const std::string& usn,
                         const std::string& location, unsigned max_age);
std::string ByebyeMessage(const std::string& target, const std::string& usn);

}  // namespace vexsim

#endif  // VEXSIM_SSDP_MESSAGES_H_

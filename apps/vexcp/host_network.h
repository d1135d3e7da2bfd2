#ifndef VEXCP_HOST_NETWORK_H_
#define VEXCP_HOST_NETWORK_H_

#include <string>
#include <vector>

namespace vexcp {

// Throws Failure unless every named interface (any, without names) is up, running and has an IPv4
// address beside loopback's.
void RequireInterfaces(const std::vector<std::string>& names);

// Ports that no other program uses at the moment.
int FreeUdpPort();
int FreeTcpPort();

// What keeps announcements away, as a sentence for the user; empty when nothing does.
std::string AnnouncementTrouble();

}  // namespace vexcp

#endif  // VEXCP_HOST_NETWORK_H_

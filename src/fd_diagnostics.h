#ifndef VEXUPNPCP_SRC_FD_DIAGNOSTICS_H_
#define VEXUPNPCP_SRC_FD_DIAGNOSTICS_H_

#include <string>

namespace vex_upnp {
namespace network_layer {

// For a process that seems to leak descriptors: its open files, their number and the sockets of
// the machine go to the log. 1, or 0 when the process' own list cannot be reached. A machine
// without the commands only loses the dump.
int printDebugInfo();

// Runs a shell command, logs its output line by line and returns all of it; "ERROR" when it could
// not be started.
std::string exec(const char* command);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_FD_DIAGNOSTICS_H_

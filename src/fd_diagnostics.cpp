#include "src/fd_diagnostics.h"

#include <unistd.h>

#include <cstdio>

#include "base/log.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr int kPiece = 128;

}  // namespace

int printDebugInfo() {
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd";
  const std::string list = "/bin/ls -ltra " + path;
  const std::string count = list + " | /usr/bin/wc -l";
  VEX_LOG(kLogStep, kTag, "Command to be Executed : %s", list.c_str());
  if (::access(path.c_str(), F_OK) != 0) {
    VEX_LOG(kLogMajor, kTag, "Error in Accessing File");
    return 0;
  }
  VEX_LOG(kLogStep, kTag, "Dumping Contents [%s]", path.c_str());
  exec(list.c_str());
  VEX_LOG(kLogStep, kTag, "Total Fd Count ");
  exec(count.c_str());
  VEX_LOG(kLogStep, kTag, "Netstat -n Output");
  exec("/bin/netstat -na | egrep -e \"udp|tcp\"");
  return 1;
}

std::string exec(const char* command) {
  // "e": the pipe is for this process alone, whatever another thread starts meanwhile.
  std::FILE* const pipe = ::popen(command, "re");
  if (pipe == nullptr) return "ERROR";
  std::string output;
  char piece[kPiece];
  while (std::fgets(piece, kPiece, pipe) != nullptr) {
    VEX_LOG(kLogStep, kTag, "%s", piece);
    output += piece;
  }
  ::pclose(pipe);
  return output;
}

}  // namespace network_layer
}  // namespace vex_upnp

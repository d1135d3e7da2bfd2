#ifndef VEXSIM_OPTIONS_H_
#define VEXSIM_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "ssdp_server.h"

namespace vexsim {

// The name under which generated devices are asked for.
constexpr char kGeneratedName[] = "generated";

enum class PortUse {
  // One port for each device while there are few of them, one for all otherwise.
  kAuto,
  kOwn,
  kShared
};

struct Options {
  // Folders, by name or path.
  std::vector<std::string> devices;
  std::string devices_dir;
  // Of each.
  unsigned count = 1;
  // Of generated devices.
  unsigned services = 3;
  SsdpOptions ssdp;
  // 0: never again after the first time.
  unsigned announce_interval_s = 900;
  bool announce_at_start = true;
  PortUse ports = PortUse::kAuto;
  // First TCP port; 0 takes free ones.
  unsigned short port = 0;
  bool close_connections = false;
  std::string seed = "vexsim";
  std::string control_socket;
  bool json = false;
  bool exit_with_stdin = false;
  bool silent_exit = false;
};

// Fills `options`. A value is the status with which the program ends at once: after --help, or
// after an error that has been told on stderr.
std::optional<int> ParseArguments(int argc, char** argv, Options& options);

// "mx", "burst", "off" or "window=MS". False on anything else.
bool ParseTiming(const std::string& text, AnswerTiming& timing);

// Names of the folders in `devices_dir`, with commas.
std::string KnownDevices(const std::string& devices_dir);

}  // namespace vexsim

#endif  // VEXSIM_OPTIONS_H_

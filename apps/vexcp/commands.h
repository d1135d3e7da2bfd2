#ifndef VEXCP_COMMANDS_H_
#define VEXCP_COMMANDS_H_

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "control_point.h"

namespace vexcp {

// What the chosen command does; gives the exit status.
using Run = std::function<int()>;

// What every command takes.
struct CommonOptions {
  std::vector<std::string> interfaces;
  bool json = false;
  unsigned wait_s = 6;

  StartOptions Start() const;
  std::chrono::seconds wait() const { return std::chrono::seconds(wait_s); }
};

// Adds --interface, --json and --wait to a command.
void AddCommonOptions(CLI::App& command, CommonOptions& options, const std::string& wait_help);

// Each adds its command to the program and, when it is the chosen one, sets `run`.
void AddDiscoverCommand(CLI::App& app, Run& run);
void AddInfoCommand(CLI::App& app, Run& run);
void AddScpdCommand(CLI::App& app, Run& run);
void AddCallCommand(CLI::App& app, Run& run);
void AddEventsCommand(CLI::App& app, Run& run);
void AddBrowseCommand(CLI::App& app, Run& run);
void AddGetCommand(CLI::App& app, Run& run);
void AddServeCommand(CLI::App& app, Run& run);
void AddPushCommand(CLI::App& app, Run& run);

// "MediaRenderer" and "MediaRenderer:2" for types of the UPnP Forum, "all", or the whole type.
std::string ExpandType(const std::string& word);

}  // namespace vexcp

#endif  // VEXCP_COMMANDS_H_

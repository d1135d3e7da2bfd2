#include "commands.h"

namespace vexcp {

StartOptions CommonOptions::Start() const {
  StartOptions start;
  start.interfaces = interfaces;
  return start;
}

void AddCommonOptions(CLI::App& command, CommonOptions& options, const std::string& wait_help) {
  command
      .add_option("-i,--interface", options.interfaces,
                  "interface to work on, may be given again; default all")
      ->allow_extra_args(false);
  command.add_flag("--json", options.json, "JSON instead of text");
  command.add_option("--wait", options.wait_s, wait_help)
      ->check(CLI::Range(0U, 86400U))
      ->capture_default_str();
}

std::string ExpandType(const std::string& word) {
  if (word == "all" || word == kAllDevices) return kAllDevices;
  const std::size_t colon = word.find(':');
  if (colon != word.rfind(':')) return word;
  const std::string version = colon == std::string::npos ? ":1" : "";
  return "urn:schemas-upnp-org:device:" + word + version;
}

}  // namespace vexcp

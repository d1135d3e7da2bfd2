#include <cstdio>
#include <exception>

#include "commands.h"
#include "exit_status.h"
#include "output.h"

namespace {

constexpr char kDescription[] =
    "vexcp finds the UPnP devices of the local network, shows what they offer and controls them.";

constexpr char kExamples[] = R"(
Examples:
  vexcp discover                         all devices, embedded ones under their roots
  vexcp discover --type MediaRenderer    renderers only
  vexcp discover --watch                 who comes and goes, until Ctrl-C
  vexcp info uuid:12714036-1c97-45a6-8146-03c7ec877e30
  vexcp scpd uuid:12714036-1c97-45a6-8146-03c7ec877e30 SwitchPower
  vexcp call uuid:12714036-1c97-45a6-8146-03c7ec877e30 SwitchPower SetTarget newTargetValue=1
  vexcp events uuid:12714036-1c97-45a6-8146-03c7ec877e30    how its variables change, until Ctrl-C
  vexcp browse uuid:4d696e69-4e4c-164e-9d41-20cf30a14f09 --depth 2
  vexcp get http://10.0.0.7:8200/MediaItems/22.mp4 -o film.mp4    --continue goes on with a part of it
  vexcp serve ~/Videos                   a folder, or a file, for everybody around
  vexcp push uuid:1b2e9a6c-4f0d-4d43-9d53-0a1c5b7e2f10 film.mp4    a renderer plays it

VEXUPNPCP_LOG=16 in the environment shows the library's major log lines, 4 and 2 show more.
)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{kDescription, "vexcp"};
  app.footer(std::string(kExamples) + vexcp::kExitStatusHelp);
  app.require_subcommand(1);
  vexcp::Run run;
  vexcp::AddDiscoverCommand(app, run);
  vexcp::AddInfoCommand(app, run);
  vexcp::AddScpdCommand(app, run);
  vexcp::AddCallCommand(app, run);
  vexcp::AddEventsCommand(app, run);
  vexcp::AddBrowseCommand(app, run);
  vexcp::AddGetCommand(app, run);
  vexcp::AddServeCommand(app, run);
  vexcp::AddPushCommand(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? vexcp::kDone : vexcp::kWrongArguments;
  }
  try {
    return run();
  } catch (const vexcp::Failure& failure) {
    std::fprintf(stderr, "vexcp: %s\n", vexcp::Printable(failure.what()).c_str());
    return failure.status();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vexcp: %s\n", vexcp::Printable(error.what()).c_str());
    return vexcp::kNotStarted;
  }
}

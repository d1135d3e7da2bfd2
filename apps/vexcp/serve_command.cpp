#include <vexupnpcp/framework_controller_cp.h>

#include <cstdio>
#include <memory>

#include "commands.h"
#include "event_queue.h"
#include "exit_status.h"
#include "file_server.h"
#include "host_network.h"
#include "output.h"

namespace vexcp {

namespace {

namespace fw = vex_upnp::framework_core;

struct ServeOptions {
  std::string path;
  std::vector<std::string> interfaces;
  int port = 8000;
  bool quiet = false;
};

// The library's interfaces, without a control point.
class Interfaces {
 public:
  explicit Interfaces(const std::vector<std::string>& names) {
    RequireInterfaces(names);
    if (const int code = fw::InitFrameworkCore(""); code != 0)
      throw Failure(kNotStarted, "InitFrameworkCore gave " + std::to_string(code));
    fw::StartFrameworkCore();
    fw::StartNetworkMonitor();
    if (names.empty()) fw::ConfigureApplicationOnAllInterfaces();
    for (const std::string& name : names) fw::ConfigureApplicationOnInterface(name.c_str());
  }
  ~Interfaces() {
    fw::StopNetworkMonitor();
    fw::TerminateFrameworkCore();
  }
  Interfaces(const Interfaces&) = delete;
  Interfaces& operator=(const Interfaces&) = delete;
};

void Print(const std::string& line) {
  std::printf("%s\n", Printable(line).c_str());
  std::fflush(stdout);
}

int Serve(const ServeOptions& options) {
  EventQueue events;
  const Interfaces interfaces(options.interfaces);
  FileServer server(options.path, [&](const std::string& line) {
    if (!options.quiet || line.compare(0, 4, "http") == 0) Print(line);
  });
  for (const std::string& address : server.Start("", options.port)) Print(address);
  while (!events.interrupted()) events.Next(std::nullopt);
  return kDone;
}

}  // namespace

void AddServeCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand("serve", "serve a file or a folder by HTTP, until Ctrl-C");
  command->add_option("path", options->path, "file or folder")->required();
  command
      ->add_option("-i,--interface", options->interfaces,
                   "interface to serve on, may be given again; default all")
      ->allow_extra_args(false);
  command->add_option("-p,--port", options->port, "port; a taken one moves on to the next free")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  command->add_flag("-q,--quiet", options->quiet, "do not tell the requests");
  command->callback([options, &run] { run = [options] { return Serve(*options); }; });
}

}  // namespace vexcp

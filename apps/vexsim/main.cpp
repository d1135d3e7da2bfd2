#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "commands.h"
#include "control_channel.h"
#include "event_loop.h"
#include "options.h"
#include "simulation.h"

namespace {

using vexsim::EventLoop;
using vexsim::FileHandle;
using vexsim::Options;

// A thousand devices may have several thousand connections at once.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

FileHandle OpenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  return FileHandle(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

void StartDevices(vexsim::Simulation& simulation, const Options& options) {
  for (const std::string& folder : options.devices)
    simulation.Add(folder, options.count, options.services);
  if (!options.announce_at_start) return;
  for (const auto& [id, device] : simulation.fleet().devices()) simulation.ssdp().Announce(*device);
}

void Run(const Options& options) {
  RaiseDescriptorLimit();
  const FileHandle signals = OpenSignals();
  EventLoop loop;
  vexsim::Simulation simulation(loop, options);
  vexsim::Commands commands(simulation, options.json, [&loop] { loop.Stop(); });
  StartDevices(simulation, options);
  loop.Watch(signals.get(), EPOLLIN, [&loop](std::uint32_t) { loop.Stop(); });
  vexsim::ControlChannel control(
      loop, [&commands](const std::string& line) { return commands.Execute(line); });
  if (!options.control_socket.empty()) control.Listen(options.control_socket);
  std::printf("%s\n", commands.ReadyLine().c_str());
  std::fflush(stdout);
  control.ReadStandardInput([&] {
    if (options.exit_with_stdin) loop.Stop();
  });
  loop.Run();
  simulation.RemoveAll(options.silent_exit);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const std::optional<int> status = vexsim::ParseArguments(argc, argv, options)) return *status;
  try {
    Run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vexsim: %s\n", error.what());
    return 1;
  }
  return 0;
}

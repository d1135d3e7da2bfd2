#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

#include "commands.h"
#include "exit_status.h"
#include "host_network.h"
#include "output.h"

namespace vexcp {

namespace {

using nlohmann::json;
using std::chrono::seconds;
using std::chrono::steady_clock;

struct DiscoverOptions : CommonOptions {
  std::vector<std::string> types;
  bool watch = false;
  bool services = false;
  unsigned rescan_s = 0;
};

// Devices that a search answered on an interface that has just come up are not told by the library
// until somebody asks; the change itself takes a moment to get through.
constexpr seconds kAfterInterfaceChange{1};

std::vector<DeviceRecord> ReadyDevices(ControlPoint& control_point,
                                       const std::vector<std::string>& types) {
  std::vector<DeviceRecord> devices;
  for (const std::string& type : types)
    for (DeviceRecord& device : control_point.Devices(type)) {
      const bool known =
          std::any_of(devices.begin(), devices.end(),
                      [&](const DeviceRecord& other) { return other.key == device.key; });
      if (!known) devices.push_back(std::move(device));
    }
  return devices;
}

std::string NothingFound(unsigned wait_s) {
  return "nothing answered within " + std::to_string(wait_s) +
         " seconds. Is a device switched on in the same network? Does a firewall let UDP answers "
         "in? Slow devices need a longer --wait";
}

int List(const DiscoverOptions& options, ControlPoint& control_point) {
  if (isatty(STDERR_FILENO) == 1)
    std::fprintf(stderr, "searching for %u seconds...\n", options.wait_s);
  const TimePoint deadline = steady_clock::now() + options.wait();
  while (control_point.events().Next(deadline)) continue;
  const std::vector<DeviceRecord> devices = ReadyDevices(control_point, control_point.types());
  if (options.json) {
    json list = json::array();
    for (const DeviceRecord& device : devices) list.push_back(DeviceJson(device));
    std::printf("%s\n", Dump(list).c_str());
  } else if (!devices.empty()) {
    std::printf("%s", FormatDevices(devices, options.services).c_str());
  }
  if (devices.empty()) throw Failure(kNotFound, NothingFound(options.wait_s));
  return kDone;
}

// Tells devices as they come and go.
class Watch {
 public:
  Watch(const DiscoverOptions& options, ControlPoint& control_point)
      : options_(options), control_point_(control_point) {}

  int Run() {
    const bool endless = options_.wait_s == 0;
    const TimePoint end = steady_clock::now() + options_.wait();
    ScheduleRescan(seconds(options_.rescan_s), options_.rescan_s > 0);
    // They may have become ready before the callback was registered.
    for (const DeviceRecord& device : ReadyDevices(control_point_, control_point_.types()))
      Added(device);
    while (!control_point_.events().interrupted()) {
      std::optional<TimePoint> deadline = next_rescan_;
      if (!endless) deadline = std::min(end, next_rescan_.value_or(end));
      if (const auto event = control_point_.events().Next(deadline)) Tell(*event);
      const TimePoint now = steady_clock::now();
      if (!endless && now >= end) break;
      if (next_rescan_ && now >= *next_rescan_) Rescan();
    }
    return ever_ || endless ? kDone : kNotFound;
  }

 private:
  void Tell(const DeviceEvent& event) {
    if (event.kind == DeviceEvent::Kind::kInterfacesChanged) {
      ScheduleRescan(kAfterInterfaceChange, true);
    } else if (event.kind == DeviceEvent::Kind::kRemoved) {
      Removed(event);
    } else if (const std::optional<DeviceRecord> device = control_point_.Details(event.key)) {
      Added(*device);
    }
  }

  void Added(const DeviceRecord& device) {
    if (!known_.emplace(device.key, device).second) return;
    ever_ = true;
    if (options_.json) {
      Print(Dump(json{{"event", "added"}, {"device", DeviceJson(device)}}));
      return;
    }
    Print("+ " + Line(device));
    if (!options_.services) return;
    for (const ServiceRecord& service : device.services) Print("    * " + ShortType(service.type));
  }

  void Removed(const DeviceEvent& event) {
    const auto found = known_.find(event.key);
    if (found == known_.end()) return;
    const DeviceRecord& device = found->second;
    Print(options_.json ? Dump(json{{"event", "removed"}, {"device", DeviceJson(device)}})
                        : "- " + Line(device));
    known_.erase(found);
  }

  static std::string Line(const DeviceRecord& device) {
    return Printable(device.name) + "  " + ShortType(device.type) + "  " + Address(device) + "  " +
           device.interface_name + "  " + Printable(device.Udn());
  }

  void Print(const std::string& line) const {
    std::printf("%s%s\n", options_.json ? "" : Clock().c_str(), line.c_str());
    std::fflush(stdout);
  }

  void ScheduleRescan(seconds delay, bool wanted) {
    next_rescan_.reset();
    if (wanted) next_rescan_ = steady_clock::now() + delay;
  }

  void Rescan() {
    control_point_.Rescan();
    ScheduleRescan(seconds(options_.rescan_s), options_.rescan_s > 0);
  }

  const DiscoverOptions& options_;
  ControlPoint& control_point_;
  std::map<std::string, DeviceRecord> known_;
  bool ever_ = false;
  std::optional<TimePoint> next_rescan_;
};

int Discover(const DiscoverOptions& options) {
  StartOptions start = options.Start();
  if (!options.types.empty()) {
    start.types.clear();
    for (const std::string& type : options.types) start.types.push_back(ExpandType(type));
  }
  if (const std::string trouble = AnnouncementTrouble(); !trouble.empty())
    std::fprintf(stderr, "vexcp: warning: %s\n", trouble.c_str());
  ControlPoint control_point(start);
  return options.watch ? Watch(options, control_point).Run() : List(options, control_point);
}

}  // namespace

void AddDiscoverCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<DiscoverOptions>();
  CLI::App* command = app.add_subcommand("discover", "find devices and show them as a table");
  command
      ->add_option("-t,--type", options->types,
                   "only devices of this type, as MediaRenderer, MediaServer:2 or a whole urn; "
                   "may be given again")
      ->allow_extra_args(false);
  command->add_flag("-w,--watch", options->watch, "tell devices as they come (+) and go (-)");
  command->add_flag("-s,--services", options->services, "show the services of each device");
  command
      ->add_option("--rescan", options->rescan_s,
                   "with --watch, search again every so many seconds and drop devices that are "
                   "gone; all devices at once are searched for at most every 120 seconds, given "
                   "types every 10")
      ->capture_default_str();
  AddCommonOptions(
      *command, *options,
      "seconds to wait for devices; --watch goes on until Ctrl-C unless this is given");
  command->callback([options, command, &run] {
    if (options->watch && command->count("--wait") == 0) options->wait_s = 0;
    run = [options] { return Discover(*options); };
  });
}

}  // namespace vexcp

#include <cstdio>
#include <memory>

#include "commands.h"
#include "exit_status.h"
#include "output.h"
#include "property_set.h"
#include "subscription.h"

namespace vexcp {

namespace {

using nlohmann::json;
using std::chrono::steady_clock;

struct EventsOptions : CommonOptions {
  std::string udn;
  std::vector<std::string> services;
  bool xml = false;
  unsigned seconds = 0;
  unsigned count = 0;
};

std::string VariableName(const InstanceChange& change) {
  return "LastChange[" + change.instance + "]." + change.name +
         (change.channel.empty() ? "" : "(" + change.channel + ")");
}

json VariableJson(const ChangedVariable& variable, const std::string& service_type) {
  json value{{"event", "changed"},
             {"service", service_type},
             {"variable", variable.name},
             {"value", variable.value}};
  for (const InstanceChange& change : variable.changes)
    value["changes"].push_back(json{{"instance", change.instance},
                                    {"variable", change.name},
                                    {"channel", change.channel},
                                    {"value", change.value}});
  return value;
}

bool IsSame(const ServiceRecord& one, const ServiceRecord& other) {
  return one.type == other.type && one.id == other.id;
}

// The service in a newer description of its device; where its id is new, the first of its type.
// Null when it is gone.
const ServiceRecord* FindAgain(const DeviceRecord& device, const ServiceRecord& service) {
  for (const ServiceRecord& one : device.services)
    if (IsSame(one, service)) return &one;
  return FindService(device, service.type);
}

// Subscribes, and prints what the device tells until the end.
class Listener {
 public:
  Listener(const EventsOptions& options, ControlPoint& control_point, const DeviceRecord& device)
      : options_(options), control_point_(control_point), device_(device) {
    for (const std::string& word : options.services) Choose(RequireService(device, word));
    if (options.services.empty())
      for (const ServiceRecord& service : device.services)
        if (!service.event_sub_url.empty()) Choose(service);
    if (services_.empty())
      throw Failure(kNotFound, Printable(device.name) + " has no service that tells events");
  }

  int Run() {
    std::optional<TimePoint> end;
    if (options_.seconds > 0) end = steady_clock::now() + std::chrono::seconds(options_.seconds);
    Subscribe();
    while (!Over()) {
      const std::optional<DeviceEvent> event = control_point_.events().Next(end);
      if (!event) break;
      Take(*event);
    }
    subscriptions_.clear();
    return refused_ == services_.size() ? kRefused : kDone;
  }

 private:
  void Choose(const ServiceRecord& service) {
    for (const ServiceRecord& one : services_)
      if (IsSame(one, service)) return;
    services_.push_back(service);
  }

  void Subscribe() {
    for (std::size_t i = 0; i < services_.size(); ++i)
      subscriptions_.push_back(std::make_unique<Subscription>(control_point_.events(), device_,
                                                              services_[i], static_cast<int>(i)));
  }

  bool Over() const {
    return (options_.count > 0 && told_ >= options_.count) || refused_ == services_.size();
  }

  void Take(const DeviceEvent& event) {
    switch (event.kind) {
      case DeviceEvent::Kind::kVariablesChanged:
        Tell(services_[static_cast<std::size_t>(event.id)], event.body);
        break;
      case DeviceEvent::Kind::kSubscriptionEnded:
        ++refused_;
        Remark("the subscription to " +
               ShortType(services_[static_cast<std::size_t>(event.id)].type) +
               " failed three times: " + Printable(event.body));
        break;
      case DeviceEvent::Kind::kRemoved:
        if (event.key != device_.key) break;
        Remark(Printable(device_.name) + " has left the network");
        subscriptions_.clear();
        break;
      case DeviceEvent::Kind::kAdded:
        if (event.key == device_.key && subscriptions_.empty()) ComeBack();
        break;
      default:
        break;
    }
  }

  void ComeBack() {
    const std::optional<DeviceRecord> device = control_point_.Details(device_.key);
    if (!device) return;
    Remark(Printable(device->name) + " has come back");
    device_ = *device;
    refused_ = 0;
    for (ServiceRecord& service : services_)
      if (const ServiceRecord* now = FindAgain(device_, service); now != nullptr) service = *now;
    Subscribe();
  }

  void Tell(const ServiceRecord& service, const std::string& body) {
    ++told_;
    if (options_.xml) {
      Print(body);
      return;
    }
    const std::optional<std::vector<ChangedVariable>> variables = ReadPropertySet(body);
    if (!variables) {
      Remark("an event of " + ShortType(service.type) + " cannot be read; --xml shows it as it is");
      return;
    }
    for (const ChangedVariable& variable : *variables) TellVariable(service, variable);
  }

  void TellVariable(const ServiceRecord& service, const ChangedVariable& variable) const {
    if (options_.json) {
      Print(Dump(VariableJson(variable, service.type)));
      return;
    }
    const std::string start = Clock() + ShortType(service.type) + "  ";
    if (variable.changes.empty()) Print(start + Line(variable.name, variable.value));
    for (const InstanceChange& change : variable.changes)
      Print(start + Line(VariableName(change), change.value));
  }

  static std::string Line(const std::string& name, const std::string& value) {
    return Printable(name) + " = " + Printable(value);
  }

  static void Print(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  static void Remark(const std::string& text) { std::fprintf(stderr, "vexcp: %s\n", text.c_str()); }

  const EventsOptions& options_;
  ControlPoint& control_point_;
  DeviceRecord device_;
  std::vector<ServiceRecord> services_;
  std::vector<std::unique_ptr<Subscription>> subscriptions_;
  std::size_t refused_ = 0;
  unsigned told_ = 0;
};

int Events(const EventsOptions& options) {
  StartOptions start = options.Start();
  start.receive_events = true;
  ControlPoint control_point(start);
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  return Listener(options, control_point, device).Run();
}

}  // namespace

void AddEventsCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<EventsOptions>();
  CLI::App* command =
      app.add_subcommand("events", "show how a device's variables change, until Ctrl-C");
  command->add_option("udn", options->udn, "the device, as for \"info\"")->required();
  command->add_option("services", options->services,
                      "the services, each as for \"scpd\"; default all");
  command->add_option("--seconds", options->seconds, "end after so many seconds");
  command->add_option("--count", options->count, "end after so many events");
  command->add_flag("--xml", options->xml, "the events as they were received");
  AddCommonOptions(*command, *options, "seconds to wait for the device");
  command->callback([options, &run] { run = [options] { return Events(*options); }; });
}

}  // namespace vexcp

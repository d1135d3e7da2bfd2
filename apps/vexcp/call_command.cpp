#include <algorithm>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "exit_status.h"
#include "output.h"
#include "service_outline.h"

namespace vexcp {

namespace {

using nlohmann::json;

struct CallOptions : CommonOptions {
  std::string udn;
  std::string service;
  std::string action;
  std::vector<std::string> arguments;
  bool xml = false;
};

std::vector<NamedValue> ParseArguments(const std::vector<std::string>& words) {
  std::vector<NamedValue> arguments;
  for (const std::string& word : words) {
    const std::size_t equal = word.find('=');
    if (equal == 0 || equal == std::string::npos)
      throw Failure(kWrongArguments, "\"" + word + "\" is no argument: write name=value");
    arguments.push_back({word.substr(0, equal), word.substr(equal + 1)});
  }
  return arguments;
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + Printable(word);
  return text;
}

const NamedValue* Find(const std::vector<NamedValue>& list, const std::string& name) {
  for (const NamedValue& one : list)
    if (one.name == name) return &one;
  return nullptr;
}

// The given arguments in the order in which the service wants them, or Failure with all that is
// wrong about them.
std::vector<NamedValue> Arrange(const OutlineAction& action, const std::vector<NamedValue>& given) {
  std::vector<std::string> wanted, missing, unknown, doubled;
  std::vector<NamedValue> arranged;
  for (const OutlineArgument& argument : action.arguments) {
    if (argument.output) continue;
    wanted.push_back(argument.name);
    const NamedValue* value = Find(given, argument.name);
    if (value == nullptr) {
      missing.push_back(argument.name);
    } else {
      arranged.push_back(*value);
    }
  }
  for (const NamedValue& one : given) {
    if (std::find(wanted.begin(), wanted.end(), one.name) == wanted.end())
      unknown.push_back(one.name);
    if (Find(given, one.name) != &one) doubled.push_back(one.name);
  }
  if (missing.empty() && unknown.empty() && doubled.empty()) return arranged;
  std::string text = action.name + " takes " + (wanted.empty() ? "no arguments" : Join(wanted));
  if (!missing.empty()) text += "; missing: " + Join(missing);
  if (!unknown.empty()) text += "; unknown: " + Join(unknown);
  if (!doubled.empty()) text += "; given twice: " + Join(doubled);
  throw Failure(kWrongArguments, text);
}

// Looks the action up in the service's description before anything is sent.
std::vector<NamedValue> Check(ControlPoint& control_point, const DeviceRecord& device,
                              const ServiceRecord& service, const CallOptions& options) {
  const std::vector<NamedValue> given = ParseArguments(options.arguments);
  const std::optional<std::string> xml = control_point.ServiceDescription(device.key, service.type);
  const std::optional<ServiceOutline> outline =
      xml ? ReadServiceOutline(*xml) : std::optional<ServiceOutline>();
  if (!outline) {
    std::fprintf(stderr,
                 "vexcp: the description of this service cannot be read, so the arguments "
                 "go out as they are\n");
    return given;
  }
  std::vector<std::string> names;
  for (const OutlineAction& action : outline->actions) {
    if (action.name == options.action) return Arrange(action, given);
    names.push_back(action.name);
  }
  throw Failure(kNotFound, ShortType(service.type) + " has no action " + options.action +
                               "; it has " + (names.empty() ? "none" : Join(names)));
}

json ResultJson(const ActionResult& result, const std::string& service_type) {
  json value{{"status", result.status}, {"succeeded", result.succeeded()}};
  if (result.succeeded()) {
    value["results"] = json::object();
    for (const NamedValue& output : *result.outputs) value["results"][output.name] = output.value;
  }
  if (result.error)
    value["error"] = json{{"code", result.error->code},
                          {"description", result.error->description},
                          {"meaning", ErrorMeaning(result.error->code, service_type)}};
  return value;
}

std::string ResultText(const ActionResult& result) {
  if (result.outputs->empty()) return "done\n";
  std::vector<std::vector<std::string>> rows;
  for (const NamedValue& output : *result.outputs)
    rows.push_back({Printable(output.name), Printable(output.value)});
  return FormatTable(rows);
}

int Call(const CallOptions& options) {
  ControlPoint control_point(options.Start());
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  const ServiceRecord& service = RequireService(device, options.service);
  const std::vector<NamedValue> arguments = Check(control_point, device, service, options);
  const ActionResult result = control_point.Call(device, service.type, options.action, arguments);
  if (options.xml) {
    std::printf("%s\n", result.body.c_str());
  } else if (options.json) {
    std::printf("%s\n", Dump(ResultJson(result, service.type)).c_str());
  } else if (result.succeeded()) {
    std::printf("%s", ResultText(result).c_str());
  }
  if (result.succeeded()) return kDone;
  throw Failure(kRefused,
                Printable(device.name + " did not carry out " + options.action + ": " +
                          ExplainFailure(result, service.type)) +
                    (result.unreadable() && !options.xml ? "; --xml shows it as it is" : ""));
}

}  // namespace

void AddCallCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CallOptions>();
  CLI::App* command = app.add_subcommand("call", "carry out an action and show its results");
  command->add_option("udn", options->udn, "the device, as for \"info\"")->required();
  command->add_option("service", options->service, "the service, as for \"scpd\"")->required();
  command->add_option("action", options->action, "the action, as \"scpd\" shows it")->required();
  command->add_option("arguments", options->arguments,
                      "name=value for each argument, in any order; values are escaped");
  command->add_flag("--xml", options->xml, "the answer as it was received");
  AddCommonOptions(*command, *options, "seconds to wait for the device");
  command->callback([options, &run] { run = [options] { return Call(*options); }; });
}

}  // namespace vexcp

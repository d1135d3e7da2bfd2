#include <cstdio>
#include <memory>

#include "commands.h"
#include "exit_status.h"
#include "output.h"
#include "service_outline.h"

namespace vexcp {

namespace {

using nlohmann::json;

struct ScpdOptions : CommonOptions {
  std::string udn;
  std::string service;
  bool xml = false;
};

const OutlineVariable* FindVariable(const ServiceOutline& outline, const std::string& name) {
  for (const OutlineVariable& variable : outline.variables)
    if (variable.name == name) return &variable;
  return nullptr;
}

std::string Arguments(const ServiceOutline& outline, const OutlineAction& action, bool output) {
  std::string text;
  for (const OutlineArgument& argument : action.arguments) {
    if (argument.output != output) continue;
    const OutlineVariable* variable = FindVariable(outline, argument.variable);
    if (!text.empty()) text += ", ";
    text += Printable(argument.name);
    if (variable != nullptr) text += ": " + Printable(variable->data_type);
  }
  return text;
}

std::string Range(const OutlineVariable& variable) {
  std::string text;
  for (const std::string& value : variable.allowed) text += (text.empty() ? "" : "|") + value;
  if (!variable.minimum.empty() || !variable.maximum.empty())
    text = variable.minimum + ".." + variable.maximum;
  return Printable(text);
}

std::string FormatOutline(const ServiceOutline& outline) {
  std::string text = "ACTIONS\n";
  for (const OutlineAction& action : outline.actions) {
    const std::string results = Arguments(outline, action, true);
    text += "  " + Printable(action.name) + "(" + Arguments(outline, action, false) + ")" +
            (results.empty() ? "" : " -> " + results) + "\n";
  }
  std::vector<std::vector<std::string>> rows{{"VARIABLE", "TYPE", "EVENTED", "START", "VALUES"}};
  for (const OutlineVariable& variable : outline.variables)
    rows.push_back({Printable(variable.name), Printable(variable.data_type),
                    variable.evented ? "yes" : "-", Printable(variable.initial), Range(variable)});
  return text + "\n" + FormatTable(rows);
}

json OutlineJson(const ServiceOutline& outline) {
  json actions = json::array();
  for (const OutlineAction& action : outline.actions) {
    json arguments = json::array();
    for (const OutlineArgument& argument : action.arguments)
      arguments.push_back(json{{"name", argument.name},
                               {"direction", argument.output ? "out" : "in"},
                               {"variable", argument.variable}});
    actions.push_back(json{{"name", action.name}, {"arguments", arguments}});
  }
  json variables = json::array();
  for (const OutlineVariable& variable : outline.variables)
    variables.push_back(json{{"name", variable.name},
                             {"type", variable.data_type},
                             {"evented", variable.evented},
                             {"start", variable.initial},
                             {"allowed", variable.allowed},
                             {"minimum", variable.minimum},
                             {"maximum", variable.maximum}});
  return json{{"actions", actions}, {"variables", variables}};
}

int Scpd(const ScpdOptions& options) {
  ControlPoint control_point(options.Start());
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  const ServiceRecord& service = RequireService(device, options.service);
  const std::optional<std::string> xml = control_point.ServiceDescription(device.key, service.type);
  if (!xml) throw Failure(kNotFound, "the device's description of this service did not come");
  if (options.xml) {
    std::printf("%s\n", xml->c_str());
    return kDone;
  }
  const std::optional<ServiceOutline> outline = ReadServiceOutline(*xml);
  if (!outline)
    throw Failure(kNotFound,
                  "the device's description of this service is not well-formed; --xml "
                  "shows it as it is");
  if (options.json) {
    std::printf("%s\n", Dump(OutlineJson(*outline)).c_str());
  } else {
    std::printf("%s", FormatOutline(*outline).c_str());
  }
  return kDone;
}

}  // namespace

void AddScpdCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ScpdOptions>();
  CLI::App* command = app.add_subcommand("scpd", "show the actions and variables of one service");
  command->add_option("udn", options->udn, "the device, as for \"info\"")->required();
  command
      ->add_option("service", options->service,
                   "the service: its type or a part of it, as AVTransport")
      ->required();
  command->add_flag("--xml", options->xml, "the service description as it was received");
  AddCommonOptions(*command, *options, "seconds to wait for the device");
  command->callback([options, &run] { run = [options] { return Scpd(*options); }; });
}

}  // namespace vexcp

#include "behaviour.h"

#include <algorithm>

#include "upnp_errors.h"

namespace vexsim {

namespace {

// Every input must be there and have a value that its variable may have.
int CheckArguments(const ActionCall& call, const ActionModel& action) {
  const ServiceModel& model = call.state.model();
  for (const ArgumentModel& argument : action.arguments) {
    if (argument.output) continue;
    const auto given = std::find_if(call.request.arguments.begin(), call.request.arguments.end(),
                                    [&](const auto& pair) { return pair.first == argument.name; });
    if (given == call.request.arguments.end()) return kInvalidArguments;
    const VariableModel* variable = model.Variable(argument.variable);
    if (variable == nullptr) continue;
    if (const int error = CheckValue(*variable, given->second); error != 0) return error;
  }
  return 0;
}

void StoreArguments(ActionCall& call, const ActionModel& action) {
  for (const ArgumentModel& argument : action.arguments)
    if (!argument.output) call.state.Set(argument.variable, call.request.Argument(argument.name));
}

}  // namespace

int Invoke(const Behaviours& behaviours, ActionCall& call, Arguments& results) {
  const ServiceModel& model = call.state.model();
  const ActionModel* action = model.Action(call.request.action);
  if (action == nullptr || call.request.service_type != model.type) return kInvalidAction;
  if (const int error = CheckArguments(call, *action); error != 0) return error;
  const auto behaviour = behaviours.find(std::string(model.ShortName()) + "." + action->name);
  const bool setter = action->name.compare(0, 3, "Set") == 0;
  if (behaviour != behaviours.end()) {
    // It sees the arguments in the request and the old values in the state.
    if (const int error = behaviour->second(call); error != 0) return error;
  }
  if (setter) StoreArguments(call, *action);
  for (const ArgumentModel& argument : action->arguments) {
    if (!argument.output) continue;
    const auto special = call.results.find(argument.name);
    results.emplace_back(argument.name, special != call.results.end()
                                            ? special->second
                                            : call.state.Get(argument.variable));
  }
  return 0;
}

}  // namespace vexsim

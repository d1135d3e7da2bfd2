#include <algorithm>

#include "behaviour.h"
#include "text.h"

namespace vexsim {

namespace {

constexpr int kFull = 100;

int Level(const ServiceState& state) {
  return ToNumber<int>(state.Get("LoadLevelStatus")).value_or(0);
}

int SetLevel(ServiceState& state, int level) {
  const std::string text = std::to_string(std::clamp(level, 0, kFull));
  state.Set("LoadLevelTarget", text);
  state.Set("LoadLevelStatus", text);
  return 0;
}

int Step(ActionCall& call, int direction) {
  const int delta = ToNumber<int>(call.state.Get("StepDelta")).value_or(0);
  return SetLevel(call.state, Level(call.state) + direction * delta);
}

int SetTarget(ActionCall& call) {
  const std::string value = call.request.Argument("newTargetValue");
  const bool on = value == "1" || value == "true" || value == "yes";
  call.state.Set("Status", on ? "1" : "0");
  return 0;
}

}  // namespace

// A lamp without inertia: every level is reached at once, and a ramp is over when it begins.
void AddLampBehaviours(Behaviours& behaviours) {
  behaviours["SwitchPower.SetTarget"] = SetTarget;
  behaviours["Dimming.SetLoadLevelTarget"] = [](ActionCall& call) {
    return SetLevel(call.state,
                    ToNumber<int>(call.request.Argument("newLoadlevelTarget")).value_or(0));
  };
  behaviours["Dimming.StartRampToLevel"] = [](ActionCall& call) {
    return SetLevel(call.state,
                    ToNumber<int>(call.request.Argument("newLoadLevelTarget")).value_or(0));
  };
  behaviours["Dimming.StepUp"] = [](ActionCall& call) { return Step(call, 1); };
  behaviours["Dimming.StepDown"] = [](ActionCall& call) { return Step(call, -1); };
  behaviours["Dimming.StartRampUp"] = [](ActionCall& call) { return SetLevel(call.state, kFull); };
  behaviours["Dimming.StartRampDown"] = [](ActionCall& call) { return SetLevel(call.state, 0); };
}

}  // namespace vexsim

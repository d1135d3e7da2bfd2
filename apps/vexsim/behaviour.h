#ifndef VEXSIM_BEHAVIOUR_H_
#define VEXSIM_BEHAVIOUR_H_

#include <functional>
#include <map>
#include <string>

#include "device.h"
#include "service_state.h"
#include "soap.h"

namespace vexsim {

// One action while it is carried out.
struct ActionCall {
  const Device& device;
  const ActionRequest& request;
  ServiceState& state;
  // "http://ADDRESS:PORT/ID" as the caller reached the device.
  std::string base;
  // Results that differ from the value of their state variable, by argument name.
  std::map<std::string, std::string> results;
};

// What an action does beside storing its arguments and giving its variables: a UPnP error code, or
// 0.
using Behaviour = std::function<int(ActionCall&)>;

// By "Service.Action".
using Behaviours = std::map<std::string, Behaviour>;

void AddLampBehaviours(Behaviours& behaviours);
void AddRendererBehaviours(Behaviours& behaviours);
void AddMediaServerBehaviours(Behaviours& behaviours);

// Carries out an action by the service's own description and its behaviour, if there is one. Gives
// a UPnP error code, or 0 and the results.
int Invoke(const Behaviours& behaviours, ActionCall& call, Arguments& results);

}  // namespace vexsim

#endif  // VEXSIM_BEHAVIOUR_H_

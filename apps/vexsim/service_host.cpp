#include "service_host.h"

#include <fnmatch.h>

#include "upnp_errors.h"

namespace vexsim {

namespace {

// LastChange comes at most five times a second.
constexpr Milliseconds kLastChangePause{200};

HttpResponse Status(int status) {
  HttpResponse response;
  response.status = status;
  return response;
}

HttpResponse FaultResponse(int code, const std::string& description) {
  HttpResponse response;
  response.status = 500;
  response.content_type = "text/xml; charset=\"utf-8\"";
  response.body = FormatFault(code, description);
  return response;
}

}  // namespace

ServiceHost::ServiceHost(EventLoop& loop, Statistics& statistics)
    : loop_(loop), statistics_(statistics), events_(loop, statistics) {
  AddLampBehaviours(behaviours_);
  AddRendererBehaviours(behaviours_);
  AddMediaServerBehaviours(behaviours_);
}

ServiceState& ServiceHost::State(const Device& device, std::size_t service) {
  const ServiceKey key(device.id(), service);
  return states_.try_emplace(key, device.folder().services[service]).first->second;
}

std::optional<HttpResponse> ServiceHost::Handle(const Device& device, const std::string& path,
                                                const HttpRequest& request) {
  const std::vector<ServiceModel>& services = device.folder().services;
  for (std::size_t i = 0; i < services.size(); ++i) {
    if (services[i].control_path == path)
      return request.method == "POST" ? Control(device, i, request) : Status(405);
    if (services[i].event_path != path) continue;
    if (request.method != "SUBSCRIBE" && request.method != "UNSUBSCRIBE") return Status(405);
    return events_.Handle({device.id(), i}, request, State(device, i).All());
  }
  return std::nullopt;
}

HttpResponse ServiceHost::Control(const Device& device, std::size_t service,
                                  const HttpRequest& request) {
  ++statistics_.actions;
  const auto action = ParseActionRequest(request.Header("SOAPACTION"), request.body);
  if (!action) return FaultResponse(kInvalidAction, ErrorText(kInvalidAction));
  if (const std::optional<ActionFault> fault = Fault(device, action->action))
    return FaultResponse(fault->code, fault->description);
  ServiceState& state = State(device, service);
  ActionCall call{device, *action, state, "http://" + request.Authority() + device.prefix(), {}};
  Arguments results;
  const int error = Invoke(behaviours_, call, results);
  if (error != 0) return FaultResponse(error, ErrorText(error));
  if (state.HasChanges()) Tell({device.id(), service});
  HttpResponse response;
  response.content_type = "text/xml; charset=\"utf-8\"";
  response.body = FormatActionAnswer(*action, results);
  return response;
}

std::optional<ActionFault> ServiceHost::Fault(const Device& device, const std::string& action) {
  for (auto fault = faults_.begin(); fault != faults_.end(); ++fault) {
    bool applies = false;
    for (const ServiceModel& service : device.folder().services) {
      const std::string name =
          std::to_string(device.id()) + "/" + std::string(service.ShortName()) + "." + action;
      applies = applies || (service.Action(action) != nullptr &&
                            fnmatch(fault->pattern.c_str(), name.c_str(), 0) == 0);
    }
    if (!applies) continue;
    const ActionFault applied = *fault;
    if (fault->times > 0 && --fault->times == 0) faults_.erase(fault);
    return applied;
  }
  return std::nullopt;
}

std::optional<std::size_t> ServiceHost::FindVariable(const Device& device, const std::string& name,
                                                     std::string& variable) const {
  const std::size_t dot = name.find('.');
  if (dot == std::string::npos) return std::nullopt;
  variable = name.substr(dot + 1);
  const std::vector<ServiceModel>& services = device.folder().services;
  for (std::size_t i = 0; i < services.size(); ++i)
    if (services[i].ShortName() == name.substr(0, dot) && services[i].Variable(variable) != nullptr)
      return i;
  return std::nullopt;
}

bool ServiceHost::Set(const Device& device, const std::string& name, const std::string& value) {
  std::string variable;
  const std::optional<std::size_t> service = FindVariable(device, name, variable);
  if (!service) return false;
  ServiceState& state = State(device, *service);
  state.Set(variable, value);
  if (state.HasChanges()) Tell({device.id(), *service});
  return true;
}

std::optional<std::string> ServiceHost::Get(const Device& device, const std::string& name) {
  std::string variable;
  const std::optional<std::size_t> service = FindVariable(device, name, variable);
  if (!service) return std::nullopt;
  return State(device, *service).Get(variable);
}

void ServiceHost::Tell(const ServiceKey& key) {
  if (states_.at(key).model().Variable(kLastChange) == nullptr) {
    Publish(key);
    return;
  }
  if (gathering_.count(key) > 0) return;
  // The first change is told at once, what follows within the pause together.
  gathering_.insert(key);
  Publish(key);
  loop_.After(kLastChangePause, [this, key] {
    gathering_.erase(key);
    const auto state = states_.find(key);
    if (state != states_.end() && state->second.HasChanges()) Tell(key);
  });
}

void ServiceHost::Publish(const ServiceKey& key) {
  events_.Publish(key, states_.at(key).TakeChanges());
}

void ServiceHost::Forget(unsigned device) {
  events_.Forget(device);
  for (auto entry = states_.begin(); entry != states_.end();)
    entry = entry->first.first == device ? states_.erase(entry) : std::next(entry);
}

}  // namespace vexsim

#ifndef VEXSIM_SERVICE_HOST_H_
#define VEXSIM_SERVICE_HOST_H_

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "behaviour.h"
#include "event_server.h"

namespace vexsim {

// Makes one action fail, for one device or all.
struct ActionFault {
  // Shell pattern of "ID/Service.Action".
  std::string pattern;
  int code = 0;
  std::string description;
  // Calls that it still applies to; negative: all.
  int times = -1;
};

// Carries out actions and keeps the state variables of all services that have been used.
class ServiceHost {
 public:
  ServiceHost(EventLoop& loop, Statistics& statistics);

  // Nothing when the path is neither a control nor an event address of the device.
  std::optional<HttpResponse> Handle(const Device& device, const std::string& path,
                                     const HttpRequest& request);
  // `name` is "Service.Variable". False when the device has none of that name.
  bool Set(const Device& device, const std::string& name, const std::string& value);
  std::optional<std::string> Get(const Device& device, const std::string& name);
  void Forget(unsigned device);

  EventServer& events() { return events_; }
  std::vector<ActionFault>& faults() { return faults_; }

 private:
  HttpResponse Control(const Device& device, std::size_t service, const HttpRequest& request);
  std::optional<ActionFault> Fault(const Device& device, const std::string& action);
  ServiceState& State(const Device& device, std::size_t service);
  std::optional<std::size_t> FindVariable(const Device& device, const std::string& name,
                                          std::string& variable) const;
  void Tell(const ServiceKey& key);
  void Publish(const ServiceKey& key);

  EventLoop& loop_;
  Statistics& statistics_;
  EventServer events_;
  Behaviours behaviours_;
  std::vector<ActionFault> faults_;
  std::map<ServiceKey, ServiceState> states_;
  // Services whose LastChange is gathered at the moment.
  std::set<ServiceKey> gathering_;
};

}  // namespace vexsim

#endif  // VEXSIM_SERVICE_HOST_H_

#ifndef VEXSIM_SERVICE_STATE_H_
#define VEXSIM_SERVICE_STATE_H_

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "device_model.h"
#include "event_loop.h"

namespace vexsim {

constexpr char kLastChange[] = "LastChange";

// The values of one service's state variables, and which of them have changed since subscribers
// were last told.
class ServiceState {
 public:
  explicit ServiceState(const ServiceModel& model);

  const ServiceModel& model() const { return *model_; }
  // Empty for an unknown variable.
  std::string Get(const std::string& variable) const;
  // An equal value is no change.
  void Set(const std::string& variable, const std::string& value);

  // For actions that need a clock.
  TimePoint mark{};

  bool HasChanges() const { return !changed_.empty(); }
  // Name and value of every evented variable that has changed; nothing counts as changed after it.
  // The variables of a service with LastChange are told by that one only.
  std::vector<std::pair<std::string, std::string>> TakeChanges();
  // Name and value of every evented variable, for a new subscriber.
  std::vector<std::pair<std::string, std::string>> All() const;

 private:
  std::string LastChangeText(const std::set<std::string>& variables) const;

  const ServiceModel* model_;
  std::map<std::string, std::string> values_;
  std::set<std::string> changed_;
};

// UPnP error code, 0 for a value that the variable may have.
int CheckValue(const VariableModel& variable, const std::string& value);

}  // namespace vexsim

#endif  // VEXSIM_SERVICE_STATE_H_

#include "service_state.h"

#include <algorithm>

#include "text.h"
#include "upnp_errors.h"
#include "xml.h"

namespace vexsim {

namespace {

constexpr std::string_view kArgumentType = "A_ARG_TYPE_";

bool IsChannelVariable(const std::string& name) {
  return name == "Volume" || name == "Mute" || name == "VolumeDB" || name == "Loudness";
}

bool IsNumber(const std::string& type) {
  return type == "ui1" || type == "ui2" || type == "ui4" || type == "i1" || type == "i2" ||
         type == "i4" || type == "int";
}

int CheckNumber(const VariableModel& variable, const std::string& value) {
  const auto number = ToNumber<long long>(value);
  if (!number) return kArgumentInvalid;
  if (variable.data_type[0] == 'u' && *number < 0) return kArgumentInvalid;
  const auto minimum = ToNumber<long long>(variable.minimum);
  const auto maximum = ToNumber<long long>(variable.maximum);
  if ((minimum && *number < *minimum) || (maximum && *number > *maximum)) return kArgumentRange;
  return 0;
}

}  // namespace

int CheckValue(const VariableModel& variable, const std::string& value) {
  if (IsNumber(variable.data_type)) return CheckNumber(variable, value);
  if (variable.data_type == "boolean") {
    for (const std::string_view word : {"0", "1", "true", "false", "yes", "no"})
      if (value == word) return 0;
    return kArgumentInvalid;
  }
  if (variable.allowed.empty() ||
      std::find(variable.allowed.begin(), variable.allowed.end(), value) != variable.allowed.end())
    return 0;
  return kArgumentInvalid;
}

ServiceState::ServiceState(const ServiceModel& model) : model_(&model) {
  for (const VariableModel& variable : model.variables) values_[variable.name] = variable.initial;
}

std::string ServiceState::Get(const std::string& variable) const {
  const auto found = values_.find(variable);
  return found == values_.end() ? std::string() : found->second;
}

void ServiceState::Set(const std::string& variable, const std::string& value) {
  const auto found = values_.find(variable);
  if (found == values_.end() || found->second == value) return;
  found->second = value;
  if (variable.compare(0, kArgumentType.size(), kArgumentType) != 0) changed_.insert(variable);
}

std::vector<std::pair<std::string, std::string>> ServiceState::TakeChanges() {
  const std::set<std::string> changed = std::exchange(changed_, {});
  std::vector<std::pair<std::string, std::string>> told;
  if (changed.empty()) return told;
  if (model_->Variable(kLastChange) != nullptr) {
    values_[kLastChange] = LastChangeText(changed);
    told.emplace_back(kLastChange, values_[kLastChange]);
    return told;
  }
  for (const VariableModel& variable : model_->variables)
    if (variable.evented && changed.count(variable.name) > 0)
      told.emplace_back(variable.name, Get(variable.name));
  return told;
}

std::vector<std::pair<std::string, std::string>> ServiceState::All() const {
  std::vector<std::pair<std::string, std::string>> told;
  for (const VariableModel& variable : model_->variables) {
    if (!variable.evented) continue;
    if (variable.name != kLastChange) {
      told.emplace_back(variable.name, Get(variable.name));
      continue;
    }
    std::set<std::string> names;
    for (const auto& [name, value] : values_)
      if (name != kLastChange && name.compare(0, kArgumentType.size(), kArgumentType) != 0)
        names.insert(name);
    told.emplace_back(kLastChange, LastChangeText(names));
  }
  return told;
}

std::string ServiceState::LastChangeText(const std::set<std::string>& variables) const {
  const bool rendering = model_->ShortName() == "RenderingControl";
  std::string text = std::string("<Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/") +
                     (rendering ? "RCS" : "AVT") + "/\"><InstanceID val=\"0\">";
  for (const std::string& name : variables) {
    text += "<" + name;
    if (IsChannelVariable(name)) text += " channel=\"Master\"";
    text += " val=\"" + EscapeXml(Get(name)) + "\"/>";
  }
  return text + "</InstanceID></Event>";
}

}  // namespace vexsim

#include "house.h"

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/xml_utils.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "report.h"

namespace soak {

namespace {

constexpr std::chrono::milliseconds kLook{20};

const std::string* Find(const Texts& texts, const std::string& name) {
  for (const auto& [key, value] : texts)
    if (key == name) return &value;
  return nullptr;
}

// The library gives values as they stood in the message.
std::string Unescaped(const std::string& value) {
  std::string text;
  if (vex_upnp::utils::XmlUnescapeValue(value, text) != 0) return std::string();
  return text;
}

// What stands in a LastChange after the variable's val="; -1 for none.
int Volume(const std::string& value) {
  const std::string last_change = Unescaped(value);
  const std::size_t variable = last_change.find("<Volume ");
  constexpr char kMark[] = "val=\"";
  const std::size_t mark =
      variable == std::string::npos ? variable : last_change.find(kMark, variable);
  if (mark == std::string::npos) return -1;
  return std::atoi(last_change.c_str() + mark + sizeof(kMark) - 1);
}

// The first address in an answer to Browse.
std::string FirstResource(const std::string& didl) {
  const std::size_t element = didl.find("<res ");
  const std::size_t begin = element == std::string::npos ? element : didl.find('>', element);
  const std::size_t end = begin == std::string::npos ? begin : didl.find("</res>", begin);
  return end == std::string::npos ? std::string() : didl.substr(begin + 1, end - begin - 1);
}

}  // namespace

const char* DeviceType(Kind kind) {
  switch (kind) {
    case Kind::kLamp:
      return "urn:schemas-upnp-org:device:DimmableLight:1";
    case Kind::kRenderer:
      return "urn:schemas-upnp-org:device:MediaRenderer:1";
    case Kind::kMediaServer:
      return "urn:schemas-upnp-org:device:MediaServer:1";
    case Kind::kGenerated:
      break;
  }
  return "urn:schemas-vexsim:device:Generated:1";
}

std::optional<Kind> KindOf(const std::string& device_type) {
  for (const Kind kind : {Kind::kLamp, Kind::kRenderer, Kind::kMediaServer, Kind::kGenerated})
    if (device_type == DeviceType(kind)) return kind;
  return std::nullopt;
}

const std::vector<std::string>& Services(Kind kind) {
  static const std::vector<std::string> lamp{"Dimming:1", "SwitchPower:1"};
  static const std::vector<std::string> renderer{"RenderingControl:1"};
  static const std::vector<std::string> generated{"Level1:1"};
  static const std::vector<std::string> none;
  switch (kind) {
    case Kind::kLamp:
      return lamp;
    case Kind::kRenderer:
      return renderer;
    case Kind::kGenerated:
      return generated;
    case Kind::kMediaServer:
      break;
  }
  return none;
}

std::string House::UdnOf(const std::string& key) { return key.substr(0, key.find('+')); }

void House::Promise(const std::string& udn, bool slow) {
  const std::lock_guard<std::mutex> lock(mutex_);
  promised_[udn] = slow;
}

void House::Added(const std::string& key, Kind kind) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto promise = promised_.find(UdnOf(key));
  Device& device = devices_[key];
  device = Device();
  device.kind = kind;
  device.stable = promise != promised_.end();
  device.slow = device.stable && promise->second;
}

void House::Removed(const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(key);
  if (found == devices_.end()) return;
  if (found->second.stable) Violation(key + " was removed, although it lives");
  devices_.erase(found);
}

void House::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  devices_.clear();
}

std::optional<Kind> House::Find(const std::string& key) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(key);
  if (found == devices_.end()) return std::nullopt;
  return found->second.kind;
}

bool House::IsStable(const std::string& key) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return promised_.count(UdnOf(key)) > 0;
}

bool House::IsTimed(const std::string& key) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto promise = promised_.find(UdnOf(key));
  return promise == promised_.end() || !promise->second;
}

std::string House::AnyWatched(std::mt19937& random) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string chosen;
  unsigned seen = 0;
  for (const auto& [key, device] : devices_)
    if (device.level_open && device.level_begun && random() % ++seen == 0) chosen = key;
  return chosen;
}

void House::Opened(const std::string& key, const std::string& service) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(key);
  if (found == devices_.end() || service != Services(found->second.kind)[0]) return;
  found->second.level_open = true;
  found->second.level_begun = false;
}

void House::Closed(const std::string& key, const std::string& service) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(key);
  if (found == devices_.end() || service != Services(found->second.kind)[0]) return;
  found->second.level_open = false;
}

void House::Event(const std::string& key, const Texts& variables, std::int64_t time) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(key);
  // It has just been removed, and its subscriptions are about to end.
  if (found == devices_.end()) return;
  Device& device = found->second;
  for (const auto& [name, value] : variables) {
    if (name == "LoadLevelStatus" || name == "Level") {
      Level(key, device, value, time);
    } else if (name == "LastChange") {
      const int volume = Volume(value);
      if (volume >= 0) device.volume_told = volume;
    } else if (name == "Status") {
      device.power_told = std::atoi(value.c_str());
      if (device.power_begun) {
        ++device.switches_told;
      } else {
        device.power_begun = true;
        device.power_set = device.power_told;
      }
    }
  }
}

// The house numbers its changes: "7@1234" is the seventh, made at that time.
void House::Level(const std::string& key, Device& device, const std::string& value,
                  std::int64_t time) {
  char* end = nullptr;
  const long long number = std::strtoll(value.c_str(), &end, 10);
  if (!device.level_open) Violation(key + " told " + value + " behind UnSubscribeService");
  // A device that was switched off and on begins anew.
  const bool begins = !device.level_begun || (number == 0 && !device.stable);
  if (!begins && number != device.level + 1) {
    Violation(key + " told change " + std::to_string(number) + " behind " +
              std::to_string(device.level));
  }
  if (!begins) {
    ++counts.changes;
    if (*end == '@' && !device.slow)
      event_latencies.Add(time - static_cast<std::int64_t>(std::strtoll(end + 1, nullptr, 10)));
  }
  device.level_begun = true;
  device.level = number;
}

void House::Fill(Plan& plan, const Device& device, std::mt19937& random) {
  constexpr unsigned kVolumes = 100;
  switch (device.kind) {
    case Kind::kLamp:
      plan.service = "SwitchPower";
      plan.action = "SetTarget";
      plan.value = device.power_set == 1 ? 0 : 1;
      plan.arguments = {{"newTargetValue", std::to_string(plan.value)}};
      break;
    case Kind::kRenderer:
      plan.service = "RenderingControl";
      plan.arguments = {{"InstanceID", "0"}, {"Channel", "Master"}};
      if (random() % 2 == 0) {
        plan.action = "SetVolume";
        plan.value = static_cast<int>(random() % kVolumes);
        plan.arguments.emplace_back("DesiredVolume", std::to_string(plan.value));
      } else {
        plan.action = "GetVolume";
        plan.value = device.volume_set;
        plan.may_be_cancelled = true;
      }
      break;
    case Kind::kMediaServer:
      plan.service = "ContentDirectory";
      plan.action = "Browse";
      plan.may_be_cancelled = true;
      plan.arguments = {{"ObjectID", "music"},    {"BrowseFlag", "BrowseDirectChildren"},
                        {"Filter", "*"},          {"StartingIndex", "0"},
                        {"RequestedCount", "10"}, {"SortCriteria", ""}};
      break;
    case Kind::kGenerated:
      plan.service = "Level1";
      plan.action = "GetLevel";
      plan.may_be_cancelled = true;
      break;
  }
}

std::optional<Plan> House::NextAction(std::mt19937& random) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Device* chosen = nullptr;
  Plan plan;
  unsigned seen = 0;
  for (auto& [key, device] : devices_) {
    if (device.busy || (device.kind == Kind::kLamp && !device.power_begun)) continue;
    if (random() % ++seen != 0) continue;
    chosen = &device;
    plan.key = key;
  }
  if (chosen == nullptr) return std::nullopt;
  chosen->busy = true;
  plan.kind = chosen->kind;
  Fill(plan, *chosen, random);
  return plan;
}

void House::Abandoned(const Plan& plan) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(plan.key);
  if (found != devices_.end()) found->second.busy = false;
}

void House::Judge(const Plan& plan, const Outcome& outcome, Device& device) {
  const bool gives_output = plan.may_be_cancelled;
  const bool good = gives_output ? outcome.code == CP_ERR_NONE
                                 // An action without outputs ends so, without words.
                                 : outcome.code == CP_ERR_ACTION_FAILED && !outcome.described;
  if (!good) {
    ++counts.failures;
    device.power_set = device.volume_set = -1;
    if (device.stable) {
      Violation(plan.key + " " + plan.action + " ended with " + std::to_string(outcome.code) + " " +
                outcome.description);
    }
    return;
  }
  const std::string* const volume = soak::Find(outcome.output, "CurrentVolume");
  if (plan.action == "SetTarget") {
    device.power_set = plan.value;
    ++device.switched;
  } else if (plan.action == "SetVolume") {
    device.volume_set = plan.value;
  } else if (plan.action == "GetVolume" && plan.value >= 0 &&
             (volume == nullptr || *volume != std::to_string(plan.value))) {
    Violation(plan.key + " answered another volume than was set");
  }
}

std::string House::Ended(const Plan& plan, const Outcome& outcome) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = devices_.find(plan.key);
  if (found == devices_.end()) {
    if (outcome.code != CP_ERR_NONE) ++counts.failures;
    return std::string();
  }
  found->second.busy = false;
  Judge(plan, outcome, found->second);
  if (plan.action != "Browse" || outcome.code != CP_ERR_NONE) return std::string();
  const std::string* const didl = soak::Find(outcome.output, "Result");
  const std::string url = didl == nullptr ? std::string() : FirstResource(Unescaped(*didl));
  if (url.empty()) Violation(plan.key + " was browsed without a result");
  return url;
}

std::string House::Expect(const std::string& udn, long long number, std::int64_t limit) const {
  const std::int64_t end = Now() + limit;
  for (;;) {
    std::string seen = "not listed";
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& [key, device] : devices_) {
        if (UdnOf(key) != udn) continue;
        seen = device.level_begun ? std::to_string(device.level) : "not told";
        if (!device.level_open) return "not subscribed";
        if (device.level_begun && device.level == number) return "told";
      }
    }
    if (Now() > end) return seen;
    std::this_thread::sleep_for(kLook);
  }
}

bool House::IsSettled(const Device& device) {
  if (device.kind == Kind::kLamp && device.power_set >= 0)
    return device.power_told == device.power_set && device.switches_told == device.switched;
  if (device.kind == Kind::kRenderer && device.volume_set >= 0)
    return device.volume_told == device.volume_set;
  return true;
}

int House::Settle(std::int64_t limit) const {
  const std::int64_t end = Now() + limit;
  for (;;) {
    int looked_at = 0;
    bool all = true;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& [key, device] : devices_) {
        if (!device.stable) continue;
        ++looked_at;
        if (IsSettled(device)) continue;
        all = false;
        if (Now() > end) Violation(key + " has not told what was set by actions");
      }
    }
    if (all || Now() > end) return looked_at;
    std::this_thread::sleep_for(kLook);
  }
}

}  // namespace soak

#include "control_point.h"

#include <vexupnpcp/framework_controller_cp.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "report.h"

namespace soak {

namespace {

namespace fw = vex_upnp::framework_core;

constexpr int kEventPort = 47000;
constexpr int kSsdpPort = 1900;
constexpr int kSearchPort = 3900;
constexpr int kDeviceAdded = 1;
constexpr std::int64_t kSecond = 1000000000;
// The library gives an action up after 30 s.
constexpr std::int64_t kOverdue = 40 * kSecond;
// A callback that was on its way when its action was cancelled has come by then.
constexpr std::int64_t kCancelledKept = 5 * kSecond;
constexpr std::int64_t kLookPause = kSecond;
// Each of the four types every 20 s.
constexpr std::int64_t kRescanPause = 5 * kSecond;
constexpr std::int64_t kSubscriptionPause = 2 * kSecond;
constexpr std::int64_t kGuestPause = 15 * kSecond;
// One in so many of those that may be cancelled.
constexpr unsigned kCancelled = 10;

constexpr std::array<Kind, 4> kKinds{Kind::kLamp, Kind::kRenderer, Kind::kMediaServer,
                                     Kind::kGenerated};

// The records take plain strings, which the library only reads.
char* Lend(const std::string& text) { return const_cast<char*>(text.c_str()); }
char* Lend(const char* text) { return const_cast<char*>(text); }

// All four types, as RegisterCP takes them.
class Types {
 public:
  Types() {
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      nodes_[i].device_type = Lend(DeviceType(kKinds[i]));
      nodes_[i].next = i + 1 < nodes_.size() ? &nodes_[i + 1] : nullptr;
    }
  }
  const CPDeviceTypeInfo* head() const { return nodes_.data(); }

 private:
  std::array<CPDeviceTypeInfo, kKinds.size()> nodes_{};
};

Texts Copied(const CPArgument* arguments) {
  Texts texts;
  for (; arguments != nullptr; arguments = arguments->next)
    texts.emplace_back(arguments->name, arguments->value);
  return texts;
}

void Check(int result, const char* what) {
  if (result == 0) return;
  std::fprintf(stderr, "soak_host: %s gave %d\n", what, result);
  std::exit(1);
}

void Note(int result, const std::string& what) {
  if (result != 0) Violation(what + " gave " + std::to_string(result));
}

}  // namespace

ControlPoint* ControlPoint::current_ = nullptr;

ControlPoint::ControlPoint(House& house, Downloads& downloads, unsigned actions_per_second)
    : house_(house), downloads_(downloads), action_pause_(kSecond / actions_per_second) {
  current_ = this;
}

ControlPoint::~ControlPoint() { current_ = nullptr; }

void ControlPoint::Start(const std::string& interface_name) {
  Check(fw::InitFrameworkCore(""), "InitFrameworkCore");
  Check(fw::ConfigureServers(kEventPort, kSsdpPort, kSearchPort, false), "ConfigureServers");
  Check(fw::StartFrameworkCore(), "StartFrameworkCore");
  Check(fw::StartNetworkMonitor(), "StartNetworkMonitor");
  Check(fw::ConfigureApplicationOnInterface(interface_name.c_str()),
        "ConfigureApplicationOnInterface");
  Check(InitializeGenericCP(), "InitializeGenericCP");
  Check(fw::ConfigureAutoRescanFeature(true), "ConfigureAutoRescanFeature");
  Register();
}

void ControlPoint::Register() {
  ControlPointCalbacks callbacks{&OnEvent, &OnAction, &OnDevice, nullptr};
  Check(RegisterCP(Types().head(), &callbacks, &handle_), "RegisterCP");
  TakeUpListed();
}

void ControlPoint::RegisterAnew() {
  Note(UnRegisterCP(handle_), "UnRegisterCP");
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    // Of the control point that is gone; the list tells the rest.
    device_events_.clear();
  }
  house_.Clear();
  ++counts.control_points;
  Register();
}

void ControlPoint::Stop() {
  Note(UnRegisterCP(handle_), "UnRegisterCP");
  Note(TerminateGenericCP(), "TerminateGenericCP");
  Note(fw::StopNetworkMonitor(), "StopNetworkMonitor");
  Note(fw::TerminateFrameworkCore(), "TerminateFrameworkCore");
}

void ControlPoint::OnEvent(const char* udn, errorcodes code, CPArgument* variables) {
  const std::int64_t now = Now();
  ++counts.events;
  if (code != CP_ERR_NONE) Violation(std::string(udn) + " event came with " + std::to_string(code));
  current_->house_.Event(udn, Copied(variables), now);
}

void ControlPoint::OnAction(int id, errorcodes code, CPArgument* output, const char* description) {
  Outcome outcome;
  outcome.time = Now();
  outcome.id = id;
  outcome.code = code;
  outcome.output = Copied(output);
  outcome.described = description != nullptr;
  if (outcome.described) outcome.description = description;
  const std::lock_guard<std::mutex> lock(current_->mutex_);
  current_->outcomes_.push_back(std::move(outcome));
}

void ControlPoint::OnDevice(int event, CPDeviceInfo* device) {
  const std::optional<Kind> kind = KindOf(device->device_type);
  if (!kind) return;
  const std::string udn = device->udn;
  Print("{\"e\": \"device\", \"t\": %lld, \"event\": %d, \"udn\": %s}",
        static_cast<long long>(Now()), event, Quoted(udn.substr(0, udn.find('+'))).c_str());
  const std::lock_guard<std::mutex> lock(current_->mutex_);
  current_->device_events_.push_back({event, udn, *kind});
}

void ControlPoint::Work() {
  const std::int64_t now = Now();
  HandleDevices();
  HandleOutcomes();
  SendDue();
  if (now > next_look_) {
    next_look_ = now + kLookPause;
    CountOverdue();
  }
  if (now > next_rescan_) {
    next_rescan_ = now + kRescanPause;
    ++counts.rescans;
    Note(RescanNetwork(handle_, DeviceType(kKinds[rescans_++ % kKinds.size()])), "RescanNetwork");
  }
  if (held_) return;
  if (now > next_subscription_) {
    next_subscription_ = now + kSubscriptionPause;
    SubscribeAnew();
  }
  if (now > next_guest_) {
    next_guest_ = now + kGuestPause;
    RegisterGuest();
  }
}

bool ControlPoint::Idle() {
  for (const auto& entry : open_)
    if (!entry.second.cancelled) return false;
  return true;
}

void ControlPoint::TakeUp(const std::string& key, Kind kind) {
  ++counts.added;
  house_.Added(key, kind);
  for (const std::string& service : Services(kind)) Subscribe(key, service);
}

// Those that were ready before there was a callback.
void ControlPoint::TakeUpListed() {
  for (const Kind kind : kKinds) {
    CPDeviceInfo* list = nullptr;
    if (GetDeviceList(handle_, DeviceType(kind), &list) != 0) continue;
    for (const CPDeviceInfo* device = list; device != nullptr; device = device->next)
      if (!house_.Find(device->udn)) TakeUp(device->udn, kind);
    FreeDeviceList(list);
  }
}

void ControlPoint::Subscribe(const std::string& key, const std::string& service) {
  // The first event may come before the call has returned.
  house_.Opened(key, service);
  ++counts.subscriptions;
  const int code = SubscribeService(handle_, key.c_str(), service.c_str());
  if (code == CP_ERR_NONE) return;
  house_.Closed(key, service);
  if (code == CP_ERR_ALREADY_SUBSCRIBED) ++counts.stuck;
  if (house_.IsStable(key)) Note(code, "SubscribeService for " + key + " " + service);
}

void ControlPoint::HandleDevices() {
  std::deque<DeviceEvent> events;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    events.swap(device_events_);
  }
  for (const DeviceEvent& event : events) {
    if (event.event == kDeviceAdded) {
      if (!house_.Find(event.key)) TakeUp(event.key, event.kind);
      continue;
    }
    ++counts.removed;
    house_.Removed(event.key);
    for (const std::string& service : Services(event.kind))
      if (UnSubscribeService(handle_, event.key.c_str(), service.c_str()) != 0) ++counts.left;
  }
}

void ControlPoint::HandleOutcomes() {
  std::deque<Outcome> outcomes;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    outcomes.swap(outcomes_);
  }
  for (const Outcome& outcome : outcomes) {
    const auto found = open_.find(outcome.id);
    if (found == open_.end()) {
      Violation("an outcome for action " + std::to_string(outcome.id) + ", which is not open");
      continue;
    }
    const Open ended = std::move(found->second);
    open_.erase(found);
    if (ended.cancelled) continue;
    ++counts.outcomes;
    if (house_.IsTimed(ended.plan.key) && !outcome.described)
      action_latencies.Add(outcome.time - ended.begun);
    const std::string url = house_.Ended(ended.plan, outcome);
    if (!url.empty()) downloads_.Add(url, house_.IsStable(ended.plan.key));
  }
}

void ControlPoint::CountOverdue() {
  const std::int64_t now = Now();
  for (auto entry = open_.begin(); entry != open_.end();) {
    const Open& open = entry->second;
    const bool over = now - open.begun > (open.cancelled ? kCancelledKept : kOverdue);
    if (over && !open.cancelled) {
      Violation(open.plan.key + " " + open.plan.action + " has had no outcome for 40 s");
      house_.Abandoned(open.plan);
    }
    entry = over ? open_.erase(entry) : std::next(entry);
  }
}

void ControlPoint::SendDue() {
  const std::int64_t now = Now();
  // After a pause nothing is made up for.
  if (held_ || now - next_action_ > kSecond) next_action_ = now;
  while (!held_ && next_action_ <= now) {
    next_action_ += action_pause_;
    const std::optional<Plan> plan = house_.NextAction(random_);
    if (!plan) return;
    Send(*plan);
  }
}

void ControlPoint::Send(const Plan& plan) {
  std::vector<CPArgument> arguments(plan.arguments.size());
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    arguments[i].name = Lend(plan.arguments[i].first);
    arguments[i].value = Lend(plan.arguments[i].second);
    arguments[i].next = i + 1 < arguments.size() ? &arguments[i + 1] : nullptr;
  }
  int id = 0;
  Open open{plan, Now(), false};
  const int code = SendAction(handle_, plan.key.c_str(), plan.service.c_str(), plan.action.c_str(),
                              arguments.empty() ? nullptr : arguments.data(), &id);
  if (code != CP_ERR_NONE) {
    house_.Abandoned(plan);
    if (house_.IsStable(plan.key)) Note(code, "SendAction to " + plan.key);
    return;
  }
  ++counts.actions;
  if (plan.may_be_cancelled && random_() % kCancelled == 0) {
    CancelAction(handle_, id);
    ++counts.cancelled;
    house_.Abandoned(plan);
    open.cancelled = true;
  }
  if (!open_.emplace(id, std::move(open)).second)
    Violation("action " + std::to_string(id) + " was given out twice");
}

// Ends a subscription that runs, and begins it again.
void ControlPoint::SubscribeAnew() {
  const std::string key = house_.AnyWatched(random_);
  const std::optional<Kind> kind = house_.Find(key);
  if (!kind) return;
  const std::string& service = Services(*kind)[0];
  const int code = UnSubscribeService(handle_, key.c_str(), service.c_str());
  house_.Closed(key, service);
  if (code != CP_ERR_NONE) {
    if (house_.IsStable(key)) Note(code, "UnSubscribeService for " + key);
    return;
  }
  Subscribe(key, service);
}

// A second control point that comes, looks around and goes.
void ControlPoint::RegisterGuest() {
  ControlPointCalbacks callbacks{};
  int guest = 0;
  Note(RegisterCP(Types().head(), &callbacks, &guest), "RegisterCP");
  CPDeviceInfo* list = nullptr;
  CPDetailedDeviceInfo* details = nullptr;
  char* description = nullptr;
  if (GetDeviceList(guest, DeviceType(Kind::kRenderer), &list) == 0) {
    if (GetDetailedDeviceInfo(guest, list->udn, &details) == 0) FreeDetailedDeviceInfo(details);
    if (GetServiceDescription(guest, list->udn, "AVTransport", &description) == 0)
      std::free(description);
    SubscribeService(guest, list->udn, "AVTransport");
    FreeDeviceList(list);
  }
  Note(UnRegisterCP(guest), "UnRegisterCP");
  ++counts.control_points;
}

std::vector<std::string> ControlPoint::Listed() {
  std::vector<std::string> udns;
  for (const Kind kind : kKinds) {
    CPDeviceInfo* list = nullptr;
    if (GetDeviceList(handle_, DeviceType(kind), &list) != 0) continue;
    for (const CPDeviceInfo* device = list; device != nullptr; device = device->next) {
      const std::string key = device->udn;
      udns.push_back(key.substr(0, key.find('+')));
    }
    FreeDeviceList(list);
  }
  return udns;
}

}  // namespace soak

#include "tests/stress/host_calls.h"

#include <array>
#include <atomic>
#include <cstdlib>

#include <vexupnpcp/generic_cp.h>

#include "tests/stress/direct_calls.h"
#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;

constexpr std::size_t kActionsKept = 30;

// One control point of the host. Callbacks carry no handle, so each has functions of its own.
struct Slot {
  std::atomic<bool> registered{false};
  std::atomic<int> handle{0};
};
std::array<Slot, kHostThreads> slots;

// Checks at both ends of a callback that its control point is registered: UnRegisterCP waits for
// callbacks that run, and none comes later.
class InCallback {
 public:
  InCallback(const Slot& slot, const char* name) : slot_(slot), name_(name) {
    Counts::Add(name);
    Check("began");
  }
  ~InCallback() { Check("still ran"); }

 private:
  void Check(const char* what) const {
    if (!slot_.registered) Violation(std::string(name_) + what + " behind UnRegisterCP");
  }
  const Slot& slot_;
  const char* const name_;
};

thread_local std::mt19937 callback_random{std::random_device()()};

template <int kSlot>
void OnEvent(const char* udn, errorcodes code, CPArgument* variables) {
  Slot& slot = slots[kSlot];
  const InCallback inside(slot, "callback: event");
  if (code == CP_ERR_NONE && variables == nullptr) Violation("an event without variables");
  const unsigned mood = static_cast<unsigned>(callback_random() % 20);
  if (mood < 2) {
    const Call call("SendAction inside event_callback");
    int id = 0;
    ::SendAction(slot.handle, udn, "AVTransport", "Play", nullptr, &id);
  } else if (mood == 2) {
    const Call call("UnSubscribeService inside event_callback");
    ::UnSubscribeService(slot.handle, udn, kServices[callback_random() % 3].c_str());
  } else if (mood == 3) {
    const Call call("SubscribeService inside event_callback");
    ::SubscribeService(slot.handle, udn, kServices[callback_random() % 3].c_str());
  }
}

template <int kSlot>
void OnAction(int, errorcodes code, CPArgument* output, const char* description) {
  const InCallback inside(slots[kSlot], "callback: action");
  if (code == CP_ERR_NONE) {
    Counts::Add("action: succeeded");
    if (output == nullptr) Violation("a success without outputs");
  } else if (description != nullptr) {
    Counts::Add(std::string("action: ") + description);
  } else {
    Counts::Add("action: answer not understood");
  }
}

template <int kSlot>
void OnDevice(int event, CPDeviceInfo* device) {
  Slot& slot = slots[kSlot];
  const InCallback inside(slot, "callback: device");
  Counts::Add(event == 1 ? "device: added" : "device: removed");
  if (event != 1 || callback_random() % 4 != 0) return;
  const Call call("SubscribeDevice inside device_callback");
  ::SubscribeDevice(slot.handle, device->udn);
}

template <int kSlot>
ControlPointCalbacks CallbacksOf() {
  return {&OnEvent<kSlot>, &OnAction<kSlot>, &OnDevice<kSlot>, nullptr};
}

ControlPointCalbacks CallbacksOfSlot(int slot) {
  static const std::array<ControlPointCalbacks, kHostThreads> all = {
      CallbacksOf<0>(), CallbacksOf<1>(), CallbacksOf<2>(), CallbacksOf<3>(),
      CallbacksOf<4>(), CallbacksOf<5>(), CallbacksOf<6>(), CallbacksOf<7>()};
  return all[static_cast<std::size_t>(slot)];
}

struct WeightedCall {
  unsigned weight;
  void (HostThread::*call)();
};

constexpr WeightedCall kCalls[] = {
    {6, &HostThread::Register},
    {3, &HostThread::UnRegister},
    {40, &HostThread::Send},
    {12, &HostThread::Cancel},
    {25, &HostThread::SubscribeService},
    {12, &HostThread::UnSubscribeService},
    {6, &HostThread::SubscribeDevice},
    {25, &HostThread::Read},
    {4, &HostThread::Rescan},
    {30, &HostThread::SendDirect},
    {10, &HostThread::CancelDirect},
    {15, &HostThread::SubscribeDirect},
    {12, &HostThread::UnsubscribeDirect},
    {10, &HostThread::Exchange},
    {8, &HostThread::Discover},
    {10, &HostThread::RunTimer},
    {6, &HostThread::Listen},
    {4, &HostThread::WatchInterfaces},
    {4, &HostThread::SendDatagrams},
    {4, &HostThread::AskAddresses},
    {1, &HostThread::Probe},
    {4, &HostThread::Configure},
    {4, &HostThread::ConfigureServers},
    {4, &HostThread::ConfigureDiscovery},
    {8, &HostThread::Fetch},
    {5, &HostThread::Upload},
    {4, &HostThread::FetchSync},
    {6, &HostThread::Serve},
    {4, &HostThread::AskStreaming},
    {8, &HostThread::UseUtilities},
};

}  // namespace

int HostThread::handle() const { return slots[static_cast<std::size_t>(slot_)].handle; }

const MoodyDevice& HostThread::AnyDevice() {
  return *network_.devices()[Dice(static_cast<unsigned>(network_.devices().size()))];
}

const std::string& HostThread::AnyService() {
  return kServices[Dice(static_cast<unsigned>(kServices.size()))];
}

void HostThread::CallAtRandom() {
  unsigned all = 0;
  for (const WeightedCall& one : kCalls) all += one.weight;
  unsigned chosen = Dice(all);
  for (const WeightedCall& one : kCalls) {
    if (chosen < one.weight) {
      (this->*one.call)();
      return;
    }
    chosen -= one.weight;
  }
}

void HostThread::Forget() {
  slots[static_cast<std::size_t>(slot_)].handle = 0;
  actions_.clear();
  direct_actions_.clear();
  subscriptions_.clear();
  ended_.clear();
  ForgetRegistrations();
  media_configuration_ = 0;
}

void CloseAllSlots() {
  for (Slot& slot : slots) slot.registered = false;
}

void HostThread::Register() {
  if (handle() != 0) return;
  Slot& slot = slots[static_cast<std::size_t>(slot_)];
  char all[] = "upnp:rootdevice";
  char servers[] = "urn:schemas-upnp-org:device:MediaServer:1";
  CPDeviceTypeInfo second = {servers, nullptr};
  CPDeviceTypeInfo types = {all, Dice(2) == 0 ? &second : nullptr};
  ControlPointCalbacks callbacks = CallbacksOfSlot(slot_);
  int handle = 0;
  slot.registered = true;
  const Call call("RegisterCP");
  if (::RegisterCP(&types, &callbacks, &handle) != 0) Violation("RegisterCP failed");
  slot.handle = handle;
}

void HostThread::UnRegister() {
  // Most control points live through some time-outs.
  if (handle() == 0 || Dice(30) != 0) return;
  Slot& slot = slots[static_cast<std::size_t>(slot_)];
  {
    const Call call("UnRegisterCP");
    if (::UnRegisterCP(slot.handle) != 0) Violation("UnRegisterCP failed");
  }
  slot.registered = false;
  slot.handle = 0;
  actions_.clear();
}

void HostThread::Send() {
  char name[] = "InstanceID";
  char value[] = "0";
  CPArgument argument = {name, value, nullptr};
  const std::string key = AnyDevice().key();
  int id = 0;
  const Call call("SendAction");
  if (::SendAction(handle(), key.c_str(), AnyService().c_str(), "Play", &argument, &id) != 0)
    return;
  Counts::Add("action: sent");
  actions_.push_back(id);
  if (actions_.size() > kActionsKept) actions_.pop_front();
}

void HostThread::Cancel() {
  if (actions_.empty()) return;
  const std::size_t chosen = Dice(static_cast<unsigned>(actions_.size()));
  const Call call("CancelAction");
  ::CancelAction(handle(), actions_[chosen]);
}

void HostThread::SubscribeService() {
  const std::string key = AnyDevice().key();
  const Call call("SubscribeService");
  if (::SubscribeService(handle(), key.c_str(), AnyService().c_str()) == 0)
    Counts::Add("subscription: sent");
}

void HostThread::UnSubscribeService() {
  const std::string key = AnyDevice().key();
  const Call call("UnSubscribeService");
  ::UnSubscribeService(handle(), key.c_str(), AnyService().c_str());
}

void HostThread::SubscribeDevice() {
  const std::string key = AnyDevice().key();
  if (Dice(2) == 0) {
    const Call call("SubscribeDevice");
    ::SubscribeDevice(handle(), key.c_str());
  } else {
    const Call call("UnSubscribeDevice");
    ::UnSubscribeDevice(handle(), key.c_str());
  }
}

void HostThread::Read() {
  const std::string key = AnyDevice().key();
  CPDeviceInfo* list = nullptr;
  CPDetailedDeviceInfo* details = nullptr;
  char* text = nullptr;
  const Call call("GetDeviceList, details, description");
  if (::GetDeviceList(handle(), "upnp:rootdevice", &list) == 0) ::FreeDeviceList(list);
  if (::GetDetailedDeviceInfo(handle(), key.c_str(), &details) == 0)
    ::FreeDetailedDeviceInfo(details);
  if (::GetServiceDescription(handle(), key.c_str(), AnyService().c_str(), &text) == 0)
    std::free(text);
  ::GenericCPSetUserAgent(Dice(2) == 0 ? "stress/1.0" : "");
  std::free(::GenericCPGetUserAgent());
}

void HostThread::Rescan() {
  const Call call("RescanNetwork");
  ::RescanNetwork(handle(), Dice(3) == 0 ? "urn:schemas-upnp-org:device:MediaServer:1" : nullptr);
}

}  // namespace vex_stress

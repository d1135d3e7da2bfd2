#include "tests/support/still_works.h"

#include <atomic>
#include <chrono>
#include <string>

#include <vexupnpcp/generic_cp.h>

#include "tests/support/host_rig.h"
#include "tests/support/scripted_device.h"
#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

constexpr char kLibraryAddress[] = "10.77.0.1";
constexpr char kService[] = "SwitchPower";
constexpr int kAdded = 1;
constexpr int kRemoved = 2;

bool WasTold(int event, const std::string& udn) {
  for (const ToldDevice& told : HostLog::Devices()) {
    if (told.event == event && told.udn == udn) return true;
  }
  return false;
}

// Says something again and again until it has been heard. The next datagram behind a cut one may be
// lost with it, and so may one in the middle of a flood.
template <typename Say, typename Heard>
bool SayUntil(Say say, Heard heard) {
  return WaitUntil(
      [&] {
        say();
        return WaitUntil(heard, std::chrono::milliseconds(300));
      },
      std::chrono::minutes(2));
}

bool ActsOnce(int handle, const std::string& udn, std::string& told_text, bool& timed_out) {
  int id = 0;
  const int sent = SendAction(handle, udn.c_str(), kService, "GetStatus", nullptr, &id);
  if (sent != 0) {
    told_text = "SendAction gave " + std::to_string(sent);
    return false;
  }
  ToldAction outcome = {};
  const bool came = WaitUntil([&] {
    for (const ToldAction& told : HostLog::Actions()) {
      if (told.action_id != id) continue;
      outcome = told;
      return true;
    }
    return false;
  });
  if (came && outcome.code == CP_ERR_NONE && outcome.output == "Status=on") return true;
  timed_out = came && outcome.description == "'Action Timeout'";
  told_text = came ? "the answer was " + std::to_string(outcome.code) + ", " + outcome.output
                   : "no answer came";
  return false;
}

// In tests that shorten the time an action has, a busy machine may make one too late.
bool Acts(int handle, const std::string& udn, std::string& told_text) {
  for (int i = 0; i < 3; ++i) {
    bool timed_out = false;
    if (ActsOnce(handle, udn, told_text, timed_out)) return true;
    if (!timed_out) return false;
  }
  return false;
}

bool Hears(int handle, const std::string& udn, ScriptedDevice& device) {
  if (SubscribeService(handle, udn.c_str(), kService) != 0) return false;
  // Until the subscription is answered its identifier is unknown here.
  const bool taken = WaitUntil([&] {
    return device.Notify(kService, 0, "<e:property><Status>on</Status></e:property>") ==
           "HTTP/1.1 200 OK";
  });
  const bool heard = taken && WaitUntil([&] {
                       for (const ToldEvent& told : HostLog::Events()) {
                         if (told.udn == udn && told.variables == "Status=on") return true;
                       }
                       return false;
                     });
  return UnSubscribeService(handle, udn.c_str(), kService) == 0 && heard;
}

}  // namespace

testing::AssertionResult StillWorks(int handle, int udp_port) {
  static std::atomic<int> round{0};
  ScriptedDevice device("uuid:good-" + std::to_string(++round), {kService});
  device.OnAction([](const PeerRequest&) {
    return ScriptedDevice::Response("GetStatus", "<Status>on</Status>");
  });
  const std::string udn = device.udn() + "+lan0";
  if (!SayUntil([&] { device.SayAlive(kLibraryAddress, udp_port); },
                [&] { return WasTold(kAdded, udn); })) {
    return testing::AssertionFailure() << udn << " was not found";
  }
  std::string told;
  if (!Acts(handle, udn, told)) {
    return testing::AssertionFailure() << udn << " could not be acted on: " << told;
  }
  if (!Hears(handle, udn, device)) {
    return testing::AssertionFailure() << "no event of " << udn << " was heard";
  }
  if (!SayUntil([&] { device.SayByebye(kLibraryAddress, udp_port); },
                [&] { return WasTold(kRemoved, udn); })) {
    return testing::AssertionFailure() << udn << " did not go";
  }
  return testing::AssertionSuccess();
}

}  // namespace vex_test

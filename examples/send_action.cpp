// Sends one action to a device and prints what it answers.
//
//   send_action TYPE SERVICE ACTION [NAME=VALUE]...
//   send_action urn:schemas-upnp-org:device:DimmableLight:1 SwitchPower SetTarget newTargetValue=1
//
// Takes the first device of the type that is found within ten seconds.

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

namespace framework = vex_upnp::framework_core;

constexpr int kMulticastPort = 1900;
constexpr int kSearchPort = 3800;
constexpr int kDeviceAdded = 1;
constexpr std::chrono::seconds kSearchTime(10);

std::mutex mutex;
std::condition_variable changed;
std::string found_udn;
bool answered = false;
bool succeeded = false;

void OnDevice(int event, CPDeviceInfo* device) {
  if (event != kDeviceAdded) return;
  const std::lock_guard<std::mutex> lock(mutex);
  found_udn = device->udn;
  changed.notify_all();
}

// Runs with the control point's lock held: it may call no function of generic_cp.h.
void OnAnswer(int, errorcodes code, CPArgument* output, const char* error) {
  for (const CPArgument* one = output; one != nullptr; one = one->next)
    std::printf("%s = %s\n", one->name, one->value);
  if (error != nullptr) std::printf("failed: %s\n", error);
  const std::lock_guard<std::mutex> lock(mutex);
  answered = true;
  // The success of an action without output arguments comes as a failure without words.
  succeeded = code == CP_ERR_NONE || (code == CP_ERR_ACTION_FAILED && error == nullptr);
  changed.notify_all();
}

bool Start() {
  return framework::InitFrameworkCore("") == 0 &&
         framework::ConfigureServers(0, kMulticastPort, kSearchPort, false) == 0 &&
         framework::StartFrameworkCore() == 0 && framework::StartNetworkMonitor() == 0 &&
         framework::ConfigureApplicationOnAllInterfaces() == 0 && InitializeGenericCP() == 0;
}

void Stop() {
  TerminateGenericCP();
  framework::StopNetworkMonitor();
  framework::TerminateFrameworkCore();
}

// Empty when there is none.
std::string FindDevice(int handle, const char* type) {
  CPDeviceInfo* list = nullptr;
  // Only what becomes ready from RegisterCP on is told.
  if (GetDeviceList(handle, type, &list) == 0) {
    const std::string udn = list->udn;
    FreeDeviceList(list);
    return udn;
  }
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_for(lock, kSearchTime, [] { return !found_udn.empty(); });
  return found_udn;
}

// A list that points into the words. Values go out as they stand: a host escapes them for XML.
std::vector<CPArgument> MakeArguments(char** words, int count) {
  std::vector<CPArgument> arguments;
  for (int i = 0; i < count; ++i) {
    char* const equal = std::strchr(words[i], '=');
    if (equal == nullptr) continue;
    *equal = '\0';
    arguments.push_back({words[i], equal + 1, nullptr});
  }
  for (std::size_t i = 1; i < arguments.size(); ++i) arguments[i - 1].next = &arguments[i];
  return arguments;
}

bool Send(int handle, char** words, std::vector<CPArgument> arguments) {
  const std::string udn = FindDevice(handle, words[0]);
  int id = 0;
  const int code = SendAction(handle, udn.c_str(), words[1], words[2],
                              arguments.empty() ? nullptr : arguments.data(), &id);
  if (code != 0) {
    std::fprintf(stderr, "send_action: %s (%d)\n", udn.empty() ? "no such device" : "not sent",
                 code);
    return false;
  }
  // The library sees to the end: without an answer it tells a failure after 30 seconds.
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [] { return answered; });
  return succeeded;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: send_action TYPE SERVICE ACTION [NAME=VALUE]...\n");
    return 2;
  }
  const CPDeviceTypeInfo types{argv[1], nullptr};
  ControlPointCalbacks callbacks{};
  callbacks.device_callback = OnDevice;
  callbacks.action_callback = OnAnswer;
  int handle = 0;
  bool done = false;
  if (Start() && RegisterCP(&types, &callbacks, &handle) == 0) {
    done = Send(handle, argv + 1, MakeArguments(argv + 4, argc - 4));
    UnRegisterCP(handle);
  }
  Stop();
  return done ? 0 : 1;
}

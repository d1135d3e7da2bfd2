// Subscribes a service of each device of a type and prints the events, for a number of seconds.
//
//   watch_events TYPE SERVICE [SECONDS]      default 10
//   watch_events urn:schemas-upnp-org:device:DimmableLight:1 SwitchPower 60

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

namespace framework = vex_upnp::framework_core;

// Devices send their events to the first port, answers to searches come to the third. The library
// takes the next free one when either is in use.
constexpr int kEventPort = 49500;
constexpr int kMulticastPort = 1900;
constexpr int kSearchPort = 3800;
constexpr int kDeviceAdded = 1;
constexpr int kDefaultSeconds = 10;

const char* service = nullptr;
// 0 until RegisterCP has returned.
std::atomic<int> handle{0};
std::atomic<int> events{0};

void Subscribe(const char* udn) {
  const int code = SubscribeService(handle, udn, service);
  // A device that came while the list was gone through is subscribed already.
  if (code != 0 && code != CP_ERR_ALREADY_SUBSCRIBED)
    std::fprintf(stderr, "watch_events: SubscribeService gave %d for %s\n", code, udn);
}

// May call back into the library, as action_callback may not.
void OnDevice(int event, CPDeviceInfo* device) {
  std::printf("%s %s\n", event == kDeviceAdded ? "+" : "-", device->friendly_name);
  if (event == kDeviceAdded && handle != 0) Subscribe(device->udn);
}

// Events of all subscriptions come one at a time. The first one of each has the values as they are.
void OnEvent(const char* udn, errorcodes code, CPArgument* variables) {
  if (code != CP_ERR_NONE) std::printf("%s: an event that cannot be read (%d)\n", udn, code);
  for (const CPArgument* one = variables; one != nullptr; one = one->next)
    std::printf("%s: %s = %s\n", udn, one->name, one->value);
  std::fflush(stdout);
  ++events;
}

bool Start() {
  return framework::InitFrameworkCore("") == 0 &&
         framework::ConfigureServers(kEventPort, kMulticastPort, kSearchPort, false) == 0 &&
         framework::StartFrameworkCore() == 0 && framework::StartNetworkMonitor() == 0 &&
         framework::ConfigureApplicationOnAllInterfaces() == 0 && InitializeGenericCP() == 0;
}

void Stop() {
  TerminateGenericCP();
  framework::StopNetworkMonitor();
  framework::TerminateFrameworkCore();
}

// Only what becomes ready from RegisterCP on is told.
void SubscribeThoseThatAreReady(const char* type) {
  CPDeviceInfo* list = nullptr;
  if (GetDeviceList(handle, type, &list) != 0) return;
  for (const CPDeviceInfo* device = list; device != nullptr; device = device->next)
    Subscribe(device->udn);
  FreeDeviceList(list);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: watch_events TYPE SERVICE [SECONDS]\n");
    return 2;
  }
  service = argv[2];
  const CPDeviceTypeInfo types{argv[1], nullptr};
  ControlPointCalbacks callbacks{};
  callbacks.device_callback = OnDevice;
  callbacks.event_callback = OnEvent;
  int registered = 0;
  if (Start() && RegisterCP(&types, &callbacks, &registered) == 0) {
    handle = registered;
    SubscribeThoseThatAreReady(argv[1]);
    std::this_thread::sleep_for(
        std::chrono::seconds(argc > 3 ? std::atoi(argv[3]) : kDefaultSeconds));
    // Ends the subscriptions; no callback comes any more.
    UnRegisterCP(handle);
  }
  Stop();
  return events > 0 ? 0 : 1;
}

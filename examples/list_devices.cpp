// Lists the devices of the local networks as they come and go, for a given number of seconds.
//
//   list_devices [SECONDS]      default 10
//
// Shows the whole life of a control point: start, callback, questions about a device, stop.

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace framework = vex_upnp::framework_core;

// SSDP runs on port 1900. Answers to our own searches come to the second port; the library takes
// the next free one when it is in use.
constexpr int kMulticastPort = 1900;
constexpr int kSearchPort = 3800;
constexpr int kDeviceAdded = 1;
constexpr int kDefaultSeconds = 10;

std::mutex mutex;
std::vector<std::string> added;

// Called on a thread of the library. What it gets is valid during the call only, and it should not
// keep that thread long: the name is noted, the questions are asked elsewhere.
void OnDevice(int event, CPDeviceInfo* device) {
  std::printf("%s %s (%s)\n", event == kDeviceAdded ? "+" : "-", device->friendly_name,
              device->device_type);
  if (event != kDeviceAdded) return;
  const std::lock_guard<std::mutex> lock(mutex);
  added.emplace_back(device->udn);
}

bool StartFramework() {
  if (framework::InitFrameworkCore("") != 0) return false;
  // No TCP port: this program takes no events.
  if (framework::ConfigureServers(0, kMulticastPort, kSearchPort, false) != 0) return false;
  if (framework::StartFrameworkCore() != 0) return false;
  if (framework::StartNetworkMonitor() != 0) return false;
  return framework::ConfigureApplicationOnAllInterfaces() == 0;
}

void StopFramework() {
  framework::StopNetworkMonitor();
  framework::TerminateFrameworkCore();
}

void PrintServices(int handle, const std::string& udn) {
  CPDetailedDeviceInfo* info = nullptr;
  // The device may have gone in the meantime.
  if (GetDetailedDeviceInfo(handle, udn.c_str(), &info) != 0) return;
  std::printf("  %s at %s:%d, on %s\n", info->friendly_name, info->device_ip, info->device_port,
              info->interface_name);
  for (const CPDeviceServiceInfo* service = info->services; service != nullptr;
       service = service->next)
    std::printf("    %s\n", service->service_type);
  FreeDetailedDeviceInfo(info);
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : kDefaultSeconds;
  if (!StartFramework() || InitializeGenericCP() != 0) {
    std::fprintf(stderr, "list_devices: could not start\n");
    StopFramework();
    return 1;
  }
  char all_devices[] = "upnp:rootdevice";
  const CPDeviceTypeInfo types{all_devices, nullptr};
  ControlPointCalbacks callbacks{};
  callbacks.device_callback = &OnDevice;
  int handle = 0;
  int status = 1;
  if (RegisterCP(&types, &callbacks, &handle) == 0) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    std::vector<std::string> found;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      found = added;
    }
    std::printf("%zu found\n", found.size());
    for (const std::string& udn : found) PrintServices(handle, udn);
    UnRegisterCP(handle);
    status = found.empty() ? 1 : 0;
  }
  // Once TerminateGenericCP has returned, no callback runs or will run.
  TerminateGenericCP();
  StopFramework();
  return status;
}

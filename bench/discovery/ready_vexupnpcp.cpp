#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "measure.h"

namespace {

namespace fw = vex_upnp::framework_core;

constexpr int kSsdpPort = 1900;
constexpr int kSearchPort = 3900;
constexpr int kDeviceAdded = 1;

std::mutex seen_mutex;
std::set<std::string> seen;

void OnDevice(int event, CPDeviceInfo* device) {
  if (event != kDeviceAdded) return;
  const std::lock_guard<std::mutex> lock(seen_mutex);
  if (seen.insert(device->udn).second) measure_ready();
}

// The search begins before the control point is registered, so the quickest devices may be ready
// before there is anybody to tell.
void TakeUpReadyOnes(int handle, const char* type) {
  CPDeviceInfo* devices = nullptr;
  if (GetDeviceList(handle, type, &devices) != 0) return;
  for (CPDeviceInfo* device = devices; device != nullptr; device = device->next) {
    OnDevice(kDeviceAdded, device);
  }
  FreeDeviceList(devices);
}

int Start(const char* interface_name) {
  if (fw::InitFrameworkCore("") != 0) return 1;
  if (fw::ConfigureServers(0, kSsdpPort, kSearchPort, false) != 0) return 1;
  if (fw::StartFrameworkCore() != 0) return 1;
  if (fw::StartNetworkMonitor() != 0) return 1;
  return fw::ConfigureApplicationOnInterface(interface_name);
}

}  // namespace

int main(int argc, char** argv) {
  Measure measure;
  measure_arguments(&measure, "vexupnpcp", argc, argv);
  if (Start(measure.interface_name) != 0) {
    std::fprintf(stderr, "vexupnpcp: could not start\n");
    return 1;
  }
  char type[] = "upnp:rootdevice";
  CPDeviceTypeInfo types{type, nullptr};
  ControlPointCalbacks callbacks{};
  callbacks.device_callback = &OnDevice;
  int handle = 0;
  measure_start();
  if (InitializeGenericCP() != 0 || RegisterCP(&types, &callbacks, &handle) != 0) {
    std::fprintf(stderr, "vexupnpcp: no control point\n");
    return 1;
  }
  TakeUpReadyOnes(handle, type);
  while (measure_done(&measure) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  measure_print(&measure);
  UnRegisterCP(handle);
  TerminateGenericCP();
  fw::StopNetworkMonitor();
  fw::TerminateFrameworkCore();
  return 0;
}

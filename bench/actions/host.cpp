#include "host.h"

#include <semaphore.h>
#include <vexupnpcp/framework_controller_cp.h>

#include <cstdio>
#include <cstdlib>

namespace {

namespace fw = vex_upnp::framework_core;

constexpr int kEventPort = 47000;
constexpr int kSsdpPort = 1900;
constexpr int kSearchPort = 3900;

sem_t found;

void OnDevice(int event, CPDeviceInfo*) {
  if (event == 1) sem_post(&found);
}

// Empty when no device is ready yet.
std::string FirstDevice(int handle) {
  CPDeviceInfo* list = nullptr;
  if (GetDeviceList(handle, "upnp:rootdevice", &list) != 0) return std::string();
  std::string udn = list->udn;
  FreeDeviceList(list);
  return udn;
}

void Check(int result, const char* what) {
  if (result == 0) return;
  std::fprintf(stderr, "vexupnpcp: %s gave %d\n", what, result);
  std::exit(1);
}

}  // namespace

BenchHost::BenchHost(const char* interface_name, ControlPointCalbacks callbacks) {
  sem_init(&found, 0, 0);
  Check(fw::InitFrameworkCore(""), "InitFrameworkCore");
  Check(fw::ConfigureServers(kEventPort, kSsdpPort, kSearchPort, false), "ConfigureServers");
  Check(fw::StartFrameworkCore(), "StartFrameworkCore");
  Check(fw::StartNetworkMonitor(), "StartNetworkMonitor");
  Check(fw::ConfigureApplicationOnInterface(interface_name), "ConfigureApplicationOnInterface");
  Check(InitializeGenericCP(), "InitializeGenericCP");
  callbacks.device_callback = &OnDevice;
  char type[] = "upnp:rootdevice";
  CPDeviceTypeInfo types{type, nullptr};
  Check(RegisterCP(&types, &callbacks, &handle_), "RegisterCP");
  // It may have become ready before the callback was registered, which is not told then.
  for (udn_ = FirstDevice(handle_); udn_.empty(); udn_ = FirstDevice(handle_)) sem_wait(&found);
}

BenchHost::~BenchHost() {
  UnRegisterCP(handle_);
  TerminateGenericCP();
  fw::StopNetworkMonitor();
  fw::TerminateFrameworkCore();
}

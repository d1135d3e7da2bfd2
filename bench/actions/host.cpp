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
std::string found_udn;

void OnDevice(int event, CPDeviceInfo* device) {
  if (event != 1 || !found_udn.empty()) return;
  found_udn = device->udn;
  sem_post(&found);
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
  sem_wait(&found);
  udn_ = found_udn;
}

BenchHost::~BenchHost() {
  UnRegisterCP(handle_);
  TerminateGenericCP();
  fw::StopNetworkMonitor();
  fw::TerminateFrameworkCore();
}

/* A foreign C host, built against the installed library through pkg-config. */
#include <stdio.h>
#include <vexupnpcp/generic_cp.h>

static void OnDevice(int event, CPDeviceInfo* device) { printf("%d %s\n", event, device->udn); }

int main(void) {
  ControlPointCalbacks callbacks = {0};
  CPDeviceTypeInfo type = {(char*)"upnp:rootdevice", 0};
  int handle = 0;
  callbacks.device_callback = OnDevice;
  if (RegisterCP(&type, &callbacks, &handle) != CP_ERR_NOT_INITIALIZED) return 1;
  if (FreeDeviceList(0) != CP_ERR_NOT_INITIALIZED) return 2;
  if (InitializeGenericCP() != CP_ERR_INIT_FAILED) return 3;
  puts("c consumer: ok");
  return 0;
}

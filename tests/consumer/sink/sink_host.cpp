// A host that is linked against the library and provides the platform's log sink itself.
#include <cstdio>

#include <vexupnpcp/framework_controller_cp.h>

#include "platform_sink.h"

int main() {
  namespace core = vex_upnp::framework_core;
  for (int start = 1; start <= 2; ++start) {
    if (core::InitFrameworkCore("") != 0) return 1;
    if (HeardEntering() != start) return 2;
    if (core::TerminateFrameworkCore() != 0) return 3;
  }
  std::puts("a sink in the host: ok");
  return 0;
}

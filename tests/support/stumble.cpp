#include "tests/support/stumble.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#include "base/io_threads.h"

namespace vex_test {

void Stumble() {
  static const char* const milliseconds = std::getenv("VEX_TEST_STUMBLE_MS");
  if (milliseconds == nullptr || !vex_upnp::OnLibraryThread()) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(milliseconds)));
}

}  // namespace vex_test

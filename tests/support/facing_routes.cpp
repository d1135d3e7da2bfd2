#include "tests/support/facing_routes.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace vex_test {
namespace {

bool SetSource(int link, int source) {
  const std::string subnet = "10.77." + std::to_string(link) + ".";
  const std::string command = "ip route replace table local local " + subnet + "2 dev peer" +
                              std::to_string(link) + " proto kernel scope host src " + subnet +
                              std::to_string(source);
  return std::system(command.c_str()) == 0;
}

}  // namespace

FacingRoutes::FacingRoutes() {
  // Set by tools/in_netns; no route of the machine's own network is touched.
  if (std::getenv("IN_NETNS_INSIDE") == nullptr || !SetSource(0, 1) || !SetSource(1, 1)) {
    throw std::runtime_error("not inside tools/in_netns");
  }
}

FacingRoutes::~FacingRoutes() {
  SetSource(0, 2);
  SetSource(1, 2);
}

}  // namespace vex_test

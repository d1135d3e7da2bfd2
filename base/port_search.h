#ifndef VEXUPNPCP_BASE_PORT_SEARCH_H_
#define VEXUPNPCP_BASE_PORT_SEARCH_H_

namespace vex_upnp {

constexpr int kPortTries = 100;

// Calls `attempt(port)` until it says true, with the port one higher after each failure. Returns
// the number of the try that worked, from 1, or 0 when all are used up. `port` is left at the one
// that worked, or behind the last one tried.
template <typename Attempt>
int TryPorts(int& port, Attempt attempt) {
  for (int number = 1; number <= kPortTries; ++number) {
    if (attempt(port)) return number;
    ++port;
  }
  return 0;
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_PORT_SEARCH_H_

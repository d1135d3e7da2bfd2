#ifndef VEXUPNPCP_SRC_LOOKED_UP_AHEAD_H_
#define VEXUPNPCP_SRC_LOOKED_UP_AHEAD_H_

#include <string>
#include <vector>

#include "base/asio.h"

namespace vex_upnp {
namespace network_layer {

// A look-up that a host's thread makes before it takes a lock and sends under it: a name server may
// take half a minute, and meanwhile whoever needs that lock would stand still, the timers of all
// others included. Requests of this thread to that host and port find the outcome, good or bad, to
// the end of the scope. Does nothing for an address, and on the library's own threads, which never
// wait for a name server.
class LookedUpAhead {
 public:
  LookedUpAhead(const std::string& host, int port);
  LookedUpAhead(const LookedUpAhead&) = delete;
  LookedUpAhead& operator=(const LookedUpAhead&) = delete;
  ~LookedUpAhead();

  // This thread's, if it is for that host and port.
  static const LookedUpAhead* Find(const std::string& host, int port);
  // Throws the look-up's failure.
  const std::vector<tcp::endpoint>& Endpoints() const;

 private:
  const std::string host_;
  const int port_;
  std::vector<tcp::endpoint> endpoints_;
  error_code error_;
  static thread_local const LookedUpAhead* current_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_LOOKED_UP_AHEAD_H_

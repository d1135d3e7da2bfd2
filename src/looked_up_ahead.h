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
// the end of the scope. Does nothing for an address, where the outcome is there already, and on the
// library's own threads, which never wait for a name server.
class LookedUpAhead {
 public:
  LookedUpAhead(const std::string& host, int port);
  // Of the host that a URL names; does nothing for one that cannot be read.
  explicit LookedUpAhead(const std::string& url);
  LookedUpAhead(const LookedUpAhead&) = delete;
  LookedUpAhead& operator=(const LookedUpAhead&) = delete;
  ~LookedUpAhead();

  // This thread's, if it is for that host and port.
  static const LookedUpAhead* Find(const std::string& host, int port);
  // Throws the look-up's failure.
  const std::vector<tcp::endpoint>& Endpoints() const;

 private:
  void __LookUp();

  std::string host_;
  int port_ = 0;
  std::vector<tcp::endpoint> endpoints_;
  error_code error_;
  // Of the scope outside of this one.
  const LookedUpAhead* previous_ = nullptr;
  static thread_local const LookedUpAhead* current_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_LOOKED_UP_AHEAD_H_

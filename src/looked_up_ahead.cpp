#include "src/looked_up_ahead.h"

#include "base/io_threads.h"
#include "src/outgoing_address.h"

namespace vex_upnp {
namespace network_layer {

thread_local const LookedUpAhead* LookedUpAhead::current_ = nullptr;

LookedUpAhead::LookedUpAhead(const std::string& host, int port) : host_(host), port_(port) {
  if (host.empty() || OnLibraryThread() || !EndpointsOfAddress(host, port).empty()) return;
  io_service io;
  tcp::resolver resolver(io);
  endpoints_ = EndpointsOf(resolver.resolve(tcp::v4(), host, std::to_string(port),
                                            tcp::resolver::address_configured, error_));
  current_ = this;
}

LookedUpAhead::~LookedUpAhead() {
  if (current_ == this) current_ = nullptr;
}

const LookedUpAhead* LookedUpAhead::Find(const std::string& host, int port) {
  const bool is_it = current_ != nullptr && current_->host_ == host && current_->port_ == port;
  return is_it ? current_ : nullptr;
}

const std::vector<tcp::endpoint>& LookedUpAhead::Endpoints() const {
  if (error_) throw system_error(error_, "resolve");
  return endpoints_;
}

}  // namespace network_layer
}  // namespace vex_upnp

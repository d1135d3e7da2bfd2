#include "src/looked_up_ahead.h"

#include <vexupnpcp/string_utils.h>

#include "base/io_threads.h"
#include "src/outgoing_address.h"

namespace vex_upnp {
namespace network_layer {

thread_local const LookedUpAhead* LookedUpAhead::current_ = nullptr;

LookedUpAhead::LookedUpAhead(const std::string& host, int port) : host_(host), port_(port) {
  __LookUp();
}

LookedUpAhead::LookedUpAhead(const std::string& url) {
  std::string path;
  if (utils::StringUtils::ParseURI(url, host_, port_, path)) __LookUp();
}

LookedUpAhead::~LookedUpAhead() {
  if (current_ == this) current_ = previous_;
}

void LookedUpAhead::__LookUp() {
  if (host_.empty() || OnLibraryThread() || Find(host_, port_) != nullptr) return;
  if (!EndpointsOfAddress(host_, port_).empty()) return;
  try {
    io_service io;
    tcp::resolver resolver(io);
    endpoints_ = EndpointsOf(resolver.resolve(tcp::v4(), host_, std::to_string(port_),
                                              tcp::resolver::address_configured, error_));
  } catch (const system_error& exception) {
    // No descriptor for the look-up itself.
    error_ = exception.code();
  }
  previous_ = current_;
  current_ = this;
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

#include "src/net_change_listener.h"

#include <boost/thread/lock_guard.hpp>

namespace vex_upnp {
namespace network_layer {

NetChangeListener::NetChangeListener(int id, NetworkEventListener* listener, io_service& io)
    : id_(id), listener_(listener), strand_(io.get_executor()) {}

void NetChangeListener::InvokeListenerCallback(std::string& name, NicEvent event) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (listener_ != nullptr) listener_->OnNetworkChanged(name, event);
}

void NetChangeListener::ResetEventListener() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  listener_ = nullptr;
}

}  // namespace network_layer
}  // namespace vex_upnp

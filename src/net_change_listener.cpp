#include "src/net_change_listener.h"

#include <boost/thread/lock_guard.hpp>

namespace vex_upnp {
namespace network_layer {

NetChangeListener::NetChangeListener(int id, NetworkEventListener* listener)
    : id_(id), listener_(listener) {}

void NetChangeListener::InvokeListenerCallback(std::string& name, NicEvent event) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (listener_ != nullptr) listener_->OnNetworkChanged(name, event);
}

void NetChangeListener::ResetEventListener() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  listener_ = nullptr;
}

bool NetChangeListener::Queue(const std::string& name, NicEvent event) {
  boost::lock_guard<boost::mutex> lock(queue_mutex_);
  queue_.emplace_back(name, event);
  const bool was_delivering = delivering_;
  delivering_ = true;
  return !was_delivering;
}

bool NetChangeListener::TakeNext(std::string& name, NicEvent& event) {
  boost::lock_guard<boost::mutex> lock(queue_mutex_);
  if (queue_.empty()) {
    delivering_ = false;
    return false;
  }
  name.swap(queue_.front().first);
  event = queue_.front().second;
  queue_.pop_front();
  return true;
}

void NetChangeListener::GiveUpDelivery() {
  boost::lock_guard<boost::mutex> lock(queue_mutex_);
  delivering_ = false;
}

}  // namespace network_layer
}  // namespace vex_upnp

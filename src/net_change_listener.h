#ifndef VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_
#define VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_

#include <deque>
#include <string>
#include <utility>

#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

// One registered listener, for as long as it is registered.
class NetChangeListener {
 public:
  NetChangeListener(int id, NetworkEventListener* listener);

  int GetID() const { return id_; }

  // Calls the listener if it is still set. Calls come one at a time.
  void InvokeListenerCallback(std::string& name, NicEvent event);

  // Waits for a call that is running; none comes after it has returned.
  void ResetEventListener();

  // Events wait here, so that one listener hears them in the order in which they happened, and a
  // slow one holds up no thread that another could use. True when somebody has to be asked to
  // deliver; false when the one who delivers already will come to it.
  bool Queue(const std::string& name, NicEvent event);
  // For the one who delivers: the next event, or false when there is none and he is done.
  bool TakeNext(std::string& name, NicEvent& event);
  // Nobody could be asked: what waits goes with the next event.
  void GiveUpDelivery();

 private:
  const int id_;
  // Not owned.
  NetworkEventListener* listener_ VEX_GUARDED_BY(mutex_);
  // Held while the listener is called: outer to every other lock but the interface scan's. Not
  // recursive, so a listener cannot unregister itself from inside its own call.
  boost::mutex mutex_;

  // Leaf.
  boost::mutex queue_mutex_;
  std::deque<std::pair<std::string, NicEvent>> queue_ VEX_GUARDED_BY(queue_mutex_);
  bool delivering_ VEX_GUARDED_BY(queue_mutex_) = false;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_

#ifndef VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_
#define VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_

#include <string>

#include <boost/asio/strand.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/asio.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

// One registered listener, for as long as it is registered.
class NetChangeListener {
 public:
  using Strand = boost::asio::strand<io_service::executor_type>;

  NetChangeListener(int id, NetworkEventListener* listener, io_service& io);

  int GetID() const { return id_; }

  // Calls the listener if it is still set. Calls come one at a time.
  void InvokeListenerCallback(std::string& name, NicEvent event);

  // Waits for a call that is running; none comes after it has returned.
  void ResetEventListener();

  // Events go through it, so that one listener hears them in the order in which they happened, and
  // a slow one holds up no thread that another could use.
  const Strand& strand() const { return strand_; }

 private:
  const int id_;
  // Not owned.
  NetworkEventListener* listener_ VEX_GUARDED_BY(mutex_);
  // Held while the listener is called: outer to every other lock but the interface scan's. Not
  // recursive, so a listener cannot unregister itself from inside its own call.
  boost::mutex mutex_;
  const Strand strand_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_NET_CHANGE_LISTENER_H_

#ifndef VEXUPNPCP_SRC_OUTGOING_LOOPS_H_
#define VEXUPNPCP_SRC_OUTGOING_LOOPS_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

// The event loops of outgoing sessions, one for each thread. Threads that share a loop wake each
// other at every event and wait for each other's locks, which costs more than what a handler of a
// session does; so a session stays on one loop, and new ones take their loops in turn.
class OutgoingLoops {
 public:
  OutgoingLoops();

  // There from the start; what begins before any thread runs begins on it.
  io_service& First() { return *first_; }
  io_service& Next();

  // Makes it `count` threads, named prefix, base text and index from 0. Throws
  // boost::thread_resource_error; the threads made so far stay.
  void Start(int count, const std::string& prefix, const std::string& base_text);
  // No handler begins after it. Join waits for those that are running.
  void Stop();
  void Join();

 private:
  // A loop that is run by one thread, and what keeps it running while it has nothing to do.
  struct Loop {
    Loop();
    io_service io;
    io_work work;
  };

  // One that no thread runs, made when there is none.
  Loop& Idle() VEX_REQUIRES(mutex_);

  // A leaf.
  boost::mutex mutex_;
  // None is let go before this object ends: sessions refer to them.
  std::vector<std::unique_ptr<Loop>> loops_ VEX_GUARDED_BY(mutex_);
  // As many from the front of the list are run by a thread.
  std::size_t running_ VEX_GUARDED_BY(mutex_) = 0;
  std::size_t next_ VEX_GUARDED_BY(mutex_) = 0;
  io_service* const first_;
  boost::thread_group threads_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_LOOPS_H_

#ifndef VEXUPNPCP_SRC_STREAMING_HANDLER_QUEUE_H_
#define VEXUPNPCP_SRC_STREAMING_HANDLER_QUEUE_H_

#include <functional>
#include <list>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/retry.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

// Runs handlers of an event loop one at a time and in the order in which they came: what a strand
// does. The strand of Asio 1.74 frees what it has not set when its own memory fails, and costs an
// allocation for each session that nobody sees fail.
//
// Handlers own what they touch. What they throw is logged and goes no further.
class HandlerQueue {
 public:
  using Handler = std::function<void()>;

  explicit HandlerQueue(io_service& io) : io_(io), state_(new State) {}
  HandlerQueue(const HandlerQueue&) = delete;
  HandlerQueue& operator=(const HandlerQueue&) = delete;

  // What follows when a handler found no memory and left its work undone: whoever waits for the
  // next completion would wait for ever. Runs as a handler does. Throws without memory, and then
  // nothing is set.
  void OnNoMemory(Handler handler) {
    state_->SetNoMemory(boost::shared_ptr<Handler>(new Handler(std::move(handler))));
  }

  // From any thread: runs later, on a thread of the loop. Throws without memory, and then it never
  // runs.
  void Post(Handler handler);

  // From a completion of the loop: runs here and now, unless another handler is running, whose
  // thread then runs it.
  template <typename Step>
  void Run(Step step) {
    // The handler may drop the last reference to the queue.
    const boost::shared_ptr<State> state = state_;
    if (!state->Claim()) {
      std::list<Handler> one;
      // A completion that got lost would leave its session waiting for ever.
      RetryWithoutMemory([&] { one.emplace_back(step); });
      if (!state->ClaimOrLeave(one)) return;
    }
    state->Try(step);
    state->RunLeft();
  }

 private:
  class State {
   public:
    // Whether the caller may run now.
    bool Claim();
    // The same; if not, the handler is left to the one who runs.
    bool ClaimOrLeave(std::list<Handler>& one);
    // Adds a handler. When nobody runs, `ask` sees to it that somebody will, or throws and nothing
    // has changed: asked outside of the lock, what others leave here meanwhile would be lost with
    // it.
    template <typename Ask>
    void Add(std::list<Handler>& one, Ask ask) {
      boost::lock_guard<boost::mutex> lock(mutex_);
      if (!running_) ask();
      running_ = true;
      left_.splice(left_.end(), one);
    }
    // For the one who claimed: runs what was left until nothing is.
    void RunLeft();
    // The loop will never run them: drops them with all that they own.
    void Abandon();
    template <typename Step>
    void Try(const Step& step) {
      try {
        step();
      } catch (...) {
        Thrown();
      }
    }

    void SetNoMemory(boost::shared_ptr<Handler> handler) {
      boost::lock_guard<boost::mutex> lock(mutex_);
      on_no_memory_.swap(handler);
    }

   private:
    void Thrown();
    void RunNoMemory();

    // A leaf, save that the loop's own lock is taken inside it to post a turn.
    boost::mutex mutex_;
    std::list<Handler> left_ VEX_GUARDED_BY(mutex_);
    boost::shared_ptr<Handler> on_no_memory_ VEX_GUARDED_BY(mutex_);
    bool running_ VEX_GUARDED_BY(mutex_) = false;
  };

  // A posted turn of the queue. One that is destroyed without having run was dropped by the loop.
  class Turn;

  io_service& io_;
  const boost::shared_ptr<State> state_;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_HANDLER_QUEUE_H_

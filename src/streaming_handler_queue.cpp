#include "src/streaming_handler_queue.h"

#include "base/current_exception.h"
#include "base/log.h"

namespace vex_upnp {
namespace streaming {

class HandlerQueue::Turn {
 public:
  explicit Turn(const boost::shared_ptr<State>& state) : state_(state) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (due_) state_->Abandon();
  }

  // Under the lock of the state, which Take passes before it is here again.
  void MakeDue() { due_ = true; }
  void Take() {
    state_->RunLeft();
    due_ = false;
  }

 private:
  const boost::shared_ptr<State> state_;
  bool due_ = false;
};

void HandlerQueue::Post(Handler handler) {
  std::list<Handler> one;
  one.push_back(std::move(handler));
  const boost::shared_ptr<Turn> turn(new Turn(state_));
  state_->Add(one, [&] {
    boost::asio::post(io_, [turn] { turn->Take(); });
    turn->MakeDue();
  });
}

// To be called inside a catch (...).
void HandlerQueue::State::Thrown() {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagStreaming, "Exception: %s",
                      "Unknown Exception");
  // What else is thrown is the host's own; it is logged and goes no further.
  if (CaughtNoMemory()) RunNoMemory();
}

void HandlerQueue::State::RunNoMemory() try {
  boost::shared_ptr<Handler> handler;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    handler = on_no_memory_;
  }
  if (handler) (*handler)();
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagStreaming, "Exception: %s",
                      "Unknown Exception");
}

bool HandlerQueue::State::Claim() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (running_) return false;
  running_ = true;
  return true;
}

bool HandlerQueue::State::ClaimOrLeave(std::list<Handler>& one) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (!running_) {
    running_ = true;
    return true;
  }
  left_.splice(left_.end(), one);
  return false;
}

void HandlerQueue::State::RunLeft() {
  for (;;) {
    std::list<Handler> next;
    {
      boost::lock_guard<boost::mutex> lock(mutex_);
      if (left_.empty()) {
        running_ = false;
        return;
      }
      next.splice(next.end(), left_, left_.begin());
    }
    Try(next.front());
  }
}

void HandlerQueue::State::Abandon() {
  // Destroyed behind the lock: what the handlers own may end sessions.
  std::list<Handler> dropped;
  boost::lock_guard<boost::mutex> lock(mutex_);
  dropped.swap(left_);
  running_ = false;
}

}  // namespace streaming
}  // namespace vex_upnp

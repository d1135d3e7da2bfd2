#include "src/outgoing_loops.h"

#include <boost/thread/lock_guard.hpp>

#include "base/io_threads.h"
#include "base/retry.h"

namespace vex_upnp {
namespace network_layer {

OutgoingLoops::Loop::Loop() : io(1), work(KeepRunning(io)) {
  // With its first socket a loop takes descriptors of its own: now rather than when there may be
  // none left.
  const tcp::socket first(io);
}

VEX_NO_THREAD_SAFETY_ANALYSIS
OutgoingLoops::OutgoingLoops() : first_(&Idle().io) {}

io_service& OutgoingLoops::Next() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (running_ == 0) return *first_;
  next_ = (next_ + 1) % running_;
  return loops_[next_]->io;
}

void OutgoingLoops::Start(int count, const std::string& prefix, const std::string& base_text) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  // Those of a start that failed in another place run still.
  for (int i = static_cast<int>(running_); i < count; ++i) {
    io_service& io = Idle().io;
    // A loop that was stopped before would return from run() at once.
    if (io.stopped()) io.restart();
    std::unique_ptr<boost::thread> thread(
        StartNamedThread(prefix + base_text + std::to_string(i), [&io] { RunLoop(io); }));
    RetryWithoutMemory([&] { threads_.add_thread(thread.get()); });
    static_cast<void>(thread.release());
    ++running_;
  }
}

void OutgoingLoops::Stop() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  for (const std::unique_ptr<Loop>& loop : loops_) loop->io.stop();
}

void OutgoingLoops::Join() {
  threads_.join_all();
  boost::lock_guard<boost::mutex> lock(mutex_);
  running_ = 0;
}

OutgoingLoops::Loop& OutgoingLoops::Idle() {
  if (running_ == loops_.size()) loops_.push_back(std::unique_ptr<Loop>(new Loop));
  return *loops_[running_];
}

}  // namespace network_layer
}  // namespace vex_upnp

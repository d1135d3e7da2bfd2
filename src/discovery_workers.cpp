#include "src/discovery_workers.h"

#include <memory>
#include <utility>

#include <boost/thread/lock_guard.hpp>

#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/limits.h"
#include "base/log.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

void RunJob(const DiscoveryWorkers::Job& job) {
  try {
    job();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in discovery thread: %s",
                        "Unknown Exception in discovery thread");
  }
}

}  // namespace

bool DiscoveryWorkers::Start(int timer_id, const std::string& base_name, const Job& job) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (closed_) return false;
  return StartThread(timer_id, base_name, [this, timer_id, job] {
    RunJob(job);
    Finish(timer_id);
  });
}

bool DiscoveryWorkers::StartInLine(int timer_id, const std::string& base_name, const Job& job) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (closed_) return false;
  if (line_threads_ < limits::kDescriptionWorkers &&
      // Moved, not copied: an exception on the new thread would be the end of the process.
      StartThread(timer_id, base_name,
                  [this, timer_id, own = job]() mutable { RunLine(timer_id, std::move(own)); })) {
    ++line_threads_;
    return true;
  }
  if (line_threads_ == 0) return false;
  line_.emplace_back(timer_id, job);
  return true;
}

// The lock spans start and entry: a job that ends at once waits for it before it takes its entry
// out again.
bool DiscoveryWorkers::StartThread(int timer_id, const std::string& base_name, const Job& body) {
  try {
    std::string prefix;
    ThreadNamePrefix(prefix);
    // Whatever may fail for want of memory comes before the thread runs.
    const Thread entry(new boost::thread);
    threads_[timer_id] = entry;
    const std::unique_ptr<boost::thread> started(StartNamedThread(prefix + base_name, body));
    entry->swap(*started);
    return true;
  } catch (...) {
    threads_.erase(timer_id);
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "thread_resource_error exception:[%s]",
                        "Unknown Exception in StartThread");
    return false;
  }
}

void DiscoveryWorkers::RunLine(int timer_id, Job job) {
  do {
    RunJob(job);
  } while (NextInLine(timer_id, job));
  Finish(timer_id);
}

// Moves the calling thread's entry to the timer it works for next.
bool DiscoveryWorkers::NextInLine(int& timer_id, Job& job) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (closed_ || line_.empty()) {
    --line_threads_;
    return false;
  }
  // Moved all the way: an exception here would be the end of the process.
  auto self = threads_.extract(timer_id);
  timer_id = line_.front().first;
  job = std::move(line_.front().second);
  line_.pop_front();
  self.key() = timer_id;
  threads_.insert(std::move(self));
  return true;
}

void DiscoveryWorkers::Finish(int timer_id) {
  Thread previous;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    // JoinAll is at work: it finds this thread in the map and joins it.
    if (closed_) return;
    previous.swap(finished_);
    finished_.swap(threads_[timer_id]);
    threads_.erase(timer_id);
  }
  if (previous) previous->join();
}

void DiscoveryWorkers::JoinAll() {
  boost::this_thread::disable_interruption uninterrupted;
  Thread finished;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    closed_ = true;
    line_.clear();
    finished.swap(finished_);
  }
  for (;;) {
    int timer_id = 0;
    Thread thread;
    {
      boost::lock_guard<boost::mutex> lock(mutex_);
      if (threads_.empty()) break;
      timer_id = threads_.begin()->first;
      thread = threads_.begin()->second;
      threads_.erase(threads_.begin());
    }
    VEX_LOG(kLogStep, kTag, "Joining Thread for Timer Id [%d]", timer_id);
    if (thread->get_id() == boost::this_thread::get_id()) {
      VEX_LOG(kLogMajor, kTag, "Discovery ended by a callback, its thread is not waited for");
      thread->detach();
      continue;
    }
    thread->join();
    VEX_LOG(kLogStep, kTag, "Finished Joining Thread for Timer Id [%d]", timer_id);
  }
  if (!finished) return;
  if (finished->get_id() == boost::this_thread::get_id()) {
    finished->detach();
  } else {
    finished->join();
  }
}

bool DiscoveryWorkers::Empty() const {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return threads_.empty();
}

}  // namespace cp_discovery
}  // namespace vex_upnp

#ifndef VEXUPNPCP_SRC_DISCOVERY_WORKERS_H_
#define VEXUPNPCP_SRC_DISCOVERY_WORKERS_H_

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace cp_discovery {

// The short-lived threads that discovery's timers start, each listed under the timer's id before it
// runs. None of them outlives JoinAll.
class DiscoveryWorkers {
 public:
  using Job = std::function<void()>;

  DiscoveryWorkers() = default;
  DiscoveryWorkers(const DiscoveryWorkers&) = delete;
  DiscoveryWorkers& operator=(const DiscoveryWorkers&) = delete;
  ~DiscoveryWorkers() { JoinAll(); }

  // Runs `job` on a thread of its own. False when there is no thread to be had, or when the workers
  // are closed; the job is not run then.
  bool Start(int timer_id, const std::string& base_name, const Job& job);
  // The same, but with at most kDescriptionWorkers of such jobs at a time; the rest wait in line.
  bool StartInLine(int timer_id, const std::string& base_name, const Job& job);

  // No further job begins; those that run are waited for, the ones in line are dropped. From inside
  // a job, its own thread is not waited for.
  void JoinAll();
  bool Empty() const;

 private:
  using Thread = boost::shared_ptr<boost::thread>;
  using Waiting = std::pair<int, Job>;

  bool StartThread(int timer_id, const std::string& base_name, const Job& body)
      VEX_REQUIRES(mutex_);
  void RunLine(int timer_id, Job job);
  bool NextInLine(int& timer_id, Job& job);
  void Finish(int timer_id);

  mutable boost::mutex mutex_;
  std::map<int, Thread> threads_ VEX_GUARDED_BY(mutex_);
  // The thread that ended last. The next one to end joins it, so that none is left behind.
  Thread finished_ VEX_GUARDED_BY(mutex_);
  std::deque<Waiting> line_ VEX_GUARDED_BY(mutex_);
  int line_threads_ VEX_GUARDED_BY(mutex_) = 0;
  bool closed_ VEX_GUARDED_BY(mutex_) = false;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DISCOVERY_WORKERS_H_

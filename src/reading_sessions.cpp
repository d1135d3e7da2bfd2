#include "src/reading_sessions.h"

#include <sys/resource.h>

#include <boost/thread/lock_guard.hpp>

#include "base/limits.h"
#include "src/incoming_tcp_session.h"

namespace vex_upnp {
namespace network_layer {

ReadingSessions::Place ReadingSessions::Touch(
    Place place, const boost::shared_ptr<IncomingTCPSession>& session) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  sessions_.emplace_hint(sessions_.end(), ++last_place_, session);
  sessions_.erase(place);
  return last_place_;
}

void ReadingSessions::Remove(Place place) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  sessions_.erase(place);
}

bool ReadingSessions::CloseMostSilent() {
  boost::shared_ptr<IncomingTCPSession> session;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    while (!session && !sessions_.empty()) {
      session = sessions_.begin()->second.lock();
      sessions_.erase(sessions_.begin());
    }
  }
  if (!session) return false;
  session->ShutDown(false);
  return true;
}

std::size_t ReadingSessions::size() const {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return sessions_.size();
}

bool DescriptorsScarce(int newest) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return false;
  const std::uint64_t in_use = static_cast<std::uint64_t>(newest) + 1;
  return in_use * 100 >=
         static_cast<std::uint64_t>(limit.rlim_cur) * limits::kDescriptorSharePercent;
}

}  // namespace network_layer
}  // namespace vex_upnp

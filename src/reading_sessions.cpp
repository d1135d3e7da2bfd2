#include "src/reading_sessions.h"

#include <boost/thread/lock_guard.hpp>

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

}  // namespace network_layer
}  // namespace vex_upnp

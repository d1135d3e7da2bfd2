#ifndef VEXUPNPCP_SRC_READING_SESSIONS_H_
#define VEXUPNPCP_SRC_READING_SESSIONS_H_

#include <cstddef>
#include <cstdint>
#include <map>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

class IncomingTCPSession;

// The connections that have not sent their whole request yet, the one that has been silent longest
// in front. When descriptors run short, that one is closed first: a peer that opens connections
// and says nothing must not keep out those that do.
class ReadingSessions {
 public:
  // A session's place in the order. 0 for a session that is not listed.
  using Place = std::uint64_t;

  // Something came from the session: it moves to the end, or enters there. Returns the new place.
  Place Touch(Place place, const boost::shared_ptr<IncomingTCPSession>& session);
  // The request is complete, or the connection gone.
  void Remove(Place place);
  // False when there is no such connection.
  bool CloseMostSilent();

  std::size_t size() const;

 private:
  // A leaf.
  mutable boost::mutex mutex_;
  Place last_place_ VEX_GUARDED_BY(mutex_) = 0;
  std::map<Place, boost::weak_ptr<IncomingTCPSession>> sessions_ VEX_GUARDED_BY(mutex_);
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_READING_SESSIONS_H_

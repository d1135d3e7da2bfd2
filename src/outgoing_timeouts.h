#ifndef VEXUPNPCP_SRC_OUTGOING_TIMEOUTS_H_
#define VEXUPNPCP_SRC_OUTGOING_TIMEOUTS_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

#include <boost/asio/steady_timer.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

class OutgoingSession;

// The response time-outs of all sessions, on one timer. Nearly every exchange ends long before its
// time, so adding and removing a time-out must cost nothing but a look at a map: the timer is set
// only when the first one expires, and is left to run out when the one that set it has gone. A
// monotonic clock: a step of the system's time neither ends an exchange nor keeps it for ever.
class OutgoingTimeouts {
 public:
  using Clock = std::chrono::steady_clock;
  // Names one pending time-out; nothing happens when it has expired or been removed meanwhile.
  using Ticket = std::pair<Clock::time_point, std::uint64_t>;

  explicit OutgoingTimeouts(io_service& io);

  // After `wait` the session's TimeoutClose is called on a thread of the io_service.
  Ticket Add(const boost::weak_ptr<OutgoingSession>& session, std::chrono::milliseconds wait);
  // Whether the time-out was still pending.
  bool Remove(const Ticket& ticket);

 private:
  void __SetTimer(Clock::time_point due) VEX_REQUIRES(mutex_);
  void __OnTimer(const error_code& error);
  // Null when none is due, and the timer set for the next one.
  boost::shared_ptr<OutgoingSession> __TakeExpired();

  // A leaf; a session's mutex may be held around it, never the other way round.
  boost::mutex mutex_;
  std::map<Ticket, boost::weak_ptr<OutgoingSession>> pending_ VEX_GUARDED_BY(mutex_);
  std::uint64_t next_number_ VEX_GUARDED_BY(mutex_) = 0;
  bool timer_set_ VEX_GUARDED_BY(mutex_) = false;
  Clock::time_point timer_due_ VEX_GUARDED_BY(mutex_);
  boost::asio::steady_timer timer_ VEX_GUARDED_BY(mutex_);
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OUTGOING_TIMEOUTS_H_

#include "src/outgoing_timeouts.h"

#include <boost/thread/lock_guard.hpp>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/retry.h"
#include "src/outgoingsession.h"

namespace vex_upnp {
namespace network_layer {

OutgoingTimeouts::OutgoingTimeouts(io_service& io) : timer_(io) {}

OutgoingTimeouts::Ticket OutgoingTimeouts::Add(const boost::weak_ptr<OutgoingSession>& session,
                                               std::chrono::milliseconds wait) {
  const Clock::time_point due = Clock::now() + wait;
  boost::lock_guard<boost::mutex> lock(mutex_);
  const Ticket ticket(due, next_number_++);
  // All waits are of one length, so a new one belongs at the end.
  pending_.emplace_hint(pending_.end(), ticket, session);
  if (!timer_set_ || due < timer_due_) __SetTimer(due);
  return ticket;
}

bool OutgoingTimeouts::Remove(const Ticket& ticket) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return pending_.erase(ticket) != 0;
}

void OutgoingTimeouts::__SetTimer(Clock::time_point due) {
  // Set once nothing can fail any more: a timer that only seems to run would be the end of all
  // time-outs.
  timer_set_ = false;
  timer_.expires_at(due);
  timer_.async_wait([this](const error_code& error) { __OnTimer(error); });
  timer_set_ = true;
  timer_due_ = due;
}

void OutgoingTimeouts::__OnTimer(const error_code& error) {
  // Set anew for an earlier one.
  if (error) return;
  boost::shared_ptr<OutgoingSession> expired;
  do {
    RetryWithoutMemory([&] { expired = __TakeExpired(); });
    try {
      if (expired) expired->TimeoutClose(error_code());
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagNetwork, "Exception: %s",
                          "Unknown Exception");
    }
  } while (expired);
}

boost::shared_ptr<OutgoingSession> OutgoingTimeouts::__TakeExpired() {
  const Clock::time_point now = Clock::now();
  boost::lock_guard<boost::mutex> lock(mutex_);
  while (!pending_.empty() && pending_.begin()->first.first <= now) {
    boost::shared_ptr<OutgoingSession> session = pending_.begin()->second.lock();
    pending_.erase(pending_.begin());
    if (session) return session;
  }
  timer_set_ = false;
  if (!pending_.empty()) __SetTimer(pending_.begin()->first.first);
  return boost::shared_ptr<OutgoingSession>();
}

}  // namespace network_layer
}  // namespace vex_upnp

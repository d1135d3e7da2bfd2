#include "src/outgoing_timeouts.h"

#include <boost/thread/lock_guard.hpp>

#include "base/current_exception.h"
#include "base/log.h"
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
  timer_set_ = true;
  timer_due_ = due;
  timer_.expires_at(due);
  timer_.async_wait([this](const error_code& error) { __OnTimer(error); });
}

void OutgoingTimeouts::__OnTimer(const error_code& error) {
  // Set anew for an earlier one.
  if (error) return;
  try {
    for (const boost::shared_ptr<OutgoingSession>& session : __TakeExpired()) {
      session->TimeoutClose(error_code());
    }
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagNetwork, "Exception: %s",
                        "Unknown Exception");
  }
}

std::vector<boost::shared_ptr<OutgoingSession>> OutgoingTimeouts::__TakeExpired() {
  std::vector<boost::shared_ptr<OutgoingSession>> expired;
  const Clock::time_point now = Clock::now();
  boost::lock_guard<boost::mutex> lock(mutex_);
  timer_set_ = false;
  while (!pending_.empty() && pending_.begin()->first.first <= now) {
    boost::shared_ptr<OutgoingSession> session = pending_.begin()->second.lock();
    if (session) expired.push_back(std::move(session));
    pending_.erase(pending_.begin());
  }
  if (!pending_.empty()) __SetTimer(pending_.begin()->first.first);
  return expired;
}

}  // namespace network_layer
}  // namespace vex_upnp

#include "src/now_requesting_list.h"

#include <iterator>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/limits.h"

namespace vex_upnp {
namespace cp_discovery {

class NowRequestingList::Sending {
 public:
  explicit Sending(NowRequestingList& list) : list_(list) {
    boost::lock_guard<boost::mutex> lock(list_.mutex_);
    ticket_ = ++list_.last_ticket_;
    list_.sending_.insert(ticket_);
  }
  Sending(const Sending&) = delete;
  Sending& operator=(const Sending&) = delete;
  ~Sending() {
    boost::lock_guard<boost::mutex> lock(list_.mutex_);
    list_.sending_.erase(ticket_);
    list_.send_done_.notify_all();
  }

 private:
  NowRequestingList& list_;
  Ticket ticket_;
};

// The names stand in its key, too.
std::size_t NowRequestingList::CostOf(const NowRequesting& request) {
  return sizeof(NowRequesting) + 2 * (request.udn.size() + request.service_id.size()) +
         request.request_target.size() + request.base_url.size() + request.ip.size() +
         request.user_agent.size();
}

int NowRequestingList::Add(const Pointer& request) {
  const std::size_t cost = CostOf(*request);
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (closed_ || entries_.size() >= limits::kDescriptionRequests) return result::kFailure;
  if (cost > limits::kDescriptionRequestBytes - held_) return result::kFailure;
  const KeyView key = KeyOf(*request);
  // The first request of a device, if any, stands here: no service sorts before the empty one.
  const auto found = entries_.lower_bound(key);
  if (found != entries_.end()) {
    const bool same_device = found->first.first == request->udn;
    const bool same_service = found->first.second == request->service_id;
    if (same_device && (!request->IsForService() || same_service)) return result::kFailure;
  }
  entries_.emplace_hint(found, Key(key), Entry{request, 0, 0});
  held_ += cost;
  return result::kOk;
}

void NowRequestingList::StartTimer(const Pointer& request) {
  // Its place first: the expiry of a timer that nobody has filed would find nobody.
  std::map<int, Pointer> place{{0, request}};
  boost::lock_guard<boost::mutex> lock(mutex_);
  Entry* const entry = Find(request);
  if (entry == nullptr) return;
  // An expiry looks the timer up under this very lock, so it is filed before it can be missed.
  request->Start();
  by_timer_.erase(entry->timer_id);
  entry->timer_id = request->timer_id;
  by_timer_.erase(entry->timer_id);
  auto filed = place.extract(place.begin());
  filed.key() = entry->timer_id;
  by_timer_.insert(std::move(filed));
}

int NowRequestingList::Send(const Pointer& request, const std::string& packet,
                            const boost::shared_ptr<network_layer::ResponseListener>& listener) {
  const Sending sending(*this);
  int session_id = 0;
  const int result = network_layer::SendTCPHTTPPacket(
      request->ip, request->port, packet, static_cast<int>(packet.size()), listener, session_id);
  if (result == result::kOk) FileSession(request, session_id);
  return result;
}

void NowRequestingList::FileSession(const Pointer& request, int session_id) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  // Also when the request has been removed meanwhile: its end then cancels this session.
  request->session_id = session_id;
  Entry* const entry = Find(request);
  if (entry == nullptr) return;
  by_session_.erase(entry->session_id);
  entry->session_id = session_id;
  by_session_[session_id] = request;
}

VEX_NO_THREAD_SAFETY_ANALYSIS
NowRequestingList::Pointer NowRequestingList::FindBySession(int session_id) {
  boost::this_thread::disable_interruption uninterrupted;
  boost::unique_lock<boost::mutex> lock(mutex_);
  const Ticket newest = last_ticket_;
  for (;;) {
    const auto found = by_session_.find(session_id);
    if (found != by_session_.end()) return found->second;
    // Only a send that had begun when the answer came can be the one that is looked for.
    if (sending_.empty() || *sending_.begin() > newest) return Pointer();
    send_done_.wait(lock);
  }
}

NowRequestingList::Pointer NowRequestingList::FindByTimer(int timer_id) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto found = by_timer_.find(timer_id);
  // A timer that was stopped after it had expired is no longer the request's.
  if (found == by_timer_.end() || found->second->timer_id != timer_id) return Pointer();
  return found->second;
}

void NowRequestingList::RemoveByUdn(const std::string& udn) {
  // Moved from map to map: what takes requests out must not need memory.
  Entries removed;
  boost::lock_guard<boost::mutex> lock(mutex_);
  auto entry = entries_.lower_bound(KeyView(udn, std::string_view()));
  while (entry != entries_.end() && entry->first.first == udn) {
    const auto next = std::next(entry);
    by_session_.erase(entry->second.session_id);
    by_timer_.erase(entry->second.timer_id);
    held_ -= CostOf(*entry->second.request);
    removed.insert(entries_.extract(entry));
    entry = next;
  }
}

void NowRequestingList::RemoveBySession(int session_id) {
  Pointer removed;
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto found = by_session_.find(session_id);
  if (found == by_session_.end()) return;
  const auto entry = entries_.find(KeyOf(*found->second));
  if (entry != entries_.end()) removed = Unlink(entry);
}

void NowRequestingList::RemoveAll() {
  Entries removed;
  std::unordered_map<int, Pointer> filed_by_session;
  std::map<int, Pointer> filed_by_timer;
  boost::lock_guard<boost::mutex> lock(mutex_);
  removed.swap(entries_);
  filed_by_session.swap(by_session_);
  filed_by_timer.swap(by_timer_);
  held_ = 0;
}

void NowRequestingList::Close() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  closed_ = true;
}

NowRequestingList::Entry* NowRequestingList::Find(const Pointer& request) {
  const auto found = entries_.find(KeyOf(*request));
  if (found == entries_.end() || found->second.request != request) return nullptr;
  return &found->second;
}

// The caller drops the record when the lock has been released.
NowRequestingList::Pointer NowRequestingList::Unlink(Entries::iterator entry) {
  by_session_.erase(entry->second.session_id);
  by_timer_.erase(entry->second.timer_id);
  Pointer request = entry->second.request;
  held_ -= CostOf(*request);
  entries_.erase(entry);
  return request;
}

}  // namespace cp_discovery
}  // namespace vex_upnp

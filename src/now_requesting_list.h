#ifndef VEXUPNPCP_SRC_NOW_REQUESTING_LIST_H_
#define VEXUPNPCP_SRC_NOW_REQUESTING_LIST_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/thread_marks.h"
#include "src/now_requesting.h"

namespace vex_upnp {
namespace cp_discovery {

// The description requests in flight: for one key one device description, and one request for each
// of its services.
class NowRequestingList {
 public:
  using Pointer = boost::shared_ptr<NowRequesting>;

  // kFailure for a duplicate, and when no further request is taken or there is no room for it.
  int Add(const Pointer& request);

  // Starts the request's timer, unless it has been removed meanwhile.
  void StartTimer(const Pointer& request);
  // Sends `packet` and files the request under its new session before anybody can look for it.
  int Send(const Pointer& request, const std::string& packet,
           const boost::shared_ptr<network_layer::ResponseListener>& listener);

  // Null when there is none. An answer may be faster than the sender: a send that is under way is
  // waited for.
  Pointer FindBySession(int session_id);
  Pointer FindByTimer(int timer_id);

  // What is removed and not held by anybody else is cancelled before these return.
  void RemoveByUdn(const std::string& udn);
  void RemoveBySession(int session_id);
  void RemoveAll();
  // From now on nothing is taken.
  void Close();

 private:
  using Key = std::pair<std::string, std::string>;
  using KeyView = std::pair<std::string_view, std::string_view>;
  // Looks up by views too: what takes a request out must not need memory.
  struct KeyOrder {
    using is_transparent = void;
    bool operator()(const KeyView& a, const KeyView& b) const { return a < b; }
  };
  // The sessions and timers under which an entry is filed, not always the newest of its request.
  struct Entry {
    Pointer request;
    int session_id = 0;
    int timer_id = 0;
  };
  // Ordered by key, then service, so that all requests for one device stand together.
  using Entries = std::map<Key, Entry, KeyOrder>;
  using Ticket = std::uint64_t;

  // Marks a send as under way for as long as it lives.
  class Sending;

  static KeyView KeyOf(const NowRequesting& request) {
    return KeyView(request.udn, request.service_id);
  }
  static std::size_t CostOf(const NowRequesting& request);
  Entry* Find(const Pointer& request) VEX_REQUIRES(mutex_);
  Pointer Unlink(Entries::iterator entry) VEX_REQUIRES(mutex_);
  void FileSession(const Pointer& request, int session_id);

  // Inner to the device list's. A leaf, but for Timer::Start, which never waits.
  boost::mutex mutex_;
  boost::condition_variable send_done_;
  Entries entries_ VEX_GUARDED_BY(mutex_);
  // What the entries cost together.
  std::size_t held_ VEX_GUARDED_BY(mutex_) = 0;
  std::unordered_map<int, Pointer> by_session_ VEX_GUARDED_BY(mutex_);
  std::map<int, Pointer> by_timer_ VEX_GUARDED_BY(mutex_);
  std::set<Ticket> sending_ VEX_GUARDED_BY(mutex_);
  Ticket last_ticket_ VEX_GUARDED_BY(mutex_) = 0;
  bool closed_ VEX_GUARDED_BY(mutex_) = false;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_NOW_REQUESTING_LIST_H_

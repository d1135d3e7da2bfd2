#ifndef VEXUPNPCP_SRC_SUBSCRIBE_INFO_H_
#define VEXUPNPCP_SRC_SUBSCRIBE_INFO_H_

#include <list>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace cp_control {

// Failed answers that end a subscription, over its whole life.
constexpr int kSubscribeAttempts = 3;

// One subscription. Its fields are guarded by the list's mutex.
class SubscribeInfo : public VEXUncopyable {
 public:
  SubscribeInfo() = default;
  // Closes the event path and ends the exchange and the timers. It may wait for a timer callback
  // that is just starting, so it never runs under the list's mutex.
  ~SubscribeInfo() override;

  std::string device_udn;
  // The absolute eventing URL of the service.
  std::string event_url;
  // Address and port that the device sends its events to, without the path.
  std::string callback_url;
  std::string user_agent;
  // Empty until the first good answer.
  std::string sid;
  // The complete line for the device's host.
  std::string host_header;
  // The renewal timer, 0 when none ran yet.
  int timer_id = 0;
  int handler_id = 0;
  // Not owned; null once the record has left the list.
  DeviceEventListener* listener = nullptr;
  int request_listener_id = 0;
  // The last SUBSCRIBE or renewal; 0 when it got no answer in time.
  int nwsession_id = 0;
  int retry_count = kSubscribeAttempts;

  // Runs out when the last SUBSCRIBE or renewal stays without an answer, of which the network layer
  // says nothing. 0 once the answer is being handled.
  int answer_timer_id = 0;
  // The session whose answer waits for its turn or is being handled, else 0.
  int answered_session_id = 0;
  // The session for whose answer an event has waited in vain; no other event waits for it.
  int awaited_session_id = 0;
  // Renewals in a row that the device asked for at once.
  int quick_renewals = 0;
};

// The subscriptions of the process, with two locks. `mutex` guards the list and the fields of its
// records; it is held across the sending of a request, so that a fast answer finds its record, and
// is therefore outer to the locks of the network layer and of the timers, and to no others.
// `delivery_mutex`, outer to it, is held while a listener is told of an event or of an answer.
// Whoever must be sure that a listener is not called any more takes its record out and then calls
// WaitForDelivery.
class SubscribeInfoList : public VEXUncopyable {
 public:
  using Pointer = boost::shared_ptr<SubscribeInfo>;

  // Makes the list on first use; null between the end of control and its next start, so that a
  // straggler cannot bring back what has been torn down.
  static boost::shared_ptr<SubscribeInfoList> getInstance();
  // The list if there is one.
  static boost::shared_ptr<SubscribeInfoList> existing();
  // Lets the next getInstance() work again after terminate().
  static void restart();
  static void terminate();

  ~SubscribeInfoList() override;

  // Gives the record its handle and returns that: 1, 2, 3 and so on, never one twice. 0 once the
  // list has been closed.
  int add(const Pointer& record) VEX_REQUIRES(mutex);
  // The look-ups give an empty pointer for 0 and for what is unknown.
  Pointer get_by_handlerid(int handler_id) const VEX_REQUIRES(mutex);
  Pointer get_by_timerid(int timer_id) const VEX_REQUIRES(mutex);
  // Exact; a record without a SID is never found.
  Pointer get_by_sid(const std::string& sid) const VEX_REQUIRES(mutex);
  Pointer get_by_nwsession_id(int session_id) const VEX_REQUIRES(mutex);
  // Takes the record out, without its listener, and returns it for the caller to destroy after the
  // mutex. Empty for an unknown handle.
  Pointer remove_by_handlerid(int handler_id) VEX_REQUIRES(mutex);
  void remove(const Pointer& record) VEX_REQUIRES(mutex);

  // The operations from here on take the mutex themselves.

  // Empties the list. The records are destroyed before it returns, with no lock held.
  void remove_all();
  // Lets no further record in and ends the waits of events for an answer.
  void Close();

  // The answer of this session waits for its turn; it has been handled to its end.
  void AnswerArrived(int session_id);
  void AnswerHandled(int session_id);
  // Whether a record has this SID. When none has, the answer that brings it may have reached this
  // host a moment before the event that asks: waits until the answers that have come by now are
  // handled, for a second at most, and looks again. Both looks and the wait are one step, so that
  // no answer can be handled between them unseen. An answer that stays in hand for longer, such as
  // one that comes byte by byte, is waited for only once: the threads for events are few.
  bool AwaitSid(const std::string& sid);

  // When it has returned, no delivery that had begun before runs on another thread.
  void WaitForDelivery();

  boost::recursive_mutex delivery_mutex;
  mutable boost::mutex mutex;

 private:
  SubscribeInfoList() = default;

  template <typename Matches>
  Pointer __Find(Matches matches) const VEX_REQUIRES(mutex);
  // The sessions whose answers have come and are not handled to their end.
  std::vector<int> __AnswersInHand() const VEX_REQUIRES(mutex);
  bool __AnyInHand(const std::vector<int>& sessions) const VEX_REQUIRES(mutex);
  void __NoteAwaited(const std::vector<int>& sessions) VEX_REQUIRES(mutex);

  std::list<Pointer> subscriptions_ VEX_GUARDED_BY(mutex);
  int last_handler_id_ VEX_GUARDED_BY(mutex) = 0;
  bool closed_ VEX_GUARDED_BY(mutex) = false;
  // With `mutex`: an answer has been handled, a record has left, or the list has been closed.
  boost::condition_variable answers_changed_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<SubscribeInfoList>& instance_;
  static bool ended_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SUBSCRIBE_INFO_H_

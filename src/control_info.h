#ifndef VEXUPNPCP_SRC_CONTROL_INFO_H_
#define VEXUPNPCP_SRC_CONTROL_INFO_H_

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace cp_control {

// One open action. While it is listed, its fields are guarded by the list's mutex.
class ControlInfo : public VEXUncopyable {
 public:
  ControlInfo(const std::string& udn, ControlResponseListener* response_listener,
              void* caller_context);
  // Ends the exchange on the network and the time-out. It may wait for a time-out callback that is
  // just starting, so it never runs under the list's mutex. The context is not its business.
  ~ControlInfo() override;

  std::string device_udn;
  // 0 before the time-out is armed and once the action is claimed.
  int timer_id = 0;
  ControlResponseListener* listener;
  // The caller's; null once the action is claimed: it is given back exactly once.
  void* context;
  // An answer or the time-out has claimed it, whatever the context was.
  bool claimed = false;
  // The session of the POST, and what the caller knows the action by.
  int action_id = 0;
};

// What an action that has been claimed ended in: calls the listener, if there is one, with no lock
// held. An exception of the listener ends here.
void DeliverResult(ControlResponseListener* listener, int action_id, int status,
                   const std::string& body, void* context);

// Gives an unclaimed action's context back. For a record that has left the list.
void GiveContextBack(ControlInfo& record);

// Cancels a time-out and frees its argument. Waits if the time-out is running on another thread.
void CancelActionTimer(int timer_id);

// The open actions of the process. A mutex guards the list; whoever calls the operations marked so
// holds it. It is held across the sending of a POST, so that a fast answer finds its record, and is
// therefore outer to the locks of the network layer and of the timers, and to no others.
class ControlInfoList : public VEXUncopyable {
 public:
  using Pointer = boost::shared_ptr<ControlInfo>;

  // Makes the list on first use; null between the end of control and its next start, so that a
  // straggler cannot bring back what has been torn down.
  static boost::shared_ptr<ControlInfoList> getInstance();
  // Lets the next getInstance() work again after terminate().
  static void restart();
  // Drops all entries; neither a result nor DeleteContext follows for them.
  static void terminate();

  ~ControlInfoList() override;

  // False once the list has been closed.
  bool add(const Pointer& record) VEX_REQUIRES(mutex);
  void remove(const Pointer& record) VEX_REQUIRES(mutex);
  // Empty for 0 and for an unknown id.
  Pointer get_by_action_id(int action_id) const VEX_REQUIRES(mutex);
  // Takes the entry out and returns it, so that the caller can give its context back and destroy it
  // after the mutex. Empty for an unknown id.
  Pointer remove_by_action_id(int action_id) VEX_REQUIRES(mutex);

  // Takes the mutex itself. Ends every exchange on the network, leaves the entries in the list and
  // lets no further one in.
  void cancel_control_actions();

  mutable boost::mutex mutex;

 private:
  ControlInfoList() = default;

  std::list<Pointer> actions_ VEX_GUARDED_BY(mutex);
  bool closed_ VEX_GUARDED_BY(mutex) = false;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<ControlInfoList>& instance_;
  static bool ended_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CONTROL_INFO_H_

#ifndef VEXUPNPCP_SRC_GENERIC_CP_INFO_H_
#define VEXUPNPCP_SRC_GENERIC_CP_INFO_H_

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/vexuncopyable.h>
#include "base/thread_marks.h"
#include "src/generic_subscribe_handle.h"

namespace vex_upnp {
namespace generic_cp {

// One control point of the host. Held by boost::shared_ptr, so that it lives through a call that
// runs while another thread unregisters it.
class GenericCPInfo : public VEXUncopyable {
 public:
  using HandlePointer = boost::shared_ptr<GenericSubscribeHandle>;

  // Copies the callbacks, none when null, and the types that are set.
  GenericCPInfo(const CPDeviceTypeInfo* types, const ControlPointCalbacks* given);

  // Both fixed by the constructor.
  const ControlPointCalbacks& callbacks() const { return callbacks_; }
  const std::list<std::string>& device_types() const { return device_types_; }

  // Exact, byte for byte.
  bool GetSubscribeHandle(const std::string& udn, const std::string& service_type,
                          HandlePointer& out) const VEX_REQUIRES(info_mutex);
  void RemoveActionId(const int& action_id);
  // What is out is cancelled, and nothing new is let in.
  void CancelAllActions();
  // Ends every subscription and waits for those that another thread is ending, unless the calling
  // thread is inside a callback of the host.
  void UnSubscribeAllServices();

  // Waits until the thread that marked the handle as leaving is done with it.
  void WaitWhileLeaving(const HandlePointer& handle);
  // The end of that: off the list, or back to what it was.
  void FinishLeaving(const HandlePointer& handle, bool unsubscribed);

  // Inner to the manager's cp_mutex, outer to the locks of control and the network layer, since it
  // spans a send: an answer must find its id listed. It is released while a subscription ends.
  mutable boost::mutex info_mutex;
  std::list<HandlePointer> subscribe_handles VEX_GUARDED_BY(info_mutex);
  std::list<int> action_ids VEX_GUARDED_BY(info_mutex);
  // Set when the control point goes.
  bool closed VEX_GUARDED_BY(info_mutex) = false;

 private:
  ControlPointCalbacks callbacks_;
  std::list<std::string> device_types_;
  // With info_mutex: a handle is no longer leaving.
  boost::condition_variable leaving_changed_;
};

}  // namespace generic_cp
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_GENERIC_CP_INFO_H_

#ifndef VEXUPNPCP_SRC_UNSUBSCRIBE_REQUESTOR_H_
#define VEXUPNPCP_SRC_UNSUBSCRIBE_REQUESTOR_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/vexuncopyable.h>

#include "src/subscribe_info.h"

namespace vex_upnp {
namespace cp_control {

// Ends subscriptions.
class UnsubscribeRequestor : public VEXUncopyable {
 public:
  static boost::shared_ptr<UnsubscribeRequestor> GetInstance();
  static void TerminateInstance();

  // See cp_control::Unsubscribe.
  static int Unsubscribe(const int& handler_id, const std::string& host_header);

 private:
  UnsubscribeRequestor() = default;

  static SubscribeInfoList::Pointer __AccessAndRemove(SubscribeInfoList& list, int handler_id);
  static int __SendPacket(SubscribeInfoList& list, const SubscribeInfo& record,
                          const std::string& host_header);

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<UnsubscribeRequestor>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_UNSUBSCRIBE_REQUESTOR_H_

#ifndef VEXUPNPCP_SRC_CONTROL_REQUESTOR_H_
#define VEXUPNPCP_SRC_CONTROL_REQUESTOR_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/thread_marks.h"
#include "src/control_info.h"

namespace vex_upnp {
namespace cp_control {

// Of the tests.
struct ControlRequestorProbe;

// Sends actions and cancels them.
class ControlRequestor : public VEXUncopyable {
 public:
  // Made on first use.
  static boost::shared_ptr<ControlRequestor> GetInstance();
  static void TerminateInstance();

  // See cp_control::SendAction.
  int SendAction(const std::string& device_udn, const std::string& host_header,
                 const std::string& soap_action_header, const std::string& control_url,
                 const std::string& body, const std::string& user_agent,
                 ControlResponseListener* listener, void* context, int& action_id);
  // Always 0. An open action's context goes back through DeleteContext, with no lock held.
  static int CancelActionInvocation(const int& action_id);

  void SetDefaultUserAgent(const std::string& agent);
  void GetDefaultUserAgent(std::string& agent);

 private:
  friend struct ControlRequestorProbe;

  ControlRequestor() = default;

  int __SendActionRequestPacket(const std::string& host_header,
                                const std::string& soap_action_header,
                                const std::string& control_url, const std::string& body,
                                const std::string& user_agent,
                                const ControlInfoList::Pointer& record, int& action_id);
  static int __SendAndList(const std::string& ip, int port, const std::string& packet,
                           const ControlInfoList::Pointer& record, int& action_id);
  static bool __RunTimer(int action_id);
  static bool __TakeBack(int action_id);

  boost::mutex mutex_;
  std::string default_user_agent_ VEX_GUARDED_BY(mutex_);

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<ControlRequestor>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CONTROL_REQUESTOR_H_

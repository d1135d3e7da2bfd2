#ifndef VEXUPNPCP_SRC_EVENT_CALLBACK_H_
#define VEXUPNPCP_SRC_EVENT_CALLBACK_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/use_count.h"

namespace vex_upnp {
namespace cp_control {

// Takes the NOTIFY requests of devices (General Event Notification Architecture, UPnP Device
// Architecture 1.0 section 4): checks them, hands the body to the subscription's listener and
// answers. One instance serves all subscriptions.
class EventCallback : public network_layer::TCPRequestListener {
 public:
  static boost::shared_ptr<EventCallback> GetInstance();
  // Waits without limit for the calls that are inside; what comes later is dropped unanswered.
  static void TerminateInstance();

  void OnTCPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request,
                            void* session_context) override;

 private:
  EventCallback() = default;

  // The status line of the error answer; null for an event that has been delivered.
  static const char* __HandleEvent(utils::HTTPInfo& request);
  static bool __ValidatePacket(utils::HTTPInfo& request, std::string& nt, std::string& nts);
  static bool __ProcessPacket(utils::HTTPInfo& request, const std::string& sid, std::string& body);
  static bool __LookupAndNotfiy(const std::string& sid, const std::string& body);
  static void __SendResponse(void* session_context);
  static void __SendErrorResponse(const char* status_line, void* session_context);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<EventCallback>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_EVENT_CALLBACK_H_

#ifndef VEXUPNPCP_CP_CONTROL_H_
#define VEXUPNPCP_CP_CONTROL_H_

#include <string>

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace cp_control {

class VEX_EXPORT ControlResponseListener {
 public:
  virtual void OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                                  void* context) = 0;
  virtual ~ControlResponseListener() = default;
  virtual void DeleteContext(void* context) = 0;
};

class VEX_EXPORT DeviceEventListener {
 public:
  virtual void OnEventReceived(const std::string& body) = 0;
  virtual void OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                           const std::string& message) {
    (void)handler_id;
    (void)code;
    (void)message;
  }
  virtual ~DeviceEventListener() = default;
};

VEX_EXPORT void Initialize();
VEX_EXPORT void Terminate();
VEX_EXPORT int SendAction(const std::string& device_udn, const std::string& host_header,
                          const std::string& soap_action_header, const std::string& control_url,
                          const std::string& body, const std::string& user_agent,
                          ControlResponseListener* listener, void* context, int& action_id);
VEX_EXPORT int CancelAction(const int& action_id);
VEX_EXPORT int Subscribe(const std::string& device_udn, const std::string& host_header,
                         const std::string& user_agent, const std::string& callback_url,
                         const std::string& event_url, DeviceEventListener* listener,
                         int& handler_id);
VEX_EXPORT int Unsubscribe(const int& handler_id, const std::string& host_header);
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_CP_CONTROL_H_

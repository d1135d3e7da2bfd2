#ifndef VEXUPNPCP_CP_CONTROL_H_
#define VEXUPNPCP_CP_CONTROL_H_

#include <string>

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/export.h>

namespace vex_upnp {

/// SOAP actions and event subscriptions (UPnP Device Architecture 1.0, chapters 3 and 4), below the
/// plain functions of generic_cp.h: addresses and bodies come in ready-made, and answers and events
/// go out as they came.
///
/// What holds for all functions:
///
/// 1. The network layer must run. Initialize comes first and Terminate last; in between every
///    function may be called from any thread. No exception leaves them.
/// 2. Header lines given as arguments are complete, without their line end: "HOST:10.0.0.7:49152"
///    (no blank behind the first colon), "SOAPACTION: \"urn:...:1#Browse\"". They go out as they
///    are, so they must hold no line end.
/// 3. URLs carry their port: "http://10.0.0.7:49152/control". One without is refused.
/// 4. Listeners are not owned. They are called on the library's threads with no lock of a list
///    held; each function says until when its listener must live.
namespace cp_control {

/// Receives what becomes of actions.
class VEX_EXPORT ControlResponseListener {
 public:
  /// How an action ended: with the answer of the device, or with none.
  ///
  /// @param action_id  What SendAction gave.
  /// @param status     HTTP status of the answer, good or bad; 0 when the device closed the
  ///                   connection without a word. A connection that broke is told as 500 with a
  ///                   fault 501; an action without an answer for 30000 ms as 500 with a fault 801.
  /// @param body       Body of the answer, valid during the call. Empty when it held a NUL. As far
  ///                   as it came when the device closed the connection in the middle of it, with
  ///                   the status of its beginning.
  /// @param context    What SendAction was given; it is the listener's from here on. Null tells a
  ///                   duplicate, when answer and time-out met: return at once.
  /// Called on a "VexTcpRes" thread, or on the timer thread after a time-out. It may call every
  /// function here but Terminate. A call that takes its time delays other results.
  virtual void OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                                  void* context) = 0;
  virtual ~ControlResponseListener() = default;
  /// Gives the context of a cancelled action back; nothing else comes for that action. Called
  /// inside CancelAction, on its thread. Never called with null.
  virtual void DeleteContext(void* context) = 0;
};

/// Receives the events of one subscription, and what becomes of the subscription itself.
class VEX_EXPORT DeviceEventListener {
 public:
  /// One event. The device gets its 200 after this has returned.
  ///
  /// @param body  The property set as it came (UPnP Device Architecture 1.0, 4.3), not empty, valid
  ///              during the call. Neither its order nor a repetition is checked.
  /// Called on a "VexTcpReq" thread; events of all subscriptions come one at a time. It may call
  /// every function here but Terminate; Unsubscribe for its own subscription too, after which the
  /// listener is not touched any more.
  virtual void OnEventReceived(const std::string& body) = 0;
  /// A SUBSCRIBE or renewal succeeded, or the subscription has ended. Does nothing by default.
  ///
  /// @param handler_id  What Subscribe gave.
  /// @param code        CP_ERR_NONE after each good answer; CP_ERR_FAILURE after the third failed
  ///                    one, when the subscription is gone. Failures before that are not told.
  /// @param message     "no error"; after a failure the start line of the last answer, or "error"
  ///                    when there was none.
  /// Called on a "VexTcpRes" thread, or on the timer thread when the device kept silent. It comes
  /// one at a time with all events, and may call what OnEventReceived may.
  virtual void OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                           const std::string& message) {
    (void)handler_id;
    (void)code;
    (void)message;
  }
  virtual ~DeviceEventListener() = default;
};

/// Starts control and eventing. Does no harm when they run already.
VEX_EXPORT void Initialize();

/// Ends control and eventing: waits without limit for listeners that are being called, after which
/// none is called any more. Must not be called from inside one.
///
/// Actions that are still open end without a result and without DeleteContext: cancel them before
/// to get their contexts back. Subscriptions end without a message to the device, where they lapse.
VEX_EXPORT void Terminate();

/// Sends one SOAP action. It ends in exactly one of three ways: OnResponseReceived with the answer,
/// OnResponseReceived with the fault 801 after 30000 ms, or, after CancelAction, DeleteContext.
/// Nothing is ever sent twice.
///
/// @param device_udn          Kept with the action; not sent.
/// @param host_header         The HOST line.
/// @param soap_action_header  The SOAPACTION line.
/// @param control_url         Absolute control URL of the service, with its port.
/// @param body                The finished envelope; may be empty. Sent as it stands.
/// @param user_agent          Empty for the default of SetDefaultUserAgent, and without one for the
///                            library's own name.
/// @param listener            Not null. Must live until the action has ended, or until Terminate.
/// @param context             Any pointer of the caller's. On failure it stays the caller's.
/// @param action_id           Receives the id that the result will carry; written on success only.
/// @return 0; result::kNoUpperLayer for a null listener; result::kRequestFailed when the request
/// could not be formed or sent; result::kOutOfMemory.
/// The result may come before this has returned.
VEX_EXPORT int SendAction(const std::string& device_udn, const std::string& host_header,
                          const std::string& soap_action_header, const std::string& control_url,
                          const std::string& body, const std::string& user_agent,
                          ControlResponseListener* listener, void* context, int& action_id);

/// Cancels an action: ends its exchange and gives its context back through DeleteContext, before it
/// returns. Does nothing for 0, for an unknown id and for an action that has ended. A result that
/// is being delivered on another thread is not waited for and counts as the action's end.
///
/// @return Always 0.
VEX_EXPORT int CancelAction(const int& action_id);

/// Subscribes to the events of one service, for 1800 seconds at a time, and renews by itself after
/// three quarters of the time that the device grants. Of renewals that a grant makes due within a
/// second the first two in a row go out when they are due, and further ones a second apart. Answers
/// that fail, a grant of "infinite" or anything else that is no number among them, or stay out for
/// 30000 ms are made up for at once by another SUBSCRIBE; the third of them, counted over the whole
/// life of the subscription, ends it. A renewal that cannot be sent is not tried again: the device
/// lets the subscription lapse, and nothing is told.
///
/// @param device_udn    For the log.
/// @param host_header   The HOST line.
/// @param user_agent    As with SendAction.
/// @param callback_url  "http://%s:%d" of the TCP server's endpoint that the device can reach,
///                      without a path: one is made for each subscription.
/// @param event_url     Absolute eventing URL of the service, with its port.
/// @param listener      Not null. Must live until Unsubscribe or Terminate has returned.
/// @param handler_id    Receives the subscription's handle, 1 and up; also written when the event
///                      path could not be opened or the request not be sent, for Unsubscribe.
/// @return 0, the request is on its way; result::kNoUpperLayer for a null listener;
/// result::kFailure when the event path could not be opened; result::kRequestFailed when the
/// request could not be sent.
VEX_EXPORT int Subscribe(const std::string& device_udn, const std::string& host_header,
                         const std::string& user_agent, const std::string& callback_url,
                         const std::string& event_url, DeviceEventListener* listener,
                         int& handler_id);

/// Ends a subscription and tells the device, whose answer is not looked at. When it has returned,
/// the listener is not called any more: it waits for a call that is running, except when it is made
/// from inside one.
///
/// @param host_header  The HOST line.
/// @return 0; result::kNoUpperLayer for an unknown handle; result::kRequestFailed when the device
/// has not answered the SUBSCRIBE yet or the request could not be sent. The subscription is gone in
/// each case.
VEX_EXPORT int Unsubscribe(const int& handler_id, const std::string& host_header);

/// The agent for actions and subscriptions that are given none. Forgotten by Terminate.
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);

/// The agent of SetDefaultUserAgent, empty without one.
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_CP_CONTROL_H_

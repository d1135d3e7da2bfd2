#ifndef VEXUPNPCP_SRC_SUBSCRIBE_RESPONSE_CALLBACK_H_
#define VEXUPNPCP_SRC_SUBSCRIBE_RESPONSE_CALLBACK_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/network_listeners.h>

#include "base/use_count.h"
#include "src/listener_hooks.h"
#include "src/subscribe_info.h"

namespace vex_upnp {
namespace cp_control {

// The granted seconds of a TIMEOUT value: what stands behind its first "-", or the whole value, as
// a number. "infinite" is none.
bool ReadGrantedSeconds(const std::string& timeout, int& seconds);

// Milliseconds until the renewal: three quarters of what was granted. `quick_renewals` counts the
// renewals in a row that a device asks for at once; from the third on they are spaced.
int RenewalDelayMs(int granted_seconds, int& quick_renewals);

// Takes the answers to SUBSCRIBE and to renewals, and the lack of one.
class SubscribeResponseCallback : public network_layer::ResponseListener,
                                  public network_layer::AnswerArrivalListener {
 public:
  static boost::shared_ptr<SubscribeResponseCallback> GetInstance();
  // Waits without limit for the calls that are inside; what comes later is turned away.
  static void TerminateInstance();

  void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                          const int& session_id) override;
  void OnAnswerArrived(const int& session_id) override;

  // On the timer thread: no answer came in time. It counts as a failed one. `timer_id` tells a
  // timer that an answer has overtaken.
  static void OnAnswerMissing(int handler_id, int timer_id);

 private:
  SubscribeResponseCallback() = default;

  static void __HandleAnswer(SubscribeInfoList& list, utils::HTTPInfo& response, int session_id);
  static SubscribeInfoList::Pointer __ClaimAnswer(SubscribeInfoList& list, int session_id);
  static bool __Understands(SubscribeInfoList& list, utils::HTTPInfo& response,
                            SubscribeInfo& record, int& timeout);
  static bool __ParsePacket(SubscribeInfoList& list, utils::HTTPInfo& response,
                            SubscribeInfo& record, int& timeout);
  static bool __NotifySuccess(SubscribeInfoList& list, const SubscribeInfo& record);
  static void __HandleFailure(SubscribeInfoList& list, SubscribeInfo& record,
                              utils::HTTPInfo& response);
  static void __EndSubscription(SubscribeInfoList& list, SubscribeInfo& record,
                                const std::string& message);
  static void __StartRenewalTimer(SubscribeInfoList& list, SubscribeInfo& record, int timeout);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<SubscribeResponseCallback>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SUBSCRIBE_RESPONSE_CALLBACK_H_

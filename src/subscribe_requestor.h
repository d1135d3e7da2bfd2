#ifndef VEXUPNPCP_SRC_SUBSCRIBE_REQUESTOR_H_
#define VEXUPNPCP_SRC_SUBSCRIBE_REQUESTOR_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace cp_control {

// Sends SUBSCRIBE, its repetitions and its renewals.
class SubscribeRequestor : public VEXUncopyable {
 public:
  static boost::shared_ptr<SubscribeRequestor> GetInstance();
  // Drops all subscriptions. The devices are not told; their side lapses.
  static void TerminateInstance();

  // See cp_control::Subscribe.
  int Subscribe(const std::string& device_udn, const std::string& host_header,
                const std::string& user_agent, const std::string& callback_url,
                const std::string& event_url, DeviceEventListener* listener, int& handler_id);

  // Sends the full SUBSCRIBE again, also when it was a renewal that failed. False when the record
  // is gone or the sending failed, after which nothing more happens.
  static bool ResendSubscribeOnFailure(const int& handler_id);
  static bool Resubscribe(const int& handler_id);

  void SetDefaultUserAgent(const std::string& agent);
  void GetDefaultUserAgent(std::string& agent);

 private:
  SubscribeRequestor() = default;

  static int __AddStructure(const std::string& device_udn, const std::string& host_header,
                            const std::string& user_agent, const std::string& callback_url,
                            const std::string& event_url, DeviceEventListener* listener);
  static int __RegisterEventCallback(int handler_id, const std::string& path);
  static int __SendSubscribePacket(int handler_id, const std::string& host_header,
                                   const std::string& user_agent,
                                   const std::string& full_callback_url,
                                   const std::string& event_url);
  static bool __LookupStructure(int handler_id, std::string& host_header, std::string& event_url,
                                std::string& sid, std::string& user_agent);
  static int __SendResubscribePacket(int handler_id, const std::string& host_header,
                                     const std::string& event_url, const std::string& sid,
                                     const std::string& user_agent);
  static int __SendAndWatch(int handler_id, const std::string& ip, int port,
                            const std::string& packet);

  boost::mutex mutex_;
  std::string default_user_agent_ VEX_GUARDED_BY(mutex_);

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::mutex& instance_mutex_;
  static boost::shared_ptr<SubscribeRequestor>& instance_;
};

}  // namespace cp_control
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SUBSCRIBE_REQUESTOR_H_

#ifndef VEXUPNPCP_SRC_NOW_REQUESTING_H_
#define VEXUPNPCP_SRC_NOW_REQUESTING_H_

#include <atomic>
#include <cstdint>
#include <string>

namespace vex_upnp {
namespace cp_discovery {

// One description request in flight. Dropping the last reference ends its network session and its
// timer, so it must not happen under a lock.
class NowRequesting {
 public:
  // For a device description; the target is the whole URL of the announcement.
  NowRequesting(const std::string& device_udn, const std::string& location, const std::string& host,
                int host_port, const std::string& location_base, const std::string& agent);
  // For a service description; the target is the path of its URL.
  NowRequesting(const std::string& device_udn, const std::string& service, const std::string& path,
                const std::string& host, int host_port, const std::string& agent);
  NowRequesting(const NowRequesting&) = delete;
  NowRequesting& operator=(const NowRequesting&) = delete;
  ~NowRequesting();

  // The retry timer.
  void Start();
  void Stop();

  bool IsForService() const { return !service_id.empty(); }

  // The key of the device that is asked for.
  const std::string udn;
  const std::string request_target;
  const std::string ip;
  const int port;
  // Empty for a service description.
  const std::string base_url;
  // 0 until sent. Written by the list of requests.
  std::atomic<int> session_id{0};
  // Empty for a device description; that is how the two are told apart.
  const std::string service_id;
  const std::string user_agent;
  std::atomic<std::int16_t> retry_count{kTries};
  // 0 when no timer runs.
  std::atomic<int> timer_id{0};

 private:
  static constexpr std::int16_t kTries = 2;
};

// A description has not come in time. Called on the timer thread; the retry runs on another one.
void TimerExpiredCallBack(int timer_id, void* data);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_NOW_REQUESTING_H_

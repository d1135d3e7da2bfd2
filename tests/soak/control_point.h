#ifndef VEXUPNPCP_TESTS_SOAK_CONTROL_POINT_H_
#define VEXUPNPCP_TESTS_SOAK_CONTROL_POINT_H_

#include <vexupnpcp/generic_cp.h>

#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "downloads.h"
#include "house.h"

namespace soak {

// The library in use, by one thread: it meets devices, subscribes them, sends actions and sees that
// each of them ends, exactly once.
class ControlPoint {
 public:
  ControlPoint(House& house, Downloads& downloads, unsigned actions_per_second);
  ~ControlPoint();
  ControlPoint(const ControlPoint&) = delete;
  ControlPoint& operator=(const ControlPoint&) = delete;

  // Ends the process when the library cannot start.
  void Start(const std::string& interface_name);
  void Stop();

  // What is due now; to be called a few dozen times a second.
  void Work();
  // No new actions while it is held. Idle when none is open.
  void Hold(bool held) { held_ = held; }
  bool Idle();

  // Gives the control point back, with all it has subscribed, and begins anew. While idle.
  void RegisterAnew();

  // The devices that the library lists now.
  std::vector<std::string> Listed();

 private:
  struct DeviceEvent {
    int event;
    std::string key;
    Kind kind;
  };
  struct Open {
    Plan plan;
    std::int64_t begun = 0;
    bool cancelled = false;
  };

  static void OnEvent(const char* udn, errorcodes code, CPArgument* variables);
  static void OnAction(int id, errorcodes code, CPArgument* output, const char* description);
  static void OnDevice(int event, CPDeviceInfo* device);

  void Register();
  void TakeUp(const std::string& key, Kind kind);
  void TakeUpListed();
  void HandleDevices();
  void HandleOutcomes();
  void CountOverdue();
  void SendDue();
  void Send(const Plan& plan);
  void Subscribe(const std::string& key, const std::string& service);
  void SubscribeAnew();
  void RegisterGuest();

  static ControlPoint* current_;

  House& house_;
  Downloads& downloads_;
  const std::int64_t action_pause_;
  std::mt19937 random_{4711};
  int handle_ = 0;
  bool held_ = false;
  std::int64_t next_action_ = 0;
  std::int64_t next_look_ = 0;
  std::int64_t next_rescan_ = 0;
  std::int64_t next_subscription_ = 0;
  std::int64_t next_guest_ = 0;
  unsigned rescans_ = 0;
  std::map<int, Open> open_;
  // Filled by callbacks.
  std::mutex mutex_;
  std::deque<DeviceEvent> device_events_;
  std::deque<Outcome> outcomes_;
};

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_CONTROL_POINT_H_

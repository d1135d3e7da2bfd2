#ifndef VEXUPNPCP_TESTS_SUPPORT_CONTROL_STACK_H_
#define VEXUPNPCP_TESTS_SUPPORT_CONTROL_STACK_H_

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/cp_control.h>

namespace vex_test {

constexpr char kOwnAddress[] = "10.77.0.1";
constexpr char kDeviceAddress[] = "10.77.0.2";

// The network layer with an event server on lan0, and control on top, from here to the end of the
// scope.
class ControlStack {
 public:
  ControlStack();
  ControlStack(const ControlStack&) = delete;
  ControlStack& operator=(const ControlStack&) = delete;
  ~ControlStack();

  // Once; the destructor does what has not been done.
  void TerminateControl();
  void StopNetwork();

  int event_port() const { return event_port_; }
  // As a subscription is given it: no path.
  std::string CallbackUrl() const;

  // Sends a request to the event server, as a device does, and returns the whole answer.
  std::string Notify(const std::string& request) const;

 private:
  int event_port_ = 0;
  bool control_runs_ = true;
  bool network_runs_ = true;
};

// A proper NOTIFY for the path of a subscription.
std::string NotifyRequest(int handler_id, const std::string& sid, int seq,
                          const std::string& body = "<e:propertyset/>");

struct ActionResult {
  int action_id;
  int status;
  std::string body;
  void* context;
};

// Notes everything that an action's caller can hear.
class ActionLog : public vex_upnp::cp_control::ControlResponseListener {
 public:
  void OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                          void* context) override;
  void DeleteContext(void* context) override;

  std::vector<ActionResult> Results() const;
  std::vector<void*> GivenBack() const;
  std::size_t ResultCount() const { return Results().size(); }

  // Called inside a result, after it has been noted. Set before the first action.
  std::function<void(const ActionResult&)> on_result;
  std::function<void(void*)> on_delete;

 private:
  mutable std::mutex mutex_;
  std::vector<ActionResult> results_;
  std::vector<void*> given_back_;
};

struct SubscribeOutcome {
  int handler_id;
  errorcodes code;
  std::string message;
};

// Notes everything that a subscription's owner can hear.
class EventLog : public vex_upnp::cp_control::DeviceEventListener {
 public:
  void OnEventReceived(const std::string& body) override;
  void OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                   const std::string& message) override;

  std::vector<std::string> Events() const;
  std::vector<SubscribeOutcome> Outcomes() const;
  int CountOf(errorcodes code) const;

  // Called inside an event or an outcome, after it has been noted. Set before the subscription.
  std::function<void(const std::string&)> on_event;
  std::function<void(const SubscribeOutcome&)> on_outcome;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::vector<SubscribeOutcome> outcomes_;
};

// A gate that blocks who passes until it is opened; it counts who has come.
class Gate {
 public:
  void Pass();
  void Open() { open_ = true; }
  int waiting() const { return came_; }

 private:
  std::atomic<int> came_{0};
  std::atomic<bool> open_{false};
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_CONTROL_STACK_H_

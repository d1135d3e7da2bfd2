#include "tests/support/control_stack.h"

#include <algorithm>
#include <list>
#include <stdexcept>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>

#include "tests/support/control_peer.h"
#include "tests/support/no_failures.h"
#include "tests/support/stumble.h"
#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

namespace net = vex_upnp::network_layer;
namespace result = vex_upnp::result;

constexpr char kOwnInterface[] = "lan0";
constexpr int kEventPort = 5100;

int FindEventPort() {
  std::list<boost::shared_ptr<net::IpInfo>> servers;
  net::GetConfiguredTcpPorts(servers);
  for (const boost::shared_ptr<net::IpInfo>& server : servers) {
    if (server->ip == kOwnAddress) return server->port;
  }
  return 0;
}

}  // namespace

ControlStack::ControlStack() {
  net::InitializeNetworkLayer();
  vex_upnp::utils::Timer::InitializeManager();
  net::StartNetworkLayer();
  std::string name = kOwnInterface;
  net::ConfigureNetworkInterface(name, true);
  net::ConfigureTCPServer(kEventPort, true);
  net::InitializeNetworkMonitor();
  if (!WaitUntil([this] { return (event_port_ = FindEventPort()) != 0; })) {
    throw std::runtime_error("no event server on lan0");
  }
  vex_upnp::cp_control::Initialize();
}

ControlStack::~ControlStack() {
  TerminateControl();
  StopNetwork();
}

void ControlStack::TerminateControl() {
  if (control_runs_) vex_upnp::cp_control::Terminate();
  control_runs_ = false;
}

void ControlStack::StopNetwork() {
  if (!network_runs_) return;
  network_runs_ = false;
  net::TerminateNetworkMonitor();
  net::StopNetworkLayer();
  TerminateControl();
  vex_upnp::utils::Timer::TerminateManager();
  net::TerminateNetworkLayer();
}

std::string ControlStack::CallbackUrl() const {
  return std::string("http://") + kOwnAddress + ":" + std::to_string(event_port_);
}

std::string ControlStack::Notify(const std::string& request) const {
  return ExchangeWith(kOwnAddress, event_port_, request, kDeviceAddress);
}

std::string NotifyRequest(int handler_id, const std::string& sid, int seq,
                          const std::string& body) {
  return "NOTIFY /eventing_" + std::to_string(handler_id) +
         "/ HTTP/1.1\r\n"
         "HOST: 10.77.0.1:5100\r\n"
         "CONTENT-TYPE: text/xml\r\n"
         "NT: upnp:event\r\n"
         "NTS: upnp:propchange\r\n"
         "SID: " +
         sid + "\r\nSEQ: " + std::to_string(seq) +
         "\r\n"
         "CONTENT-LENGTH: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

void ActionLog::OnResponseReceived(const int& action_id, const int& status, const std::string& body,
                                   void* context) {
  const NoFailures tools;
  const ActionResult action_result{action_id, status, body, context};
  {
    const StumblingLock lock(mutex_);
    results_.push_back(action_result);
  }
  if (on_result) on_result(action_result);
}

void ActionLog::DeleteContext(void* context) {
  {
    const StumblingLock lock(mutex_);
    given_back_.push_back(context);
  }
  if (on_delete) on_delete(context);
}

std::vector<ActionResult> ActionLog::Results() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return results_;
}

std::vector<void*> ActionLog::GivenBack() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return given_back_;
}

void EventLog::OnEventReceived(const std::string& body) {
  {
    const StumblingLock lock(mutex_);
    events_.push_back(body);
  }
  if (on_event) on_event(body);
}

void EventLog::OnSubscribeResponseReceived(const int& handler_id, const errorcodes& code,
                                           const std::string& message) {
  const SubscribeOutcome outcome{handler_id, code, message};
  {
    const StumblingLock lock(mutex_);
    outcomes_.push_back(outcome);
  }
  if (on_outcome) on_outcome(outcome);
}

std::vector<std::string> EventLog::Events() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<SubscribeOutcome> EventLog::Outcomes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return outcomes_;
}

int EventLog::CountOf(errorcodes code) const {
  const std::vector<SubscribeOutcome> all = Outcomes();
  return static_cast<int>(std::count_if(
      all.begin(), all.end(), [&](const SubscribeOutcome& one) { return one.code == code; }));
}

void Gate::Pass() {
  ++came_;
  WaitUntil([this] { return open_.load(); }, std::chrono::minutes(2));
}

}  // namespace vex_test

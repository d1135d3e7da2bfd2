#include "tests/stress/direct_calls.h"

#include <list>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

#include "tests/stress/host_calls.h"
#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;
namespace control = vex_upnp::cp_control;
namespace discovery = vex_upnp::cp_discovery;
namespace net = vex_upnp::network_layer;

constexpr std::size_t kKept = 20;
constexpr std::size_t kGravesKept = 500;

std::string HostLine(const MoodyDevice& device) {
  return "HOST:" + device.ip() + ":" + std::to_string(device.port());
}

std::string Url(const MoodyDevice& device, const std::string& path) {
  return "http://" + device.ip() + ":" + std::to_string(device.port()) + path;
}

std::string Get(const MoodyDevice& device, const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\n" + HostLine(device) + "\r\nConnection: close\r\n\r\n";
}

std::mutex contexts_mutex;
std::set<int*> contexts;

// Takes a context back; one that is not out was given back before.
void TakeBack(void* context) {
  int* const ticket = static_cast<int*>(context);
  {
    const std::lock_guard<std::mutex> lock(contexts_mutex);
    if (contexts.erase(ticket) == 0) {
      Violation("a context came back twice");
      return;
    }
  }
  delete ticket;
}

class Caller : public control::ControlResponseListener {
 public:
  void OnResponseReceived(const int&, const int& status, const std::string&,
                          void* context) override {
    if (context == nullptr) {
      Counts::Add("direct action: duplicate");
      return;
    }
    Counts::Add("direct action: ended with " + std::to_string(status));
    TakeBack(context);
  }
  void DeleteContext(void* context) override {
    Counts::Add("direct action: context given back by cancel");
    TakeBack(context);
  }
};
Caller caller;

class AnswerCounter : public net::ResponseListener {
 public:
  void OnResponseReceived(boost::shared_ptr<vex_upnp::utils::HTTPInfo>, const int&) override {
    Counts::Add("exchange: answered");
  }
};

void OnDiscovered(int, discovery::DeviceEventType, discovery::DeviceInfo*) {
  Counts::Add("callback: discovery");
}

std::atomic<long long> expired{0};
void OnTimer(int, void*) { ++expired; }

}  // namespace

long long OpenContexts() {
  const std::lock_guard<std::mutex> lock(contexts_mutex);
  return static_cast<long long>(contexts.size());
}

void DropOpenContexts() {
  const std::lock_guard<std::mutex> lock(contexts_mutex);
  for (int* ticket : contexts) delete ticket;
  contexts.clear();
}

void DirectSubscription::OnEventReceived(const std::string& body) {
  if (ended) Violation("an event behind Unsubscribe");
  if (body.empty()) Violation("an empty event");
  Counts::Add("callback: direct event");
}

void DirectSubscription::OnSubscribeResponseReceived(const int&, const errorcodes& code,
                                                     const std::string&) {
  if (ended) Violation("an outcome behind Unsubscribe");
  Counts::Add(code == CP_ERR_NONE ? "direct subscription: granted"
                                  : "direct subscription: failed three times");
}

void HostThread::SendDirect() {
  const MoodyDevice& device = AnyDevice();
  const std::string& service = AnyService();
  std::list<vex_upnp::cp_utils::CPUtilsArgument> arguments = {{"InstanceID", "0"}};
  std::string body;
  vex_upnp::cp_utils::GenerateSoapRequestBody("Play", service, arguments, body);
  int* const ticket = new int(0);
  {
    const std::lock_guard<std::mutex> lock(contexts_mutex);
    contexts.insert(ticket);
  }
  int id = 0;
  const Call call("cp_control::SendAction");
  if (control::SendAction(device.key(), HostLine(device), "SOAPACTION: \"" + service + "#Play\"",
                          Url(device, "/ctl/" + service), body, "", &caller, ticket, id) != 0) {
    TakeBack(ticket);
    return;
  }
  direct_actions_.push_back(id);
  if (direct_actions_.size() > kKept) direct_actions_.pop_front();
}

void HostThread::CancelDirect() {
  if (direct_actions_.empty()) return;
  const std::size_t chosen = Dice(static_cast<unsigned>(direct_actions_.size()));
  const Call call("cp_control::CancelAction");
  control::CancelAction(direct_actions_[chosen]);
}

void HostThread::SubscribeDirect() {
  if (subscriptions_.size() >= kKept) return;
  const MoodyDevice& device = AnyDevice();
  auto subscription = std::make_unique<DirectSubscription>();
  subscription->host_line = HostLine(device);
  std::list<boost::shared_ptr<net::IpInfo>> servers;
  net::GetConfiguredTcpPorts(servers);
  if (servers.empty()) return;
  const net::IpInfo& own = *servers.front();
  const Call call("cp_control::Subscribe");
  control::Subscribe(device.key(), subscription->host_line, "",
                     "http://" + own.ip + ":" + std::to_string(own.port),
                     Url(device, "/evt/" + AnyService()), subscription.get(), subscription->handle);
  subscriptions_.push_back(std::move(subscription));
}

void HostThread::UnsubscribeDirect() {
  if (subscriptions_.empty()) return;
  const std::size_t chosen = Dice(static_cast<unsigned>(subscriptions_.size()));
  std::unique_ptr<DirectSubscription> subscription = std::move(subscriptions_[chosen]);
  subscriptions_.erase(subscriptions_.begin() + static_cast<std::ptrdiff_t>(chosen));
  {
    const Call call("cp_control::Unsubscribe");
    control::Unsubscribe(subscription->handle, subscription->host_line);
  }
  subscription->ended = true;
  ended_.push_back(std::move(subscription));
  if (ended_.size() > kGravesKept) ended_.pop_front();
}

void HostThread::Exchange() {
  const MoodyDevice& device = AnyDevice();
  const std::string request = Get(device, "/scpd/AVTransport");
  const int length = static_cast<int>(request.size());
  if (Dice(4) == 0) {
    auto response = boost::make_shared<vex_upnp::utils::HTTPInfo>();
    constexpr int kTimeoutMs = 300;
    const Call call("SendSyncTCPPacket");
    net::SendSyncTCPPacket(device.ip(), device.port(), request, length, response, kTimeoutMs);
    return;
  }
  int id = 0;
  const Call call("SendTCPHTTPPacket");
  const int sent = net::SendTCPHTTPPacket(device.ip(), device.port(), request, length,
                                          boost::make_shared<AnswerCounter>(), id);
  if (sent == 0 && Dice(3) == 0) net::CancelTCPHTTPPacket(id);
}

void HostThread::Discover() {
  int handle = 0;
  discovery::DetailedDeviceInfo details;
  std::list<discovery::DeviceInfo> list;
  std::string text;
  const Call call("cp_discovery");
  discovery::GetDeviceList("upnp:rootdevice", &list);
  discovery::GetDeviceDetailInfo(AnyDevice().key(), &details);
  discovery::GetDeviceDescription(AnyDevice().key(), text);
  discovery::GetServiceDescription(AnyDevice().key(), AnyService(), text);
  discovery::GetProductCap(AnyDevice().key(), text);
  discovery::getDeviceInterface(AnyDevice().ip(), text);
  std::string type = AnyService(), host;
  vex_upnp::cp_utils::GetHostAndControlUri(AnyDevice().key(), type, host, text);
  int domain = 0;
  discovery::getDeviceDomain(AnyDevice().ip(), domain);
  if (discovery::RegisterCP("upnp:rootdevice", "", &OnDiscovered, &handle) == 0)
    discovery::UnRegisterCP(handle);
  if (Dice(10) == 0) discovery::Rescan("urn:schemas-upnp-org:device:MediaServer:1");
}

void HostThread::RunTimer() {
  const Call call("Timer::Start and Cancel");
  constexpr unsigned kLongestMs = 2000;
  const int id =
      vex_upnp::utils::Timer::Start(static_cast<int>(Dice(kLongestMs)), &OnTimer, nullptr);
  if (id > 0 && Dice(2) == 0) {
    void* argument = nullptr;
    vex_upnp::utils::Timer::Cancel(id, &argument);
  }
}

}  // namespace vex_stress

#ifndef VEXUPNPCP_TESTS_SUPPORT_SCRIPTED_DEVICE_H_
#define VEXUPNPCP_TESTS_SUPPORT_SCRIPTED_DEVICE_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/ssdp_peer.h"

namespace vex_test {

// A whole device on a real socket: it announces itself, serves its description, answers actions and
// grants subscriptions. Its services have the types "urn:schemas-upnp-org:service:<name>:1".
class ScriptedDevice {
 public:
  // `udn` without the library's suffix, such as "uuid:dev-1".
  ScriptedDevice(const std::string& udn, const std::vector<std::string>& services,
                 const std::string& ip = "10.77.0.2",
                 const std::string& device_type = "urn:schemas-upnp-org:device:MediaServer:1");
  ScriptedDevice(const ScriptedDevice&) = delete;
  ScriptedDevice& operator=(const ScriptedDevice&) = delete;
  ~ScriptedDevice();

  const std::string& udn() const { return udn_; }
  int port() const { return peer_->port(); }
  const ControlPeer& peer() const { return *peer_; }

  // A datagram to the library's address and port there.
  void SayAlive(const std::string& library_ip, int library_port);
  void SayByebye(const std::string& library_ip, int library_port);

  // Leaves the eventing URL of a service empty. Before the description is asked for.
  void HasNoEvents(const std::string& service);

  // What a POST is answered with; by default the response of an action with one output argument.
  void OnAction(std::function<PeerAnswer(const PeerRequest&)> script);
  // The same for SUBSCRIBE, renewals included; by default it is granted.
  void OnSubscribe(std::function<PeerAnswer(const PeerRequest&)> script);

  // The SUBSCRIBEs and UNSUBSCRIBEs for one service that came.
  int Subscribes(const std::string& service) const;
  int Unsubscribes(const std::string& service) const;
  std::vector<PeerRequest> Actions() const;

  // Sends an event of a service to whoever subscribed it last and returns the status line of the
  // answer; empty when nobody has. Blocks until the library has answered.
  std::string Notify(const std::string& service, int seq, const std::string& properties);

  // Answers of an action.
  static PeerAnswer Response(const std::string& action, const std::string& arguments);
  static PeerAnswer Fault(int code, const std::string& description);

 private:
  struct Subscription {
    std::string sid;
    // From CALLBACK: "http://ip:port/path/".
    std::string ip;
    int port = 0;
    std::string path;
  };

  PeerAnswer Serve(const PeerRequest& request);
  PeerAnswer ServeSubscribe(const PeerRequest& request);
  std::string Description() const;
  void Send(const std::string& datagram, const std::string& ip, int port);

  const std::string udn_;
  const std::vector<std::string> services_;
  const std::string device_type_;
  mutable std::mutex mutex_;
  std::function<PeerAnswer(const PeerRequest&)> action_script_;
  std::function<PeerAnswer(const PeerRequest&)> subscribe_script_;
  std::map<std::string, Subscription> subscriptions_;
  std::set<std::string> without_events_;
  int last_sid_ = 0;
  // Last, so that it is gone before what its script uses.
  std::unique_ptr<ControlPeer> peer_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SCRIPTED_DEVICE_H_

#include "tests/support/scripted_device.h"

#include <algorithm>
#include <utility>

#include "tests/support/fake_device.h"

namespace vex_test {
namespace {

constexpr char kDescriptionPath[] = "/desc.xml";
constexpr char kScpd[] =
    "<?xml version=\"1.0\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"></scpd>";

std::string WithLength(const std::string& start_line, const std::string& headers,
                       const std::string& body) {
  return start_line + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string Envelope(const std::string& content) {
  return "<?xml version=\"1.0\"?><s:Envelope "
         "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
         "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>" +
         content + "</s:Body></s:Envelope>";
}

// The name behind a path such as "/evt/AVTransport".
std::string ServiceOf(const PeerRequest& request) {
  const std::string line = request.StartLine();
  const std::size_t path = line.find(' ') + 1;
  const std::size_t name = line.find('/', path + 1) + 1;
  return line.substr(name, line.find(' ', path) - name);
}

}  // namespace

ScriptedDevice::ScriptedDevice(const std::string& udn, const std::vector<std::string>& services,
                               const std::string& ip, const std::string& device_type)
    : udn_(udn), services_(services), device_type_(device_type) {
  action_script_ = [](const PeerRequest&) { return Response("Any", "<Result>1</Result>"); };
  peer_.reset(
      new ControlPeer(ip, 0, [this](const PeerRequest& request) { return Serve(request); }));
}

ScriptedDevice::~ScriptedDevice() = default;

void ScriptedDevice::SayAlive(const std::string& library_ip, int library_port) {
  Send(AliveDatagram(udn_ + "::upnp:rootdevice", "upnp:rootdevice", peer_->Url(kDescriptionPath)),
       library_ip, library_port);
}

void ScriptedDevice::SayByebye(const std::string& library_ip, int library_port) {
  Send(ByebyeDatagram(udn_ + "::upnp:rootdevice", "upnp:rootdevice"), library_ip, library_port);
}

void ScriptedDevice::Send(const std::string& datagram, const std::string& ip, int port) {
  SsdpPeer(peer_->ip()).Send(datagram, ip, port);
}

void ScriptedDevice::HasNoEvents(const std::string& service) {
  const std::lock_guard<std::mutex> lock(mutex_);
  without_events_.insert(service);
}

void ScriptedDevice::OnAction(std::function<PeerAnswer(const PeerRequest&)> script) {
  const std::lock_guard<std::mutex> lock(mutex_);
  action_script_ = std::move(script);
}

void ScriptedDevice::OnSubscribe(std::function<PeerAnswer(const PeerRequest&)> script) {
  const std::lock_guard<std::mutex> lock(mutex_);
  subscribe_script_ = std::move(script);
}

int ScriptedDevice::Subscribes(const std::string& service) const {
  return peer_->CountOf("SUBSCRIBE /evt/" + service + " ");
}

int ScriptedDevice::Unsubscribes(const std::string& service) const {
  return peer_->CountOf("UNSUBSCRIBE /evt/" + service + " ");
}

std::vector<PeerRequest> ScriptedDevice::Actions() const {
  std::vector<PeerRequest> actions;
  for (const PeerRequest& request : peer_->Requests()) {
    if (request.Begins("POST ")) actions.push_back(request);
  }
  return actions;
}

std::string ScriptedDevice::Notify(const std::string& service, int seq,
                                   const std::string& properties) {
  Subscription subscription;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    subscription = subscriptions_[service];
  }
  if (subscription.sid.empty()) return std::string();
  const std::string body = "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">" +
                           properties + "</e:propertyset>";
  const std::string answer = ExchangeWith(
      subscription.ip, subscription.port,
      WithLength(
          "NOTIFY " + subscription.path + " HTTP/1.1",
          "HOST: " + subscription.ip + ":" + std::to_string(subscription.port) +
              "\r\nCONTENT-TYPE: text/xml\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nSID: " +
              subscription.sid + "\r\nSEQ: " + std::to_string(seq) + "\r\n",
          body),
      peer_->ip());
  return answer.substr(0, answer.find("\r\n"));
}

PeerAnswer ScriptedDevice::Response(const std::string& action, const std::string& arguments) {
  return Text(WithLength(
      "HTTP/1.1 200 OK", "CONTENT-TYPE: text/xml\r\n",
      Envelope("<u:" + action + "Response xmlns:u=\"urn:schemas-upnp-org:service:Any:1\">" +
               arguments + "</u:" + action + "Response>")));
}

PeerAnswer ScriptedDevice::Fault(int code, const std::string& description) {
  return Text(WithLength(
      "HTTP/1.1 500 Internal Server Error", "CONTENT-TYPE: text/xml\r\n",
      Envelope("<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
               "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>" +
               std::to_string(code) + "</errorCode><errorDescription>" + description +
               "</errorDescription></UPnPError></detail></s:Fault>")));
}

PeerAnswer ScriptedDevice::Serve(const PeerRequest& request) {
  if (request.Begins(std::string("GET ") + kDescriptionPath)) {
    return Text(WithLength("HTTP/1.1 200 OK", "", Description()));
  }
  if (request.Begins("GET /scpd/")) return Text(WithLength("HTTP/1.1 200 OK", "", kScpd));
  if (request.Begins("SUBSCRIBE ")) return ServeSubscribe(request);
  if (request.Begins("UNSUBSCRIBE ")) return Text(WithLength("HTTP/1.1 200 OK", "", ""));
  if (request.Begins("POST ")) {
    std::function<PeerAnswer(const PeerRequest&)> script;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      script = action_script_;
    }
    return script(request);
  }
  return Text(WithLength("HTTP/1.1 404 Not Found", "", ""));
}

PeerAnswer ScriptedDevice::ServeSubscribe(const PeerRequest& request) {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::function<PeerAnswer(const PeerRequest&)> script = subscribe_script_;
  if (script) {
    lock.unlock();
    return script(request);
  }
  Subscription& subscription = subscriptions_[ServiceOf(request)];
  // Renewals carry no CALLBACK and keep their SID.
  const std::string callback = request.Header("CALLBACK");
  if (!callback.empty()) {
    const std::size_t host = std::string("<http://").size();
    const std::size_t colon = callback.find(':', host);
    const std::size_t path = callback.find('/', colon);
    subscription.sid = udn_ + "-sub-" + std::to_string(++last_sid_);
    subscription.ip = callback.substr(host, colon - host);
    subscription.port = std::stoi(callback.substr(colon + 1, path - colon - 1));
    subscription.path = callback.substr(path, callback.find('>') - path);
  }
  return Text(WithLength("HTTP/1.1 200 OK",
                         "SID: " + subscription.sid + "\r\nTIMEOUT: Second-1800\r\n", ""));
}

std::string ScriptedDevice::Description() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  FakeDevice device;
  device.udn = udn_;
  device.type = device_type_;
  device.friendly_name = "Hall";
  for (const std::string& name : services_) {
    FakeService service;
    service.type = "urn:schemas-upnp-org:service:" + name + ":1";
    service.id = "urn:upnp-org:serviceId:" + name;
    service.scpd_url = "/scpd/" + name;
    service.control_url = "/ctl/" + name;
    service.event_sub_url = without_events_.count(name) == 0 ? "/evt/" + name : "";
    device.services.push_back(service);
  }
  return DescriptionOf(device);
}

}  // namespace vex_test

#include "subscription.h"

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/string_utils.h>

#include <boost/shared_ptr.hpp>
#include <list>

#include "exit_status.h"
#include "output.h"

namespace vexcp {

namespace {

namespace control = vex_upnp::cp_control;
namespace net = vex_upnp::network_layer;

// Where the device reaches us.
std::string CallbackUrl(const DeviceRecord& device) {
  std::list<boost::shared_ptr<net::IpInfo>> servers;
  net::GetConfiguredTcpPorts(servers);
  for (const boost::shared_ptr<net::IpInfo>& server : servers)
    if (server->ip == device.local_ip)
      return "http://" + server->ip + ":" + std::to_string(server->port);
  throw Failure(kNotStarted, "no port for events could be opened on " + device.interface_name);
}

std::string EventUrl(const DeviceRecord& device, const ServiceRecord& service) {
  std::string url;
  if (vex_upnp::utils::StringUtils::GetAbsoluteUri(service.event_sub_url, device.url_base,
                                                   device.device_ip, device.device_port,
                                                   device.description_path, url) != 0)
    throw Failure(kNotFound, Printable(device.name) + " names no address for events of " +
                                 ShortType(service.type));
  return url;
}

}  // namespace

Subscription::Subscription(EventQueue& events, const DeviceRecord& device,
                           const ServiceRecord& service, int number)
    : events_(events),
      number_(number),
      host_line_("HOST:" + device.device_ip + ":" + std::to_string(device.device_port)) {
  const std::string url = EventUrl(device, service);
  const int code = control::Subscribe(device.key, host_line_, std::string(), CallbackUrl(device),
                                      url, this, handle_);
  if (code == 0) return;
  if (handle_ != 0) control::Unsubscribe(handle_, host_line_);
  throw Failure(kRefused, "the subscription to " + ShortType(service.type) +
                              " could not be sent to " + Printable(url) + " (" +
                              std::to_string(code) + ")");
}

Subscription::~Subscription() { control::Unsubscribe(handle_, host_line_); }

void Subscription::OnEventReceived(const std::string& body) {
  events_.Push({DeviceEvent::Kind::kVariablesChanged, {}, {}, {}, number_, 0, body});
}

void Subscription::OnSubscribeResponseReceived(const int&, const errorcodes& code,
                                               const std::string& message) {
  const auto kind =
      code == CP_ERR_NONE ? DeviceEvent::Kind::kSubscribed : DeviceEvent::Kind::kSubscriptionEnded;
  events_.Push({kind, {}, {}, {}, number_, 0, message});
}

}  // namespace vexcp

#include "action_caller.h"

#include <vexupnpcp/cp_utils.h>

#include <list>

#include "exit_status.h"
#include "output.h"
#include "xml_text.h"

namespace vexcp {

namespace {

namespace control = vex_upnp::cp_control;
namespace utils = vex_upnp::cp_utils;

// Actions end by themselves after 30 seconds.
constexpr std::chrono::seconds kLongest{40};

std::string MakeBody(const std::string& service_type, const std::string& action,
                     const std::vector<NamedValue>& arguments) {
  std::list<utils::CPUtilsArgument> list;
  for (const NamedValue& argument : arguments)
    list.push_back({argument.name, EscapeText(argument.value)});
  std::string body;
  utils::GenerateSoapRequestBody(action, service_type, list, body);
  return body;
}

}  // namespace

ActionResult ActionCaller::Call(const DeviceRecord& device, const std::string& service_type,
                                const std::string& action,
                                const std::vector<NamedValue>& arguments) {
  std::string type = service_type, host, url;
  if (utils::GetHostAndControlUri(device.key, type, host, url) != 0)
    throw Failure(kNotFound, Printable(device.name) +
                                 " has left the network, or gives no control URL for that service");
  int id = 0;
  const int code =
      control::SendAction(device.key, host, "SOAPACTION: \"" + type + "#" + action + "\"", url,
                          MakeBody(type, action, arguments), std::string(), this, this, id);
  if (code != 0)
    throw Failure(kRefused, "the action could not be sent to " + Printable(url) +
                                " (SendAction gave " + std::to_string(code) + ")");
  const TimePoint deadline = std::chrono::steady_clock::now() + kLongest;
  while (const std::optional<DeviceEvent> event = events_.Next(deadline))
    if (event->kind == DeviceEvent::Kind::kActionEnded && event->id == id)
      return ReadAnswer(event->status, event->body);
  control::CancelAction(id);
  throw Failure(kRefused, "ended before " + Printable(device.name) + " answered");
}

void ActionCaller::OnResponseReceived(const int& action_id, const int& status,
                                      const std::string& body, void* context) {
  // Null tells a duplicate.
  if (context == nullptr) return;
  events_.Push({DeviceEvent::Kind::kActionEnded, {}, {}, {}, action_id, status, body});
}

}  // namespace vexcp

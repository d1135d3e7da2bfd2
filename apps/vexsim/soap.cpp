#include "soap.h"

#include "xml.h"

namespace vexsim {

namespace {

constexpr char kEnvelopeStart[] =
    "<?xml version=\"1.0\"?>\n"
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>";
constexpr char kEnvelopeEnd[] = "</s:Body></s:Envelope>\n";

}  // namespace

std::string ActionRequest::Argument(std::string_view name) const {
  for (const auto& [argument, value] : arguments)
    if (argument == name) return value;
  return std::string();
}

std::optional<ActionRequest> ParseActionRequest(std::string_view soap_action,
                                                const std::string& body) {
  if (soap_action.size() < 2 || soap_action.front() != '"' || soap_action.back() != '"')
    return std::nullopt;
  soap_action = soap_action.substr(1, soap_action.size() - 2);
  const std::size_t hash = soap_action.find('#');
  if (hash == std::string_view::npos) return std::nullopt;
  const std::optional<XmlElement> envelope = ParseXml(body);
  const XmlElement* content = envelope ? envelope->Child("Body") : nullptr;
  if (content == nullptr || content->children.size() != 1) return std::nullopt;
  const XmlElement& action = content->children[0];
  ActionRequest request;
  request.service_type = soap_action.substr(0, hash);
  request.action = soap_action.substr(hash + 1);
  if (action.name != request.action) return std::nullopt;
  for (const XmlElement& argument : action.children)
    request.arguments.emplace_back(argument.name, argument.text);
  return request;
}

std::string FormatActionAnswer(const ActionRequest& request, const Arguments& results) {
  std::string text = kEnvelopeStart;
  text += "<u:" + request.action + "Response xmlns:u=\"" + EscapeXml(request.service_type) + "\">";
  for (const auto& [name, value] : results)
    text += "<" + name + ">" + EscapeXml(value) + "</" + name + ">";
  return text + "</u:" + request.action + "Response>" + kEnvelopeEnd;
}

std::string FormatFault(int code, const std::string& description) {
  return std::string(kEnvelopeStart) +
         "<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
         "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>" +
         std::to_string(code) + "</errorCode><errorDescription>" + EscapeXml(description) +
         "</errorDescription></UPnPError></detail></s:Fault>" + kEnvelopeEnd;
}

}  // namespace vexsim

#include "src/soap_fault.h"

namespace vex_upnp {
namespace {

constexpr char kEnvelopeNamespace[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr char kEncodingNamespace[] = "http://schemas.xmlsoap.org/soap/encoding/";
constexpr char kIndent[] = "            ";
constexpr char kServer[] = "UPnP/1.1 Tolmark Linkweft Server/1.0";

constexpr int kInvalidArgs = 402;
constexpr int kActionFailed = 501;
constexpr int kActionTimeout = 801;

// `indent` begins each line behind the first, `blank` ends each line that is not empty.
std::string HeaderText(const std::string& first_line, const std::string& content_length,
                       const std::string& indent, const std::string& blank) {
  const std::string line_end = blank + "\r\n";
  return first_line + line_end + indent + "CONTENT-TYPE: text/xml; charset=\"utf-8\"" + line_end +
         indent + "SERVER: " + kServer + line_end + indent + "CONTENT-LENGTH: " + content_length +
         line_end + "\r\n";
}

}  // namespace

std::string SoapFaultBody(int code, const std::string& description, FaultLayout layout) {
  const std::string indent = layout == FaultLayout::kIndented ? kIndent : "";
  const std::string blank = layout == FaultLayout::kRunTogether ? "" : " ";
  return indent + "<?xml version=\"1.0\"?>" + indent + "<s:Envelope" + blank + "xmlns:s=\"" +
         kEnvelopeNamespace + "\"" + blank + "s:encodingStyle=\"" + kEncodingNamespace + "\">" +
         indent +
         "<s:Body><s:Fault><faultcode>s:Client</faultcode>"
         "<faultstring>UPnPError</faultstring><detail>" +
         indent + "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>" +
         std::to_string(code) + "</errorCode>" + indent + "<errorDescription>" + description +
         "</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>";
}

std::string BadRequestAnswer(BadRequestLayout layout) {
  const bool indented = layout == BadRequestLayout::kIndented;
  const std::string blank = layout == BadRequestLayout::kTrailingBlanks ? " " : "";
  const std::string proper = SoapFaultBody(kInvalidArgs, "Invalid Args", FaultLayout::kProper);
  const std::string header = HeaderText("HTTP/1.0 400 Bad Request", std::to_string(proper.size()),
                                        indented ? kIndent : "", blank);
  if (!indented) return header + proper;
  return header + SoapFaultBody(kInvalidArgs, "Invalid Args", FaultLayout::kIndented);
}

std::string BrokenConnectionAnswer() {
  const std::string body = SoapFaultBody(kActionFailed, "Action Failed", FaultLayout::kProper);
  return HeaderText("HTTP/1.0 500 Internal Server Error", std::to_string(body.size()), "", "") +
         body;
}

std::string ActionTimeoutBody() {
  return SoapFaultBody(kActionTimeout, "Action Timeout", FaultLayout::kRunTogether);
}

}  // namespace vex_upnp

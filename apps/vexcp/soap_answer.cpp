#include "soap_answer.h"

#include <vexupnpcp/cp_utils.h>

#include <cstdlib>

#include "xml_walk.h"

namespace vexcp {

namespace {

using vex_upnp::utils::DomNode;

constexpr int kHttpOk = 200;
// There was no answer at all.
constexpr int kNoStatus = 0;

std::optional<UpnpError> ReadFault(const DomNode* fault) {
  const DomNode* code = FindElement(fault, "errorCode");
  if (code == nullptr) return std::nullopt;
  UpnpError error;
  error.code = static_cast<int>(std::strtol(Text(code).c_str(), nullptr, 10));
  if (const DomNode* description = FindElement(fault, "errorDescription"); description != nullptr)
    error.description = Text(description);
  return error;
}

// The answer's only content, action response or fault.
void ReadContent(const DomNode* content, ActionResult& result) {
  if (content == nullptr) return;
  if (LocalName(content) == "Fault") {
    result.error = ReadFault(content);
    return;
  }
  result.outputs.emplace();
  for (const DomNode* output = FirstElement(content->firstChild); output != nullptr;
       output = FirstElement(output->nextSibling))
    result.outputs->push_back({std::string(LocalName(output)), Text(output)});
}

}  // namespace

bool ActionResult::unreadable() const { return status == kHttpOk && !outputs && !error; }

std::string ActionResult::Output(const std::string& name) const {
  if (outputs)
    for (const NamedValue& output : *outputs)
      if (output.name == name) return output.value;
  return std::string();
}

ActionResult ReadAnswer(int status, const std::string& body) {
  ActionResult result;
  result.status = status;
  result.body = body;
  if (const XmlDocument document(body); document.top() != nullptr) {
    const DomNode* envelope = FindElement(document.top(), "Body");
    ReadContent(envelope == nullptr ? nullptr : FirstElement(envelope->firstChild), result);
  } else if (std::string content; vex_upnp::cp_utils::GetXMLFromSoap(body, content) == 0) {
    // An envelope that is broken around a sound content, as that of the library's own time-out.
    const XmlDocument inner(content);
    ReadContent(inner.top() == nullptr ? nullptr : FirstElement(inner.top()->firstChild), result);
  }
  if (status != kHttpOk) result.outputs.reset();
  return result;
}

std::string ExplainFailure(const ActionResult& result, const std::string& service_type) {
  if (!result.error) {
    if (result.unreadable()) return "its answer cannot be read";
    if (result.status == kNoStatus) return "it closed the connection without an answer";
    return "HTTP status " + std::to_string(result.status) + " without a UPnP error";
  }
  const UpnpError& error = *result.error;
  std::string text = "error " + std::to_string(error.code);
  if (!error.description.empty()) text += " \"" + error.description + "\"";
  const std::string meaning = ErrorMeaning(error.code, service_type);
  return meaning.empty() ? text : text + ": " + meaning;
}

}  // namespace vexcp

// Takes bytes apart as SOAP answers and faults, and sends them through a request and back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/xml_utils.h>

namespace {

using vex_upnp::cp_utils::CPUtilsArgument;

constexpr char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";

void Demand(bool holds) {
  if (!holds) std::abort();
}

void TakeApart(const std::string& text) {
  std::list<CPUtilsArgument> arguments;
  vex_upnp::cp_utils::GetOutputArglist(text, arguments);
  int code = 77;
  boost::shared_ptr<std::string> description;
  const int fault = vex_upnp::cp_utils::GetErrCodeDescription(text, code, description);
  Demand((fault == 0) == (description && !description->empty()));
  std::string action = "before";
  if (vex_upnp::cp_utils::GetActionName(text, action) == 0) {
    Demand(!action.empty() && text.find(action + "Response") != std::string::npos);
  }
  std::string type = "before";
  if (vex_upnp::cp_utils::GetServiceType(text, type) == 0) {
    Demand(!type.empty() && text.find(type) != std::string::npos);
  }
}

void CutOut(const std::string& soap) {
  std::string xml = "before";
  if (vex_upnp::cp_utils::GetXMLFromSoap(soap, xml) != 0) {
    Demand(xml == "before");
    return;
  }
  const std::string declaration = kDeclaration;
  Demand(xml.compare(0, declaration.size(), declaration) == 0);
  const std::string content = xml.substr(declaration.size());
  Demand(content[0] == '<' && soap.find(content) != std::string::npos);
  TakeApart(xml);
}

// Whether a value comes back from a document as it went in: no byte ends the text, none protects
// the tag behind it, and no two different references stand in it.
bool ComesBack(const std::string& value) {
  bool blank = true;
  for (const char character : value) {
    if (character == '\0' || character == '\\' || (character > 0 && character < 32)) return false;
    blank = blank && character == ' ';
  }
  return !blank;
}

void ThereAndBack(const std::string& text) {
  const std::size_t half = text.size() / 2;
  std::list<CPUtilsArgument> arguments{
      {"First", text.substr(0, half)}, {"", "left out"}, {"Second", text.substr(half)}};
  for (CPUtilsArgument& argument : arguments) {
    if (!ComesBack(argument.value)) return;
    vex_upnp::utils::XmlEscapeValue(std::string(argument.value), argument.value);
  }
  std::string body;
  std::string xml;
  std::list<CPUtilsArgument> back;
  Demand(vex_upnp::cp_utils::GenerateSoapRequestBody("Do", "urn:s", arguments, body) == 0);
  Demand(vex_upnp::cp_utils::GetXMLFromSoap(body, xml) == 0);
  Demand(vex_upnp::cp_utils::GetOutputArglist(xml, back) == 0);
  Demand(back.size() == 2);
  std::string whole;
  for (const CPUtilsArgument& argument : back) {
    std::string value;
    Demand(vex_upnp::utils::XmlUnescapeValue(argument.value, value) == 0);
    whole += value;
  }
  Demand(whole == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  TakeApart(text);
  CutOut(text);
  ThereAndBack(text);
  return 0;
}

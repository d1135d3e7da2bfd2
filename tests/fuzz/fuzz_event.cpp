// Reads bytes as an event body, flattens them from every element of the first level on, and reads
// the values of an event as documents in turn, as a host does with LastChange.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/xml_utils.h>

#include "xmlparser/src/xml_scope.h"

namespace {

using vex_upnp::cp_utils::CPUtilsArgument;
using vex_upnp::utils::ScopedXmlParser;

void Demand(bool holds) {
  if (!holds) std::abort();
}

std::size_t CountOf(char character, const std::string& text) {
  std::size_t count = 0;
  for (const char other : text) count += other == character ? 1U : 0U;
  return count;
}

void Flatten(const std::string& xml) {
  ScopedXmlParser parser;
  if (!parser.Parse(xml)) return;
  vex_upnp::utils::NodePtr root = vex_upnp::utils::FirstNode(parser.get());
  std::list<CPUtilsArgument> arguments;
  const bool has_root = static_cast<bool>(root);
  const int code = vex_upnp::cp_utils::MakeArgumentList(root.release(), parser.get(), arguments);
  Demand((code == 0) == has_root);
  // Each element at most once.
  Demand(arguments.size() <= CountOf('<', xml));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string xml(reinterpret_cast<const char*>(data), size);
  std::list<CPUtilsArgument> variables;
  const int code = vex_upnp::cp_utils::ParseEventNotification(xml, variables);
  Demand(code == 0 || variables.empty());
  Demand(variables.size() <= CountOf('<', xml));
  Flatten(xml);
  for (const CPUtilsArgument& variable : variables) {
    Demand(xml.find(variable.name) != std::string::npos);
    std::string inner;
    if (vex_upnp::utils::XmlUnescapeValue(variable.value, inner) == 0) Flatten(inner);
  }
  return 0;
}

// Sends bytes through the metadata helpers. The decoder gets only texts whose references are
// complete, since with others it may not return.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>
#include <string_view>

#include <vexupnpcp/cp_utils.h>

#include "src/didl_properties.h"

namespace {

namespace cp_utils = vex_upnp::cp_utils;

void Demand(bool holds) {
  if (!holds) std::abort();
}

bool BeginsReference(std::string_view text) {
  for (const std::string_view name : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;", "&nbsp;"}) {
    if (text.compare(0, name.size(), name) == 0) return true;
  }
  const std::size_t end = text.find(';');
  return text.compare(0, 2, "&#") == 0 && end >= 2 && end <= 6;
}

bool HasCompleteReferences(std::string_view text) {
  for (std::size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&', at + 1)) {
    if (!BeginsReference(text.substr(at))) return false;
  }
  return true;
}

void Decode(const std::string& text) {
  if (!HasCompleteReferences(text)) return;
  std::string out = "before";
  Demand((cp_utils::UnescapeXmlValue(text, out) == 0) == !text.empty());
  Demand(out.compare(0, 6, "before") == 0 && out.size() <= text.size() + 6);
}

void EscapeAndCut(const std::string& text) {
  std::string once = "before";
  std::string twice;
  Demand(cp_utils::EscapeMetaDataValue(0, text, once) == 0);
  Demand(once == (text.empty() ? "" : "before"));
  Demand(cp_utils::EscapeMetaDataValue(1, text, once) == 0);
  Demand(cp_utils::EscapeMetaDataValue(1, once, twice) == 0);
  std::string both;
  Demand(cp_utils::EscapeMetaDataValue(2, text, both) == 0);
  Demand(both == twice);
  Decode(once);
  // However an escaped text is cut, what is left has whole references only.
  const std::size_t cut =
      text.empty() ? 0 : static_cast<unsigned char>(text[0]) % (once.size() + 1);
  std::string part = once.substr(0, cut);
  cp_utils::ResizeEscapedString(part);
  Demand(once.compare(0, part.size(), part) == 0);
  Demand(HasCompleteReferences(part));
}

void Limit(const std::string& text) {
  const std::size_t row = text.empty() ? 0 : static_cast<unsigned char>(text[0]);
  const cp_utils::DIDL_Property& property =
      cp_utils::didl_properties[row % static_cast<std::size_t>(cp_utils::kDidlPropertyCount)];
  std::string value = text;
  Demand(cp_utils::ValidateDIDLProperty(std::string(property.name), value) == 0);
  Demand(value.size() <= static_cast<std::size_t>(property.max_length));
  Demand(text.compare(0, value.size(), value) == 0);
  std::string same = text;
  const bool known = cp_utils::FindDidlProperty(text) != nullptr;
  Demand((cp_utils::ValidateDIDLProperty(text, same) == 0) == known);
}

void Split(const std::string& text) {
  std::string a;
  std::string b;
  std::string c;
  std::string d;
  cp_utils::ParseProtocolInfo(text, a, b, c);
  if (cp_utils::ParseProtocolInfo(text, a, b, c, d) == 1) {
    Demand(a + ":" + b + ":" + c + ":" + d == text);
    std::string third;
    std::string rest;
    Demand(cp_utils::ParseProtocolInfo(text, a, third, rest) == 1);
    Demand(third == c && rest == d);
  }
  std::string ip;
  if (cp_utils::GetIPFromResource(text, ip) == 0) {
    Demand(text.compare(0, 8 + ip.size(), "http://" + ip + ":") == 0);
  }
  std::list<cp_utils::CPUtilsArgument> list;
  cp_utils::SetListArgument(a, b, list);
  Demand(list.empty() == a.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Decode(text);
  EscapeAndCut(text);
  Limit(text);
  Split(text);
  return 0;
}

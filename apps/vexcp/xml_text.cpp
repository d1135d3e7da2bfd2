#include "xml_text.h"

#include <vexupnpcp/xml_utils.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace vexcp {

namespace {

constexpr std::pair<std::string_view, char> kNamed[] = {
    {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
constexpr std::size_t kLongestReference = 12;

void AppendUtf8(std::string& out, std::uint32_t code) {
  constexpr std::uint32_t kOneByte = 0x80, kTwoBytes = 0x800, kThreeBytes = 0x10000;
  const auto continuation = [code](unsigned shift) {
    return static_cast<char>(0x80 | ((code >> shift) & 0x3F));
  };
  if (code < kOneByte) {
    out += static_cast<char>(code);
  } else if (code < kTwoBytes) {
    out += {static_cast<char>(0xC0 | (code >> 6)), continuation(0)};
  } else if (code < kThreeBytes) {
    out += {static_cast<char>(0xE0 | (code >> 12)), continuation(6), continuation(0)};
  } else {
    out += {static_cast<char>(0xF0 | (code >> 18)), continuation(12), continuation(6),
            continuation(0)};
  }
}

std::optional<std::uint32_t> CharacterNumber(std::string_view name) {
  if (name.size() < 2 || name[0] != '#') return std::nullopt;
  name.remove_prefix(1);
  const bool hexadecimal = name[0] == 'x';
  if (hexadecimal) name.remove_prefix(1);
  std::uint32_t code = 0;
  const char* const end = name.data() + name.size();
  const auto [last, error] = std::from_chars(name.data(), end, code, hexadecimal ? 16 : 10);
  constexpr std::uint32_t kLast = 0x10FFFF, kSurrogates = 0xD800, kBehindSurrogates = 0xE000;
  if (error != std::errc() || last != end || code == 0 || code > kLast) return std::nullopt;
  if (code >= kSurrogates && code < kBehindSurrogates) return std::nullopt;
  return code;
}

bool AppendReference(std::string& out, std::string_view name) {
  for (const auto& [known, character] : kNamed) {
    if (name != known) continue;
    out += character;
    return true;
  }
  const std::optional<std::uint32_t> code = CharacterNumber(name);
  if (code) AppendUtf8(out, *code);
  return code.has_value();
}

}  // namespace

std::string DecodeReferences(const std::string& text) {
  const std::string_view view(text);
  std::string out;
  std::size_t at = 0;
  for (;;) {
    const std::size_t reference = view.find('&', at);
    out += view.substr(at, reference - at);
    if (reference == std::string_view::npos) return out;
    const std::size_t length = view.substr(reference, kLongestReference).find(';');
    if (length != std::string_view::npos &&
        AppendReference(out, view.substr(reference + 1, length - 1))) {
      at = reference + length + 1;
    } else {
      out += '&';
      at = reference + 1;
    }
  }
}

std::string EscapeText(const std::string& text) {
  std::string escaped;
  vex_upnp::utils::XmlEscapeValue(text, escaped);
  return escaped;
}

std::string UnfoldCdata(const std::string& xml) {
  constexpr std::string_view kBegin = "<![CDATA[", kEnd = "]]>";
  std::string out;
  std::size_t at = 0;
  for (;;) {
    const std::size_t begin = xml.find(kBegin, at);
    const std::size_t end = begin == std::string::npos ? begin : xml.find(kEnd, begin);
    if (end == std::string::npos) return at == 0 ? xml : out + xml.substr(at);
    out.append(xml, at, begin - at);
    const std::size_t content = begin + kBegin.size();
    out += EscapeText(xml.substr(content, end - content));
    at = end + kEnd.size();
  }
}

}  // namespace vexcp

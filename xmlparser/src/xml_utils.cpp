#include <vexupnpcp/xml_utils.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <string_view>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "xmlparser/src/number_references.h"

namespace vex_upnp {
namespace utils {

namespace {

constexpr const char* kTag = log::kTagUtils;

void AppendEscaped(char character, std::string& out) {
  switch (character) {
    case '"':
      out += "&quot;";
      return;
    case '&':
      out += "&amp;";
      return;
    case '\'':
      out += "&apos;";
      return;
    case '<':
      out += "&lt;";
      return;
    case '>':
      out += "&gt;";
      return;
    default:
      break;
  }
  const unsigned char code = static_cast<unsigned char>(character);
  if (code == 0 || code > 31) {
    out += character;
    return;
  }
  out += "&#";
  if (code >= 10) out += static_cast<char>('0' + code / 10);
  out += static_cast<char>('0' + code % 10);
  out += ';';
}

struct Entity {
  std::string_view name;
  char character;
};

// Replaced one after the other in this order over the whole text. Since what they are replaced by
// can't complete another one, a single pass over the text gives the same.
constexpr Entity kNamedEntities[] = {
    {"&lt;", '<'}, {"&gt;", '>'}, {"&apos;", '\''}, {"&nbsp;", ' '}, {"&quot;", '"'}};
// Comes last, behind the numeric references, so that nothing it lays bare is replaced again.
constexpr Entity kAmpersand[] = {{"&amp;", '&'}};

template <std::size_t Count>
void ReplaceEntities(const Entity (&entities)[Count], std::string& text) {
  std::size_t read = text.find('&');
  std::size_t written = read;
  while (read < text.size()) {
    const std::string_view rest(text.data() + read, text.size() - read);
    const Entity* const found =
        std::find_if(std::begin(entities), std::end(entities), [&rest](const Entity& entity) {
          return rest.compare(0, entity.name.size(), entity.name) == 0;
        });
    if (found != std::end(entities)) {
      text[written++] = found->character;
      read += found->name.size();
    } else {
      text[written++] = text[read++];
    }
    const std::size_t next = std::min(text.find('&', read), text.size());
    std::copy(text.begin() + static_cast<std::ptrdiff_t>(read),
              text.begin() + static_cast<std::ptrdiff_t>(next),
              text.begin() + static_cast<std::ptrdiff_t>(written));
    written += next - read;
    read = next;
  }
  if (written != std::string::npos) text.resize(written);
}

}  // namespace

int XmlEscapeValue(const std::string& in, std::string& out) {
  if (in.empty()) {
    VEX_LOG(kLogStep, kTag, "Empty String");
    return result::kEmptyText;
  }
  try {
    std::string escaped;
    escaped.reserve(in.size() + in.size() / 8);
    for (const char character : in) AppendEscaped(character, escaped);
    out.swap(escaped);
  } catch (const std::bad_alloc&) {
    return result::kNoMemory;
  }
  return result::kOk;
}

int XmlUnescapeValue(const std::string& in, std::string& out) {
  if (in.empty()) {
    VEX_LOG(kLogStep, kTag, "Empty string");
    return result::kEmptyText;
  }
  try {
    std::string text(in);
    ReplaceEntities(kNamedEntities, text);
    if (ConvertSpecialNumbers(text) != result::kOk) return result::kNoMemory;
    ReplaceEntities(kAmpersand, text);
    out.swap(text);
  } catch (const std::bad_alloc&) {
    return result::kNoMemory;
  }
  return result::kOk;
}

int ConvertSpecialNumbers(std::string& text) {
  if (text.find("&#") == std::string::npos) return result::kOk;
  try {
    std::string converted;
    switch (ReplaceReferencesInOnePass(text, converted)) {
      case ReferenceResult::kDone:
        text.swap(converted);
        return result::kOk;
      case ReferenceResult::kTooMuch:
        return result::kNoMemory;
      case ReferenceResult::kEntangled:
        break;
    }
    converted = text;
    if (!ReplaceReferencesOneByOne(converted)) return result::kNoMemory;
    text.swap(converted);
  } catch (const std::bad_alloc&) {
    return result::kNoMemory;
  }
  return result::kOk;
}

}  // namespace utils
}  // namespace vex_upnp

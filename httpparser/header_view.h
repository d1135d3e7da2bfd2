#ifndef VEXUPNPCP_HTTPPARSER_HEADER_VIEW_H_
#define VEXUPNPCP_HTTPPARSER_HEADER_VIEW_H_

#include <string_view>

#include <vexupnpcp/httpinfo.h>

#include "base/ascii_text.h"

namespace vex_upnp {
namespace utils {

// The six bytes that count as white space in a message, in every locale.
inline bool IsWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Reads start line and headers of a message where they lie, without a copy. What it gives is valid
// until the message changes.
struct HTTPInfo::HeaderView {
  static std::string_view Text(const HTTPInfo& info, const Span& span) {
    return std::string_view(info.raw_header_).substr(span.begin, span.length);
  }

  // The bytes from `begin` to `end` without the white space around them.
  static Span Trimmed(const HTTPInfo& info, std::size_t begin, std::size_t end) {
    const char* const text = info.raw_header_.data();
    while (begin < end && IsWhiteSpace(text[begin])) ++begin;
    while (begin < end && IsWhiteSpace(text[end - 1])) --end;
    return {static_cast<unsigned int>(begin), static_cast<unsigned int>(end - begin)};
  }

  static std::string_view StartLine(const HTTPInfo& info) {
    if (!info.formatted_start_line_.empty()) return info.formatted_start_line_;
    return Text(info, info.start_line_);
  }

  // Calls `visit(name, value)` for the headers in their order until it says true.
  template <typename Visitor>
  static bool AnyHeader(const HTTPInfo& info, Visitor visit) {
    for (const auto& record : info.headers_) {
      if (visit(std::string_view(record->name), std::string_view(record->value))) return true;
    }
    for (const HeaderSpan& header : info.header_spans_) {
      if (visit(Text(info, header.name), Text(info, header.value))) return true;
    }
    return false;
  }

  // The first header of a name. `wanted` holds no NUL; a stored name ends at its first one, as it
  // does for the C library's comparison.
  static bool Find(const HTTPInfo& info, std::string_view wanted, std::string_view& value) {
    return AnyHeader(info, [&](std::string_view name, std::string_view candidate) {
      if (name.size() < wanted.size()) return false;
      if (name.size() > wanted.size() && name[wanted.size()] != '\0') return false;
      if (!EqualsIgnoringCase(name.substr(0, wanted.size()), wanted)) return false;
      value = candidate;
      return true;
    });
  }
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_HTTPPARSER_HEADER_VIEW_H_

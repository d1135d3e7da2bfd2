#include "byte_range.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace vexcp {

namespace {

std::optional<long long> Number(std::string_view text) {
  long long value = 0;
  const auto [behind, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || behind != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

ByteRange FindRange(const std::string& header, long long size) {
  using Kind = ByteRange::Kind;
  const ByteRange whole{Kind::kWhole, 0, size};
  const ByteRange nothing{Kind::kUnsatisfiable, 0, 0};
  constexpr std::string_view kUnit = "bytes=";
  const std::string_view text = header;
  const std::size_t dash = text.find('-');
  if (text.substr(0, kUnit.size()) != kUnit || dash == std::string_view::npos) return whole;
  const std::string_view from = text.substr(kUnit.size(), dash - kUnit.size());
  const std::string_view to = text.substr(dash + 1);
  if (from.empty()) {
    const std::optional<long long> last_bytes = Number(to);
    if (!last_bytes) return whole;
    if (*last_bytes == 0 || size == 0) return nothing;
    const long long length = std::min(*last_bytes, size);
    return {Kind::kPart, size - length, length};
  }
  const std::optional<long long> first = Number(from);
  const std::optional<long long> last = to.empty() ? size - 1 : Number(to);
  if (!first || !last || (!to.empty() && *last < *first)) return whole;
  if (*first >= size) return nothing;
  return {Kind::kPart, *first, std::min(*last, size - 1) - *first + 1};
}

}  // namespace vexcp

#ifndef VEXSIM_TEXT_H_
#define VEXSIM_TEXT_H_

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace vexsim {

// Without blanks, tabs and line ends at both ends.
std::string_view Trim(std::string_view text);

bool EqualsNoCase(std::string_view a, std::string_view b);

// The whole text as a decimal number; nothing when it is none or does not fit.
template <typename Number>
std::optional<Number> ToNumber(std::string_view text) {
  Number value = 0;
  // cppcheck-suppress danglingTemporaryLifetime; what a view shows outlives the call.
  const char* const end = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), end, value);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return value;
}

// Now, as "Sun, 06 Nov 1994 08:49:37 GMT".
const std::string& HttpDate();

}  // namespace vexsim

#endif  // VEXSIM_TEXT_H_

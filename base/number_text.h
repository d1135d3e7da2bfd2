#ifndef VEXUPNPCP_BASE_NUMBER_TEXT_H_
#define VEXUPNPCP_BASE_NUMBER_TEXT_H_

#include <cstddef>
#include <limits>
#include <string>
#include <type_traits>

namespace vex_upnp {

// Strict conversion of a whole text to an integer: an optional sign, then decimal digits, nothing
// before or behind. Signed types refuse what does not fit. For unsigned types a leading minus
// negates modulo the type's range, as the C library reads such numbers. `value` is written on
// success only.
template <typename T>
bool ToNumber(const char* text, std::size_t length, T& value) {
  static_assert(std::is_integral<T>::value, "integers only");
  using Unsigned = typename std::make_unsigned<T>::type;
  std::size_t i = 0;
  bool negative = false;
  if (length > 0 && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    i = 1;
  }
  if (i == length) return false;

  Unsigned limit = static_cast<Unsigned>(std::numeric_limits<T>::max());
  if (std::is_signed<T>::value && negative) ++limit;
  Unsigned number = 0;
  for (; i < length; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    const Unsigned digit = static_cast<Unsigned>(text[i] - '0');
    if (number > (limit - digit) / 10) return false;
    number = static_cast<Unsigned>(number * 10 + digit);
  }
  value = static_cast<T>(negative ? static_cast<Unsigned>(0U - number) : number);
  return true;
}

template <typename T>
bool ToNumber(const std::string& text, T& value) {
  return ToNumber(text.data(), text.size(), value);
}

// The number a text holds, or `fallback` when it holds none.
template <typename T>
T NumberOr(const std::string& text, T fallback) {
  T value = fallback;
  return ToNumber(text, value) ? value : fallback;
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_NUMBER_TEXT_H_

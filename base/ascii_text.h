#ifndef VEXUPNPCP_BASE_ASCII_TEXT_H_
#define VEXUPNPCP_BASE_ASCII_TEXT_H_

#include <algorithm>
#include <string_view>

namespace vex_upnp {

// Letters of ASCII only, whatever the locale: in Turkish the C library takes 'I' and 'i' for two
// letters, and a header by another name for an unknown one.
inline char ToLowerAscii(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

inline bool EqualsIgnoringCase(std::string_view one, std::string_view other) {
  return one.size() == other.size() &&
         std::equal(one.begin(), one.end(), other.begin(),
                    [](char a, char b) { return ToLowerAscii(a) == ToLowerAscii(b); });
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_ASCII_TEXT_H_

#include "text.h"

#include <strings.h>

#include <ctime>

namespace vexsim {

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return std::string_view();
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

const std::string& HttpDate() {
  static std::time_t last = 0;
  static std::string text;
  const std::time_t now = std::time(nullptr);
  if (now == last && !text.empty()) return text;
  last = now;
  std::tm parts{};
  gmtime_r(&now, &parts);
  char buffer[40];
  std::strftime(buffer, sizeof(buffer), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  text = buffer;
  return text;
}

}  // namespace vexsim

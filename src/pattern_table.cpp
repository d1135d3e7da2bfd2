#include "src/pattern_table.h"

#include <cstddef>

#include "base/ascii_text.h"

namespace vex_upnp {
namespace network_layer {

PatternTokens SplitPattern(const std::string& pattern) {
  PatternTokens tokens;
  std::size_t begin = 0;
  while (begin <= pattern.size()) {
    const std::size_t comma = std::min(pattern.find(',', begin), pattern.size());
    if (comma > begin) {
      tokens.push_back(pattern.substr(begin, comma - begin));
      ToLowerAscii(tokens.back());
    }
    begin = comma + 1;
  }
  return tokens;
}

void ToLowerAscii(std::string& text) {
  for (char& character : text) character = vex_upnp::ToLowerAscii(character);
}

bool HoldsAllTokens(const PatternTokens& tokens, const std::string& text) {
  if (tokens.empty()) return false;
  return std::all_of(tokens.begin(), tokens.end(), [&text](const std::string& token) {
    return text.find(token) != std::string::npos;
  });
}

}  // namespace network_layer
}  // namespace vex_upnp

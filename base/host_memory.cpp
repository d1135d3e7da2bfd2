#include "base/host_memory.h"

#include <cstring>

namespace vex_upnp {

char* CallocString(const std::string& text) {
  char* const copy = static_cast<char*>(std::calloc(text.size() + 1, 1));
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the last byte is zero already.
  if (copy != nullptr) std::memcpy(copy, text.data(), text.size());
  return copy;
}

char* MallocString(const std::string& text) {
  if (text.empty()) return nullptr;
  char* const copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace vex_upnp

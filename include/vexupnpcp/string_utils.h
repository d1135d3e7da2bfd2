#ifndef VEXUPNPCP_STRING_UTILS_H_
#define VEXUPNPCP_STRING_UTILS_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

class VEX_EXPORT StringUtils {
 public:
  static char* GetValue(const std::string& text);
  static char* StrDup(const char* text);
  static void TrimStringOnLeft(std::string& text);
  static void TrimStringOnRight(std::string& text);
  static void TrimString(std::string& text);
  static const char* StrNStr(const char* haystack, unsigned int length, const char* needle);
  static bool GetHashValue(const std::string& text, std::string& hash);
  static void EscapeURI(const std::string& in, std::string& out);
  static bool ParseURI(const std::string& uri, std::string& host, int& port, std::string& path);
  static int ParseRelayURI(const std::string& uri, std::string& host, std::string& port,
                           std::string& path);
  static int GetAbsoluteUri(const std::string& uri, const std::string& url_base,
                            const std::string& host, const int& port,
                            const std::string& location_base, std::string& absolute);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STRING_UTILS_H_

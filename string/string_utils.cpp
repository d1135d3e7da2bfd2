#include <vexupnpcp/string_utils.h>

#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "base/number_text.h"

namespace vex_upnp {
namespace utils {
namespace {

constexpr const char* kTag = log::kTagUtils;
constexpr char kWhiteSpace[] = " \t\f\v\n\r";
constexpr char kHttpScheme[] = "http://";
constexpr std::size_t kHttpSchemeLength = sizeof(kHttpScheme) - 1;
constexpr char kDefaultPort[] = "80";

void LogNoMemory(const LogSite& site) {
  log::WriteLine(site, kLogMajor, kTag, "Memory allocation failed");
}

bool NeedsEscape(unsigned char byte) {
  return (byte >= 0x20 && byte <= 0x2F) || (byte >= 0x3A && byte <= 0x40) ||
         (byte >= 0x5B && byte <= 0x60) || (byte >= 0x7B && byte <= 0x7F);
}

std::string Escaped(const std::string& in) {
  static constexpr char kHexDigits[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(in.size() + in.size() / 2);
  for (const char c : in) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (NeedsEscape(byte)) {
      escaped += '%';
      escaped += kHexDigits[byte >> 4];
      escaped += kHexDigits[byte & 0x0F];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

struct HostPortPath {
  std::string host;
  int port = 0;
  std::string path;
};

bool TakeApart(const std::string& uri, HostPortPath& parts) {
  const std::size_t slashes = uri.find("//");
  if (slashes == std::string::npos) return false;
  const std::size_t host_begin = slashes + 2;
  // KEPT: the colon is searched behind the authority too, so that a URI without port is refused
  // unless its path holds a colon; then all up to it is the host.
  const std::size_t colon = uri.find(':', host_begin);
  if (colon == std::string::npos) return false;

  const std::size_t slash = uri.find('/', colon);
  const std::size_t port_end = slash == std::string::npos ? uri.size() : slash;
  if (!ToNumber(uri.data() + colon + 1, port_end - colon - 1, parts.port)) {
    VEX_LOG(kLogMajor, kTag, "Invalid String");
    return false;
  }
  parts.host.assign(uri, host_begin, colon - host_begin);
  parts.path = slash == std::string::npos ? "/" : uri.substr(slash);
  return true;
}

std::string JoinedUri(const std::string& uri, const std::string& url_base, const std::string& host,
                      int port, const std::string& location_base) {
  if (uri.front() == '/') {
    if (url_base.empty()) return kHttpScheme + host + ':' + std::to_string(port) + uri;
    std::string joined = url_base;
    return joined.append(uri, url_base.back() == '/' ? 1 : 0, std::string::npos);
  }
  if (strncasecmp(uri.c_str(), kHttpScheme, kHttpSchemeLength) == 0) return uri;
  // KEPT: no look at the end of the base; one that ends with a slash gives a double slash.
  return (url_base.empty() ? location_base : url_base) + '/' + uri;
}

}  // namespace

char* StringUtils::GetValue(const std::string& text) {
  if (text.empty()) return nullptr;
  char* const copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) {
    LogNoMemory(VEX_LOG_SITE);
    return nullptr;
  }
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

char* StringUtils::StrDup(const char* text) {
  if (text == nullptr || *text == '\0') {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return nullptr;
  }
  const std::size_t size = std::strlen(text) + 1;
  char* const copy = static_cast<char*>(std::malloc(size));
  if (copy == nullptr) {
    LogNoMemory(VEX_LOG_SITE);
    return nullptr;
  }
  std::memcpy(copy, text, size);
  return copy;
}

void StringUtils::TrimStringOnLeft(std::string& text) {
  text.erase(0, text.find_first_not_of(kWhiteSpace));
}

void StringUtils::TrimStringOnRight(std::string& text) {
  const std::size_t last = text.find_last_not_of(kWhiteSpace);
  text.erase(last == std::string::npos ? 0 : last + 1);
}

void StringUtils::TrimString(std::string& text) {
  TrimStringOnRight(text);
  TrimStringOnLeft(text);
}

const char* StringUtils::StrNStr(const char* haystack, unsigned int length, const char* needle) {
  if (haystack == nullptr || needle == nullptr || *needle == '\0') return nullptr;
  const std::size_t needle_length = std::strlen(needle);
  const char* const end = haystack + length;
  const char* at = haystack;
  while (static_cast<std::size_t>(end - at) >= needle_length) {
    const std::size_t starts = static_cast<std::size_t>(end - at) - needle_length + 1;
    at = static_cast<const char*>(std::memchr(at, *needle, starts));
    if (at == nullptr) return nullptr;
    std::size_t matched = 1;
    while (matched < needle_length && at[matched] == needle[matched]) ++matched;
    if (matched == needle_length) return at;
    // KEPT: the byte that failed is never tried as a start, so an overlapping match is missed.
    at += matched + 1;
  }
  return nullptr;
}

bool StringUtils::GetHashValue(const std::string& text, std::string& hash) {
  std::uint32_t value = 0;
  for (const char c : text) {
    // The same on targets whose plain char is unsigned.
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): the sign is wanted.
    const std::int32_t byte = static_cast<signed char>(c);
    value = (value * 33U) ^ static_cast<std::uint32_t>(byte);
  }
  if (value == 0) return false;
  try {
    hash = std::to_string(value);
    return true;
  } catch (const std::bad_alloc&) {
    LogNoMemory(VEX_LOG_SITE);
    return false;
  }
}

void StringUtils::EscapeURI(const std::string& in, std::string& out) {
  if (in.empty()) {
    VEX_LOG(kLogMajor, kTag, "Empty String");
    return;
  }
  try {
    out = Escaped(in);
  } catch (const std::bad_alloc&) {
    LogNoMemory(VEX_LOG_SITE);
  }
}

bool StringUtils::ParseURI(const std::string& uri, std::string& host, int& port,
                           std::string& path) {
  try {
    HostPortPath parts;
    if (!TakeApart(uri, parts)) return false;
    host.swap(parts.host);
    port = parts.port;
    path.swap(parts.path);
    return true;
  } catch (const std::exception& exception) {
    VEX_LOG(kLogMajor, kTag, "Exception:%s", exception.what());
    return false;
  }
}

int StringUtils::ParseRelayURI(const std::string& uri, std::string& host, std::string& port,
                               std::string& path) {
  if (uri.empty()) return result::kFailure;
  const bool has_scheme = uri.compare(0, kHttpSchemeLength, kHttpScheme) == 0;
  const std::size_t begin = has_scheme ? kHttpSchemeLength : 0;
  const std::size_t slash = uri.find('/', begin);
  const std::size_t end = slash == std::string::npos ? uri.size() : slash;
  const std::size_t colon = uri.find(':', begin);
  const bool has_port = colon < end;
  try {
    // Collected first: an output may be the very text that is read.
    std::string new_host = uri.substr(begin, (has_port ? colon : end) - begin);
    std::string new_port = has_port ? uri.substr(colon + 1, end - colon - 1) : kDefaultPort;
    std::string new_path = end < uri.size() ? uri.substr(end) : "/";
    host.swap(new_host);
    port.swap(new_port);
    path.swap(new_path);
    return result::kOk;
  } catch (const std::bad_alloc&) {
    LogNoMemory(VEX_LOG_SITE);
    return result::kFailure;
  }
}

int StringUtils::GetAbsoluteUri(const std::string& uri, const std::string& url_base,
                                const std::string& host, const int& port,
                                const std::string& location_base, std::string& absolute) {
  if (uri.empty() || host.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return result::kBadInput;
  }
  try {
    absolute = JoinedUri(uri, url_base, host, port, location_base);
    return result::kOk;
  } catch (const std::bad_alloc&) {
    LogNoMemory(VEX_LOG_SITE);
    return result::kNoMemory;
  }
}

}  // namespace utils
}  // namespace vex_upnp

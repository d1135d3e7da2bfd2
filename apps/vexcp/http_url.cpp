#include "http_url.h"

#include <vexupnpcp/streaming.h>

#include <cctype>
#include <charconv>
#include <vector>

#include "exit_status.h"

namespace vexcp {

namespace {

constexpr char kScheme[] = "http://";
constexpr std::size_t kSchemeLength = sizeof(kScheme) - 1;
constexpr char kHexDigits[] = "0123456789ABCDEF";

std::string Escape(const std::string& text, const std::string& allowed) {
  std::string escaped;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && (std::isalnum(byte) != 0 || allowed.find(c) != std::string::npos)) {
      escaped += c;
    } else {
      escaped += '%';
      escaped += kHexDigits[byte >> 4];
      escaped += kHexDigits[byte & 15];
    }
  }
  return escaped;
}

}  // namespace

std::string HttpUrl::Authority() const {
  return port == 80 ? host : host + ":" + std::to_string(port);
}

std::string HttpUrl::FileName() const {
  const std::string path = target.substr(0, target.find('?'));
  const std::string name = UnescapePath(path.substr(path.rfind('/') + 1));
  // A decoded name may hold what no file name can.
  const bool usable =
      !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
  return usable ? name : "index.html";
}

HttpUrl HttpUrl::Follow(const std::string& location) const {
  if (location.compare(0, 2, "//") == 0) return ParseHttpUrl("http:" + location);
  if (location.find("://") != std::string::npos) return ParseHttpUrl(location);
  const std::string here = kScheme + Authority();
  if (!location.empty() && location[0] == '/') return ParseHttpUrl(here + location);
  const std::string path = target.substr(0, target.find('?'));
  return ParseHttpUrl(here + path.substr(0, path.rfind('/') + 1) + location);
}

HttpUrl ParseHttpUrl(const std::string& text) {
  const auto wrong = [&](const char* why) {
    return Failure(kWrongArguments, "\"" + text + "\" cannot be fetched: " + why);
  };
  std::string scheme = text.substr(0, kSchemeLength);
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (scheme != kScheme) throw wrong("it does not begin with http://");
  const std::string rest = text.substr(kSchemeLength, text.find('#') - kSchemeLength);
  const std::size_t end = rest.find_first_of("/?");
  const std::string authority = rest.substr(0, end);
  HttpUrl url;
  url.host = authority.substr(0, authority.find(':'));
  if (url.host.empty() || authority.find('@') != std::string::npos || url.host[0] == '[')
    throw wrong("it names no host, or one that is no IPv4 address or name");
  if (const std::size_t colon = authority.find(':'); colon != std::string::npos) {
    const char* const first = authority.data() + colon + 1;
    const char* const last = authority.data() + authority.size();
    const auto [behind, error] = std::from_chars(first, last, url.port);
    if (error != std::errc() || behind != last || url.port < 1 || url.port > 65535)
      throw wrong("its port is no number from 1 to 65535");
  }
  url.target = end == std::string::npos ? "/" : rest.substr(end);
  if (url.target[0] == '?') url.target.insert(0, "/");
  url.target = Escape(url.target, "-._~:/?[]@!$&'()*+,;=%");
  return url;
}

std::string EscapePathPiece(const std::string& name) { return Escape(name, "-._~!$&'()*+,;=:@"); }

std::string UnescapePath(const std::string& path) {
  std::vector<char> text(path.begin(), path.end());
  text.push_back('\0');
  vex_upnp::streaming::UnEscapeURI(text.data());
  return text.data();
}

}  // namespace vexcp

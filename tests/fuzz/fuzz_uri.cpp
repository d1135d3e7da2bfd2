// Takes texts apart as URIs and puts them together again; what comes out must be what went in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/host_memory.h"
#include "tests/support/heap_edge.h"

namespace {

using vex_upnp::FreePtr;
using vex_upnp::result::kOk;
using vex_upnp::utils::StringUtils;

void Demand(bool holds) {
  if (!holds) std::abort();
}

std::string NextLine(std::string_view& rest) {
  const std::size_t end = rest.find('\n');
  const std::string line(rest.substr(0, end));
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return line;
}

void ParseFull(const std::string& uri) {
  std::string host = "before";
  int port = 77;
  std::string path = "before";
  if (!StringUtils::ParseURI(uri, host, port, path)) {
    Demand(host == "before" && port == 77 && path == "before");
    return;
  }
  const std::size_t host_begin = uri.find("//") + 2;
  Demand(uri.compare(host_begin, host.size() + 1, host + ":") == 0);
  Demand(path.front() == '/');
  Demand(path == "/" || uri.substr(uri.size() - path.size()) == path);
}

void ParseRelay(const std::string& uri) {
  std::string host;
  std::string port;
  std::string path;
  if (StringUtils::ParseRelayURI(uri, host, port, path) != kOk) {
    Demand(uri.empty());
    return;
  }
  const std::string bare = uri.compare(0, 7, "http://") == 0 ? uri.substr(7) : uri;
  const bool slash = bare.find('/') != std::string::npos;
  const std::string with_port = host + ":" + port + (slash ? path : "");
  const std::string without = host + (slash ? path : "");
  Demand(bare == with_port || (bare == without && port == "80"));
}

void Join(std::string_view rest) {
  const std::string uri = NextLine(rest);
  const std::string base = NextLine(rest);
  const std::string location = NextLine(rest);
  std::string absolute = "before";
  const int code = StringUtils::GetAbsoluteUri(uri, base, "h", 80, location, absolute);
  Demand((code == kOk) == !uri.empty());
  Demand(code != kOk || absolute.size() >= uri.size());
}

int HexValue(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

void Escape(const std::string& text) {
  std::string escaped;
  StringUtils::EscapeURI(text, escaped);
  std::string back;
  for (std::size_t at = 0; at < escaped.size(); ++at) {
    if (escaped[at] != '%') {
      back += escaped[at];
      continue;
    }
    Demand(at + 2 < escaped.size());
    back += static_cast<char>(HexValue(escaped[at + 1]) * 16 + HexValue(escaped[at + 2]));
    at += 2;
  }
  Demand(back == text);
}

void Trim(const std::string& text) {
  const char* const kWhite = " \t\f\v\n\r";
  std::string trimmed = text;
  StringUtils::TrimString(trimmed);
  Demand(text.find(trimmed) != std::string::npos);
  Demand(trimmed.empty() || (trimmed.find_first_of(kWhite) != 0 &&
                             trimmed.find_last_of(kWhite) != trimmed.size() - 1));
}

// The first line is searched in the rest, by the search that never steps back, told byte by byte.
void Search(std::string_view rest) {
  const std::string needle(NextLine(rest).c_str());
  const vex_test::HeapEdge edge(rest);
  const char* const found = StringUtils::StrNStr(edge.data(), edge.size(), needle.c_str());
  const char* expected = nullptr;
  std::size_t at = 0;
  while (!needle.empty() && expected == nullptr && rest.size() - at >= needle.size()) {
    std::size_t matched = 0;
    while (matched < needle.size() && rest[at + matched] == needle[matched]) ++matched;
    if (matched == needle.size()) expected = edge.data() + at;
    at += matched + 1;
    if (at > rest.size()) break;
  }
  Demand(found == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ParseFull(text);
  ParseRelay(text);
  Join(text);
  Escape(text);
  Trim(text);
  Search(text);
  const FreePtr<char> copy(StringUtils::GetValue(text));
  Demand(text.empty() || std::string(copy.get(), text.size()) == text);
  const FreePtr<char> duplicate(StringUtils::StrDup(text.c_str()));
  std::string hash;
  StringUtils::GetHashValue(text, hash);
  return 0;
}

#include "ssdp_messages.h"

#include <algorithm>

#include "text.h"

namespace vexsim {

namespace {

constexpr unsigned kLongestMx = 120;

std::string_view Header(std::string_view message, std::string_view name) {
  while (!message.empty()) {
    const std::size_t end = message.find("\r\n");
    const std::string_view line = message.substr(0, end);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && EqualsNoCase(Trim(line.substr(0, colon)), name))
      return Trim(line.substr(colon + 1));
    if (end == std::string_view::npos) break;
    message.remove_prefix(end + 2);
  }
  return std::string_view();
}

// Splits "urn:...:name:version"; false without a version.
bool SplitVersion(std::string_view type, std::string_view& stem, unsigned& version) {
  const std::size_t colon = type.rfind(':');
  if (colon == std::string_view::npos) return false;
  const std::optional<unsigned> number = ToNumber<unsigned>(type.substr(colon + 1));
  if (!number) return false;
  stem = type.substr(0, colon);
  version = *number;
  return true;
}

bool Answers(std::string_view own, std::string_view wanted) {
  if (own == wanted) return true;
  std::string_view own_stem, wanted_stem;
  unsigned own_version = 0, wanted_version = 0;
  return SplitVersion(own, own_stem, own_version) &&
         SplitVersion(wanted, wanted_stem, wanted_version) && own_stem == wanted_stem &&
         own_version >= wanted_version;
}

}  // namespace

std::optional<Search> ParseSearch(std::string_view datagram) {
  constexpr std::string_view kStart = "M-SEARCH * HTTP/1.";
  if (datagram.substr(0, kStart.size()) != kStart) return std::nullopt;
  if (Header(datagram, "MAN") != "\"ssdp:discover\"") return std::nullopt;
  const std::optional<unsigned> mx = ToNumber<unsigned>(Header(datagram, "MX"));
  const std::string_view target = Header(datagram, "ST");
  if (!mx || *mx < 1 || target.empty()) return std::nullopt;
  return Search{std::string(target), std::min(*mx, kLongestMx)};
}

std::vector<std::size_t> MatchingTargets(const DeviceFolder& folder, std::string_view target) {
  std::vector<std::size_t> matching;
  for (std::size_t i = 0; i < folder.targets.size(); ++i)
    if (target == "ssdp:all" || Answers(folder.targets[i].text, target)) matching.push_back(i);
  return matching;
}

std::string SearchAnswer(const std::string& target, const std::string& usn,
                         const std::string& location, unsigned max_age) {
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=" + std::to_string(max_age) +
         "\r\nDATE: " + HttpDate() + "\r\nEXT:\r\nLOCATION: " + location +
         "\r\nSERVER: " + kServerHeader + "\r\nST: " + target + "\r\nUSN: " + usn + "\r\n\r\n";
}

std::string AliveMessage(const std::string& target, const std::string& usn,
                         const std::string& location, unsigned max_age) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=" +
         std::to_string(max_age) + "\r\nLOCATION: " + location + "\r\nNT: " + target +
         "\r\nNTS: ssdp:alive\r\nSERVER: " + kServerHeader + "\r\nUSN: " + usn + "\r\n\r\n";
}

std::string ByebyeMessage(const std::string& target, const std::string& usn) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: " + target +
         "\r\nNTS: ssdp:byebye\r\nUSN: " + usn + "\r\n\r\n";
}

}  // namespace vexsim

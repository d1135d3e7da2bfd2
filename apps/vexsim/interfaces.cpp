#include "interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <memory>

namespace vexsim {

namespace {

bool Wanted(const ifaddrs& entry, const std::vector<std::string>& names) {
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return false;
  if ((entry.ifa_flags & IFF_UP) == 0) return false;
  if (names.empty()) return (entry.ifa_flags & IFF_LOOPBACK) == 0;
  return std::find(names.begin(), names.end(), entry.ifa_name) != names.end();
}

}  // namespace

std::vector<Interface> FindInterfaces(const std::vector<std::string>& names) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  std::vector<Interface> found;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (!Wanted(*entry, names)) continue;
    Interface interface;
    interface.name = entry->ifa_name;
    interface.index = static_cast<int>(if_nametoindex(entry->ifa_name));
    interface.address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &interface.address, text.data(), text.size());
    interface.text = text.data();
    found.push_back(std::move(interface));
  }
  return found;
}

}  // namespace vexsim

#include "host_network.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "exit_status.h"

namespace vexcp {

namespace {

constexpr int kSsdpPort = 1900;
// Used when the kernel names none.
constexpr int kFallbackPort = 1901;

// Names of the interfaces that the library can work on.
std::vector<std::string> UsableInterfaces() {
  std::vector<std::string> names;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return names;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  constexpr unsigned kNeeded = IFF_UP | IFF_RUNNING;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if ((entry->ifa_flags & IFF_LOOPBACK) != 0 || (entry->ifa_flags & kNeeded) != kNeeded) continue;
    if (std::find(names.begin(), names.end(), entry->ifa_name) == names.end())
      names.emplace_back(entry->ifa_name);
  }
  return names;
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

// A bound socket of a kind, or a negative errno.
int Open(int kind, int port, bool shared) {
  const int descriptor = socket(AF_INET, kind | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return -errno;
  const int on = shared ? 1 : 0;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    return descriptor;
  const int error = errno;
  close(descriptor);
  return -error;
}

int FreePort(int kind) {
  const int descriptor = Open(kind, 0, false);
  if (descriptor < 0) return kFallbackPort;
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  const int result = getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
  close(descriptor);
  return result == 0 ? ntohs(address.sin_port) : kFallbackPort;
}

}  // namespace

void RequireInterfaces(const std::vector<std::string>& names) {
  const std::vector<std::string> usable = UsableInterfaces();
  if (usable.empty())
    throw Failure(kNoInterface,
                  "no network interface is up, running and has an IPv4 address; see \"ip addr\", "
                  "plug in the cable or bring one up with \"ip link set eth0 up\"");
  for (const std::string& name : names)
    if (std::find(usable.begin(), usable.end(), name) == usable.end())
      throw Failure(kNoInterface, "interface " + name +
                                      " is not there, not running or without an IPv4 address; " +
                                      "usable here: " + Join(usable));
}

int FreeUdpPort() { return FreePort(SOCK_DGRAM); }
int FreeTcpPort() { return FreePort(SOCK_STREAM); }

std::string AnnouncementTrouble() {
  const int descriptor = Open(SOCK_DGRAM, kSsdpPort, true);
  if (descriptor >= 0) {
    close(descriptor);
    return std::string();
  }
  if (descriptor == -EADDRINUSE)
    return "UDP port 1900 is held by a program that does not share it, so devices are found by "
           "searching only and nobody is heard coming or going; \"ss -ulpn sport = :1900\" names "
           "the program";
  return "UDP port 1900 cannot be opened, so devices are found by searching only and nobody is "
         "heard coming or going";
}

}  // namespace vexcp

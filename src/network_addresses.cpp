// The address helpers of the network layer's facade.

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/number_text.h"
#include "base/scoped_fd.h"
#include "src/clientmanager.h"
#include "src/networkinterface.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr char kLoopback[] = "127.0.0.1";
constexpr char kLoopbackPrefix[] = "127.";
constexpr char kSeparators[] = ". ";
constexpr std::size_t kNumbers = 4;

using Numbers = std::array<int, kNumbers>;

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The first four numbers of a text that is cut at dots and blanks. False when there are fewer.
bool CutIntoNumbers(const std::string& text, Numbers& numbers) {
  std::size_t begin = text.find_first_not_of(kSeparators);
  for (int& number : numbers) {
    if (begin == std::string::npos) return false;
    const std::size_t end = std::min(text.find_first_of(kSeparators, begin), text.size());
    if (!ToNumber(text.data() + begin, end - begin, number)) return false;
    begin = text.find_first_not_of(kSeparators, end);
  }
  return true;
}

bool AgreeUnderMask(const Numbers& ip1, const Numbers& ip2, const Numbers& mask) {
  for (std::size_t i = 0; i < kNumbers; ++i) {
    if ((ip1[i] & mask[i]) != (ip2[i] & mask[i])) return false;
  }
  return true;
}

bool CutMask(const std::string& text, Numbers& numbers) {
  if (CutIntoNumbers(text, numbers)) return true;
  VEX_LOG(kLogMajor, kTag, "Subnet mask is invalid : wrong value!");
  return false;
}

// KEPT: only the masks of the interfaces are tried, not their addresses, so an interface in neither
// subnet can make two addresses neighbours.
bool AgreeUnderAnyMask(const Numbers& ip1, const Numbers& ip2, std::string& mask) {
  std::vector<NetInfo> interfaces;
  GetNetworkInterfaces(&interfaces);
  for (const NetInfo& interface : interfaces) {
    if (interface.subnet_mask.empty()) continue;
    mask = interface.subnet_mask;
    Numbers numbers;
    if (!CutMask(mask, numbers)) return false;
    if (AgreeUnderMask(ip1, ip2, numbers)) return true;
  }
  return false;
}

// Asks the kernel's ARP cache for the protocol address in `request`, on each interface.
bool FindInArpCache(int socket, const std::array<ifreq, limits::kArpInterfaces>& interfaces,
                    std::size_t count, arpreq& request) {
  for (std::size_t i = 0; i < count; ++i) {
    static_assert(sizeof(request.arp_dev) >= IFNAMSIZ, "a whole name fits");
    std::memcpy(request.arp_dev, interfaces[i].ifr_name, IFNAMSIZ);
    if (::ioctl(socket, SIOCGARP, &request) == 0) return true;
  }
  return false;
}

std::string MacText(const sockaddr& hardware) {
  unsigned char bytes[6];
  std::memcpy(bytes, hardware.sa_data, sizeof(bytes));
  char text[3 * sizeof(bytes)];
  std::snprintf(text, sizeof(text), "%02X-%02X-%02X-%02X-%02X-%02X", bytes[0], bytes[1], bytes[2],
                bytes[3], bytes[4], bytes[5]);
  return text;
}

int MacAddressFromArpCache(const std::string& ip, std::string& mac) {
  const ScopedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) {
    VEX_LOG(kLogMajor, kTag, "socket creation failed");
    return result::kSocketFailed;
  }
  arpreq request;
  std::memset(&request, 0, sizeof(request));
  sockaddr_in protocol_address = {};
  protocol_address.sin_family = AF_INET;
  if (::inet_aton(ip.c_str(), &protocol_address.sin_addr) == 0) {
    VEX_LOG(kLogMajor, kTag, "inet_aton is failed");
    return result::kSocketFailed;
  }
  std::memcpy(&request.arp_pa, &protocol_address, sizeof(protocol_address));

  // Sized in entries, since one has not the same size everywhere.
  std::array<ifreq, limits::kArpInterfaces> interfaces;
  std::memset(interfaces.data(), 0, sizeof(interfaces));
  ifconf list;
  list.ifc_len = static_cast<int>(sizeof(interfaces));
  list.ifc_req = interfaces.data();
  if (::ioctl(socket.get(), SIOCGIFCONF, &list) < 0) {
    VEX_LOG(kLogMajor, kTag, "ioctl failed for SIOCGIFCONF ");
    return result::kSocketFailed;
  }
  const std::size_t count = static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq);
  if (!FindInArpCache(socket.get(), interfaces, count, request)) {
    VEX_LOG(kLogMajor, kTag, "ioctl failed for SIOCGARP!");
    return result::kNotInArpCache;
  }
  VEX_LOG(kLogStep, kTag, "[GetMacAddressFromArpCache] Mac address found ");
  mac = MacText(request.arp_ha);
  return result::kOk;
}

}  // namespace

bool IsLocalMachine(const std::string& ip) {
  if (ip == kLoopback) return true;
  std::vector<NetInfo> interfaces;
  GetNetworkInterfaces(&interfaces);
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const NetInfo& interface) { return interface.ip_address == ip; });
}

bool IsInterfaceExisting(const std::string& ip, const std::string& name) {
  std::vector<NetInfo> interfaces;
  GetNetworkInterfaces(&interfaces);
  return std::any_of(interfaces.begin(), interfaces.end(), [&](const NetInfo& interface) {
    return interface.ip_address == ip && BeginsWith(interface.name, name);
  });
}

bool IsSameSubnet(const std::string& ip1, const std::string& ip2, std::string& mask) {
  if (ip1.empty() || ip2.empty()) return false;
  // A loopback address is on the subnet of everything.
  if (BeginsWith(ip1, kLoopbackPrefix) || BeginsWith(ip2, kLoopbackPrefix)) return true;
  Numbers numbers1;
  Numbers numbers2;
  if (!CutIntoNumbers(ip1, numbers1) || !CutIntoNumbers(ip2, numbers2)) {
    VEX_LOG(kLogMajor, kTag, "IP address is invalid : wrong value!");
    return false;
  }
  if (mask.empty()) return AgreeUnderAnyMask(numbers1, numbers2, mask);
  Numbers mask_numbers;
  return CutMask(mask, mask_numbers) && AgreeUnderMask(numbers1, numbers2, mask_numbers);
}

int GetOutgoingIPaddress(const std::string& peer_ip, std::string& local_ip) try {
  const boost::shared_ptr<NetworkInterface> registry = NetworkInterface::ExistingInstance();
  if (!registry) return result::kFailure;
  std::vector<NetInfo> active;
  registry->GetActiveSelectedNetworkInterfaces(active);
  for (NetInfo& interface : active) {
    if (!IsSameSubnet(interface.ip_address, peer_ip, interface.subnet_mask)) continue;
    local_ip = interface.ip_address;
    return result::kOk;
  }
  return result::kNoNetworkInterface;
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  return result::kFailure;
}

int GetMacAddress(const std::string& ip, std::string& mac) try {
  return ip.empty() ? result::kEmptyAddress : MacAddressFromArpCache(ip, mac);
} catch (...) {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
  return result::kFailure;
}

int IsReachable(std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
                int timeout, boost::unique_lock<boost::mutex>& lock,
                boost::condition_variable& condition, bool& stop) {
  try {
    const boost::shared_ptr<ClientManager> clients = ClientManager::ExistingInstance();
    if (!clients) return result::kFailure;
    return clients->IsReachable(addresses, timeout, lock, condition, stop);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s", "Unknown Exception");
    return result::kFailure;
  }
}

}  // namespace network_layer
}  // namespace vex_upnp

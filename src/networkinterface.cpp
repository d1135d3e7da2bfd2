#include "src/networkinterface.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/scoped_fd.h"
#include "base/singleton.h"
#include "base/socket_close.h"
#include "src/fd_diagnostics.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr int kNotifyThreads = 2;
// From this number on a descriptor means that the process leaks them.
constexpr int kSuspiciousFd = 1000;
constexpr char kLoopbackPrefix[] = "127.0.0";
constexpr char kSsdpGroup[] = "239.255.255.250";
constexpr unsigned short kProbePort = 20202;

// Dotted decimal, or empty when the address cannot be written.
std::string AddressText(const sockaddr& address) {
  sockaddr_in ipv4;
  std::memcpy(&ipv4, &address, sizeof(ipv4));
  char text[INET_ADDRSTRLEN] = {};
  if (::inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof(text)) == nullptr) return std::string();
  return text;
}

bool HasName(const std::vector<NetInfo>& interfaces, const std::string& name) {
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const NetInfo& info) { return info.name == name; });
}

}  // namespace

boost::shared_ptr<NetworkInterface>& NetworkInterface::instance_ =
    *new boost::shared_ptr<NetworkInterface>;
boost::mutex& NetworkInterface::singleton_mutex_ = *new boost::mutex;

boost::shared_ptr<NetworkInterface> NetworkInterface::GetInstance() {
  return GetOrCreateShared(instance_, singleton_mutex_, [] { return new NetworkInterface; });
}

boost::shared_ptr<NetworkInterface> NetworkInterface::ExistingInstance() {
  return ExistingShared(instance_, singleton_mutex_);
}

void NetworkInterface::DestroyInstance() {
  const boost::shared_ptr<NetworkInterface> ending = ExistingInstance();
  if (!ending) return;
  // Before the object is let go of: one of its threads may hold the last reference.
  ending->__EndThreads();
  DestroyShared(instance_, singleton_mutex_);
}

NetworkInterface::NetworkInterface() {
  VEX_LOG(kLogStep, kTag, "NetworkInterface::VexNetiIo");
  try {
    std::string prefix;
    ThreadNamePrefix(prefix);
    StartIoThreads(notify_threads_, notify_io_service_.io, kNotifyThreads, prefix, "VexNetiIo");
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "thread_resource_error exception:[%s]",
                        "Unknown Exception in StartCallbackThreads");
  }
}

NetworkInterface::~NetworkInterface() { __EndThreads(); }

void NetworkInterface::__EndThreads() {
  try {
    notify_io_service_.io->stop();
    if (notify_threads_.is_this_thread_in()) {
      // A listener ends the layer: it holds what it needs, and nobody can wait for it.
      VEX_LOG(kLogMajor, kTag, "Delivery threads stopped by one of them, they are not waited for");
    } else {
      notify_threads_.join_all();
    }
    StopScanNetworkInterface();
    boost::lock_guard<boost::mutex> lock(listeners_mutex_);
    listeners_.clear();
  } catch (...) {
    VEX_LOG(kLogMajor, kTag, "Unknown Exception");
  }
}

void NetworkInterface::SetConfigureAllNetworkInterfaces(const bool& enable) {
  configure_all_ = enable;
}

int NetworkInterface::GetNetworkInformationMA(const std::string& name, NetInfo& info) {
  if (name.empty()) return result::kFailure;
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  for (const NetInfo& known : available_net_interfaces_) {
    if (known.name != name) continue;
    info = known;
    return result::kOk;
  }
  return result::kFailure;
}

int NetworkInterface::GetNetworkInformationByIp(const std::string& ip, NetInfo& info) {
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  if (available_net_interfaces_.empty()) {
    VEX_LOG(kLogMajor, kTag, "available_net_interfaces_ empty!");
    return result::kFailure;
  }
  if (ip.empty()) {
    VEX_LOG(kLogMajor, kTag, "local ip address empty!");
    return result::kFailure;
  }
  for (const NetInfo& known : available_net_interfaces_) {
    if (known.ip_address != ip) continue;
    info = known;
    return result::kOk;
  }
  VEX_LOG(kLogMajor, kTag, "No info for local ip %s!", ip.c_str());
  return result::kFailure;
}

void NetworkInterface::ScanNetworkInterface(std::vector<NetInfo>& interfaces) {
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  interfaces = available_net_interfaces_;
}

std::vector<std::string> NetworkInterface::GetSelectedNetworkInterfaces() {
  boost::lock_guard<boost::mutex> lock(selected_mutex_);
  return selected_net_interfaces_;
}

void NetworkInterface::GetActiveSelectedNetworkInterfaces(std::vector<NetInfo>& interfaces) {
  const std::vector<std::string> selected = GetSelectedNetworkInterfaces();
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  for (const NetInfo& known : available_net_interfaces_) {
    if (known.name.empty()) continue;
    if (std::find(selected.begin(), selected.end(), known.name) != selected.end()) {
      interfaces.push_back(known);
    }
  }
}

int NetworkInterface::SelectNetworkInterface(const std::string& name) {
  if (name.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid param!!!");
    return result::kNo;
  }
  if (__add_in_selcted_Interfaces(name) != 0) {
    VEX_LOG(kLogStep, kTag, "NetworkInterface is already selected");
    return result::kYes;
  }
  if (!__IsAvailable(name)) return result::kNo;
  __NotifyPresence(NIC_ADDED, name);
  return result::kYes;
}

int NetworkInterface::UnselectNetworkInterface(const std::string& name) {
  if (__RemoveSelectedNetworkInterface(name) == 0) return result::kNo;
  if (__IsAvailable(name)) NotifyNICIfEvent(NIC_REMOVED, name);
  return result::kYes;
}

int NetworkInterface::RemoveNetworkInterfaceInfo(std::vector<NetInfo>& interfaces,
                                                 const std::string& name) {
  const auto found = std::find_if(interfaces.begin(), interfaces.end(),
                                  [&](const NetInfo& info) { return info.name == name; });
  if (found == interfaces.end()) return result::kFailure;
  interfaces.erase(found);
  return result::kOk;
}

int NetworkInterface::ScanAndGetNetworkInterface(std::vector<NetInfo>& found) {
  const ScopedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return result::kNo;
  if (socket.get() >= kSuspiciousFd) {
    VEX_LOG(kLogMajor, kTag, "Too Many Socket Fds Opened [%d]", socket.get());
    printDebugInfo();
  }

  // Sized in entries, since one has not the same size everywhere; interfaces behind the last entry
  // stay unseen.
  std::array<ifreq, limits::kScannedInterfaces> entries;
  std::memset(entries.data(), 0, sizeof(entries));
  ifconf list;
  list.ifc_len = static_cast<int>(sizeof(entries));
  list.ifc_req = entries.data();
  if (::ioctl(socket.get(), SIOCGIFCONF, &list) < 0) {
    VEX_LOG(kLogMajor, kTag, "SIOCGIFCONF Failed ");
    return result::kNo;
  }
  int descriptor = socket.get();
  const std::size_t count = static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq);
  for (std::size_t i = 0; i < count; ++i) {
    NetInfo info;
    if (__GetNetInfo(descriptor, &entries[i], info) == result::kOk) found.push_back(info);
  }
  return result::kYes;
}

int NetworkInterface::__GetNetInfo(int& socket, ifreq* entry, NetInfo& info) {
  ifreq request;
  std::memset(&request, 0, sizeof(request));
  std::memcpy(request.ifr_name, entry->ifr_name, IFNAMSIZ);
  if (::ioctl(socket, SIOCGIFFLAGS, &request) < 0) return result::kFailure;
  // A link that is configured but has no carrier does not count.
  constexpr int kWanted = IFF_UP | IFF_RUNNING;
  if ((request.ifr_flags & kWanted) != kWanted) return result::kFailure;

  const std::string address = AddressText(entry->ifr_addr);
  const std::string name(entry->ifr_name, ::strnlen(entry->ifr_name, IFNAMSIZ));
  if (address.empty()) {
    VEX_LOG(kLogMajor, kTag, "inet_ntop API Failed !!!");
    return result::kFailure;
  }
  VEX_LOG(kLogStep, kTag, "Interface Info: Name[%s] IP Address[%s]", name.c_str(), address.c_str());
  // KEPT: loopback is told by this text alone, so 127.1.0.1 passes.
  if (address.compare(0, std::strlen(kLoopbackPrefix), kLoopbackPrefix) == 0) {
    return result::kFailure;
  }
  if (::ioctl(socket, SIOCGIFNETMASK, entry) < 0) return result::kFailure;
  info.name = name;
  info.ip_address = address;
  info.subnet_mask = AddressText(entry->ifr_netmask);
  return result::kOk;
}

int NetworkInterface::checkMulticastResourceAvailability(const std::string& ip) {
  const boost::asio::ip::address_v4 local = boost::asio::ip::make_address_v4(ip);
  io_service io;
  udp::socket socket(io);
  error_code error;
  socket.open(udp::v4(), error);
  if (!error) socket.set_option(udp::socket::reuse_address(true), error);
  if (!error) socket.bind(udp::endpoint(local, kProbePort), error);
  if (!error) {
    const auto group = boost::asio::ip::make_address_v4(kSsdpGroup);
    socket.set_option(boost::asio::ip::multicast::join_group(group, local), error);
  }
  if (error) {
    VEX_LOG(kLogMajor, kTag, "checkMulticastResourceAvailability:failed error message %s",
            error.message().c_str());
  }
  error_code ignored;
  CloseNow(socket, ignored);
  VEX_LOG(kLogStep, kTag, "[VEX Socket Closed ] UDP");
  return error ? result::kNo : result::kYes;
}

int NetworkInterface::__add_in_selcted_Interfaces(const std::string& name) {
  if (name.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid param!!!");
    return 0;
  }
  boost::lock_guard<boost::mutex> lock(selected_mutex_);
  if (std::find(selected_net_interfaces_.begin(), selected_net_interfaces_.end(), name) !=
      selected_net_interfaces_.end()) {
    return 1;
  }
  selected_net_interfaces_.push_back(name);
  return 0;
}

int NetworkInterface::__RemoveSelectedNetworkInterface(const std::string& name) {
  boost::lock_guard<boost::mutex> lock(selected_mutex_);
  const auto found =
      std::find(selected_net_interfaces_.begin(), selected_net_interfaces_.end(), name);
  if (found == selected_net_interfaces_.end()) return 0;
  selected_net_interfaces_.erase(found);
  return 1;
}

bool NetworkInterface::__IsSelected(const std::string& name) {
  boost::lock_guard<boost::mutex> lock(selected_mutex_);
  return std::find(selected_net_interfaces_.begin(), selected_net_interfaces_.end(), name) !=
         selected_net_interfaces_.end();
}

bool NetworkInterface::__IsAvailable(const std::string& name) {
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  return HasName(available_net_interfaces_, name);
}

bool NetworkInterface::__AddAvailableNetworkInterface(const NetInfo& info) {
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  if (HasName(available_net_interfaces_, info.name)) return false;
  available_net_interfaces_.push_back(info);
  return true;
}

void NetworkInterface::__UpdateIPAddrOfAvailableNetworkInterface(const std::string& name,
                                                                 const std::string& ip) {
  boost::lock_guard<boost::mutex> lock(available_mutex_);
  for (NetInfo& known : available_net_interfaces_) {
    if (known.name != name) continue;
    known.ip_address = ip;
    return;
  }
}

}  // namespace network_layer
}  // namespace vex_upnp

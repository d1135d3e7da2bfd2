// The network layer and what of the framework and of discovery lies beside the control point.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>

#include "tests/stress/direct_calls.h"
#include "tests/stress/host_calls.h"
#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;
namespace control = vex_upnp::cp_control;
namespace discovery = vex_upnp::cp_discovery;
namespace fw = vex_upnp::framework_core;
namespace net = vex_upnp::network_layer;

constexpr int kExtraTcpPort = 5400;
constexpr int kExtraUdpPort = 5500;
constexpr int kExtraGroupPort = 1901;
constexpr char kExtraGroup[] = "239.255.255.177";
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 2\r\n\r\nok";

class RequestAnswerer : public net::TCPRequestListener {
 public:
  void OnTCPRequestReceived(boost::shared_ptr<vex_upnp::utils::HTTPInfo>, void* session) override {
    Counts::Add("callback: TCP request");
    constexpr int kLength = static_cast<int>(sizeof(kAnswer) - 1);
    switch (turn_++ % 3) {
      case 0: {
        auto* const answer = new std::string(kAnswer);
        if (net::SendResponsePacket(answer, kLength, session) != 0) delete answer;
        break;
      }
      case 1:
        net::SendSyncResponsePacket(kAnswer, kLength, session);
        break;
      default: {
        char* const answer = strdup(kAnswer);
        if (net::SendBinaryResponsePacket(answer, kLength, session) != 0) std::free(answer);
      }
    }
  }

 private:
  std::atomic<unsigned> turn_{0};
};

class DatagramCounter : public net::UDPRequestListener {
 public:
  void OnUDPRequestReceived(boost::shared_ptr<vex_upnp::utils::HTTPInfo>) override {
    Counts::Add("callback: datagram");
  }
};

// Must not be called once its registration has ended.
class InterfaceWatcher : public net::NetworkEventListener {
 public:
  ~InterfaceWatcher() override { alive_ = false; }
  void OnNetworkChanged(std::string&, net::NicEvent) override {
    if (!alive_) Violation("an interface event behind UnRegisterEventListener");
    Counts::Add("callback: interface");
  }

 private:
  std::atomic<bool> alive_{true};
};

}  // namespace

// Registrations of this thread, which outlive the call that made them.
struct NetworkRegistrations {
  int tcp = -1;
  int udp = -1;
  int interface = -1;
  std::unique_ptr<InterfaceWatcher> watcher;
};

HostThread::HostThread(int slot, unsigned seed, const FakeNetwork& network)
    : slot_(slot),
      random_(seed),
      network_(network),
      registrations_(std::make_unique<NetworkRegistrations>()) {}

HostThread::~HostThread() = default;

void HostThread::ForgetRegistrations() { *registrations_ = NetworkRegistrations(); }

void HostThread::Listen() {
  const Call call("RegisterTCPRequestListener, RegisterUDPRequestListener and back");
  int& tcp = registrations_->tcp;
  int& udp = registrations_->udp;
  if (tcp >= 0) net::UnRegisterRequestListener(tcp);
  if (udp >= 0) net::UnRegisterRequestListener(udp);
  tcp = udp = -1;
  if (Dice(3) == 0) return;
  net::RegisterTCPRequestListener({"/stress"}, boost::make_shared<RequestAnswerer>(), tcp);
  net::RegisterUDPRequestListener({"x-stress"}, boost::make_shared<DatagramCounter>(), udp);
}

void HostThread::WatchInterfaces() {
  const Call call("RegisterNetworkEventListener and back");
  NetworkRegistrations& own = *registrations_;
  if (own.watcher) {
    net::UnRegisterEventListener(own.interface);
    own.watcher.reset();
    return;
  }
  own.watcher = std::make_unique<InterfaceWatcher>();
  if (net::RegisterNetworkEventListener(own.watcher.get(), own.interface) != 0) own.watcher.reset();
}

void HostThread::SendDatagrams() {
  const std::string search =
      "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
      "ST: upnp:rootdevice\r\n\r\n";
  const int length = static_cast<int>(search.size());
  const Call call("SendMulticastPacket and SendUDPPacket");
  net::SendMulticastPacket("239.255.255.250", "all", search, length);
  net::SendMulticastPacket(kExtraGroup, "10.77.0.1", search, length);
  net::SendUDPPacket(AnyDevice().ip(), AnyDevice().port(), search, length);
}

void HostThread::AskAddresses() {
  std::string text, mask = Dice(2) == 0 ? "" : "255.255.255.0";
  std::vector<net::NetInfo> interfaces;
  net::NetInfo info;
  fw::NetworkInfo* available = nullptr;
  const Call call("addresses and interfaces");
  net::IsLocalMachine(AnyDevice().ip());
  net::IsInterfaceExisting("10.77.1.1", "lan1");
  net::IsSameSubnet(AnyDevice().ip(), AnyDevice().ip(), mask);
  net::GetOutgoingIPaddress(AnyDevice().ip(), text);
  net::GetMacAddress(AnyDevice().ip(), text);
  net::GetNetworkInterfaces(&interfaces);
  net::GetActiveSelectedNetworkInterfaces(&interfaces);
  net::GetNetworkInterface("lan1", info);
  net::GetNetworkInterfaceByIP("10.77.1.1", info);
  if (fw::GetAvailableNetworkInterfaces(&available) == 0) fw::FreeInterfaceList(available);
}

void HostThread::Probe() {
  std::map<std::string, boost::shared_ptr<net::valid_address_info>> addresses;
  for (const char* name : {"one", "two", "three"}) {
    auto address = boost::make_shared<net::valid_address_info>();
    address->ip = AnyDevice().ip();
    address->port = Dice(3) == 0 ? 9 : AnyDevice().port();
    addresses[name] = address;
  }
  boost::mutex mutex;
  boost::condition_variable condition;
  boost::unique_lock<boost::mutex> lock(mutex);
  bool stop = false;
  const Call call("IsReachable");
  net::IsReachable(addresses, 1, lock, condition, stop);
}

// Servers beside those that the framework has, which go again.
void HostThread::ConfigureServers() {
  const bool enable = Dice(2) == 0;
  const Call call("settings of the network layer");
  switch (Dice(7)) {
    case 0:
      net::ConfigureTCPServer(kExtraTcpPort, enable);
      break;
    case 1:
      net::ConfigureUDPServer(kExtraUdpPort, enable);
      break;
    case 2:
      net::ConfigureUPnPMulticastServer(kExtraGroupPort, enable);
      break;
    case 3:
      net::ConfigureMulticastServer(kExtraGroup, kExtraGroupPort, enable);
      break;
    case 4:
      net::ConfigureMulticastSupport(Dice(4) != 0);
      break;
    case 5: {
      std::string name = "lan1";
      net::ConfigureNetworkInterface(name, Dice(4) != 0);
      break;
    }
    default:
      // Interfaces that are found from here on come by themselves, for a moment.
      fw::ConfigureApplicationOnAllInterfaces();
      net::ConfigureOnAllNetworkInterfaces(false);
  }
}

void HostThread::Configure() {
  const Call call("settings of the framework");
  switch (Dice(7)) {
    case 0:
      fw::ConfigureAutoRescanFeature(Dice(2) == 0);
      break;
    case 1:
      fw::ConfigureMulticastSupport(Dice(4) != 0);
      break;
    case 2:
      fw::SetDefaultUserAgent(Dice(2) == 0 ? "stress/2.0" : "");
      break;
    case 3: {
      std::string agent;
      fw::GetDefaultUserAgent(agent);
      break;
    }
    case 4:
      fw::ConfigureApplicationOnInterface(Dice(2) == 0 ? "lan0" : "lan1");
      break;
    case 5:
      // For a moment, in which others may come upon it.
      if (Dice(2) == 0) {
        fw::StopFrameworkCore();
        fw::StartFrameworkCore();
      } else {
        fw::StopNetworkMonitor();
        fw::StartNetworkMonitor();
      }
      break;
    default:
      if (Dice(2) == 0) {
        Dice(2) == 0 ? fw::NotifyNICRemoved("lan1") : net::NotifyNICRemoved("lan1");
      } else {
        Dice(2) == 0 ? fw::NotifyNICAdded("lan1", "10.77.1.1", "255.255.255.0")
                     : net::NotifyNICAdded("lan1", "10.77.1.1", "255.255.255.0");
      }
  }
}

void HostThread::ConfigureDiscovery() {
  std::string text;
  const Call call("settings of discovery and control");
  switch (Dice(6)) {
    case 0:
      discovery::RescanForRegisteredCP();
      break;
    case 1:
      discovery::SetRescanConnectTimeout(static_cast<int>(1 + Dice(3)));
      break;
    case 2:
      discovery::SetDefaultUserAgent(Dice(2) == 0 ? "stress/3.0" : "");
      discovery::GetDefaultUserAgent(text);
      break;
    case 3:
      Dice(2) == 0 ? discovery::EnableAutoRescanFeature() : discovery::DisableAutoRescanFeature();
      break;
    case 4:
      control::SetDefaultUserAgent(Dice(2) == 0 ? "stress/4.0" : "");
      control::GetDefaultUserAgent(text);
      break;
    default:
      // It runs already.
      control::Initialize();
  }
}

}  // namespace vex_stress

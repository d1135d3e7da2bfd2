// A datagram, from the parser through the discovery listener to the device list and the description
// request.
//
// The first byte chooses the sender; the rest is the datagram. Some devices are listed already, on
// this machine and on a network, and what becomes of them is checked: they leave with their own
// farewell and with nothing else, their own announcements and answers make them valid, and nobody
// else's do. The network layer is not started, so there is nobody who could send anything: a
// request that discovery would make ends in a failed call, and no byte leaves the process.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/networkmonitor.h>

#include "src/cp_discovery_manager.h"
#include "src/device.h"
#include "src/device_list.h"
#include "src/discovery_listener.h"
#include "src/networkinterface.h"
#include "src/now_requesting.h"

namespace {

using vex_upnp::cp_discovery::CPDiscoveryManager;
using vex_upnp::cp_discovery::Device;
using vex_upnp::cp_discovery::DeviceList;
using vex_upnp::cp_discovery::DiscoveryListener;
using vex_upnp::cp_discovery::NowRequesting;
using vex_upnp::utils::HTTPInfo;
using vex_upnp::utils::HTTPParser;
using DevicePtr = boost::shared_ptr<Device>;

constexpr std::size_t kLongestDatagram = 8192;

struct Sender {
  const char* ip;
  // What its devices' keys end with; null for one that is met on no interface.
  const char* interface;
};

const Sender kThisMachine = {"127.0.0.1", "localhost"};
const Sender kNeighbour = {"192.0.2.1", "net0"};
const Sender kNobody = {"198.51.100.1", nullptr};

const Sender& SenderOf(unsigned char choice) {
  if (choice % 2 == 0) return kThisMachine;
  return choice % 4 == 1 ? kNeighbour : kNobody;
}

void Demand(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fuzz_ssdp: not so: %s\n", what);
  std::abort();
}

DevicePtr MakeDevice(const std::string& udn, const std::string& interface) {
  DevicePtr device(new Device);
  device->udn = udn + "+" + interface;
  device->interface_name = interface;
  return device;
}

// "uuid:a" on both interfaces, each with "uuid:b" embedded, and a stranger of nearly that name.
struct House {
  House() {
    vex_upnp::network_layer::NetworkInterface::GetInstance();
    vex_upnp::network_layer::NotifyNICAdded("net0", "192.0.2.9", "255.255.255.0");
    for (const Sender* sender : {&kThisMachine, &kNeighbour}) {
      const DevicePtr root = MakeDevice("uuid:a", sender->interface);
      root->embedded_devices.push_back(MakeDevice("uuid:b", sender->interface));
      devices.push_back(root);
      devices.push_back(root->embedded_devices.front());
    }
    devices.push_back(MakeDevice("uuid:aa", "net0"));
  }

  // All of them listed, and none seen since a search.
  void MoveIn(DeviceList& list) {
    for (DevicePtr& device : devices) {
      if (!list.IsListed(device)) list.Add(device);
      device->is_valid = false;
    }
  }

  std::list<DevicePtr> devices;
};

// What the packet is about, read from its headers: the key of a device, and what was said of it.
struct Said {
  std::string key;
  bool farewell = false;
  bool alive = false;
};

Said WhatIsSaid(HTTPInfo& info, const Sender& sender) {
  Said said;
  std::string usn;
  std::string nts;
  info.GetHeaderValue("USN", usn);
  info.GetHeaderValue("NTS", nts);
  if (usn.empty() || sender.interface == nullptr) return said;
  said.farewell = nts == "ssdp:byebye";
  // Whatever has a name and is no farewell shows that its device is there.
  said.alive = !said.farewell;
  std::string udn = usn.substr(usn[0] == ' ' ? 1 : 0);
  const std::size_t colons = udn.find("::");
  if (colons == std::string::npos && udn.find("\r\n") != std::string::npos) udn.clear();
  said.key = udn.substr(0, colons) + "+" + sender.interface;
  return said;
}

bool IsEmbeddedIn(const Device& root, const DevicePtr& device) {
  return !root.embedded_devices.empty() && root.embedded_devices.front() == device;
}

void CheckHouse(const House& house, DeviceList& list, const Said& said) {
  std::size_t listed = 0;
  const Device* root = nullptr;
  for (const DevicePtr& device : house.devices) {
    if (!device->embedded_devices.empty()) root = device.get();
    const bool is_meant = device->udn == said.key;
    const bool goes_with_root =
        root != nullptr && root->udn == said.key && IsEmbeddedIn(*root, device);
    const bool left = said.farewell && (is_meant || goes_with_root);
    Demand(list.IsListed(device) == !left, "a device leaves with its own farewell alone");
    Demand(device->is_valid == (said.alive && is_meant), "a device is seen when it speaks");
    if (!left) ++listed;
  }
  const auto all = list.GetAllDevices();
  Demand((all ? all->size() : 0) == listed, "without a description nothing is listed");
}

// A request that could not be sent must not stand in the way of the next one.
void CheckRequests(CPDiscoveryManager& manager, const Said& said) {
  const boost::shared_ptr<NowRequesting> next(
      new NowRequesting(said.key, "", "127.0.0.1", 1, "", ""));
  Demand(manager.AddNowRequesting(next) == 0, "nothing is in flight");
  manager.RemoveNowRequestingByUdn(said.key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static House& house = *new House;
  if (size < 1 || size > kLongestDatagram) return 0;
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  const unsigned int length = static_cast<unsigned int>(size - 1);
  if (HTTPParser::Parse(data + 1, length, info) != 0) return 0;
  const Sender& sender = SenderOf(data[0]);
  info->SetClientIpAddress(sender.ip);

  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::GetInstance();
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    house.MoveIn(*list);
  }
  const Said said = WhatIsSaid(*info, sender);
  DiscoveryListener::GetInstance()->OnUDPRequestReceived(info);
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    CheckHouse(house, *list, said);
  }
  CheckRequests(*manager, said);
  return 0;
}

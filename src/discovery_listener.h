#ifndef VEXUPNPCP_SRC_DISCOVERY_LISTENER_H_
#define VEXUPNPCP_SRC_DISCOVERY_LISTENER_H_

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_listeners.h>

#include "base/use_count.h"

namespace vex_upnp {
namespace cp_discovery {

class CPDiscoveryManager;

// What an SSDP datagram is.
enum SsdpPacket : int {
  SSDP_ALIVE = 1,
  SSDP_BYEBYE = 2,
  SSDP_SEARCH_RESPONSE = 3,
  SSDP_UNKNOWN = 4
};

// Receives the SSDP datagrams and sends for the description of a device that is new. Nothing
// expires by age: a device goes when it says so, when a search finds it silent and unreachable,
// with its interface, or when its description cannot be had.
class DiscoveryListener : public network_layer::UDPRequestListener {
 public:
  // Made at the first use.
  static boost::shared_ptr<DiscoveryListener> GetInstance();
  // Waits until no packet is being handled and refuses later ones.
  static void Terminate();

  void OnUDPRequestReceived(boost::shared_ptr<utils::HTTPInfo> info) override;

  // 0 when the call may go on, 1 after termination.
  int IncrementUseCount() { return use_count_.Increment(); }
  void DecrementUseCount() { use_count_.Decrement(); }

  // kOutOfMemory for an empty USN.
  static int RetrieveUDN(const std::string& usn, std::string& udn);
  static SsdpPacket RetrieveResponse(const boost::shared_ptr<utils::HTTPInfo>& info);
  // result::kYes for success. Wants an explicit port, as StringUtils::ParseURI does, from which it
  // differs in what counts as path.
  static int ParseURI(const std::string& url, std::string& ip, int& port, std::string& path);
  // result::kYes for success: what stands in front of the last "/".
  static int ParseLocationURL(const std::string& url, std::string& base);

 private:
  struct Sender {
    std::string client_ip;
    std::string local_ip;
    std::string interface_name;
  };

  void HandlePacket(const boost::shared_ptr<utils::HTTPInfo>& info);
  static bool FindInterface(const utils::HTTPInfo& info, Sender& sender);
  static void RemoveDevice(CPDiscoveryManager& manager, const std::string& udn);
  static bool Refresh(const std::string& udn);
  static std::string UserAgentFor(CPDiscoveryManager& manager, utils::HTTPInfo& info,
                                  SsdpPacket kind);
  int SendDeviceDescriptionRequest(CPDiscoveryManager& manager, utils::HTTPInfo& info,
                                   const std::string& udn, const std::string& user_agent,
                                   const Sender& sender);

  UseCount use_count_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<DiscoveryListener>& instance_;
  static boost::mutex& singleton_mutex_;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DISCOVERY_LISTENER_H_

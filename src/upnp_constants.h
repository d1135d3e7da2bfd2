#ifndef VEXUPNPCP_SRC_UPNP_CONSTANTS_H_
#define VEXUPNPCP_SRC_UPNP_CONSTANTS_H_

namespace vex_upnp {

// Texts of the UPnP Device Architecture that more than one source needs.

// Search targets that stand for more than one device type.
constexpr char kRootDevice[] = "upnp:rootdevice";
constexpr char kSearchAll[] = "ssdp:all";

// Every device type of the UPnP forum begins so.
constexpr char kForumDeviceType[] = "urn:schemas-upnp-org:device:";

// Values of NTS.
constexpr char kSsdpAlive[] = "ssdp:alive";
constexpr char kSsdpByebye[] = "ssdp:byebye";

constexpr char kSsdpGroup[] = "239.255.255.250";
constexpr int kSsdpPort = 1900;
// Devices whose type begins with kFileTransferType listen to a group of their own as well.
constexpr char kFileTransferGroup[] = "239.255.255.177";
constexpr char kFileTransferType[] = "urn:tolmark:device:FileTransferServer";

// As the interface of a multicast packet: all active ones.
constexpr char kAllInterfaces[] = "0.0.0.0";

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_UPNP_CONSTANTS_H_

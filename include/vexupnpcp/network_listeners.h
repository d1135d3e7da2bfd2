#ifndef VEXUPNPCP_NETWORK_LISTENERS_H_
#define VEXUPNPCP_NETWORK_LISTENERS_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/network_types.h>

namespace vex_upnp {

namespace utils {
class HTTPInfo;
}

namespace network_layer {

// The abstract classes through which the network layer speaks to its users. All of them are called
// on the network layer's own threads. What is said of each call also tells what may be called from
// inside: every function of the layer, unless it says otherwise, but not the stop of the layer,
// which waits for the calls to return.

/// Receives complete HTTP requests from the TCP servers (GENA events, UPnP Device Architecture 4).
class VEX_EXPORT TCPRequestListener {
 public:
  /// On a "VexTcpReq" thread; requests with one SID come one at a time, others beside each other.
  ///
  /// @param request          Shared with nobody else; may be kept.
  /// @param session_context  To be given to exactly one of the three Send...ResponsePacket
  ///                         functions, which uses it up; the connection stays open until then.
  virtual void OnTCPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request,
                                    void* session_context) = 0;
  virtual ~TCPRequestListener() = default;
};

/// Receives complete datagrams from the UDP and multicast servers (SSDP).
class VEX_EXPORT UDPRequestListener {
 public:
  /// On a "VexUdpReq" thread; datagrams of one sender come one at a time, others beside each other.
  ///
  /// @param request  Shared with nobody else; may be kept.
  virtual void OnUDPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request) = 0;
  virtual ~UDPRequestListener() = default;
};

/// Receives the answer to one outgoing request.
class VEX_EXPORT ResponseListener {
 public:
  /// On a "VexTcpRes" thread, once for an exchange at most. Silence of the network (no connection,
  /// no answer in time) is not told.
  ///
  /// @param response    Complete, or what had arrived when the peer closed, or a made-up fault when
  ///                    the connection broke. Shared with nobody else; may be kept.
  /// @param session_id  What SendTCPHTTPPacket gave.
  virtual void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                                  const int& session_id) = 0;
  virtual ~ResponseListener() = default;
};

/// Receives interface changes.
class VEX_EXPORT NetworkEventListener {
 public:
  /// On a "VexNetiIo" thread, with a lock of this listener's registration held: calls to one
  /// listener come one at a time and in order, and it must not unregister itself from inside.
  ///
  /// @param interface_name  The address is to be asked for with GetNetworkInterface.
  virtual void OnNetworkChanged(std::string& interface_name, NicEvent event) = 0;
  virtual ~NetworkEventListener() = default;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORK_LISTENERS_H_

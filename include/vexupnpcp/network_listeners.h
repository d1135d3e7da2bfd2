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
// on the network layer's own threads, with none of its locks held.

/// Receives complete HTTP requests from the TCP servers (GENA events).
class VEX_EXPORT TCPRequestListener {
 public:
  /// `session_context` must be given to exactly one of the three Send...ResponsePacket functions,
  /// which uses it up; the connection stays open until then.
  virtual void OnTCPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request,
                                    void* session_context) = 0;
  virtual ~TCPRequestListener() = default;
};

/// Receives complete datagrams from the UDP and multicast servers (SSDP).
class VEX_EXPORT UDPRequestListener {
 public:
  virtual void OnUDPRequestReceived(boost::shared_ptr<utils::HTTPInfo> request) = 0;
  virtual ~UDPRequestListener() = default;
};

/// Receives the answer to one outgoing request.
class VEX_EXPORT ResponseListener {
 public:
  /// `response` is complete, or what had arrived when the peer closed, or a made-up fault when the
  /// connection broke. Silence of the network (no connection, no answer in time) is not told.
  virtual void OnResponseReceived(boost::shared_ptr<utils::HTTPInfo> response,
                                  const int& session_id) = 0;
  virtual ~ResponseListener() = default;
};

/// Receives interface changes.
class VEX_EXPORT NetworkEventListener {
 public:
  /// Calls to one listener come one at a time. It must not unregister itself from inside.
  virtual void OnNetworkChanged(std::string& interface_name, NicEvent event) = 0;
  virtual ~NetworkEventListener() = default;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORK_LISTENERS_H_

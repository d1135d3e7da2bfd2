#include "src/outgoing_datagram.h"

#include <list>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_types.h>
#include <vexupnpcp/result_codes.h>

#include "base/log.h"
#include "base/socket_close.h"
#include "src/outgoing_address.h"
#include "src/servermanager.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr unsigned short kFirstSearchPort = 3955;
constexpr unsigned short kLastSearchPort = 4004;

void LogFailedSend(int session_id, const error_code& error) {
  VEX_LOG(kLogMajor, kTag, "send_to failed for session id %d [%s]", session_id,
          error.message().c_str());
}

// The port of the UDP server on an address, 0 when there is none.
int ServerPortOn(const std::string& local_ip) {
  std::list<boost::shared_ptr<IpInfo>> servers;
  const boost::shared_ptr<ServerManager> manager = ServerManager::ExistingInstance();
  if (!manager || manager->GetConfiguredUdpPorts(servers) != result::kOk) {
    VEX_LOG(kLogStep, kTag, "GetConfiguredUdpPorts failed!");
  }
  int port = 0;
  for (const boost::shared_ptr<IpInfo>& server : servers) {
    if (server->ip == local_ip) port = server->port;
  }
  return port;
}

error_code BindTo(udp::socket& socket, const std::string& local_ip, int port) {
  error_code error;
  const auto address = boost::asio::ip::make_address_v4(local_ip, error);
  if (!error) socket.bind(udp::endpoint(address, static_cast<unsigned short>(port)), error);
  return error;
}

int UDPBind(udp::socket& socket, const std::string& local_ip) {
  const int server_port = ServerPortOn(local_ip);
  if (server_port != 0) {
    const error_code error = BindTo(socket, local_ip, server_port);
    if (!error) return result::kOk;
    VEX_LOG(kLogMajor, kTag, "Exception: %s", error.message().c_str());
    return result::kConnectFailed;
  }
  for (int port = kFirstSearchPort; port <= kLastSearchPort; ++port) {
    const error_code error = BindTo(socket, local_ip, port);
    if (!error) return result::kOk;
    VEX_LOG(kLogStep, kTag, "Warning: %s", error.message().c_str());
  }
  // KEPT: the datagram goes out all the same, from whatever port the kernel gives.
  VEX_LOG(kLogMajor, kTag, "Warning sending multicast in WiFiDirect network may be failed");
  return result::kOk;
}

// Opens, binds and sends; the socket is left open.
int SendFrom(udp::socket& socket, int session_id, const std::string& local_ip,
             const udp::endpoint& to, const std::string& data) {
  error_code error;
  socket.open(udp::v4(), error);
  if (!error) socket.set_option(udp::socket::reuse_address(true), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "setsockopt failed for session id %d", session_id);
    return result::kConnectFailed;
  }
  if (local_ip != kAnyLocalAddress && UDPBind(socket, local_ip) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "UDPBind failed for session id %d", session_id);
    return result::kConnectFailed;
  }
  socket.send_to(boost::asio::buffer(data), to, 0, error);
  if (!error) return result::kOk;
  LogFailedSend(session_id, error);
  return result::kConnectFailed;
}

}  // namespace

int SendDatagram(io_service& io, int session_id, const std::string& local_ip,
                 const std::string& remote_ip, int port, const std::string& data) {
  error_code error;
  const auto address = boost::asio::ip::make_address_v4(remote_ip, error);
  if (error || !IsPort(port)) {
    VEX_LOG(kLogMajor, kTag, "Invalid remote ip");
    return result::kConnectFailed;
  }
  const udp::endpoint to(address, static_cast<unsigned short>(port));

  // Two sockets on one address and port share what comes in: an answer must not land on one that
  // is about to close, so the running server's own socket sends.
  const boost::shared_ptr<ServerManager> servers = ServerManager::ExistingInstance();
  if (local_ip != kAnyLocalAddress && servers) {
    if (servers->SendFromUdpServer(local_ip, to, data, error)) return result::kOk;
    if (error) {
      LogFailedSend(session_id, error);
      return result::kConnectFailed;
    }
  }

  udp::socket socket(io);
  const int sent = SendFrom(socket, session_id, local_ip, to, data);
  CloseNow(socket, error);
  if (error && sent == result::kOk) {
    VEX_LOG(kLogMajor, kTag, "close failed for session id %d [%s]", session_id,
            error.message().c_str());
  }
  return sent;
}

}  // namespace network_layer
}  // namespace vex_upnp

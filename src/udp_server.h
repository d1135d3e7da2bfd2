#ifndef VEXUPNPCP_SRC_UDP_SERVER_H_
#define VEXUPNPCP_SRC_UDP_SERVER_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/datagram_server.h"

namespace vex_upnp {
namespace network_layer {

// Receives unicast datagrams on one local address and hands them to the callback handler: the
// answers to searches, which come to the port that the search went out from.
class UDPServer : public DatagramServer {
 public:
  using DatagramServer::DatagramServer;

  using DatagramServer::Start;
  // 0 or 2006. A port that is taken is passed over for the next, 100 times; `port` is then the one
  // that was bound.
  int Start(int& port) override;
  // Always 0. With a read out, the socket is closed when that comes back.
  int Stop() override;

  // The port bound by the last start, 0 before.
  int bound_port() const;
  // Sends a datagram through the server's socket. False when it isn't open or the send failed.
  bool SendTo(const udp::endpoint& to, const std::string& data, error_code& error);

 private:
  bool OpenAndBind(const boost::asio::ip::address& address, int port) VEX_REQUIRES(mutex_);

  void HandOver(boost::shared_ptr<utils::HTTPInfo>& message) override VEX_REQUIRES(mutex_);
  void Close() override VEX_REQUIRES(mutex_);
  void LogClosed() const override;
  void LogCanceled(const std::string& error) const override;
  void LogError(const std::string& error) const override;
  void LogParserFailure(int status, const char* text) const override;
  void LogException() const override;

  int bound_port_ VEX_GUARDED_BY(mutex_) = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_UDP_SERVER_H_

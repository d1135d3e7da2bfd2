#ifndef VEXUPNPCP_SRC_MULTICAST_SERVER_H_
#define VEXUPNPCP_SRC_MULTICAST_SERVER_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/datagram_server.h"

namespace vex_upnp {
namespace network_layer {

// Listens to one multicast group on one local interface and hands what other hosts send there to
// the callback handler.
//
// All sockets bind the same port on any address. What one of them gets apart from its own
// membership is the stack's business, so one announcement can come through several servers.
class MulticastServer : public DatagramServer {
 public:
  MulticastServer(const std::string& ip, const std::string& interface_name,
                  const std::string& multicast_ip, int port, io_service& io);

  using DatagramServer::Start;
  // 0, 2004, 2005 or 2006. No other port is tried: a group's port is part of the protocol.
  int Start(int& port) override;
  // Always 0. Leaves the group; with a read out, the socket is closed when that comes back.
  int Stop() override;
  void Reset() override;

 private:
  int OpenAndBind(int port) VEX_REQUIRES(mutex_);
  // Each gives false, with its log lines, for an address that can't be read.
  bool ParseAddresses(boost::asio::ip::address_v4& group, boost::asio::ip::address_v4& local) const;
  void LeaveGroup() VEX_REQUIRES(mutex_);

  void HandOver(boost::shared_ptr<utils::HTTPInfo>& message) override VEX_REQUIRES(mutex_);
  void Close() override VEX_REQUIRES(mutex_);
  void LogClosed() const override;
  void LogCanceled(const std::string& error) const override;
  void LogError(const std::string& error) const override;
  void LogParserFailure(int status, const char* text) const override;
  void LogException() const override;

  const std::string multicast_ip_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_MULTICAST_SERVER_H_

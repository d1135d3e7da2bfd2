#ifndef VEXUPNPCP_SRC_DATAGRAM_SERVER_H_
#define VEXUPNPCP_SRC_DATAGRAM_SERVER_H_

#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/datagram_feed.h"
#include "src/server_notify.h"

namespace vex_upnp {
namespace network_layer {

// What UDPServer and MulticastServer have in common: a socket that is opened, read to the last
// datagram whenever something has come, and closed. How it is opened, where the messages go and the
// words of the log are theirs.
class DatagramServer : public ServerNotify, public boost::enable_shared_from_this<DatagramServer> {
 public:
  DatagramServer(const std::string& ip, const std::string& interface_name, int port,
                 io_service& io);
  ~DatagramServer() override = default;

  void SessionCompleted(const int&) override {}
  void HandleFailureCondition(const int&) override {}

  using ServerNotify::Start;
  // Starts at the port given to the constructor.
  int Start();
  std::string GetIP() override { return ip_; }
  std::string GetInterfaceName() override { return interface_name_; }
  // The port given to the constructor, whatever was bound.
  int GetPort() override { return port_; }
  void Reset() override;

 protected:
  // Closes what is still open from an earlier start.
  void CloseEarlierOpen() VEX_REQUIRES(mutex_);
  // The socket is bound: reading begins.
  void BeginToRead() VEX_REQUIRES(mutex_);
  void async_receive() VEX_REQUIRES(mutex_);

  // Ends traffic both ways. The socket stays open.
  void ShutDownSocket() VEX_REQUIRES(mutex_);

  // Puts a message before the upper layers.
  virtual void HandOver(boost::shared_ptr<utils::HTTPInfo>& message) VEX_REQUIRES(mutex_) = 0;
  virtual void Close() VEX_REQUIRES(mutex_) = 0;
  virtual void LogClosed() const = 0;
  virtual void LogCanceled(const std::string& error) const = 0;
  virtual void LogError(const std::string& error) const = 0;
  virtual void LogParserFailure(int status, const char* text) const = 0;
  // Called while an exception is being handled.
  virtual void LogException() const = 0;

  const std::string ip_;
  const std::string interface_name_;
  const int port_;

  // Outer to the callback handler's leaves.
  mutable boost::mutex mutex_;
  udp::socket socket_ VEX_GUARDED_BY(mutex_);
  DatagramFeed feed_ VEX_GUARDED_BY(mutex_);
  bool closed_ VEX_GUARDED_BY(mutex_) = true;
  bool read_pending_ VEX_GUARDED_BY(mutex_) = false;

 private:
  void read_handler(const error_code& error, unsigned int generation);
  // False when the socket has nothing more to give now.
  bool ReadDatagram() VEX_REQUIRES(mutex_);
  void Parse(std::size_t bytes) VEX_REQUIRES(mutex_);

  // Each start has its own; a read of an earlier one lets its reference go and does nothing more.
  unsigned int generation_ VEX_GUARDED_BY(mutex_) = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DATAGRAM_SERVER_H_

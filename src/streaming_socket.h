#ifndef VEXUPNPCP_SRC_STREAMING_SOCKET_H_
#define VEXUPNPCP_SRC_STREAMING_SOCKET_H_

#include <string>

#include <boost/asio/strand.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"

namespace vex_upnp {
namespace streaming {

// Kernel buffers for high-rate media.
constexpr int kMediaSocketBuffer = 2097152;

// What each option said; the session logs the failures in its own words.
struct MediaOptionResult {
  error_code no_delay;
  error_code receive_buffer;
  error_code send_buffer;
};

MediaOptionResult SetMediaSocketOptions(tcp::socket& socket);

// An endpoint for an address and a port. Numeric addresses are taken as they are, so that no thread
// waits for a name server on their account; a name is resolved here and now.
bool ResolveEndpoint(const std::string& ip, int port, tcp::endpoint& endpoint, error_code& error);

// A port as text in an address: what a TCP port can be.
bool IsPort(int port);

// A socket whose object is touched on one strand only, while any thread may end its traffic.
// Another thread only shuts the descriptor down, which wakes what waits on it; the strand closes
// it, so that no descriptor number is reused under a running operation.
class MediaSocket {
 public:
  using Strand = boost::asio::strand<io_service::executor_type>;

  explicit MediaSocket(io_service& io) : socket_(io), strand_(boost::asio::make_strand(io)) {}

  // On the strand only.
  tcp::socket& socket() { return socket_; }
  const Strand& strand() const { return strand_; }

  // On the strand, once the socket is open. False when it has been ended before.
  bool MarkOpen();

  // From any thread: ends traffic both ways, now and for later; a failure is in `error`. True when
  // this call was the first.
  bool End(error_code& error);

  // On the strand: closes, after End.
  void Close(error_code& error);

 private:
  static constexpr int kNoDescriptor = -1;

  tcp::socket socket_;
  Strand strand_;
  boost::mutex socket_mutex_;
  int descriptor_ VEX_GUARDED_BY(socket_mutex_) = kNoDescriptor;
  bool ended_ VEX_GUARDED_BY(socket_mutex_) = false;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_SOCKET_H_

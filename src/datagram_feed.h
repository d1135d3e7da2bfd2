#ifndef VEXUPNPCP_SRC_DATAGRAM_FEED_H_
#define VEXUPNPCP_SRC_DATAGRAM_FEED_H_

#include <array>
#include <cstddef>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>

#include "base/asio.h"
#include "base/limits.h"
#include "base/log_limit.h"
#include "src/header_end.h"

namespace vex_upnp {
namespace network_layer {

// What the UDP and the multicast server do alike with a datagram: receive it, parse it, and make a
// message of it. Used under the server's lock.
class DatagramFeed {
 public:
  enum class Result {
    // The header goes on in the next datagram.
    kIncomplete,
    // Complete() gives the message. For a datagram the header is all that counts.
    kComplete,
    // What came is dropped.
    kFailed
  };

  // A datagram's worth of bytes; what is longer has been cut by the socket.
  static constexpr std::size_t kSize = limits::kReceiveBuffer;

  // Takes what is waiting at the socket, without waiting for more. would_block when nothing is.
  std::size_t Receive(udp::socket& socket, error_code& error);

  // Parses what Receive has put here.
  //
  // KEPT: a header that does not end in its datagram goes on in the next one, whoever sent that.
  // Messages split over datagrams are joined so, and a cut one spoils the next.
  Result Parse(std::size_t size);

  // The message, with its sender and the address that it came to; a new one begins.
  boost::shared_ptr<utils::HTTPInfo> Complete(const std::string& my_ip);
  // Drops the message that is being parsed.
  void Drop();

  // What the last complete message takes while it waits to be handled.
  std::size_t message_bytes() const { return message_bytes_; }
  const udp::endpoint& sender() const { return remote_endpoint_; }
  // As received, with a NUL behind it.
  const char* text() const { return buffer_.data(); }
  // How far the message that is being parsed has come.
  int status() const { return http_info_ ? http_info_->GetStatus() : utils::HEADER_NOTHING; }

 private:
  udp::endpoint remote_endpoint_;
  boost::shared_ptr<utils::HTTPInfo> http_info_;
  HeaderEnd header_end_;
  // What the message being parsed has taken so far, in bytes received and of memory.
  std::size_t joined_bytes_ = 0;
  std::size_t joined_cost_ = 0;
  std::size_t message_bytes_ = 0;
  LogLimit too_long_line_;
  // One more than a read: the search for a first line's end wants a NUL behind what came.
  std::array<char, kSize + 1> buffer_;
};

// Asks the kernel for room for a burst of answers, as much as it grants.
void AskForReceiveBuffer(udp::socket& socket);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DATAGRAM_FEED_H_

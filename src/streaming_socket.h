#ifndef VEXUPNPCP_SRC_STREAMING_SOCKET_H_
#define VEXUPNPCP_SRC_STREAMING_SOCKET_H_

#include <cstddef>
#include <functional>
#include <list>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "base/asio.h"
#include "base/thread_marks.h"
#include "src/streaming_handler_queue.h"

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

// The endpoints of an address and a port, at least one, in the order in which they are to be tried.
// Numeric addresses are taken as they are, so that no thread waits for a name server on their
// account; a name is resolved here and now.
bool ResolveEndpoints(const std::string& ip, int port, std::list<tcp::endpoint>& endpoints,
                      error_code& error);
// The first of them.
bool ResolveEndpoint(const std::string& ip, int port, tcp::endpoint& endpoint, error_code& error);

// A port as text in an address: what a TCP port can be.
bool IsPort(int port);

// A socket whose object is touched on one queue of handlers only, while any thread may end its
// traffic. Another thread only shuts the descriptor down, which wakes what waits on it; the queue
// closes it, so that no descriptor number is reused under a running operation.
class MediaSocket {
 public:
  explicit MediaSocket(io_service& io) : socket_(io), queue_(io) {}
  ~MediaSocket();

  HandlerQueue& queue() { return queue_; }
  // On the queue only.
  tcp::socket& socket() { return socket_; }

  // On the queue, once the socket is open. False when it has been ended before.
  bool MarkOpen();
  // On the queue: takes over an accepted connection. False when the socket has been ended before.
  bool Adopt(tcp::socket& accepted);

  // On the queue: what media need of the socket, once it is connected.
  MediaOptionResult SetOptions();

  // On the queue: reads or writes some, or all of a block; `done` runs on the queue and owns the
  // session with this socket. An end of the stream is an error, with the bytes that came before it.
  using Done = std::function<void(const error_code&, std::size_t)>;
  void ReadSome(void* block, std::size_t size, const Done& done);
  void ReadAll(void* block, std::size_t size, const Done& done);
  void WriteAll(const void* block, std::size_t size, const Done& done);

  // From any thread: ends traffic both ways, now and for later; a failure is in `error`. True when
  // this call was the first.
  bool End(error_code& error);

  // On the queue: closes a socket that did not connect. Another one may be opened in its place.
  void GiveUp(error_code& error);

  // On the queue: closes, after End.
  void Close(error_code& error);

 private:
  static constexpr int kNoDescriptor = -1;

  // One block on its way, in as many steps as the kernel takes. Asio's own composed operations
  // would take theirs outside of the queue.
  struct Transfer;
  void __Write(const boost::shared_ptr<Transfer>& transfer);
  void __Read(const boost::shared_ptr<Transfer>& transfer);
  // The kernel tells of new bytes when there are this many, or the stream has ended.
  void __WakeFor(std::size_t bytes);

  tcp::socket socket_;
  HandlerQueue queue_;
  // On the queue only.
  std::size_t wake_up_bytes_ = 1;
  // What a buffer of the size that the kernel has granted surely holds.
  std::size_t most_awaited_ = 1;
  int reads_in_a_row_ = 0;
  boost::mutex socket_mutex_;
  int descriptor_ VEX_GUARDED_BY(socket_mutex_) = kNoDescriptor;
  bool ended_ VEX_GUARDED_BY(socket_mutex_) = false;
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_SOCKET_H_

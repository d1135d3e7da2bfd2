// The exchange that blocks its caller.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "src/http_feed.h"
#include "src/outgoing_address.h"
#include "src/outgoing_limits.h"
#include "src/outgoingsession.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

error_code LastError() { return error_code(errno, boost::system::system_category()); }

// Waits for the end of a connection attempt; a shutdown by another thread ends it too.
bool AwaitConnection(int fd) {
  pollfd waiting = {fd, POLLOUT, 0};
  while (::poll(&waiting, 1, -1) < 0) {
    if (errno != EINTR) return false;
  }
  int error = 0;
  socklen_t size = sizeof(error);
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

error_code SendAll(int fd, const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t taken = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (taken < 0 && errno == EINTR) continue;
    if (taken < 0) return LastError();
    sent += static_cast<std::size_t>(taken);
  }
  return error_code();
}

// The bytes read, 0 at the end of the stream, negative for an error.
ssize_t ReadSome(int fd, char* data, std::size_t size) {
  ssize_t bytes = 0;
  do {
    bytes = ::recv(fd, data, size, 0);
  } while (bytes < 0 && errno == EINTR);
  return bytes;
}

}  // namespace

void OutgoingSession::OnSyncRequestTimeOut(int, void* session) {
  VEX_LOG(kLogMajor, kTag, "sync request timed out!");
  static_cast<OutgoingSession*>(session)->stop();
}

int OutgoingSession::SyncRequest(const std::string& ip, const int& port, const std::string& data,
                                 boost::shared_ptr<utils::HTTPInfo>& response) {
  int outcome = result::kConnectFailed;
  try {
    if (!IsPort(port)) {
      VEX_LOG(kLogMajor, kTag, "Invalid port number");
      return result::kConnectFailed;
    }
    bool connected = false;
    for (const tcp::endpoint& endpoint : EndpointsOfHost(*io_service_, ip, port)) {
      connected = __ConnectBlocking(endpoint);
      if (connected) break;
    }
    if (connected) {
      VEX_LOG(kLogStep, kTag, "asio connect success");
      outcome = SendAndRecv(data, response);
    } else {
      VEX_LOG(kLogMajor, kTag, "network layer connect failed.");
    }
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception: %s",
                        "Unknown exception caught!");
  }
  __CloseOwned();
  return outcome;
}

bool OutgoingSession::__ConnectBlocking(const tcp::endpoint& endpoint) {
  bool connected = false;
  const int fd = __StartBlockingConnect(endpoint, connected);
  if (fd < 0 || (!connected && !AwaitConnection(fd))) return false;
  return ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0 && !__IsStopped();
}

// The attempt is begun under the lock: a stop comes either before it, and is seen, or after it, and
// wakes whoever waits for its end. The descriptor, or -1.
int OutgoingSession::__StartBlockingConnect(const tcp::endpoint& endpoint, bool& connected) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (stopped_) return -1;
  if (blocking_fd_ >= 0) {
    VEX_LOG(kLogStep, kTag, "asio closing already opened socket.");
    ::close(blocking_fd_);
  }
  blocking_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (blocking_fd_ < 0) return -1;
  connected =
      ::connect(blocking_fd_, endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0;
  return connected || errno == EINPROGRESS ? blocking_fd_ : -1;
}

int OutgoingSession::SendAndRecv(const std::string& data,
                                 boost::shared_ptr<utils::HTTPInfo>& response) {
  int fd = -1;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    fd = blocking_fd_;
  }
  const error_code error = SendAll(fd, data);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Exception:%s", error.message().c_str());
    return result::kSocketFailed;
  }
  char buffer[limits::kReceiveBuffer + 1];
  while (true) {
    const ssize_t bytes = ReadSome(fd, buffer, limits::kReceiveBuffer);
    // A shutdown by the time-out reads like an end of the stream.
    if (bytes < 0 || (bytes == 0 && __IsStopped())) {
      VEX_LOG(kLogMajor, kTag, "Failed to read sync tcp response");
      return result::kSocketFailed;
    }
    if (bytes == 0) return result::kOk;
    buffer[bytes] = '\0';
    // KEPT: the parsing status stays as it is between two reads, so what stands behind a header
    // that was cut over two reads is not stored from the second of them.
    if ((response && utils::CannotEnd(*response)) ||
        utils::HTTPParser::Parse(buffer, static_cast<unsigned int>(bytes), response) !=
            result::kOk ||
        !AnswerFits(*response)) {
      VEX_LOG(kLogMajor, kTag, "HTTP Parsing failed");
      return result::kBadHttp;
    }
  }
}

bool OutgoingSession::__IsStopped() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return stopped_;
}

// Wakes the caller that is blocked on the descriptor. It closes the descriptor itself: otherwise
// the number could be another file's while the call still runs.
void OutgoingSession::__ShutDownForOwner() {
  const linger at_once = {1, 0};
  if (::setsockopt(blocking_fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)) != 0) {
    VEX_LOG(kLogMajor, kTag, "socket set_option failed for linger, [%s]!",
            LastError().message().c_str());
  }
  if (::shutdown(blocking_fd_, SHUT_RDWR) != 0) {
    VEX_LOG(kLogStep, kTag, "TCP Socket shutdown error, possibly shutdown already!");
  }
}

void OutgoingSession::__CloseOwned() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (blocking_fd_ >= 0) ::close(blocking_fd_);
  blocking_fd_ = -1;
}

}  // namespace network_layer
}  // namespace vex_upnp

#include "src/streaming_socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <boost/thread/lock_guard.hpp>

#include "base/socket_close.h"

namespace vex_upnp {
namespace streaming {

namespace {

// While a whole block is waited for, less is not worth a wake-up.
constexpr std::size_t kWakeUpBytes = std::size_t{256} * 1024;
// While bytes are at hand nobody waits for them: each wake-up would cost a change of threads.
constexpr std::size_t kWakeUpNever = 0x7fffffff;
// Blocks that one session may read before the others have their turn.
constexpr int kReadsInARow = 8;

}  // namespace

MediaOptionResult SetMediaSocketOptions(tcp::socket& socket) {
  MediaOptionResult result;
  socket.set_option(tcp::no_delay(true), result.no_delay);
  socket.set_option(boost::asio::socket_base::receive_buffer_size(kMediaSocketBuffer),
                    result.receive_buffer);
  socket.set_option(boost::asio::socket_base::send_buffer_size(kMediaSocketBuffer),
                    result.send_buffer);
  return result;
}

MediaOptionResult MediaSocket::SetOptions() {
  const MediaOptionResult result = SetMediaSocketOptions(socket_);
  boost::asio::socket_base::receive_buffer_size granted;
  error_code error;
  socket_.get_option(granted, error);
  // The kernel counts its own records too: much more than this may never fit into a small buffer.
  if (!error && granted.value() >= 4) {
    most_awaited_ = std::min(kWakeUpBytes, static_cast<std::size_t>(granted.value()) / 4);
  }
  return result;
}

bool IsPort(int port) { return port >= 0 && port <= 65535; }

bool ResolveEndpoints(const std::string& ip, int port, std::list<tcp::endpoint>& endpoints,
                      error_code& error) {
  const boost::asio::ip::address_v4 numeric = boost::asio::ip::make_address_v4(ip, error);
  if (!error) {
    endpoints.assign(1, tcp::endpoint(numeric, static_cast<unsigned short>(port)));
    return true;
  }
  io_service io;
  tcp::resolver resolver(io);
  const tcp::resolver::results_type found = resolver.resolve(
      tcp::v4(), ip, std::to_string(port), tcp::resolver::address_configured, error);
  if (error || found.empty()) return false;
  endpoints.clear();
  for (const auto& entry : found) endpoints.push_back(entry.endpoint());
  return true;
}

bool ResolveEndpoint(const std::string& ip, int port, tcp::endpoint& endpoint, error_code& error) {
  std::list<tcp::endpoint> endpoints;
  if (!ResolveEndpoints(ip, port, endpoints, error)) return false;
  endpoint = endpoints.front();
  return true;
}

MediaSocket::~MediaSocket() {
  error_code ignored;
  CloseNow(socket_, ignored);
}

bool MediaSocket::MarkOpen() {
  boost::lock_guard<boost::mutex> lock(socket_mutex_);
  if (ended_) return false;
  descriptor_ = socket_.native_handle();
  return true;
}

bool MediaSocket::Adopt(tcp::socket& accepted) {
  socket_ = std::move(accepted);
  return MarkOpen();
}

struct MediaSocket::Transfer {
  char* const block;
  const std::size_t size;
  const Done done;
  std::size_t moved = 0;
};

void MediaSocket::ReadSome(void* block, std::size_t size, const Done& done) {
  // One allocation now and none when the bytes are there: a completion has nobody to fail to.
  const boost::shared_ptr<Transfer> transfer(new Transfer{static_cast<char*>(block), size, done});
  socket_.async_read_some(boost::asio::buffer(block, size),
                          [this, transfer](const error_code& error, std::size_t bytes) {
                            queue_.Run([transfer, error, bytes] { transfer->done(error, bytes); });
                          });
}

void MediaSocket::ReadAll(void* block, std::size_t size, const Done& done) {
  const boost::shared_ptr<Transfer> transfer(new Transfer{static_cast<char*>(block), size, done});
  const auto read = [this, transfer] { __Read(transfer); };
  if (++reads_in_a_row_ < kReadsInARow) {
    queue_.Run(read);
    return;
  }
  reads_in_a_row_ = 0;
  boost::asio::post(socket_.get_executor(), [this, read] { queue_.Run(read); });
}

// Takes what is there without asking the event loop first: a fast peer is always ahead.
void MediaSocket::__Read(const boost::shared_ptr<Transfer>& transfer) {
  error_code error;
  if (!socket_.non_blocking()) socket_.non_blocking(true, error);
  __WakeFor(kWakeUpNever);
  while (!error && transfer->moved < transfer->size) {
    transfer->moved += socket_.read_some(
        boost::asio::buffer(transfer->block + transfer->moved, transfer->size - transfer->moved),
        error);
  }
  if (error != boost::asio::error::would_block && error != boost::asio::error::try_again) {
    transfer->done(error, transfer->moved);
    return;
  }
  reads_in_a_row_ = 0;
  __WakeFor(std::min(transfer->size - transfer->moved, most_awaited_));
  // `done` keeps this socket.
  socket_.async_wait(tcp::socket::wait_read, [this, transfer](const error_code& waited) {
    queue_.Run([this, transfer, waited] {
      if (waited) {
        transfer->done(waited, transfer->moved);
      } else {
        __Read(transfer);
      }
    });
  });
}

void MediaSocket::WriteAll(const void* block, std::size_t size, const Done& done) {
  // A write does not change the block.
  char* const bytes = const_cast<char*>(static_cast<const char*>(block));
  __Write(boost::shared_ptr<Transfer>(new Transfer{bytes, size, done}));
}

void MediaSocket::__Write(const boost::shared_ptr<Transfer>& transfer) {
  socket_.async_write_some(
      boost::asio::buffer(transfer->block + transfer->moved, transfer->size - transfer->moved),
      [this, transfer](const error_code& error, std::size_t bytes) {
        queue_.Run([this, transfer, error, bytes] {
          transfer->moved += bytes;
          if (error || transfer->moved == transfer->size) {
            transfer->done(error, transfer->moved);
          } else {
            __Write(transfer);
          }
        });
      });
}

void MediaSocket::__WakeFor(std::size_t bytes) {
  if (bytes == wake_up_bytes_) return;
  wake_up_bytes_ = bytes;
  // Where the kernel refuses, it wakes more often than it has to.
  error_code ignored;
  socket_.set_option(boost::asio::socket_base::receive_low_watermark(static_cast<int>(bytes)),
                     ignored);
}

bool MediaSocket::End(error_code& error) {
  boost::lock_guard<boost::mutex> lock(socket_mutex_);
  const bool first = !ended_;
  ended_ = true;
  if (descriptor_ != kNoDescriptor && ::shutdown(descriptor_, SHUT_RDWR) != 0) {
    error = error_code(errno, boost::system::system_category());
  }
  descriptor_ = kNoDescriptor;
  return first;
}

void MediaSocket::GiveUp(error_code& error) {
  {
    boost::lock_guard<boost::mutex> lock(socket_mutex_);
    descriptor_ = kNoDescriptor;
  }
  CloseNow(socket_, error);
}

void MediaSocket::Close(error_code& error) {
  {
    boost::lock_guard<boost::mutex> lock(socket_mutex_);
    ended_ = true;
    descriptor_ = kNoDescriptor;
  }
  CloseNow(socket_, error);
}

}  // namespace streaming
}  // namespace vex_upnp

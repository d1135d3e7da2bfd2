#include "src/streaming_socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include <boost/thread/lock_guard.hpp>

namespace vex_upnp {
namespace streaming {

MediaOptionResult SetMediaSocketOptions(tcp::socket& socket) {
  MediaOptionResult result;
  socket.set_option(tcp::no_delay(true), result.no_delay);
  socket.set_option(boost::asio::socket_base::receive_buffer_size(kMediaSocketBuffer),
                    result.receive_buffer);
  socket.set_option(boost::asio::socket_base::send_buffer_size(kMediaSocketBuffer),
                    result.send_buffer);
  return result;
}

bool IsPort(int port) { return port >= 0 && port <= 65535; }

bool ResolveEndpoint(const std::string& ip, int port, tcp::endpoint& endpoint, error_code& error) {
  const boost::asio::ip::address_v4 numeric = boost::asio::ip::make_address_v4(ip, error);
  if (!error) {
    endpoint = tcp::endpoint(numeric, static_cast<unsigned short>(port));
    return true;
  }
  io_service io;
  tcp::resolver resolver(io);
  const tcp::resolver::results_type found = resolver.resolve(
      tcp::v4(), ip, std::to_string(port), tcp::resolver::address_configured, error);
  if (error || found.empty()) return false;
  endpoint = found.begin()->endpoint();
  return true;
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
  enum class Kind { kReadSome, kReadAll, kWriteAll };
  const Kind kind;
  char* const block;
  const std::size_t size;
  const Done done;
  std::size_t moved = 0;
};

void MediaSocket::ReadSome(void* block, std::size_t size, const Done& done) {
  __Step(boost::shared_ptr<Transfer>(
      new Transfer{Transfer::Kind::kReadSome, static_cast<char*>(block), size, done}));
}

void MediaSocket::ReadAll(void* block, std::size_t size, const Done& done) {
  __Step(boost::shared_ptr<Transfer>(
      new Transfer{Transfer::Kind::kReadAll, static_cast<char*>(block), size, done}));
}

void MediaSocket::WriteAll(const void* block, std::size_t size, const Done& done) {
  // A write does not change the block.
  char* const bytes = const_cast<char*>(static_cast<const char*>(block));
  __Step(boost::shared_ptr<Transfer>(new Transfer{Transfer::Kind::kWriteAll, bytes, size, done}));
}

void MediaSocket::__Step(const boost::shared_ptr<Transfer>& transfer) {
  // `done` keeps this socket.
  auto next = [this, transfer](const error_code& error, std::size_t bytes) {
    queue_.Run([this, transfer, error, bytes] {
      transfer->moved += bytes;
      const bool whole = transfer->moved == transfer->size;
      if (error || whole || transfer->kind == Transfer::Kind::kReadSome) {
        transfer->done(error, transfer->moved);
      } else {
        __Step(transfer);
      }
    });
  };
  char* const rest = transfer->block + transfer->moved;
  const std::size_t left = transfer->size - transfer->moved;
  if (transfer->kind == Transfer::Kind::kWriteAll) {
    socket_.async_write_some(boost::asio::buffer(rest, left), std::move(next));
  } else {
    socket_.async_read_some(boost::asio::buffer(rest, left), std::move(next));
  }
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

void MediaSocket::Close(error_code& error) {
  {
    boost::lock_guard<boost::mutex> lock(socket_mutex_);
    ended_ = true;
    descriptor_ = kNoDescriptor;
  }
  if (socket_.is_open()) socket_.close(error);
}

}  // namespace streaming
}  // namespace vex_upnp

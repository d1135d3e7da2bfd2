#include "src/streaming_socket.h"

#include <sys/socket.h>

#include <cerrno>

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

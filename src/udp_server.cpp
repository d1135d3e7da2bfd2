#include "src/udp_server.h"

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/port_search.h"
#include "base/socket_close.h"
#include "src/callbackhandler.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

constexpr int kHighestPort = 65535;

}  // namespace

int UDPServer::Start(int& port) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  CloseEarlierOpen();
  error_code error;
  const boost::asio::ip::address address = boost::asio::ip::make_address(ip_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Invalid local ip");
    return result::kBindFailed;
  }
  const int tries = TryPorts(port, [&](int candidate) VEX_NO_THREAD_SAFETY_ANALYSIS {
    return OpenAndBind(address, candidate);
  });
  if (tries == 0) {
    VEX_LOG(kLogMajor, kTag, "Start Failed!");
    return result::kBindFailed;
  }
  const udp::endpoint bound = socket_.local_endpoint(error);
  if (!error) port = bound.port();
  bound_port_ = port;
  socket_.set_option(udp::socket::reuse_address(true), error);
  VEX_LOG(kLogStep, kTag, "UDPServer Started:%s:%d", ip_.c_str(), port);
  BeginToRead();
  return result::kOk;
}

bool UDPServer::OpenAndBind(const boost::asio::ip::address& address, int port) {
  error_code error = boost::asio::error::invalid_argument;
  if (port >= 0 && port <= kHighestPort) {
    const udp::endpoint local(address, static_cast<unsigned short>(port));
    socket_.open(local.protocol(), error);
    if (!error) socket_.set_option(udp::socket::reuse_address(true), error);
    if (!error) socket_.bind(local, error);
  }
  if (!error) return true;
  VEX_LOG(kLogMajor, kTag, "UDPServer::Start:UDP Socket open error");
  CloseNow(socket_, error);
  return false;
}

int UDPServer::Stop() {
  VEX_LOG(kLogMajor, kTag, "Stop Called [Scope locked in Stop]");
  boost::lock_guard<boost::mutex> lock(mutex_);
  closed_ = true;
  if (read_pending_) {
    error_code error;
    socket_.cancel(error);
    if (error) VEX_LOG(kLogMajor, kTag, "cancel!, error [%s]", error.message().c_str());
  } else {
    VEX_LOG(kLogStep, kTag, "close udp server");
    ShutDownSocket();
    Close();
  }
  return result::kOk;
}

void UDPServer::Close() {
  error_code error;
  CloseNow(socket_, error);
  if (error) VEX_LOG(kLogMajor, kTag, "Failed to close  udp socket!");
}

int UDPServer::bound_port() const {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return bound_port_;
}

bool UDPServer::SendTo(const udp::endpoint& to, const std::string& data, error_code& error) {
  error.clear();
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (closed_) return false;
  socket_.send_to(boost::asio::buffer(data), to, 0, error);
  return !error;
}

void UDPServer::HandOver(boost::shared_ptr<utils::HTTPInfo>& message) {
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (!handler || handler->InvokeUDPRequestHandler(message, feed_.message_bytes()) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Invoke UDP Request Handler failed.");
  }
}

void UDPServer::LogClosed() const {
  VEX_LOG(kLogMajor, kTag, "UDP Socket already Closed , Async Read Failed");
}

void UDPServer::LogCanceled(const std::string& error) const {
  VEX_LOG(kLogMajor, kTag, "[UDPServer::read_handler] Canceled [%s]", error.c_str());
}

void UDPServer::LogError(const std::string& error) const {
  VEX_LOG(kLogMajor, kTag, "[UDPServer::read_handler] Error [%s]", error.c_str());
}

void UDPServer::LogParserFailure(int status, const char* text) const {
  VEX_LOG(kLogMajor, kTag, "PARSER FAILURE Status:%d and Buffer :%s", status, text);
}

void UDPServer::LogException() const {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in read_handler %s",
                      "Unknown Exception in read_handler");
}

}  // namespace network_layer
}  // namespace vex_upnp

#include "src/multicast_server.h"

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"
#include "base/socket_close.h"
#include "src/callbackhandler.h"

namespace vex_upnp {
namespace network_layer {
namespace {

namespace ip = boost::asio::ip;

constexpr const char* kTag = log::kTagNetwork;

constexpr int kHighestPort = 65535;

}  // namespace

MulticastServer::MulticastServer(const std::string& ip, const std::string& interface_name,
                                 const std::string& multicast_ip, int port, io_service& io)
    : DatagramServer(ip, interface_name, port, io), multicast_ip_(multicast_ip) {}

// KEPT: a failed start leaves the socket as far as it came, bound even, until the object ends or is
// started again.
int MulticastServer::Start(int& port) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  CloseEarlierOpen();
  const int open_result = OpenAndBind(port);
  if (open_result != result::kOk) return open_result;

  ip::address_v4 group;
  ip::address_v4 local;
  if (!ParseAddresses(group, local)) return result::kBindFailed;
  VEX_LOG(kLogDetail, kTag, "listen_address [%s]", ip_.c_str());
  error_code error;
  socket_.set_option(ip::multicast::join_group(group, local), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "MulticastServer::Start:UDP Socket joingroup set_option error, [%s]",
            error.message().c_str());
    return result::kSocketOptionFailed;
  }
  BeginToRead();
  VEX_LOG(kLogStep, kTag, "New MulticastServer::Start() : %s:%d Started", ip_.c_str(), port);
  return result::kOk;
}

int MulticastServer::OpenAndBind(int port) {
  error_code error;
  socket_.open(udp::v4(), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "MulticastServer::Start:UDP Socket Open error, [%s]",
            error.message().c_str());
    return result::kSocketFailed;
  }
  socket_.set_option(udp::socket::reuse_address(true), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag,
            "MulticastServer::Start:UDP Socket reuse_address set_option error, [%s]",
            error.message().c_str());
    return result::kSocketOptionFailed;
  }
  error = boost::asio::error::invalid_argument;
  if (port >= 0 && port <= kHighestPort) {
    socket_.bind(udp::endpoint(udp::v4(), static_cast<unsigned short>(port)), error);
  }
  if (error) {
    VEX_LOG(kLogMajor, kTag, "MulticastServer::Start:UDP Socket bind error, [%s]",
            error.message().c_str());
    return result::kBindFailed;
  }
  return result::kOk;
}

bool MulticastServer::ParseAddresses(ip::address_v4& group, ip::address_v4& local) const {
  error_code error;
  group = ip::make_address_v4(multicast_ip_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Invalid multicast ip, error [%s]", error.message().c_str());
    return false;
  }
  local = ip::make_address_v4(ip_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Invalid local ip, error [%s]", error.message().c_str());
    return false;
  }
  return true;
}

int MulticastServer::Stop() {
  VEX_LOG(kLogMajor, kTag, "Stop Called [Scoped Locked in Stop]");
  boost::lock_guard<boost::mutex> lock(mutex_);
  closed_ = true;
  LeaveGroup();
  VEX_LOG(kLogStep, kTag, "close multicast server");
  if (read_pending_) {
    error_code error;
    socket_.cancel(error);
    if (error) VEX_LOG(kLogMajor, kTag, "cancel!, error [%s]", error.message().c_str());
  } else {
    Close();
  }
  return result::kOk;
}

void MulticastServer::LeaveGroup() {
  ip::address_v4 group;
  ip::address_v4 local;
  if (!ParseAddresses(group, local)) return;
  VEX_LOG(kLogStep, kTag, "Leaving multicast group at interface [%s]", ip_.c_str());
  error_code error;
  socket_.set_option(ip::multicast::leave_group(group, local), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "MulticastServer::Stop failure in leaving multicast group, error [%s]",
            error.message().c_str());
  }
}

void MulticastServer::Reset() {
  VEX_LOG(kLogStep, kTag, "Reset multicast server");
  DatagramServer::Reset();
}

void MulticastServer::Close() {
  error_code error;
  CloseNow(socket_, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Failed to close multicast socket!, error [%s]",
            error.message().c_str());
  }
}

// What this host itself has sent from the server's own address is dropped.
//
// KEPT: another interface's server, whose address differs, hands it on.
void MulticastServer::HandOver(boost::shared_ptr<utils::HTTPInfo>& message) {
  std::string my_ip;
  std::string sender_ip;
  message->GetMyIpAddress(my_ip);
  message->GetClientIpAddress(sender_ip);
  if (sender_ip == my_ip) return;
  VEX_LOG(kLogStep, kTag, "Multicast Server Received Packet %s", feed_.text());
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (!handler || handler->InvokeUDPRequestHandler(message, feed_.message_bytes()) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Invocation of UDP Request Handler Failed.");
  }
}

void MulticastServer::LogClosed() const { VEX_LOG(kLogMajor, kTag, "stopped"); }

void MulticastServer::LogCanceled(const std::string& error) const {
  VEX_LOG(kLogMajor, kTag, "[Multicast Server::receive_handler] Canceled [%s]", error.c_str());
}

void MulticastServer::LogError(const std::string& error) const {
  VEX_LOG(kLogMajor, kTag, "[Multicast Server::receive_handler] Error [%s]", error.c_str());
}

void MulticastServer::LogParserFailure(int status, const char* text) const {
  VEX_LOG(kLogMajor, kTag, "PARSER FAILURE Status %d and Buffer: %s", status, text);
}

void MulticastServer::LogException() const {
  LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in receive_handler %s",
                      "Unknown Exception in receive_handler");
}

}  // namespace network_layer
}  // namespace vex_upnp

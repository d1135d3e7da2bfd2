#include "src/datagram_server.h"

#include <boost/thread/lock_guard.hpp>

#include "base/limits.h"
#include "base/log.h"
#include "base/retry.h"
#include "base/socket_close.h"
#include "src/callbackhandler.h"

namespace vex_upnp {
namespace network_layer {

namespace {

void LetDatagramsBeHandled() {
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (handler) handler->LetDatagramsBeHandled();
}

}  // namespace

DatagramServer::DatagramServer(const std::string& ip, const std::string& interface_name, int port,
                               io_service& io)
    : ip_(ip), interface_name_(interface_name), port_(port), socket_(io) {}

int DatagramServer::Start() {
  int port = port_;
  return Start(port);
}

void DatagramServer::Reset() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  CloseEarlierOpen();
}

void DatagramServer::CloseEarlierOpen() {
  ++generation_;
  closed_ = true;
  read_pending_ = false;
  feed_.Drop();
  error_code ignored;
  CloseNow(socket_, ignored);
}

void DatagramServer::BeginToRead() {
  error_code ignored;
  socket_.non_blocking(true, ignored);
  AskForReceiveBuffer(socket_);
  closed_ = false;
  async_receive();
}

// Waits until something has come; it is read then without waiting, as much as there is.
void DatagramServer::async_receive() {
  if (closed_) {
    LogClosed();
    return;
  }
  const boost::shared_ptr<DatagramServer> self = shared_from_this();
  const unsigned int generation = generation_;
  socket_.async_wait(udp::socket::wait_read, [self, generation](const error_code& error) {
    self->read_handler(error, generation);
  });
  read_pending_ = true;
}

void DatagramServer::read_handler(const error_code& error, unsigned int generation) {
  const LogSite site = VEX_LOG_SITE;
  LetDatagramsBeHandled();
  RetryWithoutMemory([&] {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (generation != generation_) return;
    read_pending_ = false;
    if (closed_) {
      VEX_LOG_AT(site, kLogMajor, log::kTagNetwork, "stop state");
      ShutDownSocket();
      Close();
      return;
    }
    if (error == boost::asio::error::operation_aborted) {
      LogCanceled(error.message());
      return;
    }
    if (error) LogError(error.message());
    for (int i = 0; i < limits::kDatagramsPerWakeUp && ReadDatagram(); ++i) {
    }
    async_receive();
  });
}

void DatagramServer::ShutDownSocket() {
  error_code error;
  socket_.shutdown(udp::socket::shutdown_both, error);
  if (!error) return;
  VEX_LOG(kLogMajor, log::kTagNetwork,
          "TCP Socket shutdown error, possibly shutdown already!, error [%s]",
          error.message().c_str());
}

bool DatagramServer::ReadDatagram() {
  error_code error;
  const std::size_t bytes = feed_.Receive(socket_, error);
  if (error == boost::asio::error::would_block) return false;
  if (error || bytes == 0) {
    LogError(error.message());
    return !error;
  }
  try {
    Parse(bytes);
  } catch (...) {
    LogException();
    feed_.Drop();
  }
  return true;
}

void DatagramServer::Parse(std::size_t bytes) {
  switch (feed_.Parse(bytes)) {
    case DatagramFeed::Result::kIncomplete:
      return;
    case DatagramFeed::Result::kFailed:
      LogParserFailure(feed_.status(), feed_.text());
      feed_.Drop();
      return;
    case DatagramFeed::Result::kComplete:
      boost::shared_ptr<utils::HTTPInfo> message = feed_.Complete(ip_);
      HandOver(message);
      return;
  }
}

}  // namespace network_layer
}  // namespace vex_upnp

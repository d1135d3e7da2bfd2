#include "src/tcp_server.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/accept.h"
#include "base/current_exception.h"
#include "base/descriptors.h"
#include "base/log.h"
#include "base/port_search.h"
#include "base/retry.h"
#include "base/socket_close.h"
#include "base/timing.h"
#include "src/incoming_tcp_session.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

constexpr int kBacklog = 128;
constexpr int kHighestPort = 65535;

}  // namespace

TCPServer::TCPServer(const std::string& ip, const std::string& interface_name, io_service& io,
                     const boost::shared_ptr<ReadingSessions>& reading)
    : ip_(ip),
      interface_name_(interface_name),
      reading_(reading ? reading : boost::shared_ptr<ReadingSessions>(new ReadingSessions)),
      acceptor_(io),
      pause_(io) {}

TCPServer::~TCPServer() {
  VEX_LOG(kLogMajor, kTag, "TCPServer destructor is called");
  try {
    EndSessions();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "exception: %s", "unknown exception");
  }
}

int TCPServer::Start(int& port) {
  EndSessions();
  boost::lock_guard<boost::mutex> lock(mutex_);
  ++generation_;
  if (acceptor_.is_open()) CloseAcceptor();
  if (port < 0 || port > kHighestPort) {
    VEX_LOG(kLogMajor, kTag, "port is invalid!");
    return result::kTcpStartFailed;
  }
  const int tries = TryPorts(
      port, [this](int candidate) VEX_NO_THREAD_SAFETY_ANALYSIS { return OpenAndBind(candidate); });
  // KEPT: a bind that works on the hundredth try counts as used up, so the ports that a server may
  // climb to end one lower.
  if (tries == 0 || tries == kPortTries) {
    if (acceptor_.is_open()) CloseAcceptor();
    VEX_LOG(kLogMajor, kTag, "Accept Failed!!!");
    return result::kTcpStartFailed;
  }
  error_code error;
  const tcp::endpoint bound = acceptor_.local_endpoint(error);
  if (!error) port = bound.port();
  port_ = port;
  acceptor_.listen(kBacklog, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Socket listen Failed!!!");
    CloseAcceptor();
    return result::kTcpStartFailed;
  }
  PrepareToAccept(acceptor_, error);
  stopped_ = false;
  AsyncAccept();
  VEX_LOG(kLogDetail, kTag, "TCPServer Started: %s:%d", ip_.c_str(), port);
  return result::kOk;
}

bool TCPServer::Resolve(int port, tcp::endpoint& endpoint) {
  error_code error = boost::asio::error::invalid_argument;
  if (port <= kHighestPort) {
    // Numeric only: no name server is asked for a local address.
    tcp::resolver resolver(acceptor_.get_executor());
    const tcp::resolver::results_type found =
        resolver.resolve(ip_, std::to_string(port),
                         tcp::resolver::numeric_host | tcp::resolver::numeric_service, error);
    if (!error) endpoint = found.begin()->endpoint();
  }
  if (!error) return true;
  VEX_LOG(kLogMajor, kTag, "Accept Error : %s!", error.message().c_str());
  VEX_LOG(kLogDetail, kTag, "IP : %s and Port: %d", ip_.c_str(), port);
  return false;
}

bool TCPServer::OpenAndBind(int port) {
  tcp::endpoint endpoint;
  if (!Resolve(port, endpoint)) return false;
  error_code error;
  acceptor_.open(endpoint.protocol(), error);
  if (!error) acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Accept Error : %s!", error.message().c_str());
    VEX_LOG(kLogDetail, kTag, "Accept Error : %s IP : %s and Port: %d", error.message().c_str(),
            ip_.c_str(), port);
    CloseNow(acceptor_, error);
    return false;
  }
  acceptor_.bind(endpoint, error);
  if (error) {
    VEX_LOG(kLogMajor, kTag, "Bind Error : %s!", error.message().c_str());
    VEX_LOG(kLogDetail, kTag, "Bind Error : %s IP : %s and Port: %d", error.message().c_str(),
            ip_.c_str(), port);
    CloseNow(acceptor_, error);
    return false;
  }
  return true;
}

void TCPServer::CloseAcceptor() {
  error_code error;
  acceptor_.cancel(error);
  error.clear();
  CloseNow(acceptor_, error);
  if (error) VEX_LOG(kLogMajor, kTag, "Error in closing TCP acceptor!");
}

// Waits for a connection before it is accepted: without a free descriptor an accept fails even when
// nobody is there to be let in.
void TCPServer::AsyncAccept() {
  const boost::shared_ptr<TCPServer> self = shared_from_this();
  const unsigned int generation = generation_;
  const LogSite site = VEX_LOG_SITE;
  acceptor_.async_wait(tcp::acceptor::wait_read, [self, generation, site](const error_code& error) {
    try {
      self->handle_accept(error, generation);
    } catch (...) {
      LogCurrentException(site, kLogMajor, kTag, "Exception in handle_accept: %s",
                          "Unknown Exception in handle_accept");
      self->KeepAccepting(generation);
    }
  });
}

// There was no memory for the next accept; without one the server would be deaf for good.
void TCPServer::KeepAccepting(unsigned int generation) {
  RetryWithoutMemory([&] {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (generation == generation_ && !stopped_) AcceptAfterPause();
  });
}

void TCPServer::AcceptAfterPause() {
  const boost::shared_ptr<TCPServer> self = shared_from_this();
  const unsigned int generation = generation_;
  pause_.expires_after(std::chrono::milliseconds(timing::Scaled(timing::kAcceptPauseMs)));
  const LogSite site = VEX_LOG_SITE;
  pause_.async_wait([self, generation, site](const error_code&) {
    RetryWithoutMemory([&] {
      boost::lock_guard<boost::mutex> lock(self->mutex_);
      if (self->generation_ != generation) return;
      if (self->stopped_) {
        VEX_LOG_AT(site, kLogMajor, kTag, "Already stop() get the scoped_lock");
        return;
      }
      self->AsyncAccept();
    });
  });
}

void TCPServer::handle_accept(error_code error, unsigned int generation) {
  std::optional<tcp::socket> socket;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (stopped_) {
      VEX_LOG(kLogDetail, kTag, "stop state");
      if (acceptor_.is_open()) CloseAcceptor();
      return;
    }
    if (generation != generation_) return;
    if (error == boost::asio::error::operation_aborted) {
      VEX_LOG(kLogMajor, kTag, "[TCPServer::handle_accept] Acceptor closed [%s]",
              error.message().c_str());
      return;
    }
    socket.emplace(acceptor_.get_executor());
    if (!error && !AcceptNow(acceptor_, *socket, error)) {
      AsyncAccept();
      return;
    }
  }
  if (error) {
    VEX_LOG(kLogMajor, kTag, "[TCPServer::handle_accept] Accept Error [%s]",
            error.message().c_str());
    // Most likely no descriptor is left; trying again at once would spin.
    reading_->CloseMostSilent();
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (generation == generation_ && !stopped_) AcceptAfterPause();
    return;
  }
  if (DescriptorsScarce(socket->native_handle())) reading_->CloseMostSilent();
  const SessionPointer session = AddSession(std::move(*socket), generation);
  if (session) session->RegisterRead();
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (generation == generation_ && !stopped_) AsyncAccept();
}

TCPServer::SessionPointer TCPServer::AddSession(tcp::socket socket, unsigned int generation) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  if (generation != generation_ || stopped_) return SessionPointer();
  const int id = static_cast<int>(next_session_id_++);
  SessionPointer session(
      new IncomingTCPSession(std::move(socket), shared_from_this(), id, reading_));
  sessions_.emplace(id, session);
  return session;
}

void TCPServer::SessionCompleted(const int& id) {
  SessionPointer completed;
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto session = sessions_.find(id);
  if (session == sessions_.end()) return;
  completed.swap(session->second);
  sessions_.erase(session);
}

void TCPServer::HandleFailureCondition(const int&) {
  VEX_LOG(kLogMajor, kTag, "Error TCPServer::HandleFailureCondition called ");
}

int TCPServer::Stop() {
  VEX_LOG(kLogMajor, kTag, "close TCP Server");
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    stopped_ = true;
    CloseAcceptor();
    pause_.cancel();
  }
  EndSessions();
  return result::kOk;
}

void TCPServer::Reset() {
  VEX_LOG(kLogMajor, kTag, "[TCPServer::Reset] ref reset");
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    stopped_ = true;
    if (acceptor_.is_open()) CloseAcceptor();
    pause_.cancel();
  }
  EndSessions();
}

void TCPServer::EndSessions() {
  Sessions ended;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    ended.swap(sessions_);
  }
  for (const Sessions::value_type& session : ended) session.second->ShutDown(true);
}

}  // namespace network_layer
}  // namespace vex_upnp

#include "src/clientmanager.h"

#include <sys/resource.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <limits>

#include <boost/chrono/duration.hpp>
#include <boost/chrono/system_clocks.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>

#include "base/current_exception.h"
#include "base/io_threads.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/singleton.h"
#include "base/timing.h"
#include "src/callbackhandler.h"
#include "src/listener_hooks.h"
#include "src/networkinterface.h"
#include "src/outgoing_datagram.h"
#include "src/outgoingsession.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;
constexpr int kSsdpPort = 1900;
constexpr char kEveryInterface[] = "0.0.0.0";
// Sessions at a time from which the log tells their number.
constexpr std::size_t kManySessions = 300;

std::uint32_t SessionLimit() {
  rlimit descriptors;
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 0;
  const double share = static_cast<double>(descriptors.rlim_cur) * limits::kSessionShare;
  constexpr double kMost = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::uint32_t>(std::min(share, kMost));
}

}  // namespace

boost::shared_ptr<ClientManager>& ClientManager::instance_ = *new boost::shared_ptr<ClientManager>;
boost::mutex& ClientManager::singleton_mutex_ = *new boost::mutex;

boost::shared_ptr<ClientManager> ClientManager::GetInstance() {
  return GetOrCreateShared(instance_, singleton_mutex_, [] { return new ClientManager; });
}

boost::shared_ptr<ClientManager> ClientManager::ExistingInstance() {
  return ExistingShared(instance_, singleton_mutex_);
}

void ClientManager::DestroyInstance() {
  try {
    DestroyShared(instance_, singleton_mutex_);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag,
                        "ClientManager::DestroyInstance:Exception: %s",
                        "ClientManager::DestroyInstance:Exception: unknown");
  }
}

ClientManager::ClientManager() : timeouts_(loops_.First()) {}

ClientManager::~ClientManager() { StopClientThreads(); }

void ClientManager::StartClientThreads(const int& count) {
  session_limit_ = SessionLimit();
  session_delete_count_ = session_limit_ / limits::kDroppedSessionsPart;
  VEX_LOG(kLogStep, kTag, "ClientManager::StartClientThreads[%d][%d]",
          static_cast<int>(session_limit_), static_cast<int>(session_delete_count_));
  try {
    std::string prefix;
    ThreadNamePrefix(prefix);
    loops_.Start(count, prefix, "VexCliIo");
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "thread_resource_error exception:[%s]",
                        "Unknown Exception in StartClientThreads");
  }
}

void ClientManager::StopClientThreads() {
  loops_.Stop();
  // Taken, not copied: the end needs no memory.
  const Sessions sessions = __TakeAll();
  __StopAll(sessions);
  loops_.Join();
  // Those that calls on other threads have begun meanwhile. No handler of theirs will ever run.
  const Sessions late = __TakeAll();
  __StopAll(late);
  for (const Sessions* stopped : {&sessions, &late}) {
    for (const auto& entry : *stopped) entry.second->reset();
  }
}

void ClientManager::__StopAll(const Sessions& sessions) {
  // Before the sessions are stopped: a handler that is running must find nobody to tell.
  for (const auto& entry : sessions) __UnRegisterListener(entry.first);
  for (const auto& entry : sessions) entry.second->stop();
}

int ClientManager::ConfigureMulticastSupport(bool enable) {
  multicast_enabled_ = enable;
  return result::kOk;
}

int ClientManager::SendUnicastPacket(const std::string& ip, const int& port,
                                     const std::string& data) {
  OutgoingSession session(loops_.First(), nullptr, utils::PROTOCOL_UDP);
  const int sent = session.Connect(kAnyLocalAddress, ip, port, data);
  if (sent != result::kOk) VEX_LOG(kLogMajor, kTag, "UDP Unicasting failed!");
  return sent;
}

int ClientManager::SendMulticastPacket(const std::string& ip, const std::string& interface_ip,
                                       const std::string& data) {
  if (!multicast_enabled_) {
    VEX_LOG(kLogMajor, kTag, "Multicasting is disabled by application");
    return result::kFailure;
  }
  if (interface_ip != kEveryInterface) {
    const int sent = __SendMulticastFrom(interface_ip, ip, data);
    VEX_LOG(kLogStep, kTag, "sent mulicast packet to %s, interface addr %s", ip.c_str(),
            interface_ip.c_str());
    return sent;
  }
  const boost::shared_ptr<NetworkInterface> registry = NetworkInterface::ExistingInstance();
  if (!registry) {
    VEX_LOG(kLogMajor, kTag, "getInstance failed");
    return result::kFailure;
  }
  std::vector<NetInfo> active;
  registry->GetActiveSelectedNetworkInterfaces(active);
  if (active.empty()) {
    VEX_LOG(kLogMajor, kTag, "no interface found");
    return result::kNoNetworkInterface;
  }
  // KEPT: an interface on which it fails is passed over, and only the last one's result counts.
  int sent = result::kOk;
  for (const NetInfo& interface : active) {
    sent = __SendMulticastFrom(interface.ip_address, ip, data);
  }
  return sent;
}

int ClientManager::__SendMulticastFrom(const std::string& interface_ip, const std::string& ip,
                                       const std::string& data) {
  OutgoingSession session(loops_.First(), nullptr, utils::PROTOCOL_UDP);
  const int sent = session.Connect(interface_ip, ip, kSsdpPort, data);
  if (sent != result::kOk) VEX_LOG(kLogMajor, kTag, "Multicasting failed!");
  return sent;
}

int ClientManager::SendTCPPacket(const std::string& ip, const int& port, const std::string& data,
                                 const boost::shared_ptr<ResponseListener>& listener,
                                 int& session_id) {
  // Told before the exchange starts: its answer may come before this call returns.
  const int id = session_id = __NextSessionId();
  VEX_LOG(kLogStep, kTag, "session_id : %d", id);
  const SessionPointer session = __MakeSession();
  if (!session) return result::kNoSession;
  session->set_handler_id(id);
  __DropOldestAboveLimit();
  __AddSession(id, session);
  try {
    return __BeginExchange(*session, ip, port, data, listener);
  } catch (...) {
    __UnRegisterListener(id);
    __TakeSession(id);
    throw;
  }
}

int ClientManager::__BeginExchange(OutgoingSession& session, const std::string& ip, int port,
                                   const std::string& data,
                                   const boost::shared_ptr<ResponseListener>& listener) {
  const int id = session.get_handler_id();
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (!handler || handler->RegisterResponseListener(id, listener) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "Registration failed for packet\n%s", data.c_str());
    __TakeSession(id);
    return result::kFailure;
  }
  const int begun = session.Connect(kAnyLocalAddress, ip, port, data);
  if (begun != result::kOk) {
    __UnRegisterListener(id);
    __TakeSession(id);
    VEX_LOG(kLogMajor, kTag, "TCP Unicasting failed!");
  }
  return begun;
}

int ClientManager::SendSyncTCPPacket(const std::string& ip, const int& port,
                                     const std::string& data,
                                     boost::shared_ptr<utils::HTTPInfo>& response, int timeout) {
  const SessionPointer session = __MakeSession();
  if (!session) return result::kNoSession;
  const int id = __NextSessionId();
  session->set_handler_id(id);
  const int timer = utils::Timer::Start(timing::Scaled(timeout),
                                        &OutgoingSession::OnSyncRequestTimeOut, session.get());
  __AddSession(id, session);
  const int outcome = session->SyncRequest(ip, port, data, response);
  // Waits for a time-out that is running, so that the session is there until it has ended.
  utils::Timer::Cancel(timer, nullptr);
  __TakeSession(id);
  return outcome;
}

int ClientManager::CancelTcpPacket(const int& session_id) {
  if (session_id < 1) return result::kFailure;
  // First, so that what the stop makes of the exchange reaches nobody.
  __UnRegisterListener(session_id);
  const SessionPointer session = __FindSession(session_id);
  if (!session) return result::kFailure;
  // It stays listed until its handler has told of its end.
  session->stop();
  return result::kOk;
}

bool ClientManager::HasAnswerBegun(const int& session_id) {
  const SessionPointer session = __FindSession(session_id);
  return session && session->HasAnswerBegun();
}

void ClientManager::SessionCompleted(const int& id) {
  const SessionPointer session = __TakeSession(id);
  if (session) session->stop();
}

void ClientManager::HandleFailureCondition(const int& id) {
  VEX_LOG(kLogMajor, kTag, "Error Calling HandleFailureCondition");
  // Requesters have time-outs of their own and are not told of the failure by this road.
  __UnRegisterListener(id);
  SessionCompleted(id);
}

int ClientManager::IsReachable(
    std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses, int timeout,
    boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition, bool& stop) {
  std::vector<SessionPointer> probes;
  const bool all_started = __StartProbes(addresses, probes);
  bool stopped = false;
  if (all_started) {
    VEX_LOG(kLogStep, kTag, "Sleeping for %d sec", timeout);
    stopped = !__AwaitProbes(timeout, lock, condition, stop);
  }
  auto probe = probes.begin();
  for (auto& address : addresses) {
    if (!all_started || stopped) break;
    address.second->valid = (*probe++)->IsRemoteAddressValid();
  }
  for (const SessionPointer& session : probes) {
    session->stop();
    session->reset();
  }
  if (!all_started) return result::kNoSession;
  return stopped ? result::kFailure : result::kOk;
}

bool ClientManager::__StartProbes(
    const std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
    std::vector<SessionPointer>& probes) {
  for (const auto& address : addresses) {
    const SessionPointer session = __MakeSession();
    if (!session) {
      VEX_LOG(kLogMajor, kTag, "memory allocation failed.");
      return false;
    }
    const valid_address_info& info = *address.second;
    VEX_LOG(kLogStep, kTag, "Initiating connection to udn:%s %s:%d", address.first.c_str(),
            info.ip.c_str(), info.port);
    session->InitiateConnection(info.ip, info.port);
    probes.push_back(session);
  }
  return true;
}

// Waits for the whole time, whatever the answers. False when the wait was stopped.
bool ClientManager::__AwaitProbes(int timeout, boost::unique_lock<boost::mutex>& lock,
                                  boost::condition_variable& condition, const bool& stop) {
  // Ended by `stop` alone: an interruption of the caller's thread would leave the probes behind.
  const boost::this_thread::disable_interruption no_interruption;
  const int most_seconds = INT_MAX / 1000;
  const boost::chrono::milliseconds wait(timing::Scaled(std::min(timeout, most_seconds) * 1000));
  const auto deadline = boost::chrono::steady_clock::now() + wait;
  while (!stop) {
    if (condition.wait_until(lock, deadline) == boost::cv_status::timeout) break;
    // cppcheck-suppress identicalInnerCondition; another thread sets it during the wait.
    if (!stop) {
      VEX_LOG(kLogStep, kTag, "Spurious wake up by system. sleep till timeout time");
    }
  }
  if (stop) VEX_LOG(kLogStep, kTag, "Stop requested for IsReachable check");
  return !stop;
}

ClientManager::SessionPointer ClientManager::__MakeSession() {
  try {
    return boost::make_shared<OutgoingSession>(loops_.Next(), this, utils::PROTOCOL_TCP,
                                               &timeouts_);
  } catch (const std::bad_alloc&) {
    VEX_LOG(kLogMajor, kTag, "malloc failed!");
    return SessionPointer();
  }
}

int ClientManager::__NextSessionId() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  do {
    // Ids are positive, also after the last of them.
    session_counter_ = session_counter_ == INT_MAX ? 1 : session_counter_ + 1;
  } while (sessions_.count(session_counter_) != 0);
  return session_counter_;
}

void ClientManager::__AddSession(const int& id, const SessionPointer& session) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  sessions_.emplace(id, session);
}

ClientManager::SessionPointer ClientManager::__FindSession(const int& id) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto found = sessions_.find(id);
  return found == sessions_.end() ? SessionPointer() : found->second;
}

// Takes it off the list; it dies with its last reference, not under the lock.
ClientManager::SessionPointer ClientManager::__TakeSession(const int& id) {
  SessionPointer taken;
  boost::lock_guard<boost::mutex> lock(mutex_);
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return taken;
  taken.swap(found->second);
  sessions_.erase(found);
  return taken;
}

ClientManager::Sessions ClientManager::__TakeAll() {
  Sessions all;
  boost::lock_guard<boost::mutex> lock(mutex_);
  all.swap(sessions_);
  return all;
}

// The requesters of the dropped ones hear nothing: their answers simply never come. One that has
// come already, and is only waiting for a thread, is told.
void ClientManager::__DropOldestAboveLimit() {
  const std::vector<SessionPointer> dropped = __TakeOldestAboveLimit();
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  for (const SessionPointer& session : dropped) {
    if (handler) handler->UnRegisterUnanswered(session->get_handler_id());
    session->stop();
    session->reset();
  }
}

std::vector<ClientManager::SessionPointer> ClientManager::__TakeOldestAboveLimit() {
  std::vector<SessionPointer> oldest;
  const std::uint32_t limit = session_limit_;
  const std::uint32_t wanted = session_delete_count_;
  boost::lock_guard<boost::mutex> lock(mutex_);
  const std::size_t count = sessions_.size();
  if (count > kManySessions) {
    VEX_LOG(kLogStep, kTag, "current : %d / limit : %d", static_cast<int>(count),
            static_cast<int>(limit));
  }
  if (limit == 0 || count <= limit) return oldest;
  VEX_LOG(kLogMajor, kTag, "too many outgoing session, delete : %d / current : %d / limit : %d",
          static_cast<int>(wanted), static_cast<int>(count), static_cast<int>(limit));
  oldest.reserve(std::min<std::size_t>(wanted, count));
  while (oldest.size() < wanted && !sessions_.empty()) {
    oldest.push_back(sessions_.begin()->second);
    sessions_.erase(sessions_.begin());
  }
  return oldest;
}

void ClientManager::__UnRegisterListener(const int& id) {
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::ExistingInstance();
  if (handler) handler->UnRegisterResponseListener(id);
}

bool HasAnswerBegun(const int& session_id) {
  const boost::shared_ptr<ClientManager> manager = ClientManager::ExistingInstance();
  return manager && manager->HasAnswerBegun(session_id);
}

}  // namespace network_layer
}  // namespace vex_upnp

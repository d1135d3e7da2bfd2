#include "src/callbackhandler.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/retry.h"
#include "base/singleton.h"
#include "src/incoming_tcp_session.h"
#include "src/listener_hooks.h"
#include "src/servermanager.h"
#include "src/soap_fault.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

constexpr int kTcpRequestThreads = 2;
constexpr int kUdpRequestThreads = 2;
constexpr int kTcpResponseThreads = 5;
constexpr std::size_t kAllThreads = kTcpRequestThreads + kUdpRequestThreads + kTcpResponseThreads;

constexpr std::size_t kNoBound = static_cast<std::size_t>(-1);
constexpr int kInvalidId = -1;
constexpr int kListenerIdStep = 2;

// Never destroyed: a process that ends without terminating the framework must not wait for its
// threads.
struct Singleton {
  boost::mutex mutex;
  boost::shared_ptr<CallBackHandler> instance;
};
Singleton& TheSingleton() {
  static Singleton* const singleton = new Singleton;
  return *singleton;
}

// The start line and header as text. Empty when it can't be had, and then nothing matches.
std::string HeaderText(utils::HTTPInfo& request) {
  std::string text;
  if (request.GetHeader(text) != result::kOk) {
    VEX_LOG(kLogDetail, kTag, "Get Header failed.");
    text.clear();
  }
  return text;
}

}  // namespace

boost::shared_ptr<CallBackHandler> CallBackHandler::GetInstance() {
  Singleton& singleton = TheSingleton();
  return GetOrCreateShared(singleton.instance, singleton.mutex, [] { return new CallBackHandler; });
}

boost::shared_ptr<CallBackHandler> CallBackHandler::ExistingInstance() {
  Singleton& singleton = TheSingleton();
  return ExistingShared(singleton.instance, singleton.mutex);
}

void CallBackHandler::DestroyInstance() {
  Singleton& singleton = TheSingleton();
  DestroyShared(singleton.instance, singleton.mutex);
}

CallBackHandler::CallBackHandler()
    : incoming_tcp_packets_(kNoBound, kNoBound, kNoBound),
      incoming_udp_packets_(limits::kQueuedDatagrams, limits::kQueuedDatagramBytes,
                            limits::kEasyDatagrams) {}

CallBackHandler::~CallBackHandler() {
  StopPools();
  DropWaitingPackets();
}

int CallBackHandler::NextListenerId() {
  boost::lock_guard<boost::mutex> lock(id_mutex_);
  last_listener_id_ += kListenerIdStep;
  return last_listener_id_;
}

int CallBackHandler::RegisterTCPPattern(std::vector<std::string>& patterns,
                                        boost::shared_ptr<TCPRequestListener>& listener, int& id) {
  id = kInvalidId;
  if (patterns.empty() || !listener) return result::kFailure;
  id = NextListenerId();
  tcp_patterns_.Append(id, patterns, listener);
  return result::kOk;
}

int CallBackHandler::RegisterUDPPattern(std::vector<std::string>& patterns,
                                        boost::shared_ptr<UDPRequestListener>& listener, int& id) {
  id = kInvalidId;
  if (patterns.empty() || !listener) return result::kFailure;
  id = NextListenerId();
  udp_patterns_.Append(id, patterns, listener);
  return result::kOk;
}

int CallBackHandler::UnRegisterPattern(const int& id) {
  return udp_patterns_.Remove(id) || tcp_patterns_.Remove(id) ? result::kOk : result::kFailure;
}

int CallBackHandler::RegisterResponseListener(const int& session_id,
                                              const boost::shared_ptr<ResponseListener>& listener) {
  if (session_id <= 0) {
    VEX_LOG(kLogDetail, kTag, "Invalid Params for session %d!", session_id);
    return result::kFailure;
  }
  stOutgoingContext context;
  context.listener = listener;
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  outgoing_contexts_.emplace(session_id, context);
  return result::kOk;
}

int CallBackHandler::UnRegisterResponseListener(const int& session_id) {
  stOutgoingContext erased;
  if (!TakeContext(session_id, Answered::kToo, erased)) return result::kFailure;
  VEX_LOG(kLogMajor, kTag, "list erased(%d)", session_id);
  return result::kOk;
}

void CallBackHandler::UnRegisterUnanswered(const int& session_id) {
  stOutgoingContext erased;
  if (!TakeContext(session_id, Answered::kNot, erased)) return;
  VEX_LOG(kLogMajor, kTag, "list erased(%d)", session_id);
}

bool CallBackHandler::TakeContext(int session_id, Answered answered, stOutgoingContext& taken) {
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  const auto found = outgoing_contexts_.lower_bound(session_id);
  if (found == outgoing_contexts_.end() || found->first != session_id) return false;
  if (answered == Answered::kNot && found->second.response) return false;
  taken = std::move(found->second);
  outgoing_contexts_.erase(found);
  return true;
}

// A job runs only while the handler is there and has not been stopped since. It is given the count
// of stops that holds as long as that is so.
template <typename Job>
void CallBackHandler::Post(IoPool& pool, Job job) {
  const boost::weak_ptr<CallBackHandler> handler = weak_from_this();
  const unsigned int stops = stops_;
  const LogSite site = VEX_LOG_SITE;
  boost::asio::post(*pool.io, [handler, stops, job, site] {
    const boost::shared_ptr<CallBackHandler> self = handler.lock();
    if (!self || self->stops_ != stops) return;
    try {
      job(*self, stops);
    } catch (...) {
      LogCurrentException(site, kLogMajor, kTag, "Exception in callback thread: %s",
                          "Unknown Exception in callback thread");
    }
  });
}

// The packet that becomes ready behind a finished one is handled by the same thread: another would
// have to be woken for it.
// A packet that is queued without a job would keep waiting, and every later one behind it.
void CallBackHandler::PostTcpJob() {
  RetryWithoutMemory([this] {
    Post(tcp_req_handling_ios_, [](CallBackHandler& self, unsigned int stops) {
      while (self.InvokeUpperLayerTCPRequestListener() && self.stops_ == stops) {
      }
    });
  });
}

void CallBackHandler::PostUdpJob() {
  RetryWithoutMemory([this] {
    Post(udp_req_handling_ios_, [](CallBackHandler& self, unsigned int stops) {
      while (self.InvokeUpperLayerUDPRequestListener() && self.stops_ == stops) {
      }
    });
  });
}

void CallBackHandler::PostResponseJob() {
  try {
    Post(tcp_res_handling_ios_,
         [](CallBackHandler& self, unsigned int stops) { self.HandleAnswers(stops); });
  } catch (...) {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    response_job_posted_ = false;
    throw;
  }
}

int CallBackHandler::InvokeTCPRequestHandler(boost::shared_ptr<utils::HTTPInfo>& request,
                                             void* session_context) {
  // Events of one subscription must keep their order; other requests have none.
  std::string key;
  request->GetHeaderValue("SID", key);
  if (incoming_tcp_packets_.Append(key, stIncomingContext{request, session_context}, 0) ==
      TcpQueue::Entry::kReady) {
    PostTcpJob();
  }
  return result::kOk;
}

int CallBackHandler::InvokeUDPRequestHandler(boost::shared_ptr<utils::HTTPInfo>& request,
                                             std::size_t bytes) {
  // An alive must not overtake the byebye before it.
  std::string key;
  request->GetClientIpAddress(key);
  switch (incoming_udp_packets_.Append(key, request, bytes)) {
    case UdpQueue::Entry::kReady:
      PostUdpJob();
      break;
    case UdpQueue::Entry::kHeldBack:
      break;
    case UdpQueue::Entry::kRefused:
      CountDroppedDatagram();
      break;
  }
  return result::kOk;
}

void CallBackHandler::LetDatagramsBeHandled() {
  incoming_udp_packets_.AwaitEasy(boost::chrono::milliseconds(limits::kReadingPauseMs));
}

int CallBackHandler::InvokeResponseHandler(const int& session_id,
                                           boost::shared_ptr<utils::HTTPInfo>& response) {
  boost::shared_ptr<ResponseListener> listener;
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    const auto context = outgoing_contexts_.lower_bound(session_id);
    if (context == outgoing_contexts_.end() || context->first != session_id) return result::kOk;
    context->second.response = response;
    listener = context->second.listener;
  }
  AnswerArrivalListener* const waiting = dynamic_cast<AnswerArrivalListener*>(listener.get());
  if (waiting != nullptr) waiting->OnAnswerArrived(session_id);
  // Announced, it has to come.
  RetryWithoutMemory([&] {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    answered_.push_back(session_id);
  });
  RetryWithoutMemory([this] {
    if (ClaimResponseJob()) PostResponseJob();
  });
  return result::kOk;
}

bool CallBackHandler::ClaimResponseJob() {
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  if (response_job_posted_ || answered_.empty()) return false;
  response_job_posted_ = true;
  return true;
}

void CallBackHandler::CountDroppedDatagram() {
  const unsigned int dropped = ++dropped_datagrams_;
  if (drop_line_.Due()) {
    VEX_LOG(kLogMajor, kTag, "Too many datagrams are waiting, %u dropped so far", dropped);
  }
}

// True when there is a further packet to handle.
bool CallBackHandler::InvokeUpperLayerTCPRequestListener() {
  std::string key;
  stIncomingContext packet;
  if (!incoming_tcp_packets_.Take(key, packet)) {
    VEX_LOG(kLogDetail, kTag,
            "[InvokeUpperLayerTCPRequestListener] empty incoming tcp packet list!");
    return false;
  }
  try {
    HandleTcpRequest(packet);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in TCP request listener: %s",
                        "Unknown Exception in TCP request listener");
  }
  packet = stIncomingContext();
  return incoming_tcp_packets_.Finish(key);
}

void CallBackHandler::HandleTcpRequest(stIncomingContext& packet) {
  const boost::shared_ptr<TCPRequestListener> listener = FindTcpListener(*packet.request);
  if (listener) {
    listener->OnTCPRequestReceived(packet.request, packet.session_context);
    return;
  }
  VEX_LOG(kLogMajor, kTag, "ERROR, no valid listeners found!!");
  RefuseRequest(packet.session_context);
}

// Null for a request that nobody wants, and also when there is no memory to find out: the session
// context still has to be used up.
boost::shared_ptr<TCPRequestListener> CallBackHandler::FindTcpListener(utils::HTTPInfo& request) {
  try {
    std::string text = HeaderText(request);
    if (!text.empty()) return tcp_patterns_.Match(text);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in FindTcpListener: %s",
                        "Unknown Exception in FindTcpListener");
  }
  return boost::shared_ptr<TCPRequestListener>();
}

void CallBackHandler::RefuseRequest(void* session_context) {
  std::unique_ptr<std::string> answer;
  try {
    answer.reset(new std::string(BadRequestAnswer(BadRequestLayout::kTrailingBlanks)));
  } catch (...) {
    ServerManager::SendResponsePacket(nullptr, 0, session_context);
    throw;
  }
  const int length = static_cast<int>(answer->size());
  if (ServerManager::SendResponsePacket(answer.get(), length, session_context) == result::kOk) {
    static_cast<void>(answer.release());
  }
}

// True when there is a further packet to handle.
bool CallBackHandler::InvokeUpperLayerUDPRequestListener() {
  std::string key;
  IncomingDatagram request;
  if (!incoming_udp_packets_.Take(key, request)) {
    VEX_LOG(kLogDetail, kTag, "[InvokeUpperLayerUDPRequestListener] empty udp packet list!");
    return false;
  }
  try {
    HandleUdpRequest(request);
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in UDP request listener: %s",
                        "Unknown Exception in UDP request listener");
  }
  request.reset();
  return incoming_udp_packets_.Finish(key);
}

// A datagram that nobody wants vanishes without a word: the network is full of them.
void CallBackHandler::HandleUdpRequest(IncomingDatagram& request) {
  std::string text = HeaderText(*request);
  if (text.empty()) return;
  const boost::shared_ptr<UDPRequestListener> listener = udp_patterns_.Match(text);
  if (listener) listener->OnUDPRequestReceived(request);
}

void CallBackHandler::HandleAnswers(unsigned int stops) {
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    response_job_posted_ = false;
  }
  int session_id = 0;
  bool call_another = false;
  while (stops_ == stops && TakeAnswered(session_id, call_another)) {
    // The listener may take its time, so what waits behind this answer gets a thread of its own.
    if (call_another) CallAnother();
    try {
      InvokeUpperLayerResponseHandler(session_id);
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, kTag, "Exception in callback thread: %s",
                          "Unknown Exception in callback thread");
    }
  }
}

// Without memory for it the calling thread goes through what waits by itself.
void CallBackHandler::CallAnother() {
  try {
    PostResponseJob();
  } catch (...) {
    VEX_LOG(kLogDetail, kTag, "No memory to call another callback thread");
  }
}

bool CallBackHandler::TakeAnswered(int& session_id, bool& call_another) {
  boost::lock_guard<boost::mutex> lock(response_mutex_);
  if (answered_.empty()) return false;
  session_id = answered_.front();
  answered_.pop_front();
  call_another = !answered_.empty() && !response_job_posted_;
  if (call_another) response_job_posted_ = true;
  return true;
}

void CallBackHandler::InvokeUpperLayerResponseHandler(int session_id) {
  stOutgoingContext context;
  if (!TakeContext(session_id, Answered::kToo, context)) return;
  if (!context.listener || context.listener.use_count() <= 0) return;
  VEX_LOG(kLogDetail, kTag, "call OnResponseReceived session_id : (%d), use_count : (%d)(%p)",
          session_id, static_cast<int>(context.listener.use_count()),
          static_cast<const void*>(context.listener.get()));
  context.listener->OnResponseReceived(context.response, session_id);
}

void CallBackHandler::StartCallbackThreads() {
  VEX_LOG(kLogMajor, kTag, "CallBackHandler StartCallbackThreads");
  std::string prefix;
  if (!ThreadNamePrefix(prefix)) {
    VEX_LOG(kLogMajor, kTag, "pthread_getname_np : Error in getting Thread Name");
  }
  try {
    // Those of a start that failed in another place run still. Half a set is no set.
    if (threads_ && threads_->size() >= kAllThreads) return;
    if (!threads_) threads_.reset(new boost::thread_group);
    StartIoThreads(*threads_, tcp_req_handling_ios_.io, kTcpRequestThreads, prefix, "VexTcpReq");
    StartIoThreads(*threads_, udp_req_handling_ios_.io, kUdpRequestThreads, prefix, "VexUdpReq");
    StartIoThreads(*threads_, tcp_res_handling_ios_.io, kTcpResponseThreads, prefix, "VexTcpRes");
  } catch (const boost::thread_resource_error& error) {
    VEX_LOG(kLogMajor, kTag, "thread_resource_error exception:[%s]", error.what());
  } catch (...) {
    VEX_LOG(kLogMajor, kTag, "Unknown Exception in StartCallbackThreads");
  }
}

void CallBackHandler::StopCallbackThreads() {
  VEX_LOG(kLogMajor, kTag, "CallBackHandler StopCallbackThreads");
  StopPools();
  DropWaitingPackets();
  if (!tcp_req_handling_ios_.io->stopped()) {
    VEX_LOG(kLogMajor, kTag, "CallBackHandler  tcp_req_handling_ios_ not stopped ");
  }
  if (!udp_req_handling_ios_.io->stopped()) {
    VEX_LOG(kLogMajor, kTag, "CallBackHandler udp_req_handling_ios_ not stopped ");
  }
  if (!tcp_res_handling_ios_.io->stopped()) {
    VEX_LOG(kLogMajor, kTag, "CallBackHandler tcp_res_handling_ios_ not stopped ");
  }
}

void CallBackHandler::StopPools() {
  ++stops_;
  tcp_req_handling_ios_.io->stop();
  udp_req_handling_ios_.io->stop();
  tcp_res_handling_ios_.io->stop();
  if (threads_ && threads_->is_this_thread_in()) {
    // The pools' threads hold their loops and jobs hold this object, so nobody has to wait.
    VEX_LOG(kLogMajor, kTag, "Callback threads stopped by one of them, they are not waited for");
  } else if (threads_) {
    threads_->join_all();
  }
  threads_.reset();
}

// The jobs of what waits will never run, so the sessions are let go here.
void CallBackHandler::DropWaitingPackets() {
  incoming_tcp_packets_.TakeAll(
      [](const stIncomingContext& packet) { TakeSession(packet.session_context); });
  incoming_udp_packets_.TakeAll([](const IncomingDatagram&) {});
  std::multimap<int, stOutgoingContext> contexts;
  {
    boost::lock_guard<boost::mutex> lock(response_mutex_);
    contexts.swap(outgoing_contexts_);
    answered_.clear();
    response_job_posted_ = false;
  }
}

}  // namespace network_layer
}  // namespace vex_upnp

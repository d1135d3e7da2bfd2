#ifndef VEXUPNPCP_SRC_CALLBACKHANDLER_H_
#define VEXUPNPCP_SRC_CALLBACKHANDLER_H_

#include <atomic>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/vexuncopyable.h>

#include "base/io_threads.h"
#include "base/log_limit.h"
#include "base/thread_marks.h"
#include "src/packet_queue.h"
#include "src/pattern_table.h"

namespace vex_upnp {
namespace network_layer {

// Takes parsed messages from the socket threads and calls the upper layers' listeners on threads of
// its own, so that a listener that takes its time stalls no socket. A request finds its listener by
// the patterns that listeners registered, an answer by its session id.
//
// Listeners are called with no lock of this class held and may register and unregister from
// inside. Requests with one key (a sender's address, a subscription's SID) are handled one at a
// time and in the order in which they came; all others run beside each other.
class CallBackHandler : public VEXUncopyable,
                        public boost::enable_shared_from_this<CallBackHandler> {
 public:
  // Made at the first call.
  static boost::shared_ptr<CallBackHandler> GetInstance();
  // Null before the first GetInstance and after DestroyInstance: for callers that may come late and
  // must not bring back what has ended.
  static boost::shared_ptr<CallBackHandler> ExistingInstance();
  static void DestroyInstance();
  ~CallBackHandler() override;

  // A pattern is a list of tokens with commas between them; it matches a message whose start line
  // and header hold every token, wherever they stand and in whatever case. 0, or 1 with `id` -1 for
  // no patterns or no listener.
  int RegisterTCPPattern(std::vector<std::string>& patterns,
                         boost::shared_ptr<TCPRequestListener>& listener, int& id);
  int RegisterUDPPattern(std::vector<std::string>& patterns,
                         boost::shared_ptr<UDPRequestListener>& listener, int& id);
  // 0, or 1 for an id that is not registered. A call that is running is not waited for.
  int UnRegisterPattern(const int& id);

  // 0, or 1 for a session id that is not above 0.
  int RegisterResponseListener(const int& session_id,
                               const boost::shared_ptr<ResponseListener>& listener);
  // 0, or 1 when there was none. An answer that is queued for it is lost without a call.
  int UnRegisterResponseListener(const int& session_id);
  // The same, unless the answer is there already: that reaches its listener.
  void UnRegisterUnanswered(const int& session_id);

  // From the socket threads; always 0. `request` is not to be touched by the caller afterwards.
  // `session_context` is given to the listener, or used up by the answer that says there is none.
  int InvokeTCPRequestHandler(boost::shared_ptr<utils::HTTPInfo>& request, void* session_context);
  // `bytes` is what the message takes of the memory set aside for waiting datagrams. When that is
  // used up the datagram is dropped and counted.
  int InvokeUDPRequestHandler(boost::shared_ptr<utils::HTTPInfo>& request, std::size_t bytes = 0);
  // Lets the threads catch up with the datagrams that wait, for a moment at most.
  void LetDatagramsBeHandled();
  // An answer for a session that nobody is registered for is dropped.
  int InvokeResponseHandler(const int& session_id, boost::shared_ptr<utils::HTTPInfo>& response);

  void StartCallbackThreads();
  // Packets that wait are dropped; listeners that are running are waited for, except when one of
  // them calls this.
  void StopCallbackThreads();

  // Datagrams dropped so far for want of room in the queue.
  unsigned int dropped_datagrams() const { return dropped_datagrams_; }

 private:
  // A parsed request and the holder of its session.
  struct stIncomingContext {
    boost::shared_ptr<utils::HTTPInfo> request;
    void* session_context = nullptr;
  };
  // A registered session; `response` is empty until the answer is there.
  struct stOutgoingContext {
    boost::shared_ptr<utils::HTTPInfo> response;
    boost::shared_ptr<ResponseListener> listener;
  };
  using IncomingDatagram = boost::shared_ptr<utils::HTTPInfo>;
  using TcpQueue = PacketQueue<stIncomingContext>;
  using UdpQueue = PacketQueue<IncomingDatagram>;

  CallBackHandler();

  int NextListenerId();
  template <typename Job>
  void Post(IoPool& pool, Job job);
  void PostTcpJob();
  void PostUdpJob();
  void PostResponseJob();

  bool InvokeUpperLayerTCPRequestListener();
  bool InvokeUpperLayerUDPRequestListener();
  void InvokeUpperLayerResponseHandler(int session_id);
  enum class Answered { kToo, kNot };
  // Whether it was there, and as wanted.
  bool TakeContext(int session_id, Answered answered, stOutgoingContext& taken);
  // True when answers wait and the caller is the one to post the job for them.
  bool ClaimResponseJob();
  void HandleAnswers(unsigned int stops);
  void CallAnother();
  bool TakeAnswered(int& session_id, bool& call_another);
  void HandleTcpRequest(stIncomingContext& packet);
  void HandleUdpRequest(IncomingDatagram& request);
  boost::shared_ptr<TCPRequestListener> FindTcpListener(utils::HTTPInfo& request);
  void RefuseRequest(void* session_context);
  void CountDroppedDatagram();
  void StopPools();
  void DropWaitingPackets();

  // Every mutex here, and those inside the queues and tables, is a leaf.
  boost::mutex id_mutex_;
  int last_listener_id_ VEX_GUARDED_BY(id_mutex_) = 200;

  PatternTable<TCPRequestListener> tcp_patterns_;
  PatternTable<UDPRequestListener> udp_patterns_;
  TcpQueue incoming_tcp_packets_;
  UdpQueue incoming_udp_packets_;

  boost::mutex response_mutex_;
  std::multimap<int, stOutgoingContext> outgoing_contexts_ VEX_GUARDED_BY(response_mutex_);
  // Sessions whose answers wait for a thread, and whether a job is posted that has not begun. One
  // is enough: it calls the next thread when it begins and more is waiting.
  std::deque<int> answered_ VEX_GUARDED_BY(response_mutex_);
  bool response_job_posted_ VEX_GUARDED_BY(response_mutex_) = false;

  std::atomic<unsigned int> dropped_datagrams_{0};
  LogLimit drop_line_;
  // Counts the stops: a job that was posted before a stop does nothing after it.
  std::atomic<unsigned int> stops_{0};

  IoPool tcp_req_handling_ios_;
  IoPool udp_req_handling_ios_;
  IoPool tcp_res_handling_ios_;
  // Null while no thread runs: ending them must not need memory.
  std::unique_ptr<boost::thread_group> threads_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CALLBACKHANDLER_H_

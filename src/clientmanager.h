#ifndef VEXUPNPCP_SRC_CLIENTMANAGER_H_
#define VEXUPNPCP_SRC_CLIENTMANAGER_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>

#include "base/thread_marks.h"
#include "src/outgoing_loops.h"
#include "src/outgoing_timeouts.h"
#include "src/server_notify.h"

namespace vex_upnp {
namespace network_layer {

class OutgoingSession;

// The owner of all outgoing traffic: it makes a session for each request, numbers it, runs the
// threads on which sessions work, bounds how many may live at a time, and removes those that have
// finished or failed. A session's number is also that of its listener in CallBackHandler.
class ClientManager : public Notify {
 public:
  // Made at the first call.
  static boost::shared_ptr<ClientManager> GetInstance();
  // Null before the first GetInstance and after DestroyInstance.
  static boost::shared_ptr<ClientManager> ExistingInstance();
  static void DestroyInstance();

  ~ClientManager() override;

  // Starts `count` threads and takes the bounds on sessions from the process' descriptor limit.
  void StartClientThreads(const int& count);
  // Ends every session and joins the threads. Requesters hear nothing.
  void StopClientThreads();

  // Always 0.
  int ConfigureMulticastSupport(bool enable);

  // 0 when the datagram is out, 2000 otherwise.
  int SendUnicastPacket(const std::string& ip, const int& port, const std::string& data);
  // To port 1900 of a group, from one interface, or from every active one for "0.0.0.0": then the
  // result is that of the last. 0; 1 while multicast is disabled or without an interface registry;
  // 2000; 2008 when no interface is active.
  int SendMulticastPacket(const std::string& ip, const std::string& interface_ip,
                          const std::string& data);

  // 0 when a connection attempt is under way; `session_id` is set before it starts, and the answer
  // comes through `listener`. 1 when the listener is refused, 2000 when there is no connection to
  // begin with, 2001 without memory.
  int SendTCPPacket(const std::string& ip, const int& port, const std::string& data,
                    const boost::shared_ptr<ResponseListener>& listener, int& session_id);
  // Blocks until the peer closes or `timeout` milliseconds have passed. 0; 2000, 2001, 2004, 2009.
  int SendSyncTCPPacket(const std::string& ip, const int& port, const std::string& data,
                        boost::shared_ptr<utils::HTTPInfo>& response, int timeout);
  // 0, or 1 when there is no such session. The listener hears nothing after it has returned, save
  // for a call that had begun.
  int CancelTcpPacket(const int& session_id);

  // Whether anything of the answer has reached this host. False for an unknown session.
  bool HasAnswerBegun(const int& session_id);

  void SessionCompleted(const int& id) override;
  void HandleFailureCondition(const int& id) override;

  // Connects to every address and, after `timeout` seconds, writes down which connections came
  // about. `lock` is held by the caller, and released while waiting; another thread ends the wait
  // by setting `stop` under that mutex and notifying `condition`. 0, 1 when stopped, 2001.
  int IsReachable(std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
                  int timeout, boost::unique_lock<boost::mutex>& lock,
                  boost::condition_variable& condition, bool& stop);

 private:
  using SessionPointer = boost::shared_ptr<OutgoingSession>;
  using Sessions = std::map<int, SessionPointer>;

  ClientManager();

  SessionPointer __MakeSession();
  int __BeginExchange(OutgoingSession& session, const std::string& ip, int port,
                      const std::string& data, const boost::shared_ptr<ResponseListener>& listener);
  int __SendMulticastFrom(const std::string& interface_ip, const std::string& ip,
                          const std::string& data);
  int __NextSessionId();
  void __AddSession(const int& id, const SessionPointer& session);
  SessionPointer __FindSession(const int& id);
  SessionPointer __TakeSession(const int& id);
  std::vector<SessionPointer> __TakeOldestAboveLimit();
  void __DropOldestAboveLimit();
  static void __UnRegisterListener(const int& id);
  Sessions __TakeAll();
  static void __StopAll(const Sessions& sessions);
  bool __StartProbes(const std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
                     std::vector<SessionPointer>& probes);
  static bool __AwaitProbes(int timeout, boost::unique_lock<boost::mutex>& lock,
                            boost::condition_variable& condition, const bool& stop);

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<ClientManager>& instance_;
  static boost::mutex& singleton_mutex_;

  // Declared before all that works on them.
  OutgoingLoops loops_;
  OutgoingTimeouts timeouts_;

  std::atomic<bool> multicast_enabled_{true};
  // 0 until the threads start.
  std::atomic<std::uint32_t> session_limit_{0};
  std::atomic<std::uint32_t> session_delete_count_{0};

  // Outer to the sessions' mutexes; never held while CallBackHandler is called.
  boost::mutex mutex_;
  // By id, which is the order of their making: the oldest is the first.
  Sessions sessions_ VEX_GUARDED_BY(mutex_);
  // The last id.
  int session_counter_ VEX_GUARDED_BY(mutex_) = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_CLIENTMANAGER_H_

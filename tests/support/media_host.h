#ifndef VEXUPNPCP_TESTS_SUPPORT_MEDIA_HOST_H_
#define VEXUPNPCP_TESTS_SUPPORT_MEDIA_HOST_H_

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/streaming.h>

#include "tests/support/stumble.h"

namespace vex_test {

// A host of streaming servers: keeps what its callbacks are told, in order, and acts on it as the
// test says. The callbacks are plain functions, so there is one host at a time.
class MediaHost {
 public:
  // What a request told; the record lives for the call.
  struct Request {
    int server;
    int session;
    const vex_upnp::streaming::ReqHeaderInfo& header;
    std::string body;
    bool final;
  };
  // The same for more body and for a finished write.
  struct Data {
    int server;
    int session;
    std::string bytes;
    bool final;
  };

  MediaHost();
  MediaHost(const MediaHost&) = delete;
  MediaHost& operator=(const MediaHost&) = delete;
  ~MediaHost();

  static const vex_upnp::streaming::ServerAppCallbacks* callbacks();

  using ConnectAction = std::function<void(int server, int session)>;
  using RequestAction = std::function<void(const Request&)>;
  using DataAction = std::function<void(const Data&)>;
  using WrittenAction = std::function<void(int server, int session, unsigned int length)>;
  using StatusAction = std::function<void(int server, int session, int code)>;

  // What to do from the next one on.
  void DoOnConnect(ConnectAction action) { Set(on_connect_, std::move(action)); }
  void DoOnRequest(RequestAction action) { Set(on_request_, std::move(action)); }
  void DoOnData(DataAction action) { Set(on_data_, std::move(action)); }
  void DoOnWritten(WrittenAction action) { Set(on_written_, std::move(action)); }
  void DoOnStatus(StatusAction action) { Set(on_status_, std::move(action)); }

  // "connect SERVER SESSION 0", "status SERVER SESSION CODE", "request SERVER SESSION URI LENGTH"
  // with "(none)" for a request without a target,
  // "data SERVER SESSION LENGTH", "written SERVER SESSION LENGTH"; " final" behind the last of a
  // message.
  std::vector<std::string> Events() const;
  int Count(const std::string& event) const;
  bool Await(const std::string& event) const;
  // All body that came, of requests and of data.
  std::string Body() const;
  // The session of the last connection that was told.
  int LastSession() const;

 private:
  static void OnConnect(int server, int session, int reserved);
  static void OnStatus(int server, int session, int code);
  static void OnRequest(int server, int session, vex_upnp::streaming::ReqHeaderInfo* header,
                        void* body, unsigned int length, bool final);
  static void OnData(int server, int session, void* data, unsigned int length, bool final);
  static void OnWritten(int server, int session, unsigned int length);
  template <typename Action>
  void Set(Action& place, Action action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    place = std::move(action);
  }
  // Keeps an event and tells what to do about it, as it was set when the event came.
  template <typename Action>
  Action Keep(const Action& action, const std::string& event, const std::string& body) {
    const StumblingLock lock(mutex_);
    events_.push_back(event);
    body_ += body;
    return action;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::string body_;
  int last_session_ = 0;
  ConnectAction on_connect_;
  RequestAction on_request_;
  DataAction on_data_;
  WrittenAction on_written_;
  StatusAction on_status_;
};

// An HTTP/1.1 response record without any header.
vex_upnp::streaming::ResHeaderInfo Response(unsigned int status);

// A literal as the records take their texts; the library only reads them.
inline char* Literal(const char* text) { return const_cast<char*>(text); }

// A copy from malloc, as the library takes the last payload.
void* MallocCopy(const std::string& bytes);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_MEDIA_HOST_H_

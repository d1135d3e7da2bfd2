#ifndef VEXUPNPCP_TESTS_SUPPORT_SERVER_FIXTURE_H_
#define VEXUPNPCP_TESTS_SUPPORT_SERVER_FIXTURE_H_

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_listeners.h>

#include "base/io_threads.h"
#include "src/callbackhandler.h"
#include "tests/support/stumble.h"

namespace vex_test {

using MessagePointer = boost::shared_ptr<vex_upnp::utils::HTTPInfo>;

// An event loop with threads, until the end of the scope.
class RunningLoop {
 public:
  explicit RunningLoop(int threads) {
    vex_upnp::StartIoThreads(threads_, pool_.io, threads, "tst", "Loop");
  }
  ~RunningLoop() { Stop(); }

  vex_upnp::io_service& io() { return *pool_.io; }
  // Ends the threads, then completes what was cancelled.
  void Stop() {
    pool_.io->stop();
    threads_.join_all();
    pool_.io->restart();
    pool_.io->poll();
  }

 private:
  vex_upnp::IoPool pool_;
  boost::thread_group threads_;
};

// Calls a function with each request.
class RequestSink : public vex_upnp::network_layer::TCPRequestListener {
 public:
  using Action = std::function<void(const MessagePointer&, void*)>;
  explicit RequestSink(Action action) : action_(std::move(action)) {}
  void OnTCPRequestReceived(MessagePointer request, void* session_context) override {
    action_(request, session_context);
  }

 private:
  const Action action_;
};

// Keeps what datagrams arrive.
class DatagramSink : public vex_upnp::network_layer::UDPRequestListener {
 public:
  struct Seen {
    std::string uri;
    std::string usn;
    std::string client_ip;
    int client_port;
    std::string my_ip;
  };

  void OnUDPRequestReceived(MessagePointer request) override {
    Seen seen;
    request->GetURI(seen.uri);
    request->GetHeaderValue("USN", seen.usn);
    request->GetClientIpAddress(seen.client_ip);
    request->GetClientPort(seen.client_port);
    request->GetMyIpAddress(seen.my_ip);
    const StumblingLock lock(mutex_);
    seen_.push_back(seen);
  }
  std::vector<Seen> All() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  std::size_t Count() const { return All().size(); }
  // How many came with this USN.
  int CountOf(const std::string& usn) const {
    int count = 0;
    for (const Seen& seen : All()) count += seen.usn == usn ? 1 : 0;
    return count;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Seen> seen_;
};

// The callback handler with its threads, until the end of the scope.
class RunningCallbacks {
 public:
  RunningCallbacks() { Begin(); }
  RunningCallbacks(const RunningCallbacks&) = delete;
  RunningCallbacks& operator=(const RunningCallbacks&) = delete;
  ~RunningCallbacks() { End(); }

  void Begin() {
    if (handler_) return;
    handler_ = vex_upnp::network_layer::CallBackHandler::GetInstance();
    handler_->StartCallbackThreads();
  }
  void End() {
    if (!handler_) return;
    handler_->StopCallbackThreads();
    handler_.reset();
    vex_upnp::network_layer::CallBackHandler::DestroyInstance();
  }

  int Listen(const std::string& pattern, RequestSink::Action action) {
    std::vector<std::string> patterns = {pattern};
    boost::shared_ptr<vex_upnp::network_layer::TCPRequestListener> listener(
        new RequestSink(std::move(action)));
    int id = 0;
    handler_->RegisterTCPPattern(patterns, listener, id);
    return id;
  }
  boost::shared_ptr<DatagramSink> Collect(const std::string& pattern) {
    std::vector<std::string> patterns = {pattern};
    const boost::shared_ptr<DatagramSink> sink(new DatagramSink);
    boost::shared_ptr<vex_upnp::network_layer::UDPRequestListener> listener = sink;
    int id = 0;
    handler_->RegisterUDPPattern(patterns, listener, id);
    return sink;
  }

 private:
  boost::shared_ptr<vex_upnp::network_layer::CallBackHandler> handler_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SERVER_FIXTURE_H_

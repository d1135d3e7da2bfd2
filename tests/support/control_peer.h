#ifndef VEXUPNPCP_TESTS_SUPPORT_CONTROL_PEER_H_
#define VEXUPNPCP_TESTS_SUPPORT_CONTROL_PEER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vex_test {

// One request as the peer got it.
struct PeerRequest {
  // All bytes: start line, header, body.
  std::string text;
  std::chrono::steady_clock::time_point at;
  // Counts from 0.
  int number = 0;

  std::string StartLine() const;
  // Of the first header of this name, in any case; empty without one.
  std::string Header(const std::string& name) const;
  std::string Body() const;
  bool Begins(const std::string& start) const { return text.compare(0, start.size(), start) == 0; }
};

// What the peer does with a request.
struct PeerAnswer {
  enum class End {
    kClose,
    // The connection breaks: the other side's read fails.
    kReset,
    // Nothing more comes and the connection stays, until the other side closes it.
    kStayOpen,
  };

  std::string text;
  End end = End::kClose;
  std::chrono::milliseconds delay{0};
  // Called when the text has been written, before the end is carried out, on the peer's thread.
  std::function<void()> after_text;
};

PeerAnswer Silence();
PeerAnswer Reset();
PeerAnswer Text(const std::string& text);

// A device's HTTP server, on a thread of its own. Every request goes to the script, which may take
// its time only where no other request is to be answered meanwhile.
class ControlPeer {
 public:
  using Script = std::function<PeerAnswer(const PeerRequest&)>;

  // On port 0 the kernel chooses.
  ControlPeer(const std::string& ip, int port, Script script);
  ControlPeer(const ControlPeer&) = delete;
  ControlPeer& operator=(const ControlPeer&) = delete;
  ~ControlPeer();

  const std::string& ip() const { return ip_; }
  int port() const { return port_; }
  std::string Url(const std::string& path) const;
  // As actions and subscriptions carry it.
  std::string HostLine() const;

  // What came so far; kept only while it is wanted.
  std::vector<PeerRequest> Requests() const;
  int Count() const;
  int CountOf(const std::string& start) const;
  void KeepRequests(bool keep);
  // Connections that neither side has closed.
  int Open() const { return open_; }

 private:
  struct Connection {
    int fd = -1;
    std::string input;
    bool answered = false;
    PeerAnswer answer;
    std::chrono::steady_clock::time_point due;
    bool waiting = false;
  };
  using Connections = std::list<std::unique_ptr<Connection>>;

  void Run();
  int PollTimeout() const;
  void Accept();
  // False when the connection is over.
  bool Read(Connection& connection);
  bool Answer(Connection& connection);
  void Close(Connection& connection);
  void AnswerDue();

  const std::string ip_;
  int port_ = 0;
  int listener_ = -1;
  int wake_up_ = -1;
  int epoll_ = -1;
  const Script script_;
  Connections connections_;

  mutable std::mutex mutex_;
  std::vector<PeerRequest> requests_;
  bool keep_ = true;
  int count_ = 0;
  std::atomic<int> open_{0};

  std::thread thread_;
};

// Sends `request` to an HTTP server and returns all bytes that come until it closes. `from` is the
// local address. Empty when there is no connection; what has come by then when nothing comes for a
// minute.
std::string ExchangeWith(const std::string& ip, int port, const std::string& request,
                         const std::string& from = std::string());

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_CONTROL_PEER_H_

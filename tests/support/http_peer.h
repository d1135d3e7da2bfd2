#ifndef VEXUPNPCP_TESTS_SUPPORT_HTTP_PEER_H_
#define VEXUPNPCP_TESTS_SUPPORT_HTTP_PEER_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vex_test {

// One accepted connection, as a peer's script works on it. All calls block; they end early when the
// other side ends the connection, or when the peer is destroyed.
class PeerConnection {
 public:
  enum class End { kClosed, kReset };

  explicit PeerConnection(int fd) : fd_(fd) {}
  PeerConnection(const PeerConnection&) = delete;
  PeerConnection& operator=(const PeerConnection&) = delete;
  ~PeerConnection();

  // Header, blank line, and as many bytes of body as Content-Length says. What had come when the
  // other side ended.
  std::string ReadRequest();
  // False when the other side did not take it all.
  bool Send(const std::string& text);
  bool SendInPieces(const std::string& text, std::size_t piece,
                    std::chrono::milliseconds pause = std::chrono::milliseconds(0));
  // Waits until the other side, on this host, has read all that was sent, so that what is sent next
  // comes in another read.
  void AwaitRead();
  // Sends the end of the stream; reading goes on.
  void FinishSending();
  void Close();
  // Closes with a reset instead of an end of the stream.
  void Reset();
  // Reads and forgets until the other side ends the connection, and tells how.
  End AwaitEnd();

  // Wakes whatever blocks; from any thread.
  void Interrupt();

 private:
  bool ReadMore(std::string& text);
  bool HasBeenRead() const;
  int fd() const { return fd_; }

  std::mutex close_mutex_;
  std::atomic<int> fd_;
};

// A server on a real socket that runs a script for each connection: expect this, answer that, cut,
// delay, reset, stay silent. Counts connections and keeps requests.
class HttpPeer {
 public:
  using Script = std::function<void(PeerConnection&)>;

  // On a free port of `ip`.
  explicit HttpPeer(Script script, const std::string& ip = "127.0.0.1", int port = 0);
  HttpPeer(const HttpPeer&) = delete;
  HttpPeer& operator=(const HttpPeer&) = delete;
  // Interrupts what still runs.
  ~HttpPeer();

  const std::string& ip() const { return ip_; }
  int port() const { return port_; }
  // "ip:port"
  std::string authority() const { return ip_ + ":" + std::to_string(port_); }

  // Connections accepted so far.
  int connections() const { return accepted_; }
  // Scripts that have run to their end.
  int finished() const { return finished_; }

 private:
  struct Run;

  void Accept();

  const Script script_;
  const std::string ip_;
  int port_ = 0;
  int listener_ = -1;
  std::atomic<int> accepted_{0};
  std::atomic<int> finished_{0};
  std::mutex runs_mutex_;
  std::vector<std::unique_ptr<Run>> runs_;
  std::thread acceptor_;
};

// A port on which nobody listens.
int UnusedPort(const std::string& ip = "127.0.0.1");

// "HTTP/1.1 200 OK", the header lines (each with its CRLF), Content-Length, the body.
std::string OkAnswer(const std::string& body, const std::string& header_lines = "");

// Reads the request, sends the text, and keeps the connection until the other side ends it.
HttpPeer::Script AnswerWith(const std::string& text);
// Reads the request, sends the text, and closes.
HttpPeer::Script AnswerAndClose(const std::string& text);
// Reads what comes and says nothing until the other side ends the connection.
HttpPeer::Script StaySilent();

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_HTTP_PEER_H_

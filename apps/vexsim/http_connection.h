#ifndef VEXSIM_HTTP_CONNECTION_H_
#define VEXSIM_HTTP_CONNECTION_H_

#include <optional>
#include <string>

#include "event_loop.h"
#include "faults.h"
#include "http_message.h"

namespace vexsim {

class HttpServer;

// One connection from a client. Requests are answered one after the other.
class HttpConnection {
 public:
  HttpConnection(HttpServer& server, FileHandle socket);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  unsigned short local_port() const { return request_.local_port; }
  // Between two requests for longer than a client may expect to be waited for.
  bool Idle() const;

 private:
  void OnEvents(std::uint32_t events);
  // Each returns false when the connection is gone.
  bool Read();
  bool ServeRequests();
  bool Answer();
  bool AnswerWithFault(const Fault& fault, const HttpResponse& response);
  bool WriteAfter(Milliseconds delay);
  bool Write();
  bool Finish();
  bool Drip();
  void End();

  HttpServer& server_;
  FileHandle socket_;
  HttpRequest request_;
  std::string input_;
  std::string output_;
  std::size_t written_ = 0;
  // An answer is being written, or waits for its time.
  bool busy_ = false;
  bool close_after_ = false;
  bool reset_at_end_ = false;
  // Bytes in one step of the drip; 0 writes at full speed.
  std::size_t drip_ = 0;
  // The request is never answered.
  bool mute_ = false;
  bool wants_writable_ = false;
  TimePoint last_use_;
  EventLoop::TimerId timer_ = 0;
};

}  // namespace vexsim

#endif  // VEXSIM_HTTP_CONNECTION_H_

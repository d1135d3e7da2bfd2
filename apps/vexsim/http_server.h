#ifndef VEXSIM_HTTP_SERVER_H_
#define VEXSIM_HTTP_SERVER_H_

#include <functional>
#include <memory>
#include <unordered_map>

#include "event_loop.h"
#include "faults.h"
#include "http_message.h"
#include "statistics.h"

namespace vexsim {

class HttpConnection;

// Serves HTTP on any number of ports.
class HttpServer {
 public:
  using Responder = std::function<HttpResponse(const HttpRequest&)>;

  HttpServer(EventLoop& loop, Statistics& statistics, bool keep_alive, Responder responder);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Port 0 takes any free one. Returns the port; throws std::system_error.
  unsigned short Listen(unsigned short port);
  // Ends the port with all its connections.
  void Close(unsigned short port);

  FaultList& faults() { return faults_; }

 private:
  friend class HttpConnection;

  void Accept(int listener);
  void Adopt(FileHandle socket);
  void Drop(int descriptor);
  void CloseIdle();

  EventLoop& loop_;
  Statistics& statistics_;
  bool keep_alive_;
  Responder responder_;
  FaultList faults_;
  std::unordered_map<unsigned short, FileHandle> listeners_;
  std::unordered_map<int, std::unique_ptr<HttpConnection>> connections_;
};

}  // namespace vexsim

#endif  // VEXSIM_HTTP_SERVER_H_

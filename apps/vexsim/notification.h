#ifndef VEXSIM_NOTIFICATION_H_
#define VEXSIM_NOTIFICATION_H_

#include <netinet/in.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"

namespace vexsim {

// Where a subscriber wants its events.
struct CallbackUrl {
  sockaddr_in address{};
  std::string authority;
  std::string path;
};

// The addresses of a CALLBACK header, "<http://1.2.3.4:5000/x><...>"; only numeric ones.
std::vector<CallbackUrl> ParseCallbacks(std::string_view header);

// One event message on its way: connects, sends, reads the status of the answer.
class Notification {
 public:
  // Called once, with the status or 0 when none came. The notification may be deleted there.
  using Done = std::function<void(int status)>;

  Notification(EventLoop& loop, const CallbackUrl& url, std::string message, Done done);
  ~Notification();
  Notification(const Notification&) = delete;
  Notification& operator=(const Notification&) = delete;

 private:
  void OnEvents(std::uint32_t events);
  void Send();
  void Read();
  void Finish(int status);

  EventLoop& loop_;
  FileHandle socket_;
  std::string message_;
  std::size_t sent_ = 0;
  std::string answer_;
  Done done_;
  EventLoop::TimerId timer_;
};

}  // namespace vexsim

#endif  // VEXSIM_NOTIFICATION_H_

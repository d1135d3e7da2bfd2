#ifndef VEXSIM_CONTROL_CHANNEL_H_
#define VEXSIM_CONTROL_CHANNEL_H_

#include <functional>
#include <map>
#include <string>

#include "event_loop.h"

namespace vexsim {

// Takes command lines from standard input and from the clients of a unix socket, and gives each
// line's answer back the same way.
class ControlChannel {
 public:
  using Executor = std::function<std::string(const std::string& line)>;

  ControlChannel(EventLoop& loop, Executor executor);
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  // `on_end` runs when standard input ends.
  void ReadStandardInput(std::function<void()> on_end);
  // Throws std::system_error. A socket file that nobody serves any more is replaced.
  void Listen(const std::string& path);

 private:
  struct Client {
    FileHandle socket;
    std::string input;
  };

  void Accept();
  void ReadClient(int descriptor);
  void ReadInput();
  // Executes the whole lines at the front of `input` and writes the answers.
  void ExecuteLines(std::string& input, int output);

  EventLoop& loop_;
  Executor executor_;
  std::function<void()> on_end_;
  std::string input_;
  std::string path_;
  FileHandle listener_;
  std::map<int, Client> clients_;
};

}  // namespace vexsim

#endif  // VEXSIM_CONTROL_CHANNEL_H_

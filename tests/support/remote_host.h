#ifndef VEXUPNPCP_TESTS_SUPPORT_REMOTE_HOST_H_
#define VEXUPNPCP_TESTS_SUPPORT_REMOTE_HOST_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vex_test {

// Another host at the end of a cable: a network namespace of its own, joined to ours by a pair of
// interfaces that exist as long as this object. Needs a private network namespace to begin with.
class RemoteHost {
 public:
  // Our end is called `name`; both addresses are in one /24.
  RemoteHost(const std::string& name, const std::string& near_ip, const std::string& far_ip);
  RemoteHost(const RemoteHost&) = delete;
  RemoteHost& operator=(const RemoteHost&) = delete;
  ~RemoteHost();

  // Runs `work` on the other host and waits for it; sockets that it opens stay there.
  void Run(const std::function<void()>& work);
  // Sends one datagram from the other host's address.
  void Send(const std::string& ip, int port, const std::string& data);

  const std::string& name() const { return name_; }
  const std::string& near_ip() const { return near_ip_; }
  const std::string& far_ip() const { return far_ip_; }

 private:
  void Live();

  const std::string name_;
  const std::string near_ip_;
  const std::string far_ip_;
  int socket_ = -1;

  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<void()>* work_ = nullptr;
  bool ended_ = false;
  int thread_id_ = 0;
  std::thread thread_;
};

// Runs a command of the shell; throws when it fails.
void Shell(const std::string& command);

// Waits until an interface is up and has a carrier.
void WaitForCarrier(const std::string& name);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_REMOTE_HOST_H_

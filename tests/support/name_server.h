#ifndef VEXUPNPCP_TESTS_SUPPORT_NAME_SERVER_H_
#define VEXUPNPCP_TESTS_SUPPORT_NAME_SERVER_H_

#include <atomic>
#include <string>
#include <vector>

namespace vex_test {

// A host name that this process can look up, from here to the end of the scope; all others are
// looked up as ever. Its addresses are given in this order. One at a time.
class NameServer {
 public:
  NameServer(std::string name, std::vector<std::string> addresses);
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;
  // Waits for look-ups that are under way.
  ~NameServer();

  // Look-ups of the name that begin from here on wait until Release() or the end of the scope.
  void Hold() { held_ = true; }
  void Release() { held_ = false; }
  int Waiting() const { return waiting_; }
  // Look-ups that have begun.
  int Asked() const { return asked_; }

  // For the function that stands in front of the system's own.
  static NameServer* Enter(const char* name);
  const std::vector<std::string>& Await();
  void Leave();

 private:
  const std::string name_;
  const std::vector<std::string> addresses_;
  std::atomic<bool> held_{false};
  std::atomic<int> inside_{0};
  std::atomic<int> waiting_{0};
  std::atomic<int> asked_{0};
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_NAME_SERVER_H_

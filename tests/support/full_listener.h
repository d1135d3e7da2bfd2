#ifndef VEXUPNPCP_TESTS_SUPPORT_FULL_LISTENER_H_
#define VEXUPNPCP_TESTS_SUPPORT_FULL_LISTENER_H_

#include <vector>

namespace vex_test {

// Listens on a loopback port, but has no place for a further connection: whoever connects waits.
class FullListener {
 public:
  FullListener();
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;
  ~FullListener();

  int port() const { return port_; }
  // Takes what has connected so far, which makes place for those who wait.
  void MakePlace();

 private:
  const int listener_;
  int port_ = 0;
  std::vector<int> descriptors_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_FULL_LISTENER_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_ENDLESS_SERVER_H_
#define VEXUPNPCP_TESTS_SUPPORT_ENDLESS_SERVER_H_

#include <sys/types.h>

#include <string>

namespace vex_test {

// An HTTP server in a process of its own, with as many descriptors as it wants: it answers every
// request at full speed with a body that does not end.
class EndlessServer {
 public:
  explicit EndlessServer(const std::string& ip);
  EndlessServer(const EndlessServer&) = delete;
  EndlessServer& operator=(const EndlessServer&) = delete;
  ~EndlessServer();

  // "ip:port"
  const std::string& authority() const { return authority_; }

 private:
  std::string authority_;
  pid_t process_ = -1;
};

// The most memory that this process has had in use since the object was made, beyond what it had
// then.
class PeakMemory {
 public:
  PeakMemory();
  long long Bytes() const;

 private:
  const long long before_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_ENDLESS_SERVER_H_

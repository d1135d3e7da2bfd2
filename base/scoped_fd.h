#ifndef VEXUPNPCP_BASE_SCOPED_FD_H_
#define VEXUPNPCP_BASE_SCOPED_FD_H_

#include <unistd.h>

#include <utility>

namespace vex_upnp {

// A descriptor that is closed at the end of its scope.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (valid()) ::close(fd_);
  }

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_SCOPED_FD_H_

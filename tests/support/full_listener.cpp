#include "tests/support/full_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace vex_test {

FullListener::FullListener()
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener_, 0) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::abort();
  }
  port_ = ntohs(address.sin_port);
  for (int i = 0; i < 4; ++i) {
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ::connect(filler, reinterpret_cast<sockaddr*>(&address), size);
    descriptors_.push_back(filler);
  }
}

FullListener::~FullListener() {
  for (const int descriptor : descriptors_) ::close(descriptor);
  ::close(listener_);
}

void FullListener::MakePlace() {
  for (;;) {
    const int taken = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (taken < 0) return;
    descriptors_.push_back(taken);
  }
}

}  // namespace vex_test

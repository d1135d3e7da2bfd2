#include "tests/support/endless_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vex_test {
namespace {

constexpr char kHeader[] = "HTTP/1.1 200 OK\r\n\r\n";
constexpr int kMostEvents = 256;
char block[65536];

void Watch(int poll, int fd, unsigned events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  epoll_ctl(poll, operation, fd, &event);
}

void Accept(int listener, int poll) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) Watch(poll, fd, EPOLLIN, EPOLL_CTL_ADD);
}

// The request first, which is not looked at, then the answer for as long as it is taken.
void Serve(int fd, unsigned events, int poll) {
  bool open = (events & (EPOLLERR | EPOLLHUP)) == 0;
  if (open && (events & EPOLLIN) != 0) {
    char request[4096];
    open = recv(fd, request, sizeof(request), 0) > 0 &&
           send(fd, kHeader, sizeof(kHeader) - 1, MSG_NOSIGNAL) > 0;
    Watch(poll, fd, EPOLLOUT, EPOLL_CTL_MOD);
  } else if (open) {
    open = send(fd, block, sizeof(block), MSG_NOSIGNAL) > 0;
  }
  if (!open) close(fd);
}

// In a child of a process with threads, so nothing here allocates or locks.
[[noreturn]] void Run(int listener) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  std::memset(block, 'x', sizeof(block));
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  Watch(poll, listener, EPOLLIN, EPOLL_CTL_ADD);
  for (;;) {
    epoll_event events[kMostEvents];
    const int count = epoll_wait(poll, events, kMostEvents, -1);
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd == listener) {
        Accept(listener, poll);
      } else {
        Serve(events[i].data.fd, events[i].events, poll);
      }
    }
  }
}

// A line such as "VmHWM:  1234 kB".
long long MemoryOf(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, name.size(), name) != 0) continue;
    std::istringstream number(line.substr(name.size() + 1));
    long long kibibytes = 0;
    number >> kibibytes;
    return kibibytes * 1024;
  }
  throw std::runtime_error("no " + name);
}

}  // namespace

EndlessServer::EndlessServer(const std::string& ip) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  socklen_t size = sizeof(address);
  sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, generic, size) != 0 || listen(listener, 4096) != 0 ||
      getsockname(listener, generic, &size) != 0) {
    close(listener);
    throw std::runtime_error("no server on " + ip);
  }
  authority_ = ip + ":" + std::to_string(ntohs(address.sin_port));
  process_ = fork();
  if (process_ == 0) Run(listener);
  close(listener);
  if (process_ < 0) throw std::runtime_error("no process for a server");
}

EndlessServer::~EndlessServer() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

PeakMemory::PeakMemory() : before_(MemoryOf("VmRSS")) {
  // Makes the peak begin anew.
  std::ofstream("/proc/self/clear_refs") << 5;
}

long long PeakMemory::Bytes() const { return MemoryOf("VmHWM") - before_; }

}  // namespace vex_test

#include "tests/support/remote_host.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

bool HasCarrier(const std::string& name) {
  ifreq request = {};
  std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool known = ioctl(probe, SIOCGIFFLAGS, &request) == 0;
  close(probe);
  return known && (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0;
}

}  // namespace

void Shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

void WaitForCarrier(const std::string& name) {
  if (!WaitUntil([&] { return HasCarrier(name); })) throw std::runtime_error("no carrier: " + name);
}

RemoteHost::RemoteHost(const std::string& name, const std::string& near_ip,
                       const std::string& far_ip)
    : name_(name), near_ip_(near_ip), far_ip_(far_ip), thread_([this] { Live(); }) {
  Run([] {});
  const std::string far = name + "p";
  Shell("ip link add " + name + " type veth peer name " + far);
  Shell("ip link set " + far + " netns " + std::to_string(thread_id_));
  Shell("ip addr add " + near_ip + "/24 brd + dev " + name + " && ip link set " + name + " up");
  Run([&] {
    Shell("ip link set lo up && ip addr add " + far_ip + "/24 brd + dev " + far +
          " && ip link set " + far + " up && ip route add 224.0.0.0/4 dev " + far);
    WaitForCarrier(far);
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  });
  WaitForCarrier(name);
}

RemoteHost::~RemoteHost() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  thread_.join();
  close(socket_);
  // Both ends go with one of them; a test may have removed them before.
  if (std::system(("ip link del " + name_ + " 2>/dev/null").c_str()) != 0) return;
}

void RemoteHost::Live() {
  if (unshare(CLONE_NEWNET) != 0) std::abort();
  std::unique_lock<std::mutex> lock(mutex_);
  thread_id_ = static_cast<int>(syscall(SYS_gettid));
  for (;;) {
    changed_.wait(lock, [this] { return ended_ || work_ != nullptr; });
    if (ended_) return;
    (*work_)();
    work_ = nullptr;
    changed_.notify_all();
  }
}

void RemoteHost::Run(const std::function<void()>& work) {
  std::unique_lock<std::mutex> lock(mutex_);
  work_ = &work;
  changed_.notify_all();
  changed_.wait(lock, [this] { return work_ == nullptr; });
}

void RemoteHost::Send(const std::string& ip, int port, const std::string& data) {
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<unsigned short>(port));
  inet_pton(AF_INET, ip.c_str(), &to.sin_addr);
  if (sendto(socket_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
             sizeof(to)) < 0) {
    throw std::runtime_error("sendto failed");
  }
}

}  // namespace vex_test

#include "tests/support/fail_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "base/io_threads.h"
#include "tests/support/stumble.h"

namespace {

using vex_test::SystemCall;

// Calls that are still to succeed, and then to fail. `left` 0 for none.
struct Failure {
  std::atomic<int> before{0};
  std::atomic<int> left{0};
  std::atomic<int> error{0};
  std::atomic<int> failed{0};
};
Failure failures[static_cast<int>(SystemCall::kCount)];

// On the thread of a FailCalls.
thread_local int scopes_here = 0;

std::atomic<long long> clock_shift_seconds{0};

std::atomic<int> largest_receive_buffer{0};

std::mutex before_connect_mutex;
std::function<void()> before_connect;

void RunBeforeConnect() {
  std::function<void()> action;
  if (!vex_upnp::OnLibraryThread()) return;
  {
    const std::lock_guard<std::mutex> lock(before_connect_mutex);
    action.swap(before_connect);
  }
  if (action) action();
}

Failure& Of(SystemCall call) { return failures[static_cast<int>(call)]; }

// The error to fail with, or 0.
int FailsNow(SystemCall call) {
  Failure& failure = Of(call);
  if (failure.left.load(std::memory_order_relaxed) <= 0) return 0;
  if (scopes_here == 0 && !vex_upnp::OnLibraryThread()) return 0;
  if (failure.before.fetch_sub(1) > 0) return 0;
  if (failure.left.fetch_sub(1) <= 0) return 0;
  ++failure.failed;
  return failure.error;
}

// What would have been called without the functions below; a sanitizer's own, where there is one.
template <typename Function>
Function Original(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function>(found);
}

bool Fails(SystemCall call) {
  const int error = FailsNow(call);
  if (error == 0) return false;
  errno = error;
  return true;
}

std::atomic<int> broken_pipes{0};

ssize_t Sent(ssize_t result) {
  if (result < 0 && errno == EPIPE) ++broken_pipes;
  return result;
}

// What has been returned by a call that others can see, or that tells what others did.
template <typename Result>
Result Seen(Result result) {
  const int error = errno;
  vex_test::Stumble();
  errno = error;
  return result;
}

}  // namespace

namespace vex_test {

FailCalls::FailCalls(SystemCall call, int error, int nth, int count)
    : call_(call), failed_before_(Of(call).failed) {
  Of(call).error = error;
  Of(call).before = nth - 1;
  Of(call).left = count;
  ++scopes_here;
}

FailCalls::~FailCalls() {
  Of(call_).left = 0;
  --scopes_here;
}

int BrokenPipes() { return broken_pipes; }

int FailCalls::Failed() const { return Of(call_).failed - failed_before_; }

ShiftedClock::ShiftedClock(std::chrono::hours shift) {
  clock_shift_seconds = std::chrono::seconds(shift).count();
}

ShiftedClock::~ShiftedClock() { clock_shift_seconds = 0; }

JumpingClock::JumpingClock()
    : thread_([this] {
        constexpr long long kYear = 365LL * 24 * 3600;
        for (long long step = 0; !ended_; ++step) {
          clock_shift_seconds = (step % 3 - 1) * kYear;
          std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        clock_shift_seconds = 0;
      }) {}

JumpingClock::~JumpingClock() {
  ended_ = true;
  thread_.join();
}

SmallReceiveBuffers::SmallReceiveBuffers(int bytes) { largest_receive_buffer = bytes; }

SmallReceiveBuffers::~SmallReceiveBuffers() { largest_receive_buffer = 0; }

BeforeConnect::BeforeConnect(std::function<void()> action) {
  const std::lock_guard<std::mutex> lock(before_connect_mutex);
  before_connect = std::move(action);
}

BeforeConnect::~BeforeConnect() {
  const std::lock_guard<std::mutex> lock(before_connect_mutex);
  before_connect = nullptr;
}

NoDescriptors::NoDescriptors() {
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  before_ = limit.rlim_cur;
  // Small enough to be filled, gaps included, and above all that a test has open.
  limit.rlim_cur = std::min<rlim_t>(before_, 1024);
  ::setrlimit(RLIMIT_NOFILE, &limit);
  TakeWhatIsFree();
}

void NoDescriptors::TakeWhatIsFree() {
  for (int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0;
       fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
    filling_.push_back(fd);
  }
}

NoDescriptors::~NoDescriptors() {
  for (const int fd : filling_) ::close(fd);
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = before_;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace vex_test

#define VEX_INTERPOSED extern "C" __attribute__((visibility("default")))

VEX_INTERPOSED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                  void* (*start)(void*), void* argument) noexcept {
  static const auto original = Original<decltype(&pthread_create)>("pthread_create");
  // This one gives its error as its result.
  const int error = FailsNow(SystemCall::kThread);
  return error != 0 ? error : original(thread, attributes, start, argument);
}

VEX_INTERPOSED int socket(int domain, int type, int protocol) noexcept {
  static const auto original = Original<decltype(&socket)>("socket");
  return Fails(SystemCall::kSocket) ? -1 : original(domain, type, protocol);
}

VEX_INTERPOSED int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  static const auto original = Original<decltype(&bind)>("bind");
  return Fails(SystemCall::kBind) ? -1 : original(fd, address, length);
}

VEX_INTERPOSED int listen(int fd, int backlog) noexcept {
  static const auto original = Original<decltype(&listen)>("listen");
  return Fails(SystemCall::kListen) ? -1 : original(fd, backlog);
}

VEX_INTERPOSED int connect(int fd, const sockaddr* address, socklen_t length) {
  static const auto original = Original<decltype(&connect)>("connect");
  RunBeforeConnect();
  return Fails(SystemCall::kConnect) ? -1 : Seen(original(fd, address, length));
}

VEX_INTERPOSED int setsockopt(int fd, int level, int option, const void* value,
                              socklen_t length) noexcept {
  static const auto original = Original<decltype(&setsockopt)>("setsockopt");
  if (Fails(SystemCall::kSetOption)) return -1;
  const int largest = largest_receive_buffer.load(std::memory_order_relaxed);
  if (largest == 0 || level != SOL_SOCKET || option != SO_RCVBUF || length != sizeof(int)) {
    return original(fd, level, option, value, length);
  }
  const int granted = std::min(*static_cast<const int*>(value), largest);
  return original(fd, level, option, &granted, length);
}

VEX_INTERPOSED int accept(int fd, sockaddr* address, socklen_t* length) {
  static const auto original = Original<decltype(&accept)>("accept");
  return Fails(SystemCall::kAccept) ? -1 : original(fd, address, length);
}

VEX_INTERPOSED int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  static const auto original = Original<decltype(&accept4)>("accept4");
  return Fails(SystemCall::kAccept) ? -1 : original(fd, address, length, flags);
}

VEX_INTERPOSED ssize_t send(int fd, const void* data, size_t length, int flags) {
  static const auto original = Original<decltype(&send)>("send");
  return Fails(SystemCall::kSend) ? -1 : Seen(Sent(original(fd, data, length, flags)));
}

VEX_INTERPOSED ssize_t sendto(int fd, const void* data, size_t length, int flags,
                              const sockaddr* address, socklen_t address_length) {
  static const auto original = Original<decltype(&sendto)>("sendto");
  return Fails(SystemCall::kSend)
             ? -1
             : Seen(Sent(original(fd, data, length, flags, address, address_length)));
}

VEX_INTERPOSED ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  static const auto original = Original<decltype(&sendmsg)>("sendmsg");
  return Fails(SystemCall::kSend) ? -1 : Seen(Sent(original(fd, message, flags)));
}

VEX_INTERPOSED int epoll_wait(int fd, epoll_event* events, int most, int milliseconds) {
  static const auto original = Original<decltype(&epoll_wait)>("epoll_wait");
  return Seen(original(fd, events, most, milliseconds));
}

VEX_INTERPOSED int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const auto original = Original<decltype(&clock_gettime)>("clock_gettime");
  const int result = original(clock, now);
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
    now->tv_sec += static_cast<time_t>(clock_shift_seconds.load(std::memory_order_relaxed));
  }
  return result;
}

VEX_INTERPOSED int gettimeofday(timeval* now, void* zone) noexcept {
  static const auto original = Original<decltype(&gettimeofday)>("gettimeofday");
  const int result = original(now, zone);
  now->tv_sec += static_cast<time_t>(clock_shift_seconds.load(std::memory_order_relaxed));
  return result;
}

VEX_INTERPOSED time_t time(time_t* out) noexcept {
  static const auto original = Original<decltype(&time)>("time");
  if (Fails(SystemCall::kTime)) return static_cast<time_t>(-1);
  const time_t now = original(nullptr) + static_cast<time_t>(clock_shift_seconds);
  if (out != nullptr) *out = now;
  return now;
}

VEX_INTERPOSED size_t strftime(char* text, size_t most, const char* format,
                               const tm* calendar) noexcept {
  static const auto original = Original<decltype(&strftime)>("strftime");
  return Fails(SystemCall::kDateText) ? 0 : original(text, most, format, calendar);
}

// What one HTTP exchange costs: the library's asynchronous request, from SendTCPHTTPPacket to the
// listener's call, beside a bare blocking client that connects, writes, reads and closes with the
// fewest system calls. The server is a thread of this program; its own CPU time is left out.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

namespace {

namespace net = vex_upnp::network_layer;
using Seconds = std::chrono::duration<double>;

// About the size of a device description.
const std::string kBody(2048, 'd');
const std::string kAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(kBody.size()) +
    "\r\nServer: bench\r\n\r\n" + kBody;
const std::string kRequest =
    "GET /description.xml HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: bench\r\n\r\n";

double CpuOf(clockid_t clock) {
  timespec now;
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Answers every request that ends with a blank line, and closes when the client has.
class LoopbackServer {
 public:
  LoopbackServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener_, SOMAXCONN) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no server");
    }
    address_ = address;
    epoll_ = ::epoll_create1(0);
    Watch(listener_);
    thread_ = std::thread([this] { Serve(); });
    ::pthread_getcpuclockid(thread_.native_handle(), &clock_);
  }
  ~LoopbackServer() {
    stop_ = true;
    thread_.join();
    ::close(epoll_);
    ::close(listener_);
  }

  const sockaddr_in& address() const { return address_; }
  int port() const { return ntohs(address_.sin_port); }
  double Cpu() const { return CpuOf(clock_); }

 private:
  void Watch(int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }
  void Serve() {
    epoll_event events[64];
    while (!stop_) {
      const int count = ::epoll_wait(epoll_, events, 64, 100);
      for (int i = 0; i < count; ++i) Handle(events[i].data.fd);
    }
  }
  void Handle(int fd) {
    if (fd == listener_) {
      for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
        Watch(client);
      }
      return;
    }
    char data[4096];
    const ssize_t bytes = ::recv(fd, data, sizeof(data), 0);
    if (bytes >= 4 && std::memcmp(data + bytes - 4, "\r\n\r\n", 4) == 0) {
      ::send(fd, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
    } else if (bytes <= 0) {
      ::close(fd);
    }
  }

  const int listener_;
  int epoll_ = -1;
  sockaddr_in address_ = {};
  std::atomic<bool> stop_{false};
  std::thread thread_;
  clockid_t clock_ = 0;
};

LoopbackServer& Server() {
  static LoopbackServer server;
  return server;
}

// Wall time and CPU time of everything but the server, over some exchanges.
class Meter {
 public:
  Meter() : wall_(std::chrono::steady_clock::now()), cpu_(Cpu()) {}
  double WallMicros(double exchanges) const {
    return Seconds(std::chrono::steady_clock::now() - wall_).count() * 1e6 / exchanges;
  }
  double CpuMicros(double exchanges) const { return (Cpu() - cpu_) * 1e6 / exchanges; }

 private:
  static double Cpu() { return CpuOf(CLOCK_PROCESS_CPUTIME_ID) - Server().Cpu(); }

  const std::chrono::steady_clock::time_point wall_;
  const double cpu_;
};

void BareExchange() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const linger at_once = {1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  const sockaddr_in& address = Server().address();
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL) < 0) {
    throw std::runtime_error("bare exchange failed");
  }
  char data[8192];
  for (std::size_t got = 0; got < kAnswer.size();) {
    const ssize_t bytes = ::recv(fd, data, sizeof(data), 0);
    if (bytes <= 0) throw std::runtime_error("bare answer failed");
    got += static_cast<std::size_t>(bytes);
  }
  ::close(fd);
}

// Counts answers.
class Waiter : public net::ResponseListener {
 public:
  void OnResponseReceived(boost::shared_ptr<vex_upnp::utils::HTTPInfo> response,
                          const int&) override {
    if (response->GetState() != vex_upnp::utils::MESSAGE_COMPLETE) failed_ = true;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (++answers_ >= wanted_) all_there_.notify_one();
  }
  void Await(int wanted) {
    std::unique_lock<std::mutex> lock(mutex_);
    wanted_ = wanted;
    all_there_.wait(lock, [this] { return answers_ >= wanted_; });
    if (failed_) throw std::runtime_error("an answer was not complete");
  }
  int answers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answers_;
  }

 private:
  std::atomic<bool> failed_{false};
  std::mutex mutex_;
  std::condition_variable all_there_;
  int answers_ = 0;
  int wanted_ = 0;
};

class Layer {
 public:
  Layer() {
    net::InitializeNetworkLayer();
    vex_upnp::utils::Timer::InitializeManager();
    net::StartNetworkLayer();
  }
  ~Layer() {
    net::StopNetworkLayer();
    vex_upnp::utils::Timer::TerminateManager();
    net::TerminateNetworkLayer();
  }
};

void Report(benchmark::State& state, const Meter& meter, double exchanges) {
  state.counters["wall_us"] = meter.WallMicros(exchanges);
  state.counters["cpu_us"] = meter.CpuMicros(exchanges);
}

// The bare client's cost, measured anew beside each run, so that the ratio is of one moment.
void ReportRatios(benchmark::State& state, const Meter& meter, double exchanges) {
  constexpr int kSample = 2000;
  const double wall = meter.WallMicros(exchanges);
  const double cpu = meter.CpuMicros(exchanges);
  const Meter bare;
  for (int i = 0; i < kSample; ++i) BareExchange();
  state.counters["wall_us"] = wall;
  state.counters["cpu_us"] = cpu;
  state.counters["wall_ratio"] = wall / bare.WallMicros(kSample);
  state.counters["cpu_ratio"] = cpu / bare.CpuMicros(kSample);
}

void BareBlockingExchange(benchmark::State& state) {
  double exchanges = 0;
  const Meter meter;
  for (auto _ : state) {
    BareExchange();
    ++exchanges;
  }
  Report(state, meter, exchanges);
}
BENCHMARK(BareBlockingExchange)->UseRealTime()->MinTime(1.0);

// As many requests at a time as the argument says; the next group starts when all have been heard.
void LibraryExchange(benchmark::State& state) {
  const int at_once = static_cast<int>(state.range(0));
  const Layer layer;
  const auto waiter = boost::make_shared<Waiter>();
  const auto run_group = [&] {
    const int before = waiter->answers();
    int id = 0;
    for (int i = 0; i < at_once; ++i) {
      if (net::SendTCPHTTPPacket("127.0.0.1", Server().port(), kRequest, 0, waiter, id) != 0) {
        throw std::runtime_error("request refused");
      }
    }
    waiter->Await(before + at_once);
  };
  run_group();
  double exchanges = 0;
  const Meter meter;
  for (auto _ : state) {
    run_group();
    exchanges += at_once;
  }
  ReportRatios(state, meter, exchanges);
}
BENCHMARK(LibraryExchange)->Arg(1)->Arg(8)->Arg(64)->Arg(400)->UseRealTime()->MinTime(1.0);

}  // namespace

BENCHMARK_MAIN();

// The options of streaming's sockets, as the kernel has them, and what is told of those that it
// refuses.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/scoped_fd.h"
#include "src/streaming_manager.h"
#include "tests/support/fail_calls.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::FailCalls;
using vex_test::HttpPeer;
using vex_test::LogCapture;
using vex_test::MediaClient;
using vex_test::MediaHost;
using vex_test::MediaRequest;
using vex_test::Response;
using vex_test::SystemCall;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\n\r\n";
constexpr int kAsked = 2097152;

int Option(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof(value);
  ::getsockopt(fd, level, name, &value, &size);
  return value;
}

// What the system grants to one who asks for as much.
int Granted(int option) {
  const ScopedFd socket(::socket(AF_INET, SOCK_STREAM, 0));
  ::setsockopt(socket.get(), SOL_SOCKET, option, &kAsked, sizeof(kAsked));
  return Option(socket.get(), SOL_SOCKET, option);
}

// The port at one end of a socket; 0 for what is none.
template <typename Name>
int Port(Name name, int fd) {
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  if (name(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  return address.sin_family == AF_INET ? ntohs(address.sin_port) : 0;
}

// The process's own socket between these ports; one that listens has 0 at the other end.
int SocketBetween(int near_port, int far_port) {
  for (int fd = 3; fd < 1024; ++fd) {
    if (Port(::getsockname, fd) == near_port && Port(::getpeername, fd) == far_port) return fd;
  }
  return -1;
}

void ExpectMediaOptions(int fd) {
  ASSERT_GE(fd, 0);
  EXPECT_EQ(1, Option(fd, IPPROTO_TCP, TCP_NODELAY));
  EXPECT_EQ(Granted(SO_RCVBUF), Option(fd, SOL_SOCKET, SO_RCVBUF));
  EXPECT_EQ(Granted(SO_SNDBUF), Option(fd, SOL_SOCKET, SO_SNDBUF));
}

std::string Refusal() { return std::strerror(ENOPROTOOPT); }

class StreamingOptions : public vex_test::ServingTest {
 protected:
  void AnswerAll() {
    host_.DoOnRequest([](const MediaHost::Request& request) {
      const ResHeaderInfo ok = Response(200);
      EXPECT_EQ(result::kOk, SendHTTPResponse(request.server, request.session, &ok, true));
    });
  }
  std::string Ask() {
    TcpClient peer(ip_, port_);
    EXPECT_TRUE(peer.Send(kGet));
    return peer.ReadToEnd();
  }

  MediaClient client_;
};

TEST_F(StreamingOptions, AServerListensWithThem) {
  Serve();
  const int fd = SocketBetween(port_, 0);
  ExpectMediaOptions(fd);
  EXPECT_EQ(1, Option(fd, SOL_SOCKET, SO_ACCEPTCONN));
  EXPECT_EQ(1, Option(fd, SOL_SOCKET, SO_REUSEADDR));
  tcp_info info = {};
  socklen_t size = sizeof(info);
  ASSERT_EQ(0, ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size));
  // Of a socket that listens, how many may wait to be accepted.
  EXPECT_EQ(128U, info.tcpi_sacked);
}

TEST_F(StreamingOptions, AnAcceptedConnectionHasThem) {
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  ASSERT_TRUE(Await("request", "/ 0 final"));
  ExpectMediaOptions(SocketBetween(port_, peer.local_port()));
}

TEST_F(StreamingOptions, AClientsConnectionHasThem) {
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n"));
  int fd = -1;
  int id = 0;
  ASSERT_EQ(result::kOk, StartClient(MediaClient::callbacks(), "127.0.0.1", peer.port(), &id));
  const ReqHeaderInfo post = MediaRequest(utils::HTTP_POST, "/");
  ASSERT_EQ(result::kOk, SendHTTPRequest(id, &post));
  // It is connected and has its options when it has written.
  ASSERT_TRUE(client_.Await("written 100 " + std::to_string(id) + " 0"));
  for (int candidate = 3; candidate < 1024; ++candidate) {
    if (Port(::getpeername, candidate) == peer.port()) fd = candidate;
  }
  ExpectMediaOptions(fd);
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingOptions, AServerListensAllTheSameWhenOneIsRefused) {
  AnswerAll();
  const char* const lines[] = {
      "Error in setting reuse address option!", "Error in setting receive buffer size!",
      "Error in setting send buffer size!", "Error in setting no deplay option!"};
  int nth = 0;
  for (const char* const line : lines) {
    const LogCapture log;
    {
      const FailCalls refused(SystemCall::kSetOption, ENOPROTOOPT, ++nth, 1);
      Serve();
      EXPECT_EQ(1, refused.Failed());
    }
    for (const char* const other : lines)
      EXPECT_EQ(other == line ? 1 : 0, log.Count(16, kTag, other));
    EXPECT_EQ(kAnswer, Ask());
    EXPECT_EQ(result::kOk, StopServers(configuration_));
    FreeServerInfoList(servers_);
    servers_ = nullptr;
  }
}

// On a pool of one thread, on which the calls are failed too.
TEST_F(StreamingOptions, AConnectionIsServedAllTheSameWhenOneIsRefused) {
  ASSERT_EQ(result::kOk, StreamingManager::GetInstance()->ConfigureStreamingThreads(1, true));
  std::optional<FailCalls> refused;
  int nth = 0;
  int failed = 0;
  host_.DoOnConnect(
      [&](int, int) { refused.emplace(SystemCall::kSetOption, ENOPROTOOPT, ++nth, 1); });
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    failed += refused->Failed();
    refused.reset();
    const ResHeaderInfo ok = Response(200);
    EXPECT_EQ(result::kOk, SendHTTPResponse(request.server, request.session, &ok, true));
  });
  Serve();
  const std::string lines[] = {"socket set_option failed for tcp::no_delay, [" + Refusal() + "]!",
                               "Set option failed for recv size: err:" + Refusal(),
                               "Set option failed for send size: err:" + Refusal()};
  const LogCapture log;
  int asked = 0;
  for (const std::string& line : lines) {
    EXPECT_EQ(kAnswer, Ask());
    EXPECT_EQ(1, log.Count(16, kTag, line)) << line;
    ++asked;
  }
  EXPECT_EQ(result::kOk, StopServers(configuration_));
  StreamingManager::GetInstance()->ConfigureStreamingThreads(1, false);
  EXPECT_EQ(asked, failed);
}

TEST_F(StreamingOptions, AClientGoesOnAllTheSameWhenOneIsRefused) {
  const std::string lines[] = {"Set option failed for no delay " + Refusal(),
                               "Set option failed for recv size: err:" + Refusal(),
                               "Set option failed for send size: err:" + Refusal()};
  HttpPeer peer(vex_test::AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  const ReqHeaderInfo get = MediaRequest(utils::HTTP_GET, "/");
  const LogCapture log;
  int nth = 0;
  for (const std::string& line : lines) {
    const FailCalls refused(SystemCall::kSetOption, ENOPROTOOPT, ++nth, 1);
    int id = 0;
    ASSERT_EQ(result::kOk, StartClient(MediaClient::callbacks(), "127.0.0.1", peer.port(), &id));
    ASSERT_EQ(result::kOk, SendHTTPRequest(id, &get));
    ASSERT_TRUE(client_.Await("response 100 " + std::to_string(id) + " 200 2 final"));
    EXPECT_EQ(1, log.Count(16, kTag, line)) << line;
    EXPECT_EQ(1, refused.Failed());
  }
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

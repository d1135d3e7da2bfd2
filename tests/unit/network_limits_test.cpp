// Bounds of the network layer that are kept beside single messages: what all messages may hold, the
// turn of a datagram server, the room that is asked of the kernel, the threads' stacks.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>

#include "base/io_threads.h"
#include "base/limits.h"
#include "src/callbackhandler.h"
#include "src/datagram_feed.h"
#include "src/http_feed.h"
#include "src/message_budget.h"
#include "src/outgoing_limits.h"
#include "src/udp_server.h"
#include "tests/support/control_stack.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/sanitizers.h"
#include "tests/support/server_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;
using vex_test::UdpSocket;
using vex_test::WaitUntil;

constexpr std::size_t kMost = 1000000;

TEST(MessageBudget, IsGivenOutToTheLastByteAndNoFurther) {
  MessageBudget budget(kMost);
  std::size_t first = 0;
  std::size_t second = 0;
  EXPECT_TRUE(budget.Change(first, 600000));
  EXPECT_TRUE(budget.Change(second, 400000));
  EXPECT_EQ(kMost, budget.held());
  EXPECT_FALSE(budget.Change(second, 400001));
  // It counts until it is gone.
  EXPECT_EQ(kMost + 1, budget.held());
  EXPECT_TRUE(budget.Change(second, 0));
  EXPECT_TRUE(budget.Change(first, kMost));
  EXPECT_TRUE(budget.Change(first, 0));
  EXPECT_EQ(0U, budget.held());
}

TEST(MessageBudget, ASmallMessageAlwaysHasItsPlace) {
  MessageBudget budget(kMost);
  std::size_t large = 0;
  std::size_t small = 0;
  EXPECT_TRUE(budget.Change(large, kMost));
  EXPECT_TRUE(budget.Change(small, limits::kSmallMessage));
  EXPECT_FALSE(budget.Change(small, limits::kSmallMessage + 1));
  EXPECT_TRUE(budget.Change(small, limits::kSmallMessage));
}

TEST(MessageBudget, RefusalsAreLoggedOnceASecondAtMost) {
  MessageBudget budget(0);
  const LogCapture log;
  std::size_t held = 0;
  for (std::size_t i = 1; i <= 1000; ++i) {
    EXPECT_FALSE(budget.Change(held, limits::kSmallMessage + i));
  }
  EXPECT_LE(log.Lines().size(), 2U);
}

TEST(BudgetedMessage, CountsUntilTheLastHolderLetsItGo) {
  MessageBudget budget(kMost);
  boost::shared_ptr<utils::HTTPInfo> info;
  {
    const auto message = boost::make_shared<BudgetedMessage>(budget);
    info = BudgetedMessage::InfoOf(message);
    const std::string text =
        "HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + std::string(5000, 'b');
    ASSERT_EQ(result::kOk, utils::FeedParser(text.data(), text.size(), info));
    EXPECT_TRUE(message->HasPlace());
  }
  EXPECT_GE(budget.held(), 5000U);
  EXPECT_LT(budget.held(), 7000U);
  info.reset();
  EXPECT_EQ(0U, budget.held());
}

// The bytes are few, but each has a record of its own.
TEST(AnswerFits, UntilItsRecordsCostTooMuch) {
  const boost::shared_ptr<utils::HTTPInfo> info = boost::make_shared<utils::HTTPInfo>();
  boost::shared_ptr<utils::HTTPInfo> fed = info;
  const std::string header = "HTTP/1.1 200 OK\r\n\r\n";
  ASSERT_EQ(result::kOk, utils::FeedParser(header.data(), header.size(), fed));
  unsigned long long cost = 0;
  while (AnswerFits(*info)) {
    cost = info->GetBodyCost();
    ASSERT_LE(cost, limits::kControlBodyCost);
    ASSERT_EQ(result::kOk, utils::FeedParser("x\0", 1, fed));
  }
  EXPECT_GT(info->GetBodyCost(), limits::kControlBodyCost);
  EXPECT_LT(info->GetProcessedBodySize(), limits::kControlBody);
  EXPECT_LT(info->GetBodyCost() - cost, 1000U);
}

// Holds up its thread until the gate opens, as a host's callback may.
class HeldUp : public UDPRequestListener {
 public:
  void OnUDPRequestReceived(boost::shared_ptr<utils::HTTPInfo>) override { gate.Pass(); }
  vex_test::Gate gate;
};

// A server whose turns the test gives it.
class DatagramTurn : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(result::kOk, server_->Start(port_)); }
  void TearDown() override {
    server_->Stop();
    io_.poll();
  }
  void Send(const std::string& line, std::size_t times = 1) {
    for (std::size_t i = 0; i < times; ++i) {
      ASSERT_TRUE(peer_.SendTo(ip_, port_, "HTTP/1.1 200 OK\r\n" + line + "\r\n\r\n"));
    }
  }

  vex_test::RunningCallbacks callbacks_;
  const boost::shared_ptr<vex_test::DatagramSink> answers_ = callbacks_.Collect("HTTP/1.1,200,USN");
  const std::string ip_ = vex_test::OwnLoopbackAddress();
  const std::size_t turn_ = static_cast<std::size_t>(limits::kDatagramsPerWakeUp);
  io_service io_;
  const boost::shared_ptr<UDPServer> server_{new UDPServer(ip_, "lo", 0, io_)};
  UdpSocket peer_{ip_};
  int port_ = 0;
};

TEST_F(DatagramTurn, EndsBehindItsLastDatagramThoughMoreAreWaiting) {
  Send("USN: uuid:x", turn_ + 1);
  io_.run_one();
  EXPECT_TRUE(WaitUntil([&] { return answers_->Count() == turn_; }));
  io_.run_one();
  EXPECT_TRUE(WaitUntil([&] { return answers_->Count() == turn_ + 1; }));
}

// What waits in the kernel costs less than what waits parsed, and none is lost.
TEST_F(DatagramTurn, PausesWhileTooManyWaitAndGoesOnThoughNoneIsHandled) {
  const boost::shared_ptr<HeldUp> held_up(new HeldUp);
  boost::shared_ptr<UDPRequestListener> listener = held_up;
  std::vector<std::string> patterns = {"HTTP/1.1,200,HOLD"};
  int id = 0;
  CallBackHandler::GetInstance()->RegisterUDPPattern(patterns, listener, id);
  Send("HOLD: 1");
  io_.run_one();
  EXPECT_TRUE(WaitUntil([&] { return held_up->gate.waiting() == 1; }));
  // All of one sender wait behind the one that is being handled.
  constexpr int kTurns = 3;
  Send("USN: uuid:x", kTurns * turn_);
  const auto begun = std::chrono::steady_clock::now();
  for (int turn = 0; turn < kTurns; ++turn) io_.run_one();
  EXPECT_GE(std::chrono::steady_clock::now() - begun,
            (kTurns - 1) * std::chrono::milliseconds(limits::kReadingPauseMs));
  EXPECT_EQ(0U, answers_->Count());
  held_up->gate.Open();
  EXPECT_TRUE(WaitUntil([&] { return answers_->Count() == kTurns * turn_; }));
}

int ReceiveBufferOf(udp::socket& socket) {
  int size = 0;
  socklen_t length = sizeof(size);
  getsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUF, &size, &length);
  return size;
}

// The kernel doubles what it grants, for its own records.
int GrantedBuffer() {
  io_service io;
  udp::socket socket(io, udp::v4());
  AskForReceiveBuffer(socket);
  return ReceiveBufferOf(socket) / 2;
}

int MostWithoutPrivilege() {
  int most = 0;
  std::ifstream("/proc/sys/net/core/rmem_max") >> most;
  return most;
}

bool MayForce() {
  io_service io;
  udp::socket socket(io, udp::v4());
  const int size = 100000;
  return setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0;
}

void DropPrivilegesOfThisThread() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2] = {};
  ASSERT_EQ(0, syscall(SYS_capset, &header, none));
}

TEST(SsdpReceiveBuffer, IsWhatWasAskedForWithThePrivilege) {
  if (!MayForce()) GTEST_SKIP() << "the privileged form is not ours to use";
  EXPECT_EQ(limits::kSsdpReceiveBuffer, GrantedBuffer());
}

TEST(SsdpReceiveBuffer, IsWhatTheSystemAllowsWithoutIt) {
  int granted = 0;
  std::thread([&] {
    DropPrivilegesOfThisThread();
    EXPECT_FALSE(MayForce());
    granted = GrantedBuffer();
  }).join();
  EXPECT_EQ(std::min(limits::kSsdpReceiveBuffer, MostWithoutPrivilege()), granted);
}

TEST(LibraryThreads, HaveTheirStack) {
  std::size_t size = 0;
  const std::unique_ptr<boost::thread> thread(StartNamedThread("limits", [&] {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
  }));
  thread->join();
  // That sanitizer has its own share of each.
  if (vex_test::kUnderThreadSanitizer) {
    EXPECT_GE(size, limits::kThreadStack);
  } else {
    EXPECT_EQ(limits::kThreadStack, size);
  }
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

// Closing sockets that an event loop is looking at.

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

#include "base/accept.h"
#include "base/asio.h"
#include "base/socket_close.h"
#include "tests/support/raw_socket.h"

namespace vex_upnp {
namespace {

// One thread that looks at sockets for as long as the test lasts.
class CloseNowTest : public testing::Test {
 protected:
  ~CloseNowTest() override {
    io_.stop();
    looking_.join();
  }
  // As the servers do it: opened, which the loop is told of, bound, and made to wait.
  void Listen(tcp::acceptor& acceptor, int port) {
    error_code error;
    const auto address = boost::asio::ip::make_address_v4(ip_);
    acceptor.open(tcp::v4());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind(tcp::endpoint(address, static_cast<unsigned short>(port)));
    acceptor.listen(1);
    PrepareToAccept(acceptor, error);
    ASSERT_FALSE(error) << error.message();
  }

  const std::string ip_ = vex_test::OwnLoopbackAddress();
  io_service io_;
  const io_work work_ = KeepRunning(io_);
  std::thread looking_{[this] { io_.run(); }};
};

// Each turn is one chance of the loop looking at the very moment of the close.
TEST_F(CloseNowTest, NobodyIsLetInBehindAClosedAcceptor) {
  constexpr int kPort = 21700;
  constexpr int kTurns = 10000;
  for (int turn = 0; turn < kTurns; ++turn) {
    tcp::acceptor acceptor(io_);
    ASSERT_NO_FATAL_FAILURE(Listen(acceptor, kPort));
    error_code error;
    CloseNow(acceptor, error);
    ASSERT_FALSE(error) << error.message();
    ASSERT_FALSE(vex_test::TcpClient(ip_, kPort).connected()) << turn;
  }
}

TEST_F(CloseNowTest, WhatIsOutCompletesAsCancelled) {
  tcp::acceptor acceptor(io_);
  ASSERT_NO_FATAL_FAILURE(Listen(acceptor, 21701));
  std::promise<error_code> completed;
  acceptor.async_wait(tcp::acceptor::wait_read,
                      [&](const error_code& error) { completed.set_value(error); });
  error_code error;
  CloseNow(acceptor, error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_FALSE(acceptor.is_open());
  EXPECT_EQ(boost::asio::error::operation_aborted, completed.get_future().get());
}

TEST_F(CloseNowTest, WhatIsNotOpenStaysAsItIs) {
  udp::socket socket(io_);
  error_code error = boost::asio::error::eof;
  CloseNow(socket, error);
  EXPECT_FALSE(error) << error.message();
}

}  // namespace
}  // namespace vex_upnp

// The socket of streaming sessions, by itself on an event loop.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <boost/asio/write.hpp>

#include "base/asio.h"
#include "src/streaming_socket.h"
#include "tests/support/fail_calls.h"

namespace vex_upnp {
namespace streaming {
namespace {

using Watermark = boost::asio::socket_base::receive_low_watermark;
using BufferSize = boost::asio::socket_base::receive_buffer_size;

constexpr std::size_t kBlock = 524288;

class StreamingSocket : public testing::Test {
 protected:
  // Begins to read a block of which nothing has come.
  void ReadBlock() {
    media_.socket().connect(acceptor_.local_endpoint());
    acceptor_.accept(far_);
    ASSERT_TRUE(media_.MarkOpen());
    media_.SetOptions();
    media_.queue().Post([this] {
      media_.ReadAll(&block_[0], block_.size(), [this](const error_code& error, std::size_t bytes) {
        error_ = error;
        moved_ = bytes;
      });
    });
    io_.poll();
    ASSERT_EQ(0U, moved_);
  }
  int Awaited() {
    Watermark watermark;
    media_.socket().get_option(watermark);
    return watermark.value();
  }
  int Granted() {
    BufferSize size;
    media_.socket().get_option(size);
    return size.value();
  }

  io_service io_;
  tcp::acceptor acceptor_{io_, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)};
  tcp::socket far_{io_};
  MediaSocket media_{io_};
  std::string block_ = std::string(kBlock, '\0');
  error_code error_;
  std::size_t moved_ = 0;
};

TEST_F(StreamingSocket, RegressionNoMoreIsAwaitedThanASmallReceiveBufferHolds) {
  const vex_test::SmallReceiveBuffers small(32768);
  ReadBlock();
  EXPECT_EQ(Granted() / 4, Awaited());
  EXPECT_GT(Awaited(), 1);
  const std::string sent(kBlock, 'm');
  std::thread writer([&] { boost::asio::write(far_, boost::asio::buffer(sent)); });
  io_.run();
  writer.join();
  EXPECT_FALSE(error_);
  EXPECT_EQ(kBlock, moved_);
  EXPECT_EQ(sent, block_);
}

TEST_F(StreamingSocket, OfALargeBufferAQuarterOfAMegabyteIsAwaited) {
  ReadBlock();
  if (Granted() < 1024 * 1024) GTEST_SKIP() << "the system grants " << Granted();
  EXPECT_EQ(256 * 1024, Awaited());
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

#include "tests/support/http_peer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "tests/support/raw_socket.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::HttpPeer;
using vex_test::PeerConnection;
using vex_test::TcpClient;
using vex_test::WaitUntil;

TEST(HttpPeerTest, APieceIsAwaitedUntilTheOtherSideHasReadIt) {
  std::atomic<int> sent{0};
  std::atomic<int> read{0};
  HttpPeer peer([&](PeerConnection& connection) {
    for (int i = 0; i < 2; ++i) {
      connection.Send("piece");
      ++sent;
      connection.AwaitRead();
      ++read;
    }
    connection.AwaitEnd();
  });
  TcpClient client(peer.ip(), peer.port());
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(WaitUntil([&] { return sent == i + 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(i, read);
    EXPECT_EQ("piece", client.ReadBytes(5));
    EXPECT_TRUE(WaitUntil([&] { return read == i + 1; }));
  }
}

TEST(HttpPeerTest, NobodyIsAwaitedWhoHasGone) {
  std::atomic<bool> ended{false};
  HttpPeer peer([&](PeerConnection& connection) {
    connection.AwaitEnd();
    connection.Send("piece");
    connection.AwaitRead();
    ended = true;
  });
  TcpClient(peer.ip(), peer.port()).Reset();
  EXPECT_TRUE(WaitUntil([&] { return ended.load(); }, std::chrono::seconds(10)));
}

}  // namespace

#include "src/streaming_handler_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/server_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::WaitUntil;

TEST(StreamingHandlerQueue, RunsInOrderAndOneAtATime) {
  vex_test::RunningLoop loop(4);
  HandlerQueue queue(loop.io());
  std::vector<int> order;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> done{0};
  for (int i = 0; i < 1000; ++i) {
    queue.Post([&, i] {
      if (++inside != 1) ++overlaps;
      order.push_back(i);
      --inside;
      ++done;
    });
  }
  ASSERT_TRUE(WaitUntil([&] { return done == 1000; }));
  EXPECT_EQ(0, overlaps);
  ASSERT_EQ(1000U, order.size());
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(i, order[static_cast<std::size_t>(i)]);
}

TEST(StreamingHandlerQueue, CompletionsFromManyThreadsNeverOverlap) {
  vex_test::RunningLoop loop(4);
  HandlerQueue queue(loop.io());
  int unguarded = 0;
  std::atomic<int> done{0};
  for (int i = 0; i < 4000; ++i) {
    boost::asio::post(loop.io(), [&] {
      queue.Run([&] {
        ++unguarded;
        ++done;
      });
    });
    if (i % 4 == 0) {
      queue.Post([&] { ++unguarded; });
    }
  }
  ASSERT_TRUE(WaitUntil([&] { return done == 4000; }));
  std::atomic<bool> last{false};
  queue.Post([&] { last = true; });
  ASSERT_TRUE(WaitUntil([&] { return last.load(); }));
  EXPECT_EQ(5000, unguarded);
}

TEST(StreamingHandlerQueue, ARunFromInsideAHandlerComesBehindIt) {
  io_service io;
  HandlerQueue queue(io);
  std::string order;
  queue.Run([&] {
    queue.Run([&] { order += "inner "; });
    queue.Post([&] { order += "posted "; });
    order += "outer ";
  });
  EXPECT_EQ("outer inner posted ", order);
}

TEST(StreamingHandlerQueue, WhatAHandlerThrowsIsLoggedAndTheNextOneRuns) {
  io_service io;
  HandlerQueue queue(io);
  const vex_test::LogCapture log;
  bool ran = false;
  queue.Post([] { throw std::runtime_error("broken"); });
  queue.Post([] { throw 7; });
  queue.Post([&] { ran = true; });
  io.run();
  EXPECT_TRUE(ran);
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_STREAMING", "Exception: broken"));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_STREAMING", "Unknown Exception"));
}

// Its handlers hold the one who holds the queue.
struct Owner : public std::enable_shared_from_this<Owner> {
  explicit Owner(io_service& io) : queue(io) {}
  HandlerQueue queue;
};

TEST(StreamingHandlerQueue, ALoopThatEndsTakesWaitingHandlersWithIt) {
  std::weak_ptr<Owner> watched;
  {
    io_service io;
    const std::shared_ptr<Owner> owner = std::make_shared<Owner>(io);
    watched = owner;
    owner->queue.Post([owner] {});
    owner->queue.Post([owner] {});
  }
  EXPECT_TRUE(watched.expired());
}

TEST(StreamingHandlerQueue, AHandlerMayDropTheLastReference) {
  io_service io;
  std::shared_ptr<Owner> owner = std::make_shared<Owner>(io);
  const std::weak_ptr<Owner> watched = owner;
  owner->queue.Post([&owner] { owner.reset(); });
  io.run();
  EXPECT_TRUE(watched.expired());
}

TEST(StreamingHandlerQueue, WithoutMemoryAHandlerRunsOrIsNeverHeardOf) {
  io_service io;
  HandlerQueue queue(io);
  for (bool failed = true; failed;) {
    int runs = 0;
    int posted = 0;
    vex_test::EachAllocationFails(
        [&] {
          try {
            queue.Post([&] { ++runs; });
            ++posted;
          } catch (const std::bad_alloc&) {
          }
        },
        [&](bool alloc_failed) { failed = alloc_failed; });
    io.run();
    io.restart();
    EXPECT_EQ(posted, runs);
    EXPECT_GT(posted, 0);
  }
}

// A completion that another thread leaves while a post fails must not go down with it.
TEST(StreamingHandlerQueue, RegressionAPostWithoutMemoryLosesNobodyElsesHandler) {
  vex_test::RunningLoop loop(2);
  HandlerQueue queue(loop.io());
  std::atomic<bool> ended{false};
  std::atomic<int> left{0};
  std::atomic<int> ran{0};
  std::thread other([&] {
    while (!ended) {
      ++left;
      queue.Run([&] { ++ran; });
    }
  });
  for (int round = 0; round < 20000; ++round) {
    const vex_test::FailAlloc fail(1 + round % 6);
    try {
      queue.Post([&] { ++ran; });
      ++left;
    } catch (const std::bad_alloc&) {
    }
  }
  ended = true;
  other.join();
  EXPECT_TRUE(WaitUntil([&] { return ran == left; }, std::chrono::seconds(5)))
      << left << " handlers, " << ran << " ran";
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

#include "src/discovery_workers.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "base/limits.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using vex_test::WaitUntil;

TEST(DiscoveryWorkers, AJobRunsOnANamedThreadAndItsEntryGoesWithIt) {
  std::atomic<bool> go{false};
  char name[16] = {};
  DiscoveryWorkers workers;
  ASSERT_TRUE(workers.Start(1, "VexDscRescan", [&] {
    pthread_getname_np(pthread_self(), name, sizeof(name));
    WaitUntil([&] { return go.load(); });
  }));
  EXPECT_FALSE(workers.Empty());
  go = true;
  EXPECT_TRUE(WaitUntil([&] { return workers.Empty(); }));
  EXPECT_STREQ("tstVexDscRescan", name);
}

TEST(DiscoveryWorkers, NoThreadIsLeftBehind) {
  const int before = vex_test::ThreadCount();
  std::atomic<int> ran{0};
  {
    DiscoveryWorkers workers;
    for (int i = 1; i <= 200; ++i) {
      ASSERT_TRUE(workers.Start(i, "t", [&] { ++ran; }));
    }
    EXPECT_TRUE(WaitUntil([&] { return ran == 200; }));
  }
  EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() == before; }));
}

TEST(DiscoveryWorkers, JobsInLineShareAFewThreads) {
  const int before = vex_test::ThreadCount();
  std::atomic<bool> go{false};
  std::atomic<int> ran{0};
  DiscoveryWorkers workers;
  for (int i = 1; i <= 1000; ++i) {
    ASSERT_TRUE(workers.StartInLine(i, "t", [&] {
      WaitUntil([&] { return go.load(); });
      ++ran;
    }));
  }
  EXPECT_LE(vex_test::ThreadCount(), before + limits::kDescriptionWorkers);
  go = true;
  EXPECT_TRUE(WaitUntil([&] { return ran == 1000; }));
  EXPECT_TRUE(WaitUntil([&] { return workers.Empty(); }));
  // The line opens anew.
  ASSERT_TRUE(workers.StartInLine(1001, "t", [&] { ++ran; }));
  EXPECT_TRUE(WaitUntil([&] { return ran == 1001; }));
}

TEST(DiscoveryWorkers, OtherJobsDoNotWaitInLine) {
  std::atomic<bool> go{false};
  std::atomic<bool> ran{false};
  // Joins its threads at the end, before what they use goes.
  DiscoveryWorkers workers;
  for (int i = 1; i <= 2 * limits::kDescriptionWorkers; ++i) {
    workers.StartInLine(i, "t", [&] { WaitUntil([&] { return go.load(); }); });
  }
  ASSERT_TRUE(workers.Start(1000, "t", [&] { ran = true; }));
  EXPECT_TRUE(WaitUntil([&] { return ran.load(); }));
  go = true;
}

TEST(DiscoveryWorkers, JoiningWaitsForWhatRunsAndDropsTheLine) {
  vex_test::LogCapture log;
  std::atomic<bool> go{false};
  std::atomic<int> ran{0};
  DiscoveryWorkers workers;
  const auto job = [&] {
    WaitUntil([&] { return go.load(); });
    ++ran;
  };
  for (int i = 1; i <= 2 * limits::kDescriptionWorkers; ++i) workers.StartInLine(i, "t", job);
  boost::thread opener([&] {
    WaitUntil([&] { return log.Holds("Joining Thread for Timer Id ["); });
    go = true;
  });
  workers.JoinAll();
  opener.join();
  EXPECT_EQ(limits::kDescriptionWorkers, ran);
  EXPECT_TRUE(workers.Empty());
  EXPECT_EQ(1, log.Count("Joining Thread for Timer Id [1]"));
  EXPECT_EQ(1, log.Count("Finished Joining Thread for Timer Id [1]"));
  EXPECT_FALSE(workers.Start(99, "t", job));
  EXPECT_FALSE(workers.StartInLine(99, "t", job));
}

TEST(DiscoveryWorkers, AJobThatThrowsIsLogged) {
  vex_test::LogCapture log;
  DiscoveryWorkers workers;
  workers.Start(1, "t", [] { throw std::runtime_error("odd"); });
  EXPECT_TRUE(WaitUntil([&] { return workers.Empty(); }));
  EXPECT_EQ(1, log.Count("Exception in discovery thread: odd"));
}

TEST(DiscoveryWorkers, AJobMayEndTheWorkersAndIsNotWaitedFor) {
  vex_test::LogCapture log;
  const boost::shared_ptr<DiscoveryWorkers> workers(new DiscoveryWorkers);
  std::atomic<bool> joined{false};
  // Whoever does so has to keep them alive until the job is over.
  workers->Start(1, "t", [workers, &joined] {
    workers->JoinAll();
    joined = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return joined.load(); }));
  EXPECT_EQ(1, log.Count("Discovery ended by a callback, its thread is not waited for"));
  EXPECT_TRUE(WaitUntil([&] { return workers.use_count() == 1; }));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

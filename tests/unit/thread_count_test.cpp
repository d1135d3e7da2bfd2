#include "tests/support/thread_count.h"

#include <gtest/gtest.h>
#include <thread>

#include "tests/support/wait_until.h"

namespace {

// The kernel lists a joined thread for a moment; a count that took it for one that stays made
// later counts too small.
TEST(ThreadCount, LeavesOutAThreadFromItsJoinOn) {
  const int before = vex_test::ThreadCount();
  for (int i = 0; i < 2000; ++i) {
    std::thread([] {}).join();
    ASSERT_EQ(before, vex_test::ThreadCount()) << i;
  }
}

}  // namespace

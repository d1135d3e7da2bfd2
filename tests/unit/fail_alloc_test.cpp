#include "tests/support/fail_alloc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "base/io_threads.h"
#include "tests/support/no_failures.h"

namespace vex_test {
namespace {

// Kept out of the optimizer's sight, which may drop an allocation that nobody uses.
void* volatile kept;

TEST(FailAlloc, OnlyTheNthAllocationFails) {
  void* blocks[3] = {};
  bool failed = false;
  {
    const FailAlloc fail(2);
    blocks[0] = kept = std::malloc(10);
    blocks[1] = kept = std::calloc(1, 10);
    blocks[2] = kept = std::malloc(10);
    failed = fail.Failed();
  }
  EXPECT_TRUE(failed);
  EXPECT_NE(nullptr, blocks[0]);
  EXPECT_EQ(nullptr, blocks[1]);
  EXPECT_NE(nullptr, blocks[2]);
  std::free(blocks[0]);
  std::free(blocks[2]);
}

TEST(FailAlloc, NewThrowsAlsoInsideTheStandardLibrary) {
  bool thrown = false;
  {
    const FailAlloc fail(1);
    try {
      // Too long for the text's own buffer; it grows inside the shared standard library.
      std::string text("x");
      text.append(1000, 'y');
      kept = &text;
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
  }
  EXPECT_TRUE(thrown);
}

TEST(FailAlloc, OtherThreadsHaveTheirMemory) {
  void* block = nullptr;
  std::unique_ptr<std::thread> other(new std::thread([&] { block = kept = std::malloc(10); }));
  {
    const FailAlloc fail(1);
    other->join();
    EXPECT_FALSE(fail.Failed());
  }
  EXPECT_NE(nullptr, block);
  std::free(block);
}

TEST(FailAlloc, AnArrayCountsOnceAndItsQuietFormGivesNull) {
  char* arrays[2] = {};
  bool failed = false;
  {
    const FailAlloc fail(2);
    arrays[0] = new (std::nothrow) char[10];
    kept = arrays[0];
    arrays[1] = new (std::nothrow) char[10];
    kept = arrays[1];
    failed = fail.Failed();
  }
  EXPECT_TRUE(failed);
  EXPECT_NE(nullptr, arrays[0]);
  EXPECT_EQ(nullptr, arrays[1]);
  delete[] arrays[0];
}

TEST(FailAlloc, OnTheLibrarysThreadsOneInSoManyFails) {
  std::atomic<int> failed{0};
  const auto allocate = [&] {
    for (int i = 0; i < 10000; ++i) {
      kept = std::malloc(10);
      if (kept == nullptr) ++failed;
      std::free(kept);
      const NoFailures no_failures;
      kept = std::malloc(10);
      if (kept == nullptr) failed += 100000;
      std::free(kept);
    }
  };
  const FailOnLibraryThreads fail(100, 7);
  std::thread(allocate).join();
  EXPECT_EQ(0, failed);
  const std::unique_ptr<boost::thread> thread(vex_upnp::StartNamedThread("failing", allocate));
  thread->join();
  EXPECT_GT(failed, 50);
  EXPECT_LT(failed, 200);
  EXPECT_EQ(static_cast<unsigned>(failed), fail.Failures());
}

TEST(FailAlloc, RunsUntilNothingFails) {
  int runs = 0;
  const int failed = EachAllocationFails(
      [&] {
        ++runs;
        for (int i = 0; i < 3; ++i) {
          kept = std::malloc(10);
          std::free(kept);
        }
      },
      [](bool) {});
  EXPECT_EQ(3, failed);
  EXPECT_EQ(4, runs);
}

}  // namespace
}  // namespace vex_test

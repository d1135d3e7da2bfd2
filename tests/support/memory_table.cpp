#include "tests/support/memory_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>

#include "tests/support/fail_alloc.h"

namespace vex_test {
namespace {

// No function makes so many allocations in one call here; a call that goes on failing is a loop.
constexpr int kMostAllocations = 5000;

enum class Thrown { kNothing, kBadAlloc, kOther };

void CheckRun(const std::string& function, const MemoryRow& row, int nth, bool failed, int result,
              Thrown thrown) {
  if (thrown == Thrown::kBadAlloc && row.may_throw && failed) return;
  EXPECT_EQ(Thrown::kNothing, thrown) << function << " threw, allocation " << nth;
  if (thrown != Thrown::kNothing || result == row.success) return;
  const bool named = std::count(row.failures.begin(), row.failures.end(), result) > 0;
  EXPECT_TRUE(failed && named) << function << " gave " << result << ", allocation " << nth;
}

}  // namespace

int FailEach(const std::string& function, const std::function<int()>& call, const MemoryRow& row) {
  for (int nth = 1; nth <= kMostAllocations; ++nth) {
    int result = row.success;
    bool failed = false;
    Thrown thrown = Thrown::kNothing;
    {
      const FailAlloc fail(nth);
      try {
        result = call();
      } catch (const std::bad_alloc&) {
        thrown = Thrown::kBadAlloc;
      } catch (...) {
        thrown = Thrown::kOther;
      }
      failed = fail.Failed();
    }
    CheckRun(function, row, nth, failed, result, thrown);
    if (row.after) row.after(result);
    if (!failed) return nth - 1;
  }
  ADD_FAILURE() << function << " never gets by without a failed allocation";
  return kMostAllocations;
}

int FailEach(const std::string& function, const std::function<void()>& call) {
  return FailEach(
      function,
      [&] {
        call();
        return 0;
      },
      MemoryRow());
}

}  // namespace vex_test

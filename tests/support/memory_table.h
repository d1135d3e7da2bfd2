#ifndef VEXUPNPCP_TESTS_SUPPORT_MEMORY_TABLE_H_
#define VEXUPNPCP_TESTS_SUPPORT_MEMORY_TABLE_H_

#include <functional>
#include <string>
#include <vector>

namespace vex_test {

// What a row of the tables below holds besides its call.
struct MemoryRow {
  // What the call gives when it has its memory, and what it may give when it has not.
  int success = 0;
  std::vector<int> failures;
  // Follows each run, with memory to be had again: gives back what the call gave.
  std::function<void(int result)> after;
  // The header tells that it throws std::bad_alloc.
  bool may_throw = false;
};

// Calls an exported function with the first of its allocations failing, then with the second, up to
// the call in which none fails. The test fails when anything is thrown, when a result comes that
// the header does not name, and when the last call does not succeed. `function` is the name in
// tests/abi/exported_symbols.txt; a test compares these names with that list. Returns how many
// allocations were failed.
int FailEach(const std::string& function, const std::function<int()>& call, const MemoryRow& row);

// For functions without a result, and those that can't fail for want of memory.
int FailEach(const std::string& function, const std::function<void()>& call);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_MEMORY_TABLE_H_

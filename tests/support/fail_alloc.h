#ifndef VEXUPNPCP_TESTS_SUPPORT_FAIL_ALLOC_H_
#define VEXUPNPCP_TESTS_SUPPORT_FAIL_ALLOC_H_

namespace vex_test {

// From here to the end of the scope the n-th allocation of the calling thread fails, counted from 1
// over malloc, calloc, realloc and new: the first three give null, new throws std::bad_alloc. Only
// that one fails, or `count` of them in a row. Other threads are not touched. One at a time in a
// thread.
class FailAlloc {
 public:
  explicit FailAlloc(int nth, int count = 1);
  FailAlloc(const FailAlloc&) = delete;
  FailAlloc& operator=(const FailAlloc&) = delete;
  ~FailAlloc();

  // Whether as many allocations were made.
  bool Failed() const;
};

// For what the tests' own tools allocate meanwhile: allocations of this thread are neither failed
// nor counted. Returns how it was before.
bool SuspendFailAlloc(bool suspended);

// From here to the end of the scope about one in `period` of the allocations that the library makes
// on threads of its own fails; which ones, `seed` decides. One at a time in the process.
class FailOnLibraryThreads {
 public:
  FailOnLibraryThreads(unsigned period, unsigned seed);
  FailOnLibraryThreads(const FailOnLibraryThreads&) = delete;
  FailOnLibraryThreads& operator=(const FailOnLibraryThreads&) = delete;
  ~FailOnLibraryThreads();

  unsigned Failures() const;
};

// Runs `act` with its first allocation failing, then with its second, and so on, up to the run in
// which none fails any more. `check(failed)` follows each run, with memory to be had again. Returns
// how many allocations were failed.
template <typename Act, typename Check>
int EachAllocationFails(Act act, Check check) {
  for (int nth = 1;; ++nth) {
    bool failed = false;
    {
      const FailAlloc fail(nth);
      act();
      failed = fail.Failed();
    }
    check(failed);
    if (!failed) return nth - 1;
  }
}

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_FAIL_ALLOC_H_

#include "tests/support/fail_alloc.h"

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include "base/io_threads.h"

namespace {

// Allocations until the first one that fails; 0 when none is to fail.
thread_local int countdown = 0;
// Failures in a row that are still to come.
thread_local int failures = 0;
thread_local bool has_failed = false;
thread_local bool is_suspended = false;

// Of the library's threads one allocation in so many fails; 0 for none.
std::atomic<unsigned> library_period{0};
std::atomic<unsigned> library_seed{0};
std::atomic<unsigned> library_allocations{0};
std::atomic<unsigned> library_failures{0};

// Spreads a counter evenly over all numbers.
unsigned Scramble(unsigned number) {
  number = (number ^ (number >> 16)) * 0x7feb352dU;
  number = (number ^ (number >> 15)) * 0x846ca68bU;
  return number ^ (number >> 16);
}

bool FailsOnLibraryThread() {
  const unsigned period = library_period.load(std::memory_order_relaxed);
  if (period == 0 || is_suspended || !vex_upnp::OnLibraryThread()) return false;
  const unsigned number = library_allocations.fetch_add(1, std::memory_order_relaxed);
  if (Scramble(number + library_seed.load(std::memory_order_relaxed)) % period != 0) return false;
  library_failures.fetch_add(1, std::memory_order_relaxed);
  return true;
}

bool FailsNow() {
  if (FailsOnLibraryThread()) return true;
  if (countdown == 0 || is_suspended) return false;
  if (countdown > 1) {
    --countdown;
    return false;
  }
  if (--failures == 0) countdown = 0;
  has_failed = true;
  return true;
}

// The operator that would have been called without the ones below, so that a sanitizer goes on
// knowing what came from new and what from malloc.
using NewFunction = void* (*)(std::size_t);

// The mangled names carry the type of std::size_t.
constexpr const char* kNew = sizeof(std::size_t) == sizeof(unsigned) ? "_Znwj" : "_Znwm";
constexpr const char* kNewArray = sizeof(std::size_t) == sizeof(unsigned) ? "_Znaj" : "_Znam";

NewFunction Original(const char* name) {
  return reinterpret_cast<NewFunction>(dlsym(RTLD_NEXT, name));
}

// The array form of the standard library comes back here through the plain one, which is not to
// count as a second allocation.
void* CallOriginal(NewFunction original, std::size_t size) {
  const bool was_suspended = is_suspended;
  is_suspended = true;
  void* const block = original(size);
  is_suspended = was_suspended;
  return block;
}

}  // namespace

namespace vex_test {

FailAlloc::FailAlloc(int nth, int count) {
  has_failed = false;
  failures = count;
  countdown = nth;
}

FailAlloc::~FailAlloc() { countdown = 0; }

bool FailAlloc::Failed() const { return has_failed; }

bool SuspendFailAlloc(bool suspended) { return std::exchange(is_suspended, suspended); }

FailOnLibraryThreads::FailOnLibraryThreads(unsigned period, unsigned seed) {
  library_seed = seed * 0x9e3779b9U;
  library_allocations = 0;
  library_failures = 0;
  library_period = period;
}

FailOnLibraryThreads::~FailOnLibraryThreads() { library_period = 0; }

unsigned FailOnLibraryThreads::Failures() const { return library_failures; }

}  // namespace vex_test

// The linker sends every call of the test program and of the library's objects here.
extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);

void* __wrap_malloc(std::size_t size) { return FailsNow() ? nullptr : __real_malloc(size); }

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return FailsNow() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  return FailsNow() ? nullptr : __real_realloc(block, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
  static const NewFunction original = Original(kNew);
  if (FailsNow()) throw std::bad_alloc();
  return CallOriginal(original, size);
}

void* operator new[](std::size_t size) {
  static const NewFunction original = Original(kNewArray);
  if (FailsNow()) throw std::bad_alloc();
  return CallOriginal(original, size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  static const NewFunction original = Original(kNew);
  return FailsNow() ? nullptr : CallOriginal(original, size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  static const NewFunction original = Original(kNewArray);
  return FailsNow() ? nullptr : CallOriginal(original, size);
}

#include "tests/support/fail_alloc.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Allocations until the first one that fails; 0 when none is to fail.
thread_local int countdown = 0;
// Failures in a row that are still to come.
thread_local int failures = 0;
thread_local bool has_failed = false;
thread_local bool is_suspended = false;

bool FailsNow() {
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

}  // namespace

namespace vex_test {

FailAlloc::FailAlloc(int nth, int count) {
  has_failed = false;
  failures = count;
  countdown = nth;
}

FailAlloc::~FailAlloc() { countdown = 0; }

bool FailAlloc::Failed() const { return has_failed; }

void SuspendFailAlloc(bool suspended) { is_suspended = suspended; }

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
  return original(size);
}

void* operator new[](std::size_t size) {
  static const NewFunction original = Original(kNewArray);
  if (FailsNow()) throw std::bad_alloc();
  return original(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  static const NewFunction original = Original(kNew);
  return FailsNow() ? nullptr : original(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  static const NewFunction original = Original(kNewArray);
  return FailsNow() ? nullptr : original(size);
}

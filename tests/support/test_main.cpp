#include <dlfcn.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <thread>

#include "tests/support/sanitizers.h"

// A thread that nobody joins leaves its record to whoever lets it go last. The count of references
// by which that is decided lies in libboost_thread, which isn't instrumented. The sanitizer's own
// library looks this function up in the program, so it may not be hidden like the rest of it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:boost::detail::thread_data_base::~thread_data_base\n";
}

namespace {

// Hidden, or not exported by the linker, the list would be passed over without a word, and a test
// would fail once in a hundred runs.
bool SanitizerSeesTheSuppressions() {
  return dlsym(RTLD_DEFAULT, "__tsan_default_suppressions") ==
         reinterpret_cast<void*>(&__tsan_default_suppressions);
}

// Whoever starts a program may leave it with the signal ignored or blocked. With its default, a
// write that raises it ends the program, and no test can pass over it.
void LetBrokenPipesKill() {
  signal(SIGPIPE, SIG_DFL);
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &broken_pipe, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  // The library's threads take the first three characters of their creator's name.
  pthread_setname_np(pthread_self(), "tst-main");
  LetBrokenPipesKill();
  if (vex_test::kUnderThreadSanitizer && !SanitizerSeesTheSuppressions()) {
    std::fprintf(stderr, "The list of suppressions isn't visible to ThreadSanitizer.\n");
    return 1;
  }
  // A sanitizer starts a thread of its own with the first one of the program; tests that count
  // threads would count it.
  std::thread([] {}).join();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}

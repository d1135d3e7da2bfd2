#include <gmock/gmock.h>
#include <pthread.h>

// A thread that nobody joins leaves its record to whoever lets it go last. The count of references
// by which that is decided lies in libboost_thread, which isn't instrumented.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:boost::detail::thread_data_base::~thread_data_base\n";
}

int main(int argc, char** argv) {
  // The library's threads take the first three characters of their creator's name.
  pthread_setname_np(pthread_self(), "tst-main");
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}

#include <gmock/gmock.h>
#include <pthread.h>

int main(int argc, char** argv) {
  // The library's threads take the first three characters of their creator's name.
  pthread_setname_np(pthread_self(), "tst-main");
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}

#include "tests/support/thread_count.h"

#include <dirent.h>

namespace vex_test {
namespace {

int CountEntries(const char* folder) {
  DIR* const directory = opendir(folder);
  if (directory == nullptr) return -1;
  int count = 0;
  while (const dirent* const entry = readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(directory);
  return count;
}

}  // namespace

int ThreadCount() { return CountEntries("/proc/self/task"); }

// The listing itself uses one.
int DescriptorCount() { return CountEntries("/proc/self/fd") - 1; }

}  // namespace vex_test

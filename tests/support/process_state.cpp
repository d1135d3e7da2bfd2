#include "tests/support/process_state.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace vex_test {
namespace {

std::vector<std::string> Entries(const char* path) {
  std::vector<std::string> names;
  DIR* const folder = ::opendir(path);
  if (folder == nullptr) return names;
  while (const dirent* const entry = ::readdir(folder)) {
    if (entry->d_name[0] != '.') names.push_back(entry->d_name);
  }
  ::closedir(folder);
  return names;
}

}  // namespace

std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  for (const std::string& id : Entries("/proc/self/task")) {
    std::ifstream file("/proc/self/task/" + id + "/comm");
    std::string name;
    if (std::getline(file, name)) names.push_back(name);
  }
  return names;
}

int ThreadsNamed(const std::string& name) {
  const std::vector<std::string> names = ThreadNames();
  return static_cast<int>(std::count(names.begin(), names.end(), name));
}

bool IsAsleep(const std::string& thread_name) {
  const std::string asleep = "(" + thread_name + ") S";
  for (const std::string& id : Entries("/proc/self/task")) {
    std::ifstream file("/proc/self/task/" + id + "/stat");
    std::string line;
    if (std::getline(file, line) && line.find(asleep) != std::string::npos) return true;
  }
  return false;
}

ScopedDescriptorLimit::ScopedDescriptorLimit(unsigned soft_limit) {
  EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before_));
  const rlimit changed = {soft_limit, before_.rlim_max};
  EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &changed));
}

ScopedDescriptorLimit::~ScopedDescriptorLimit() {
  EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before_));
}

}  // namespace vex_test

#include "tests/support/thread_count.h"

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

std::vector<std::string> Entries(const char* folder) {
  std::vector<std::string> names;
  DIR* const directory = opendir(folder);
  if (directory == nullptr) return names;
  while (const dirent* const entry = readdir(directory)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(directory);
  return names;
}

// False for a thread that is on its way out or gone. A join returns once that way has begun, and
// the kernel lists the thread until it has come to its end.
bool IsRunning(const std::string& thread) {
  constexpr unsigned kExiting = 0x4;  // PF_EXITING of the kernel's flags
  std::string stat;
  if (!std::getline(std::ifstream("/proc/self/task/" + thread + "/stat"), stat)) return false;
  std::istringstream behind_name(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 6; ++i) behind_name >> skipped;  // from the state to the terminal's group
  unsigned flags = 0;
  behind_name >> flags;
  return (flags & kExiting) == 0;
}

}  // namespace

int ThreadCount() {
  const std::vector<std::string> threads = Entries("/proc/self/task");
  return static_cast<int>(std::count_if(threads.begin(), threads.end(), IsRunning));
}

// The listing itself uses one.
int DescriptorCount() { return static_cast<int>(Entries("/proc/self/fd").size()) - 1; }

int DescriptorsAtRest() {
  constexpr auto kLook = std::chrono::milliseconds(50);
  constexpr int kLooksAlike = 4;
  int count = DescriptorCount();
  for (int alike = 1; alike < kLooksAlike; ++alike) {
    std::this_thread::sleep_for(kLook);
    const int now = DescriptorCount();
    if (now != count) alike = 0;
    count = now;
  }
  return count;
}

int ThreadsNamed(const std::string& name) {
  const std::vector<std::string> names = ThreadNames();
  return static_cast<int>(std::count(names.begin(), names.end(), name));
}

bool IsAsleep(const std::string& name) {
  const std::string asleep = "(" + name + ") S";
  for (const std::string& thread : Entries("/proc/self/task")) {
    std::string stat;
    std::getline(std::ifstream("/proc/self/task/" + thread + "/stat"), stat);
    if (stat.find(asleep) != std::string::npos) return true;
  }
  return false;
}

testing::AssertionResult ThreadsBecome(int count) {
  if (WaitUntil([count] { return ThreadCount() == count; })) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << ThreadCount() << " threads instead of " << count;
}

std::vector<std::string> ThreadNames(const std::string& leave_out) {
  std::vector<std::string> names;
  for (const std::string& thread : Entries("/proc/self/task")) {
    if (!IsRunning(thread)) continue;
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + thread + "/comm"), name);
    if (name != leave_out) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace vex_test

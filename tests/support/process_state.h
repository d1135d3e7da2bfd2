#ifndef VEXUPNPCP_TESTS_SUPPORT_PROCESS_STATE_H_
#define VEXUPNPCP_TESTS_SUPPORT_PROCESS_STATE_H_

#include <sys/resource.h>

#include <string>
#include <vector>

namespace vex_test {

// The names of the process' threads; counts are in thread_count.h.
std::vector<std::string> ThreadNames();
// How many threads have this name.
int ThreadsNamed(const std::string& name);
// Whether one of this name is asleep in the kernel.
bool IsAsleep(const std::string& thread_name);

// Another soft limit on descriptors, from here to the end of the scope.
class ScopedDescriptorLimit {
 public:
  explicit ScopedDescriptorLimit(unsigned soft_limit);
  ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
  ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;
  ~ScopedDescriptorLimit();

 private:
  rlimit before_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_PROCESS_STATE_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_
#define VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

#include <string>
#include <vector>

namespace vex_test {

// How many threads and descriptors the process has now.
int ThreadCount();
int DescriptorCount();

// The names of the process's threads, sorted, without those that `leave_out` names.
std::vector<std::string> ThreadNames(const std::string& leave_out);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

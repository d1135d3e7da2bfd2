#ifndef VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_
#define VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vex_test {

// How many threads and descriptors the process has now.
int ThreadCount();
int DescriptorCount();

// Whether the process has this many threads. The kernel lists one that was joined for a moment
// longer, so it is looked at again for up to a second.
testing::AssertionResult ThreadsBecome(int count);

// The names of the process's threads, sorted, without those that `leave_out` names.
std::vector<std::string> ThreadNames(const std::string& leave_out);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

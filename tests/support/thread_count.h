#ifndef VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_
#define VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vex_test {

// How many threads and descriptors the process has now. A thread that was joined isn't counted,
// though the kernel lists it for a moment longer.
int ThreadCount();
int DescriptorCount();

// How many descriptors are left when no more are given back: the peers of a test see the ends of
// their connections on threads of their own.
int DescriptorsAtRest();

// How many threads have this name.
int ThreadsNamed(const std::string& name);
// Whether one of this name is asleep in the kernel.
bool IsAsleep(const std::string& name);

// Whether the process has this many threads. One that nobody joins may take a moment to end, so
// it is looked at again for up to a second.
testing::AssertionResult ThreadsBecome(int count);

// The names of the process's threads, sorted, without those that `leave_out` names.
std::vector<std::string> ThreadNames(const std::string& leave_out = "");

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

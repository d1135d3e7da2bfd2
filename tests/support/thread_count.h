#ifndef VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_
#define VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

namespace vex_test {

// How many threads and descriptors the process has now.
int ThreadCount();
int DescriptorCount();

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_THREAD_COUNT_H_

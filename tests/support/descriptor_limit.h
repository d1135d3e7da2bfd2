#ifndef VEXUPNPCP_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
#define VEXUPNPCP_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_

#include <sys/resource.h>

namespace vex_test {

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

#endif  // VEXUPNPCP_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_

#include "tests/support/descriptor_limit.h"

#include <gtest/gtest.h>

namespace vex_test {

ScopedDescriptorLimit::ScopedDescriptorLimit(unsigned soft_limit) {
  EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before_));
  const rlimit changed = {soft_limit, before_.rlim_max};
  EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &changed));
}

ScopedDescriptorLimit::~ScopedDescriptorLimit() {
  EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before_));
}

}  // namespace vex_test

#ifndef VEXUPNPCP_TESTS_SUPPORT_TIMING_SCALED_H_
#define VEXUPNPCP_TESTS_SUPPORT_TIMING_SCALED_H_

namespace vex_test {

// Divides every wait of the library, from now to the end of the scope.
class FasterTime {
 public:
  explicit FasterTime(int divisor);
  FasterTime(const FasterTime&) = delete;
  FasterTime& operator=(const FasterTime&) = delete;
  ~FasterTime();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_TIMING_SCALED_H_

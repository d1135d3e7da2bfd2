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

// Multiplies every wait of the library, so that what must not wait for one can be told from what
// does.
class SlowerTime {
 public:
  explicit SlowerTime(int factor);
  SlowerTime(const SlowerTime&) = delete;
  SlowerTime& operator=(const SlowerTime&) = delete;
  ~SlowerTime();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_TIMING_SCALED_H_

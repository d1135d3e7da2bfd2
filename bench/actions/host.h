#ifndef VEX_BENCH_ACTIONS_HOST_H_
#define VEX_BENCH_ACTIONS_HOST_H_

#include <vexupnpcp/generic_cp.h>

#include <string>

// The library as a host starts it, and the one device found; both for the life of this object. Ends
// the program when that fails.
class BenchHost {
 public:
  BenchHost(const char* interface_name, ControlPointCalbacks callbacks);
  ~BenchHost();
  BenchHost(const BenchHost&) = delete;
  BenchHost& operator=(const BenchHost&) = delete;

  int handle() const { return handle_; }
  const char* udn() const { return udn_.c_str(); }

 private:
  int handle_ = 0;
  std::string udn_;
};

#endif  // VEX_BENCH_ACTIONS_HOST_H_

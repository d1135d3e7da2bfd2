#ifndef VEXUPNPCP_TESTS_SUPPORT_EMULATED_H_
#define VEXUPNPCP_TESTS_SUPPORT_EMULATED_H_

#include <cstdlib>

namespace vex_test {

// Whether an emulator of another processor runs this program, which takes ten times as long and is
// no kernel. Whoever starts it says so.
inline const bool kEmulated = std::getenv("VEX_TEST_EMULATED") != nullptr;

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_EMULATED_H_

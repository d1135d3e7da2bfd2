#ifndef VEXUPNPCP_TESTS_SUPPORT_SANITIZERS_H_
#define VEXUPNPCP_TESTS_SUPPORT_SANITIZERS_H_

// Which sanitizer watches this program: g++ defines macros for it, clang has features.
#if defined(__has_feature)
#define VEX_TEST_FEATURE(name) __has_feature(name)
#else
#define VEX_TEST_FEATURE(name) 0
#endif

namespace vex_test {

#if defined(__SANITIZE_THREAD__) || VEX_TEST_FEATURE(thread_sanitizer)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || VEX_TEST_FEATURE(address_sanitizer)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

// Both take more time and memory than what they watch.
constexpr bool kUnderSanitizer = kUnderThreadSanitizer || kUnderAddressSanitizer;

// Seconds of processor time that ten thousand steps stay below where each costs the same, on a busy
// machine too.
constexpr double kLittleCpuTime = kUnderSanitizer ? 10.0 : 2.0;

}  // namespace vex_test

#undef VEX_TEST_FEATURE

#endif  // VEXUPNPCP_TESTS_SUPPORT_SANITIZERS_H_

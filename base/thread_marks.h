#ifndef VEXUPNPCP_BASE_THREAD_MARKS_H_
#define VEXUPNPCP_BASE_THREAD_MARKS_H_

// Says which lock guards a field and which lock a function wants held. Clang proves it with
// -Wthread-safety (Boost's locks carry their half of the marks under
// BOOST_THREAD_ENABLE_THREAD_SAFETY_ANALYSIS); other compilers see nothing. Recursive mutexes are
// outside what the analysis understands: their fields carry a comment instead of a mark.
#if defined(__clang__)
#define VEX_GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define VEX_REQUIRES(mutex) __attribute__((requires_capability(mutex)))
#define VEX_NO_THREAD_SAFETY_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define VEX_GUARDED_BY(mutex)
#define VEX_REQUIRES(mutex)
#define VEX_NO_THREAD_SAFETY_ANALYSIS
#endif

#endif  // VEXUPNPCP_BASE_THREAD_MARKS_H_

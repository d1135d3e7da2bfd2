#ifndef VEXUPNPCP_TESTS_SUPPORT_SMALL_STACK_H_
#define VEXUPNPCP_TESTS_SUPPORT_SMALL_STACK_H_

#include <functional>

#include <boost/thread/thread.hpp>

#include "base/limits.h"

namespace vex_test {

// Runs a function on a thread with the stack that the library's own threads have.
inline void OnSmallStack(const std::function<void()>& function) {
  boost::thread::attributes attributes;
  attributes.set_stack_size(vex_upnp::limits::kThreadStack);
  boost::thread thread(attributes, function);
  thread.join();
}

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SMALL_STACK_H_

#ifndef VEXUPNPCP_BASE_RETRY_H_
#define VEXUPNPCP_BASE_RETRY_H_

#include <new>

#include <boost/thread/thread.hpp>

#include "base/timing.h"

namespace vex_upnp {

// Repeats `step` until it finds the memory that it needs. For the step without which a thread of
// the library would do nothing ever again: waiting for the next expiry, datagram or connection.
template <typename Step>
void RetryWithoutMemory(Step step) {
  for (;;) {
    try {
      step();
      return;
    } catch (const std::bad_alloc&) {
      boost::this_thread::sleep_for(
          boost::chrono::milliseconds(timing::Scaled(timing::kMemoryRetryMs)));
    }
  }
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_RETRY_H_

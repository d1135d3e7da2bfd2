#ifndef VEXUPNPCP_TESTS_SUPPORT_STILL_WORKS_H_
#define VEXUPNPCP_TESTS_SUPPORT_STILL_WORKS_H_

#include <gtest/gtest.h>

namespace vex_test {

// Shows that the library does its whole work after whatever came before: a good device appears and
// is announced until it is listed, as devices repeat their announcements; an action is sent to it
// and answered; one of its services is subscribed and an event heard; its farewell takes it off the
// list. Every round has a device of its own.
//
// `handle` is a control point of the running library, registered with RecordingCallbacks for all
// root devices; `udp_port` is where the library listens on lan0.
testing::AssertionResult StillWorks(int handle, int udp_port = 5300);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_STILL_WORKS_H_

#ifndef VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_
#define VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_

namespace vex_test {

// Called when a thread of the library has written a line, sent something or begun a connection.
// Stops it there for VEX_TEST_STUMBLE_MS milliseconds, if that is set: a test that takes what it
// sees from outside for what the library does behind it then fails always, not once in a thousand
// runs.
void Stumble();

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_STUMBLE_H_

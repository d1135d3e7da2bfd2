#ifndef VEXUPNPCP_TESTS_SUPPORT_ANY_CUT_H_
#define VEXUPNPCP_TESTS_SUPPORT_ANY_CUT_H_

#include <string>

#include "tests/support/cut_feeder.h"

namespace vex_test {

// Parses a message in one piece, cut at every byte and byte by byte; every way that gives something
// else than the whole one is a failure of the test. Gives what the whole one gave.
ParsedMessage ParseAnyCut(const std::string& message);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_ANY_CUT_H_

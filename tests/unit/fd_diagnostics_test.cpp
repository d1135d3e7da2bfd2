#include "src/fd_diagnostics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;

TEST(FdDiagnostics, ACommandsOutputIsReturnedAndLoggedLineByLine) {
  LogCapture log;
  EXPECT_EQ("one\ntwo\n", exec("printf 'one\\ntwo\\n'"));
  EXPECT_EQ(1, log.Count("one\n"));
  EXPECT_EQ(1, log.Count("two\n"));
}

TEST(FdDiagnostics, ALongLineIsLoggedInPiecesAndReturnedWhole) {
  LogCapture log;
  const std::string line(300, 'x');
  EXPECT_EQ(line, exec(("printf " + line).c_str()));
  EXPECT_EQ(2, log.Count(std::string(127, 'x')));
  EXPECT_EQ(1, log.Count(std::string(46, 'x')));
}

TEST(FdDiagnostics, ACommandThatCannotBeStartedGivesAnErrorText) {
  const vex_test::ScopedDescriptorLimit none_left(0);
  EXPECT_EQ("ERROR", exec("true"));
}

TEST(FdDiagnostics, TheDumpTellsWhatItRuns) {
  LogCapture log;
  EXPECT_EQ(1, printDebugInfo());
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd";
  EXPECT_EQ(1, log.Count("Command to be Executed : /bin/ls -ltra " + path));
  EXPECT_EQ(1, log.Count("Dumping Contents [" + path + "]"));
  EXPECT_EQ(1, log.Count("Total Fd Count "));
  EXPECT_EQ(1, log.Count("Netstat -n Output"));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

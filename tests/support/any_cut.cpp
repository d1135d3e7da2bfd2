#include "tests/support/any_cut.h"

#include <gmock/gmock.h>

namespace vex_test {

ParsedMessage ParseAnyCut(const std::string& message) {
  const CutFeeder feeder(message);
  const ParsedMessage whole = feeder.Whole();
  feeder.EveryCut([&](const std::vector<std::size_t>& cuts, const ParsedMessage& parsed) {
    EXPECT_EQ(whole, parsed) << "cut at " << testing::PrintToString(cuts)
                             << " (byte by byte when empty)";
  });
  return whole;
}

}  // namespace vex_test

#include "src/header_end.h"

#include <gtest/gtest.h>

#include <string>

namespace vex_upnp {
namespace network_layer {
namespace {

TEST(HeaderEnd, BlankLineIsSeenWhereverTheBytesAreCut) {
  const std::string text = "GET / HTTP/1.1\r\nA: b\r\n\r\nbody";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (std::size_t second = first; second <= text.size(); ++second) {
      HeaderEnd end;
      end.Saw(text.data(), first);
      end.Saw(text.data() + first, second - first);
      EXPECT_TRUE(end.Saw(text.data() + second, text.size() - second)) << first << " " << second;
    }
  }
}

TEST(HeaderEnd, BlankLineIsSeenByteByByteAndNotBefore) {
  const std::string text = "A: b\r\n\r\n";
  HeaderEnd end;
  for (std::size_t i = 0; i < text.size(); ++i) {
    EXPECT_EQ(i + 1 == text.size(), end.Saw(&text[i], 1)) << i;
  }
  EXPECT_TRUE(end.Saw("x", 1));
}

TEST(HeaderEnd, OtherLineEndsDoNotCount) {
  HeaderEnd end;
  const std::string text = "a\n\nb\r\n\rc\r\n \r\n";
  EXPECT_FALSE(end.Saw(text.data(), text.size()));
}

TEST(HeaderEnd, PiecesOfABlankLineApartFromEachOtherDoNotCount) {
  HeaderEnd end;
  EXPECT_FALSE(end.Saw("\r\n", 2));
  EXPECT_FALSE(end.Saw("x\r\n", 3));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

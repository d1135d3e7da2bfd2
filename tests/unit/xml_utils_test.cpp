#include <vexupnpcp/xml_utils.h>

#include <gmock/gmock.h>

#include <random>
#include <string>

#include "base/limits.h"
#include "tests/support/cpu_seconds.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "xmlparser/src/number_references.h"

namespace vex_upnp {
namespace utils {
namespace {

std::string Escaped(const std::string& text) {
  std::string out = "untouched";
  EXPECT_EQ(0, XmlEscapeValue(text, out));
  return out;
}

std::string Unescaped(const std::string& text) {
  std::string out = "untouched";
  EXPECT_EQ(0, XmlUnescapeValue(text, out));
  return out;
}

std::string Converted(std::string text) {
  EXPECT_EQ(0, ConvertSpecialNumbers(text));
  return text;
}

TEST(XmlEscape, FiveCharactersHaveNames) {
  EXPECT_EQ("a&quot;b&amp;c&apos;d&lt;e&gt;f", Escaped("a\"b&c'd<e>f"));
}

TEST(XmlEscape, ControlCharactersBecomeDecimalReferences) {
  EXPECT_EQ("&#1;&#9;&#10;&#13;&#31; ~\x7F", Escaped("\x01\t\n\r\x1F ~\x7F"));
}

TEST(XmlEscape, AllOtherBytesPass) {
  std::string text(1, '\0');
  for (int byte = 32; byte < 256; ++byte) {
    if (std::string("\"&'<>").find(static_cast<char>(byte)) == std::string::npos) {
      text += static_cast<char>(byte);
    }
  }
  EXPECT_EQ(text, Escaped(text));
}

TEST(XmlEscape, EmptyTextIsACodeOfItsOwn) {
  const vex_test::LogCapture log;
  std::string out = "untouched";
  EXPECT_EQ(3002, XmlEscapeValue("", out));
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Empty String"));
  EXPECT_EQ("untouched", out);
}

TEST(XmlEscape, InputMayBeTheOutput) {
  std::string text = "a<b";
  EXPECT_EQ(0, XmlEscapeValue(text, text));
  EXPECT_EQ("a&lt;b", text);
  EXPECT_EQ(0, XmlUnescapeValue(text, text));
  EXPECT_EQ("a<b", text);
}

TEST(XmlUnescape, NamesAreReplaced) {
  EXPECT_EQ("<a>\"b\" 'c' & d", Unescaped("&lt;a&gt;&quot;b&quot;&nbsp;&apos;c&apos; &amp; d"));
  EXPECT_EQ("plain", Unescaped("plain"));
}

TEST(XmlUnescape, EmptyTextIsACodeOfItsOwn) {
  const vex_test::LogCapture log;
  std::string out = "untouched";
  EXPECT_EQ(3002, XmlUnescapeValue("", out));
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Empty string"));
  EXPECT_EQ("untouched", out);
}

TEST(XmlUnescape, WhatIsNoReferenceStays) {
  for (const char* text : {"&", "&&", "a & b", "&lt", "&LT;", "&copy;", "&;", "& lt;", "&l", "&#",
                           "&#;", "&#x;", "&#65", "&#xZZ;"}) {
    EXPECT_EQ(text, Unescaped(text));
  }
}

TEST(XmlUnescape, KeptAmpersandIsReplacedLast) {
  EXPECT_EQ("&lt;", Unescaped("&amp;lt;"));
  EXPECT_EQ("&amp;", Unescaped("&amp;amp;"));
  EXPECT_EQ("&#65;", Unescaped("&amp;#65;"));
  // What a number lays bare comes before it.
  EXPECT_EQ("&", Unescaped("&#38;amp;"));
  EXPECT_EQ("&lt;", Unescaped("&#38;lt;"));
}

TEST(XmlUnescape, ReferenceOfValueZeroStays) {
  EXPECT_EQ("a&#0;b", Unescaped("a&#0;b"));
  EXPECT_EQ("&#x0;&#;A", Unescaped("&#x0;&#;&#65;"));
  EXPECT_EQ("&#junk;A", Unescaped("&#junk;&#65;"));
}

TEST(XmlUnescape, EscapedTextComesBack) {
  std::string text;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte < 1 || byte > 31) text += static_cast<char>(byte);
  }
  EXPECT_EQ(text, Unescaped(Escaped(text)));
  EXPECT_EQ("one\ncontrol", Unescaped(Escaped("one\ncontrol")));
}

TEST(XmlUnescape, ShortageOfMemoryIsACodeAndLeavesTheOutput) {
  const std::string text =
      "a text that is long enough for the heap: &lt;&#65;&#66; &#38; &#38;#65; &quot;";
  using Function = int (*)(const std::string&, std::string&);
  for (const Function function : {&XmlEscapeValue, &XmlUnescapeValue}) {
    bool failed = true;
    for (int nth = 1; failed; ++nth) {
      std::string out = "untouched";
      int code = -1;
      {
        const vex_test::FailAlloc fail(nth);
        code = function(text, out);
        failed = fail.Failed();
      }
      EXPECT_EQ(failed ? 3000 : 0, code) << nth;
      EXPECT_EQ(failed, out == "untouched") << nth;
    }
  }
}

TEST(NumberReferences, DecimalAndHexadecimal) {
  EXPECT_EQ("xAy", Converted("x&#65;y"));
  EXPECT_EQ("xAy", Converted("x&#x41;y"));
  EXPECT_EQ("J", Converted("&#x4a;"));
  EXPECT_EQ("J", Converted("&#x4A;"));
  // Only a small x makes it hexadecimal.
  EXPECT_EQ("&#X41;", Converted("&#X41;"));
}

TEST(NumberReferences, KeptReplacementCarriesTheEarlierOnes) {
  EXPECT_EQ("AAB", Converted("&#65;&#66;"));
  EXPECT_EQ("A-AB-ABC", Converted("&#65;-&#66;-&#67;"));
}

TEST(NumberReferences, KeptAllOccurrencesGetWhatTheFirstGets) {
  EXPECT_EQ("A AB A AB", Converted("&#65; &#66; &#65; &#66;"));
  // Written otherwise it is another reference.
  EXPECT_EQ("A AA", Converted("&#65; &#065;"));
}

TEST(NumberReferences, KeptOnlyTheLowByteCounts) {
  EXPECT_EQ("A", Converted("&#321;"));
  EXPECT_EQ(std::string(1, '\0'), Converted("&#256;"));
  EXPECT_EQ("\xFF", Converted("&#-1;"));
  EXPECT_EQ("\xFF", Converted("&#xFFFFFFFF;"));
  EXPECT_EQ("\xFF", Converted("&#99999999999999999999;"));
  EXPECT_EQ(std::string(1, '\0'), Converted("&#-99999999999999999999;"));
  EXPECT_EQ("\xFF", Converted("&#4294967361;"));
}

TEST(NumberReferences, NumberEndsAtItsFirstOtherCharacter) {
  EXPECT_EQ("A", Converted("&#65 and more;"));
  EXPECT_EQ("A", Converted("&#x41xyz;"));
  EXPECT_EQ("A", Converted("&# 65;"));
}

TEST(NumberReferences, WithoutSemicolonTheWorkEnds) {
  EXPECT_EQ("A&#66", Converted("&#65;&#66"));
  EXPECT_EQ("&#", Converted("&#"));
  EXPECT_EQ(";&#65", Converted(";&#65"));
}

TEST(NumberReferences, WhatIsPutInIsNotReadAgain) {
  // "&" and "#65;" meet in front of the place from which the search goes on.
  EXPECT_EQ("&#65;", Converted("&#38;#65;"));
}

TEST(NumberReferences, LaterOccurrenceThatMakesAReferenceIsRead) {
  // The first gives "&". The second one does too, in front of "#65;", and that is read in turn.
  EXPECT_EQ("& &A", Converted("&#38; &#38;#65;"));
}

TEST(NumberReferences, ReferenceInsideAnotherIsPartOfIt) {
  // Value 0, since the number ends at "&".
  EXPECT_EQ("&#&#65;", Converted("&#&#65;"));
  EXPECT_EQ("\x06", Converted("&#6&#65;"));
  // Replaced everywhere before the outer one is looked at, which then has no end of its own.
  EXPECT_EQ("A&#6A", Converted("&#65;&#6&#65;"));
}

// A text of references that is converted in both ways where the short one allows it.
void ExpectBothWaysEqual(const std::string& text) {
  std::string in_one_pass;
  const ReferenceResult done = ReplaceReferencesInOnePass(text, in_one_pass);
  std::string one_by_one = text;
  ASSERT_TRUE(ReplaceReferencesOneByOne(one_by_one)) << text;
  if (done == ReferenceResult::kDone) {
    EXPECT_EQ(one_by_one, in_one_pass) << text;
  }
  std::string converted = text;
  ASSERT_EQ(0, ConvertSpecialNumbers(converted)) << text;
  EXPECT_EQ(one_by_one, converted) << text;
}

TEST(NumberReferences, ShortAndLongWayGiveTheSame) {
  const char* const pieces[] = {"&#65;", "&#66;", "&#38;", "&#35;", "&#59;", "&#0;",  "&#",
                                "&",     "#",     ";",     "x",     "6",     "&#x41;"};
  std::mt19937 random(19);
  for (int round = 0; round < 200000; ++round) {
    std::string text;
    for (auto length = random() % 9; length > 0; --length) {
      text += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
    }
    ExpectBothWaysEqual(text);
    if (testing::Test::HasFailure()) return;
  }
}

TEST(NumberReferences, ShortWayServesUsualTexts) {
  std::string out;
  for (const char* text : {"a &#10; b &#233; c &#10;", "&#38;", "&#38;&#35;", "&#35;&#38;", "&#0;",
                           "&#59;&#38; &#38;"}) {
    EXPECT_NE(ReferenceResult::kTooMuch, ReplaceReferencesInOnePass(text, out));
  }
  EXPECT_EQ(ReferenceResult::kDone, ReplaceReferencesInOnePass("a &#10; b &#233; c &#10;", out));
  EXPECT_EQ(ReferenceResult::kEntangled, ReplaceReferencesInOnePass("&#38; &#38;#65;", out));
}

// Different references in a row; each is replaced by one byte more than the one before.
std::string DifferentReferences(int count) {
  std::string text;
  for (int i = 1; i <= count; ++i) text += "&#" + std::to_string(i) + ";";
  return text;
}

// n references make n * (n + 1) / 2 bytes; the rest up to the bound is filled with letters.
std::string TextOfResultSize(std::size_t bytes) {
  constexpr std::size_t kReferences = 5700;
  return DifferentReferences(kReferences) +
         std::string(bytes - kReferences * (kReferences + 1) / 2, 'x');
}

TEST(NumberReferences, ResultAtItsBoundIsMade) {
  const vex_test::CpuSeconds cpu;
  std::string text = TextOfResultSize(limits::kUnescapedText);
  ASSERT_EQ(0, ConvertSpecialNumbers(text));
  EXPECT_EQ(limits::kUnescapedText, text.size());
  EXPECT_LT(cpu.Elapsed(), 5.0);
}

TEST(NumberReferences, ResultPastItsBoundIsOutOfMemory) {
  const vex_test::CpuSeconds cpu;
  const std::string text = TextOfResultSize(limits::kUnescapedText + 1);
  std::string converted = text;
  EXPECT_EQ(3000, ConvertSpecialNumbers(converted));
  EXPECT_EQ(text, converted);
  std::string out = "untouched";
  EXPECT_EQ(3000, XmlUnescapeValue(text, out));
  EXPECT_EQ("untouched", out);
  EXPECT_LT(cpu.Elapsed(), 5.0);
}

TEST(NumberReferences, LongTextWithoutReferencesHasNoBound) {
  const std::string text(limits::kUnescapedText + 1, 'x');
  EXPECT_EQ(text, Unescaped(text));
}

TEST(NumberReferences, TenThousandReferencesAreLinear) {
  const vex_test::CpuSeconds cpu;
  std::string same;
  for (int i = 0; i < 10000; ++i) same += "&#65;";
  EXPECT_EQ(std::string(10000, 'A'), Converted(same));
  std::string different = DifferentReferences(10000);
  EXPECT_EQ(3000, ConvertSpecialNumbers(different));
  EXPECT_LT(cpu.Elapsed(), 5.0);
}

TEST(NumberReferences, EntangledReferencesStopAtTheBoundOfWork) {
  const vex_test::CpuSeconds cpu;
  // The second occurrence of the first one makes a reference with what follows it, so that there
  // is only the long way.
  std::string text = "&#38; &#38;#65; " + DifferentReferences(5000) + std::string(4 << 20, 'x');
  EXPECT_EQ(3000, ConvertSpecialNumbers(text));
  EXPECT_LT(cpu.Elapsed(), 10.0);
}

// A text whose references cost exactly so many bytes looked at when they are replaced one by one:
// for each of them the whole text, in which the earlier ones have been replaced already.
std::string TextOfWork(std::size_t bytes) {
  constexpr std::size_t kReferences = 20;
  constexpr std::size_t kLength = 5;
  // What stands in the place of the n-th reference is n bytes long.
  std::size_t work = 0;
  for (std::size_t round = 1; round <= kReferences; ++round) {
    work += round * (round - 1) / 2 + (kReferences - round + 1) * kLength;
  }
  // A letter behind them is looked at in every round, a zero in the first reference only once.
  const std::size_t letters = (bytes - work) / kReferences;
  const std::size_t zeros = (bytes - work) % kReferences;
  std::string text = "&#" + std::string(zeros, '0') + "65;";
  for (std::size_t i = 1; i < kReferences; ++i) text += "&#" + std::to_string(65 + i) + ";";
  return text + std::string(letters, 'x');
}

TEST(NumberReferences, WorkAtItsBoundIsDone) {
  std::string text = TextOfWork(limits::kUnescapeWork);
  const std::size_t letters = text.size() - text.rfind(';') - 1;
  EXPECT_TRUE(ReplaceReferencesOneByOne(text));
  std::string replaced;
  std::string carried;
  for (char letter = 'A'; letter <= 'T'; ++letter) replaced += carried += letter;
  EXPECT_TRUE(text == replaced + std::string(letters, 'x'));
}

TEST(NumberReferences, WorkOneBytePastItsBoundIsNot) {
  std::string text = TextOfWork(limits::kUnescapeWork + 1);
  EXPECT_FALSE(ReplaceReferencesOneByOne(text));
  // Up to the last reference it was within the bound.
  EXPECT_NE(std::string::npos, text.find("&#84;"));
  EXPECT_EQ(std::string::npos, text.find("&#83;"));
}

TEST(NumberReferences, OpeningsWithoutEndAreLinear) {
  const vex_test::CpuSeconds cpu;
  std::string openings;
  for (int i = 0; i < 1000000; ++i) openings += "&#";
  EXPECT_EQ(openings, Converted(openings));
  EXPECT_EQ(openings + ";", Converted(openings + ";"));
  std::string zeros;
  for (int i = 0; i < 1000000; ++i) zeros += "&#0;";
  EXPECT_EQ(zeros, Converted(zeros));
  EXPECT_LT(cpu.Elapsed(), 5.0);
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

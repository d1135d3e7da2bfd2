#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/host_memory.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/heap_edge.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

using vex_test::FailAlloc;
using vex_test::HeapEdge;
using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_UTILS";

std::string Trimmed(std::string text) {
  StringUtils::TrimString(text);
  return text;
}

std::string Hash(const std::string& text) {
  std::string hash = "untouched";
  return StringUtils::GetHashValue(text, hash) ? hash : "no hash, " + hash;
}

std::string Escaped(const std::string& text) {
  std::string escaped = "untouched";
  StringUtils::EscapeURI(text, escaped);
  return escaped;
}

// Where StrNStr finds the needle in a buffer without a NUL, -1 for no match.
int Find(const std::string& haystack, const char* needle) {
  const HeapEdge edge(haystack);
  const char* const found = StringUtils::StrNStr(edge.data(), edge.size(), needle);
  return found == nullptr ? -1 : static_cast<int>(found - edge.data());
}

std::string Absolute(const std::string& uri, const std::string& url_base,
                     const std::string& location_base = "http://h:1/dir") {
  std::string absolute = "untouched";
  const int code = StringUtils::GetAbsoluteUri(uri, url_base, "h", 1, location_base, absolute);
  return code == result::kOk ? absolute : "failed " + std::to_string(code) + ", " + absolute;
}

TEST(StringUtils, GetValueCopiesWithTheNul) {
  const FreePtr<char> copy(StringUtils::GetValue("abc"));
  ASSERT_NE(nullptr, copy);
  EXPECT_STREQ("abc", copy.get());
}

TEST(StringUtils, GetValueCopiesNulBytesInside) {
  const std::string text("a\0b", 3);
  const FreePtr<char> copy(StringUtils::GetValue(text));
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(0, std::memcmp("a\0b\0", copy.get(), 4));
}

TEST(StringUtils, GetValueOfAnEmptyTextIsNullAndSilent) {
  const LogCapture log;
  EXPECT_EQ(nullptr, StringUtils::GetValue(""));
  EXPECT_TRUE(log.Lines().empty());
}

TEST(StringUtils, GetValueWithoutMemoryIsNullAndLogs) {
  const LogCapture log;
  const std::string text("abc");
  char* copy = nullptr;
  {
    const FailAlloc fail(1);
    copy = StringUtils::GetValue(text);
  }
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(1, log.Count(16, kTag, "Memory allocation failed"));
}

TEST(StringUtils, StrDupCopies) {
  const FreePtr<char> copy(StringUtils::StrDup("abc"));
  EXPECT_STREQ("abc", copy.get());
}

TEST(StringUtils, StrDupOfNullOrEmptyIsNullAndLogs) {
  const LogCapture log;
  EXPECT_EQ(nullptr, StringUtils::StrDup(nullptr));
  EXPECT_EQ(nullptr, StringUtils::StrDup(""));
  EXPECT_EQ(2, log.Count(16, kTag, "Invalid input"));
  EXPECT_EQ("string_utils.cpp", log.Lines()[0].file);
}

TEST(StringUtils, StrDupWithoutMemoryIsNullAndLogs) {
  const LogCapture log;
  char* copy = nullptr;
  {
    const FailAlloc fail(1);
    copy = StringUtils::StrDup("abc");
  }
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(1, log.Count(16, kTag, "Memory allocation failed"));
}

TEST(StringUtils, TrimOnLeftTakesTheSixBytes) {
  std::string text = " \t\f\v\n\ra b ";
  StringUtils::TrimStringOnLeft(text);
  EXPECT_EQ("a b ", text);
}

TEST(StringUtils, TrimOnRightTakesTheSixBytes) {
  std::string text = " a b \t\f\v\n\r";
  StringUtils::TrimStringOnRight(text);
  EXPECT_EQ(" a b", text);
}

TEST(StringUtils, TrimOfWhiteSpaceOnlyGivesAnEmptyText) {
  EXPECT_EQ("", Trimmed("      "));
  EXPECT_EQ("", Trimmed(" \t\f\v\n\r"));
  EXPECT_EQ("", Trimmed(""));
  std::string left = "   ";
  StringUtils::TrimStringOnLeft(left);
  EXPECT_EQ("", left);
  std::string right = "   ";
  StringUtils::TrimStringOnRight(right);
  EXPECT_EQ("", right);
}

TEST(StringUtils, TrimKeepsOtherBytes) {
  EXPECT_EQ("a \t b", Trimmed("\r\n a \t b \v"));
  // 0x85 and 0xA0 are white space in some locales, NUL and 0x08 in none.
  EXPECT_EQ("\x85\xA0", Trimmed(" \x85\xA0 "));
  EXPECT_EQ(std::string("\0x\0", 3), Trimmed(std::string(" \0x\0 ", 5)));
  EXPECT_EQ("\b", Trimmed("\b"));
}

TEST(StringUtils, StrNStrFindsTheFirstMatch) {
  EXPECT_EQ(0, Find("abc", "abc"));
  EXPECT_EQ(2, Find("xxabcabc", "abc"));
  EXPECT_EQ(3, Find("xyzc", "c"));
  EXPECT_EQ(4, Find(std::string("a\0b\0c", 5), "c"));
  EXPECT_EQ(-1, Find("abd", "abc"));
}

TEST(StringUtils, StrNStrOfAShortBufferIsNullEvenWhenTheBytesBehindItMatch) {
  EXPECT_EQ(nullptr, StringUtils::StrNStr("abcd", 3, "abcd"));
  EXPECT_EQ(-1, Find("abc", "abcd"));
}

TEST(StringUtils, StrNStrOfNothingIsNull) {
  EXPECT_EQ(nullptr, StringUtils::StrNStr(nullptr, 3, "a"));
  EXPECT_EQ(nullptr, StringUtils::StrNStr("abc", 3, nullptr));
  EXPECT_EQ(nullptr, StringUtils::StrNStr("abc", 3, ""));
  EXPECT_EQ(nullptr, StringUtils::StrNStr("abc", 0, "a"));
}

TEST(StringUtils, KeptStrNStrMissesAMatchThatOverlapsAFailedOne) {
  EXPECT_EQ(-1, Find("aab", "ab"));
  EXPECT_EQ(2, Find("aaab", "ab"));
  EXPECT_EQ(-1, Find("x\r\n\r\r\n\r\n", "\r\n\r\n"));
  EXPECT_EQ(4, Find("\r\n\rx\r\n\r\n", "\r\n\r\n"));
}

// The search told byte by byte; what the fast one must equal.
int SlowFind(const std::string& haystack, const std::string& needle) {
  std::size_t at = 0;
  while (haystack.size() - at >= needle.size()) {
    std::size_t matched = 0;
    while (matched < needle.size() && haystack[at + matched] == needle[matched]) ++matched;
    if (matched == needle.size()) return static_cast<int>(at);
    at += matched + 1;
  }
  return -1;
}

TEST(StringUtils, StrNStrEqualsTheSearchByteByByte) {
  for (const char* needle : {"a", "ab", "aa", "aab", "aba", "\r\n\r\n"}) {
    const std::string letters = needle[0] == '\r' ? "\r\nx" : "abx";
    std::string haystack(8, letters[0]);
    for (int number = 0; number < 6561; ++number) {
      int rest = number;
      for (char& c : haystack) {
        c = letters[static_cast<std::size_t>(rest % 3)];
        rest /= 3;
      }
      ASSERT_EQ(SlowFind(haystack, needle), Find(haystack, needle)) << haystack << " " << needle;
    }
  }
}

TEST(StringUtils, HashIsTimes33XorInDecimal) {
  EXPECT_EQ("97", Hash("a"));
  EXPECT_EQ("3299", Hash("ab"));
  EXPECT_EQ("4247204290", Hash("urn:schemas-upnp-org:device:MediaServer:1"));
}

TEST(StringUtils, HashTakesBytesAsSigned) {
  // 0xC3 is -61, which is 4294967235 modulo 2^32.
  EXPECT_EQ("4294967235", Hash("\xC3"));
}

TEST(StringUtils, HashOfNothingOrZeroIsRefusedAndLeavesTheOutput) {
  EXPECT_EQ("no hash, untouched", Hash(""));
  EXPECT_EQ("no hash, untouched", Hash(std::string("\0", 1)));
  // 1 times 33, exclusive-or 33.
  EXPECT_EQ("no hash, untouched", Hash("\x01\x21"));
}

TEST(StringUtils, EscapesPunctuation) {
  EXPECT_EQ("a%20b%2Fc", Escaped("a b/c"));
  EXPECT_EQ("http%3A%2F%2F1%2E2%2D3%5F4", Escaped("http://1.2-3_4"));
}

TEST(StringUtils, EscapesExactlyTheFourRanges) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    const bool escaped = (byte >= 0x20 && byte <= 0x2F) || (byte >= 0x3A && byte <= 0x40) ||
                         (byte >= 0x5B && byte <= 0x60) || (byte >= 0x7B && byte <= 0x7F);
    char wanted[4];
    std::snprintf(wanted, sizeof(wanted), "%%%02X", static_cast<unsigned int>(byte));
    EXPECT_EQ(escaped ? wanted : text, Escaped(text)) << byte;
  }
}

TEST(StringUtils, EscapePassesTabAndHighBytes) {
  EXPECT_EQ("\t", Escaped("\t"));
  EXPECT_EQ("\xC3\xA9", Escaped("\xC3\xA9"));
}

TEST(StringUtils, EscapeOfNothingLogsAndLeavesTheOutput) {
  const LogCapture log;
  EXPECT_EQ("untouched", Escaped(""));
  EXPECT_EQ(1, log.Count(16, kTag, "Empty String"));
}

TEST(StringUtils, EscapeAssignsAlsoToItsInput) {
  std::string text = "a b";
  StringUtils::EscapeURI(text, text);
  EXPECT_EQ("a%20b", text);
}

struct UriRow {
  const char* uri;
  bool good;
  const char* host;
  int port;
  const char* path;
};

TEST(StringUtils, ParseUriTakesApart) {
  const UriRow rows[] = {
      {"http://1.2.3.4:8080/desc.xml", true, "1.2.3.4", 8080, "/desc.xml"},
      {"http://1.2.3.4:8080", true, "1.2.3.4", 8080, "/"},
      {"http://1.2.3.4:8080/a?b=c:d//e", true, "1.2.3.4", 8080, "/a?b=c:d//e"},
      {"//h:1/", true, "h", 1, "/"},
      {"http://h:+80/x", true, "h", 80, "/x"},
      {"http://h:-1/x", true, "h", -1, "/x"},
      {"http://h:70000/x", true, "h", 70000, "/x"},
      {"http://:80/x", true, "", 80, "/x"},
      {"http://1.2.3.4/desc.xml", false, "", 0, ""},
      {"1.2.3.4:80/x", false, "", 0, ""},
      {"http://h:80a/x", false, "", 0, ""},
      {"http://h:/x", false, "", 0, ""},
      {"http://h:", false, "", 0, ""},
      {"http://h: 80/x", false, "", 0, ""},
      {"http://h:2147483648/x", false, "", 0, ""},
      {"", false, "", 0, ""},
      {"//", false, "", 0, ""},
  };
  for (const UriRow& row : rows) {
    std::string host = "before";
    int port = 77;
    std::string path = "before";
    EXPECT_EQ(row.good, StringUtils::ParseURI(row.uri, host, port, path)) << row.uri;
    EXPECT_EQ(row.good ? row.host : "before", host) << row.uri;
    EXPECT_EQ(row.good ? row.port : 77, port) << row.uri;
    EXPECT_EQ(row.good ? row.path : "before", path) << row.uri;
  }
}

TEST(StringUtils, KeptParseUriTakesAColonInThePathForThePort) {
  std::string host;
  int port = 0;
  std::string path;
  EXPECT_TRUE(StringUtils::ParseURI("http://h/a:1/b", host, port, path));
  EXPECT_EQ("h/a", host);
  EXPECT_EQ(1, port);
  EXPECT_EQ("/b", path);
}

TEST(StringUtils, ParseUriLogsABadPortOnly) {
  const LogCapture log;
  std::string host;
  int port = 0;
  std::string path;
  EXPECT_FALSE(StringUtils::ParseURI("http://h/x", host, port, path));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_FALSE(StringUtils::ParseURI("http://h:80a/x", host, port, path));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid String"));
}

TEST(StringUtils, ParseUriWithoutMemoryFailsAndLeavesTheOutputs) {
  const std::string uri = "http://a-host-with-a-long-name:80/a/path/with/a/long/name.xml";
  std::string host = "before";
  int port = 77;
  std::string path = "before";
  int failures = 0;
  for (int nth = 1;; ++nth) {
    bool failed = false;
    bool good = false;
    const LogCapture log;
    {
      const FailAlloc fail(nth);
      good = StringUtils::ParseURI(uri, host, port, path);
      failed = fail.Failed();
    }
    if (!failed) break;
    ++failures;
    EXPECT_FALSE(good);
    EXPECT_EQ("before", host);
    EXPECT_EQ(77, port);
    EXPECT_EQ("before", path);
    EXPECT_EQ(1, log.Count(16, kTag, "Exception:std::bad_alloc"));
  }
  EXPECT_EQ(2, failures);
}

struct RelayRow {
  const char* uri;
  const char* host;
  const char* port;
  const char* path;
};

TEST(StringUtils, ParseRelayUriFillsInDefaults) {
  const RelayRow rows[] = {
      {"1.2.3.4/x", "1.2.3.4", "80", "/x"},
      {"http://a:81", "a", "81", "/"},
      {"http://a:81/b?c", "a", "81", "/b?c"},
      {"a", "a", "80", "/"},
      {"http://a/b:9/c", "a", "80", "/b:9/c"},
      {"a:xy/b", "a", "xy", "/b"},
      {"a:1:2/b", "a", "1:2", "/b"},
      {"a:/b", "a", "", "/b"},
      {"http://", "", "80", "/"},
      {"/b", "", "80", "/b"},
      {"HTTP://a/b", "HTTP", "", "//a/b"},
  };
  for (const RelayRow& row : rows) {
    std::string host = "before";
    std::string port = "before";
    std::string path = "before";
    EXPECT_EQ(result::kOk, StringUtils::ParseRelayURI(row.uri, host, port, path)) << row.uri;
    EXPECT_EQ(row.host, host) << row.uri;
    EXPECT_EQ(row.port, port) << row.uri;
    EXPECT_EQ(row.path, path) << row.uri;
  }
}

TEST(StringUtils, ParseRelayUriRefusesAnEmptyOne) {
  std::string host = "before";
  std::string port = "before";
  std::string path = "before";
  EXPECT_EQ(result::kFailure, StringUtils::ParseRelayURI("", host, port, path));
  EXPECT_EQ("beforebeforebefore", host + port + path);
}

TEST(StringUtils, ParseRelayUriMayWriteOverItsInput) {
  std::string uri = "http://a:81/b";
  std::string port;
  std::string path;
  EXPECT_EQ(result::kOk, StringUtils::ParseRelayURI(uri, uri, port, path));
  EXPECT_EQ("a|81|/b", uri + "|" + port + "|" + path);
}

TEST(StringUtils, AbsoluteUriJoinsARootedReferenceToTheBase) {
  EXPECT_EQ("http://h:1/a.xml", Absolute("/a.xml", "http://h:1/"));
  EXPECT_EQ("http://h:1/a.xml", Absolute("/a.xml", "http://h:1"));
  EXPECT_EQ("http://h:1//a.xml", Absolute("//a.xml", "http://h:1/"));
}

TEST(StringUtils, AbsoluteUriOfARootedReferenceWithoutBaseTakesHostAndPort) {
  EXPECT_EQ("http://h:1/a.xml", Absolute("/a.xml", ""));
}

TEST(StringUtils, AbsoluteUriKeepsAFullOneInAnyCase) {
  EXPECT_EQ("HTTP://x/y", Absolute("HTTP://x/y", "http://h:1/"));
  EXPECT_EQ("http://x/y", Absolute("http://x/y", ""));
}

TEST(StringUtils, AbsoluteUriPutsARelativeOneBehindTheBaseOrTheLocation) {
  EXPECT_EQ("http://b:2/c/a.xml", Absolute("a.xml", "http://b:2/c"));
  EXPECT_EQ("http://h:1/dir/a.xml", Absolute("a.xml", ""));
  EXPECT_EQ("/a.xml", Absolute("a.xml", "", ""));
  EXPECT_EQ("http://h:1/dir/https://x/y", Absolute("https://x/y", ""));
}

TEST(StringUtils, KeptAbsoluteUriGivesADoubleSlashBehindABaseThatEndsWithOne) {
  EXPECT_EQ("http://h:1//a.xml", Absolute("a.xml", "http://h:1/"));
}

TEST(StringUtils, AbsoluteUriRefusesAnEmptyReferenceOrHost) {
  const LogCapture log;
  EXPECT_EQ("failed 3001, untouched", Absolute("", "http://h:1/"));
  std::string absolute = "untouched";
  EXPECT_EQ(result::kBadInput,
            StringUtils::GetAbsoluteUri("/a", "http://h:1/", "", 1, "", absolute));
  EXPECT_EQ("untouched", absolute);
  EXPECT_EQ(2, log.Count(16, kTag, "Invalid input"));
}

TEST(StringUtils, TextsWithoutMemoryAreLeftUntouched) {
  const std::string longer = "/a/path/that/does/not/fit/into/a/short/string";
  const std::string sharps(40, '#');
  std::string absolute = "before";
  std::string escaped = "before";
  std::string host = "before";
  std::string port = "before";
  std::string path = "before";
  int absolute_code = 0;
  int relay_code = 0;
  const LogCapture log;
  {
    const FailAlloc fail(1);
    absolute_code = StringUtils::GetAbsoluteUri(longer, "", longer, 80, longer, absolute);
  }
  {
    const FailAlloc fail(1);
    StringUtils::EscapeURI(sharps, escaped);
  }
  {
    const FailAlloc fail(1);
    relay_code = StringUtils::ParseRelayURI(longer, host, port, path);
  }
  EXPECT_EQ(result::kNoMemory, absolute_code);
  EXPECT_EQ(result::kFailure, relay_code);
  EXPECT_EQ("beforebeforebeforebeforebefore", absolute + escaped + host + port + path);
  EXPECT_EQ(3, log.Count(16, kTag, "Memory allocation failed"));
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

#include <gmock/gmock.h>

#include <climits>
#include <string>
#include <vector>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>
#include <boost/make_shared.hpp>

#include "tests/support/cut_feeder.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

using testing::ElementsAre;
using vex_test::FailAlloc;
using vex_test::LogCapture;
using vex_test::TakeBody;

constexpr char kTag[] = "VEX_CORE_UTILS";

using InfoPtr = boost::shared_ptr<HTTPInfo>;

InfoPtr Parsed(const std::string& text) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk,
            HTTPParser::Parse(text.c_str(), static_cast<unsigned int>(text.size()), info));
  return info;
}

int Feed(InfoPtr& info, const std::string& text) {
  info->SetParsingStatus(PARSING_CONTINUE);
  return HTTPParser::Parse(text.c_str(), static_cast<unsigned int>(text.size()), info);
}

std::string Value(HTTPInfo& info, const char* name) {
  std::string value = "untouched";
  return info.GetHeaderValue(name, value) == result::kOk ? value : "none, " + value;
}

std::string HeaderText(HTTPInfo& info) {
  std::string text = "before";
  EXPECT_EQ(result::kOk, info.GetHeader(text));
  return text;
}

TEST(StatusText, EveryRowOfTheTable) {
  const struct {
    unsigned int code;
    const char* text;
  } rows[] = {{100, "Continue"},
              {101, "Switching Protocols"},
              {102, "Processing"},
              {103, "Checkpoint"},
              {122, "Request-URI too long"},
              {154, "Continue"},
              {200, "OK"},
              {201, "Created"},
              {202, "Accepted"},
              {203, "Non-Authoritative Information"},
              {204, "No Content"},
              {205, "Reset Content"},
              {206, "Partial Content"},
              {207, "Multi-Status"},
              {226, "IM Used"},
              {284, "OK"},
              {300, "Multiple Choices"},
              {301, "Moved Permanently"},
              {302, "Found"},
              {303, "See Other"},
              {304, "Not Modified"},
              {305, "Use Proxy"},
              {306, "Switch Proxy"},
              {307, "Temporary Redirect"},
              {308, "Resume Incomplete"},
              {400, "Bad Request"},
              {401, "Unauthorized"},
              {402, "Payment Required"},
              {403, "Forbidden"},
              {404, "Not Found"},
              {405, "Method Not Allowed"},
              {406, "Not Acceptable"},
              {407, "Proxy Authentication Required"},
              {408, "Request Time-out"},
              {409, "Conflict"},
              {410, "Gone"},
              {411, "Length Required"},
              {412, "Precondition Failed"},
              {413, "Request Entity Too Large"},
              {414, "Request URI Too Large"},
              {415, "Unsupported Media Type"},
              {416, "Requested Range Not Satisfiable"},
              {500, "Internal Server Error"},
              {501, "Not Implemented"},
              {502, "Bad Gateway"},
              {503, "Service Unavailable"},
              {504, "Gateway Time-out"},
              {505, "HTTP Version not supported"}};
  EXPECT_EQ(48U, sizeof(rows) / sizeof(rows[0]));
  for (const auto& row : rows) EXPECT_STREQ(row.text, GetStatusString(row.code)) << row.code;
}

TEST(StatusText, OtherCodesGoByTheirHundred) {
  EXPECT_STREQ("Continue", GetStatusString(150));
  EXPECT_STREQ("OK", GetStatusString(299));
  EXPECT_STREQ("Multiple Choices", GetStatusString(399));
  EXPECT_STREQ("Bad Request", GetStatusString(418));
  EXPECT_STREQ("Internal Server Error", GetStatusString(599));
}

TEST(StatusText, CodesBeyondTheHundredsAreUnknown) {
  for (const unsigned int code : {0U, 99U, 600U, 1000U, UINT_MAX}) {
    EXPECT_STREQ("UNKNOWN", GetStatusString(code)) << code;
  }
}

TEST(RequestText, TableInBothDirections) {
  const char* const texts[] = {"GET",       "HEAD",        "POST",    "NOTIFY",
                               "SUBSCRIBE", "UNSUBSCRIBE", "M-SEARCH"};
  for (int value = 0; value < 7; ++value) {
    EXPECT_STREQ(texts[value], GetRequestString(static_cast<HTTPRequest>(value)));
    EXPECT_EQ(value, static_cast<int>(GetRequestType(texts[value])));
  }
}

TEST(RequestText, OutsideTheTable) {
  EXPECT_STREQ("UNKNOWN", GetRequestString(HTTP_UNKNOWN_REQUEST));
  EXPECT_STREQ("UNKNOWN", GetRequestString(static_cast<HTTPRequest>(-1)));
  for (const char* method : {"get", "m-search", "", "GETT", "GE", "FOO"}) {
    EXPECT_EQ(7, static_cast<int>(GetRequestType(method))) << method;
  }
}

TEST(HttpInfo, NewOneIsEmpty) {
  HTTPInfo info;
  int major = -1;
  int minor = -1;
  int port = -1;
  std::string ip = "before";
  info.GetHTTPVersion(major, minor);
  info.GetClientPort(port);
  info.GetClientIpAddress(ip);
  EXPECT_EQ(0, major);
  EXPECT_EQ(0, minor);
  EXPECT_EQ(0, port);
  EXPECT_EQ("", ip);
  EXPECT_EQ(7, static_cast<int>(info.GetRequestType()));
  EXPECT_EQ(0U, info.GetStatusCode());
  EXPECT_FALSE(info.IsRequest());
  EXPECT_EQ(0, info.GetStatus());
  EXPECT_EQ(0, info.GetState());
  EXPECT_EQ(PARSING_CONTINUE, info.GetParsingStatus());
  EXPECT_EQ(0U, info.GetContentLength());
  EXPECT_EQ(0U, info.GetProcessedBodySize());
  EXPECT_EQ(0U, info.GetRawHeaderSize());
}

TEST(HttpInfo, StartLineOfAnEmptyMessageIsAFailure) {
  const LogCapture log;
  HTTPInfo info;
  std::string line = "untouched";
  EXPECT_EQ(result::kFailure, info.GetStartLine(line));
  EXPECT_EQ("untouched", line);
  EXPECT_EQ(1, log.Count(16, kTag, "Empty start line"));
  EXPECT_EQ("httpinfo.cpp", log.Lines()[0].file);
  EXPECT_EQ("GetStartLine", log.Lines()[0].function);
}

TEST(HttpInfo, StartLineComesAsReceived) {
  std::string line;
  EXPECT_EQ(result::kOk, Parsed("HTTP/1.1 404 Nope\r\nUSN: x\r\n\r\n")->GetStartLine(line));
  EXPECT_EQ("HTTP/1.1 404 Nope", line);
}

TEST(HttpInfo, HeaderValueIgnoresTheCaseOfNames) {
  const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 5\r\n\r\n");
  EXPECT_EQ("5", Value(*info, "content-length"));
  EXPECT_EQ("5", Value(*info, "Content-Length"));
  EXPECT_EQ("none, untouched", Value(*info, "content-lengt"));
  EXPECT_EQ("none, untouched", Value(*info, "content-lengths"));
}

TEST(HttpInfo, HeaderValueRefusesNoNameAndIsSilentForAMissingOne) {
  const LogCapture log;
  HTTPInfo info;
  EXPECT_EQ("none, untouched", Value(info, "missing"));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ("none, untouched", Value(info, nullptr));
  EXPECT_EQ("none, untouched", Value(info, ""));
  EXPECT_EQ(2, log.Count(16, kTag, "Invalid input"));
}

TEST(HttpInfo, HeaderNameEndsAtANulForTheLookUp) {
  HTTPInfo info;
  info.SetHeader(std::string("Foo\0bar", 7), "1");
  EXPECT_EQ("1", Value(info, "foo"));
}

TEST(HttpInfo, TwoHeadersOfANameBothStay) {
  const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: 1\r\na: 2\r\nUSN: x\r\n\r\n");
  EXPECT_EQ("1", Value(*info, "A"));
  EXPECT_EQ("HTTP/1.1 200 OK\r\nA: 1\r\na: 2\r\nUSN: x\r\n\r\n", HeaderText(*info));
}

TEST(HttpInfo, SetHeaderAppendsBehindTheReceivedOnes) {
  const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: 1\r\nUSN: x\r\n\r\n");
  EXPECT_EQ(result::kOk, info->SetHeader("A", "2"));
  EXPECT_EQ(result::kOk, info->SetHeader("B", ""));
  EXPECT_EQ("1", Value(*info, "A"));
  EXPECT_EQ("", Value(*info, "B"));
  EXPECT_EQ("HTTP/1.1 200 OK\r\nA: 1\r\nUSN: x\r\nA: 2\r\nB: \r\n\r\n", HeaderText(*info));
  EXPECT_EQ(4U, info->GetHeaderCount());
}

TEST(HttpInfo, SetHeaderRefusesAnEmptyName) {
  const LogCapture log;
  HTTPInfo info;
  EXPECT_EQ(result::kFailure, info.SetHeader("", "x"));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid input"));
  EXPECT_EQ(0U, info.GetHeaderCount());
}

TEST(HttpInfo, KeptSetHeaderWithoutMemoryLosesTheHeaderAndSaysOk) {
  const std::string value(100, 'v');
  for (int nth = 1;; ++nth) {
    const LogCapture log;
    const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: 1\r\nUSN: x\r\n\r\n");
    int code = -1;
    bool failed = false;
    {
      const FailAlloc fail(nth);
      code = info->SetHeader("Name", value);
      failed = fail.Failed();
    }
    EXPECT_EQ(result::kOk, code);
    EXPECT_EQ("1", Value(*info, "A"));
    EXPECT_EQ("x", Value(*info, "USN"));
    if (!failed) {
      EXPECT_GE(nth, 4);
      EXPECT_EQ(value, Value(*info, "Name"));
      break;
    }
    EXPECT_EQ(1, log.Count(16, kTag, "Push back failed!"));
    EXPECT_EQ("none, untouched", Value(*info, "Name"));
    EXPECT_EQ(2U, info->GetHeaderCount());
  }
}

TEST(HttpInfo, HeaderRecordsStayOwnedByTheMessage) {
  const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: 1\r\nUSN: x\r\n\r\n");
  std::vector<NameValue*> records(3);
  EXPECT_EQ(result::kOk, info->GetHeader(records));
  ASSERT_EQ(2U, records.size());
  EXPECT_EQ("A", records[0]->name);
  EXPECT_EQ("x", records[1]->value);
  std::vector<NameValue*> again;
  info->SetHeader("B", "2");
  EXPECT_EQ(result::kOk, info->GetHeader(again));
  EXPECT_THAT(again, ElementsAre(records[0], records[1], testing::_));
}

TEST(HttpInfo, StringValidityIsTheAbsenceOfNul) {
  const LogCapture log;
  const HTTPInfo info;
  EXPECT_TRUE(info.CheckStringValidity(""));
  EXPECT_TRUE(info.CheckStringValidity("abc"));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_FALSE(info.CheckStringValidity(std::string("ab\0cd", 5)));
  EXPECT_EQ(1, log.Count(16, kTag, "abnormally null-inserted in the string [2, 5]"));
}

TEST(HttpInfo, UriOfAResponseIsEmpty) {
  const LogCapture log;
  std::string uri = "untouched";
  EXPECT_EQ(result::kEmptyText, Parsed("HTTP/1.1 200 OK\r\nUSN: x\r\n\r\n")->GetURI(uri));
  EXPECT_EQ("untouched", uri);
  EXPECT_EQ(1, log.Count(16, kTag, "Uri value empty"));
  EXPECT_EQ(result::kOk, Parsed("GET /a HTTP/1.1\r\n\r\n")->GetURI(uri));
  EXPECT_EQ("/a", uri);
}

TEST(HttpInfo, AddressesAndPort) {
  HTTPInfo info;
  info.SetClientIpAddress("10.0.0.1");
  info.SetMyIpAddress("10.0.0.2");
  info.SetClientPort(1900);
  std::string client;
  std::string mine;
  int port = 0;
  info.GetClientIpAddress(client);
  info.GetMyIpAddress(mine);
  info.GetClientPort(port);
  EXPECT_EQ("10.0.0.1", client);
  EXPECT_EQ("10.0.0.2", mine);
  EXPECT_EQ(1900, port);
}

TEST(HttpInfo, CleanInfoKeepsTheAddressesOnly) {
  InfoPtr info = Parsed(
      "POST /a HTTP/1.1\r\nA: 1\r\nB: 2\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n3");
  info->SetHeader("C", "3");
  info->SetClientIpAddress("10.0.0.1");
  info->SetMyIpAddress("10.0.0.2");
  info->SetClientPort(1900);
  info->CleanInfo();
  const vex_test::ParsedMessage fresh = vex_test::Look(*boost::make_shared<HTTPInfo>(), 0);
  EXPECT_EQ(fresh, vex_test::Look(*info, 0));
  std::string client;
  std::string mine;
  int port = -1;
  info->GetClientIpAddress(client);
  info->GetMyIpAddress(mine);
  info->GetClientPort(port);
  EXPECT_EQ("10.0.0.1", client);
  EXPECT_EQ("10.0.0.2", mine);
  EXPECT_EQ(0, port);
  unsigned int consumed = 0;
  EXPECT_EQ(nullptr, info->GetHex("\r\n", 2, consumed));

  // Ready for the next message.
  EXPECT_EQ(result::kOk, Feed(info, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  EXPECT_EQ(MESSAGE_COMPLETE, info->GetState());
  EXPECT_EQ("ok", TakeBody(*info));
  EXPECT_EQ(1U, info->GetHeaderCount());
}

TEST(HttpInfo, CleanInfoLeavesNothingToTheNextMessage) {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string left_at[] = {
      chunked + "5\r\nhe",
      chunked + "5\r\nhello",
      chunked + "5\r\nhello\r",
      chunked + "5;ex",
      "HTTP/1.1 404 Nope\r\nContent-Length: 9\r\n\r\nhello",
      "POST /a HTTP/1.0\r\n\r\nuntil close",
      "GET /a HTTP/1.0\r\nA: b",
      std::string("GET \0", 5),
  };
  const std::string next[] = {chunked + "3\r\nabc\r\n0\r\n\r\n",
                              "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabcdefgh"};
  for (const std::string& begun : left_at) {
    for (const std::string& message : next) {
      for (const bool formatted : {false, true}) {
        SCOPED_TRACE(begun + " | " + message);
        InfoPtr info = Parsed(begun);
        if (formatted) info->FormatStartLine();
        info->CleanInfo();
        EXPECT_EQ(vex_test::Look(*boost::make_shared<HTTPInfo>(), 0), vex_test::Look(*info, 0));
        const int outcome = Feed(info, message);
        EXPECT_EQ(vex_test::Look(*Parsed(message), result::kOk), vex_test::Look(*info, outcome));
      }
    }
  }
}

TEST(HttpInfo, CleanInfoGivesBackWhatALargeHeaderTook) {
  InfoPtr info = Parsed("GET / HTTP/1.1\r\n" + std::string(100000, 'a'));
  info->CleanInfo();
  EXPECT_EQ(sizeof(HTTPInfo), info->GetHeldSize());
}

TEST(HttpInfo, HeldSizeCountsTheTextsOfTheRecords) {
  const std::string stray(10000, 's');
  const InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: b\r\n" + stray + "\r\n\r\n");
  // Once as it was received, and once behind the value of A.
  EXPECT_GE(info->GetHeldSize(), 2 * stray.size() + sizeof(HTTPInfo));
}

TEST(HttpInfo, FormattedStartLineTakesThePhraseOfTheTable) {
  const InfoPtr info = Parsed("HTTP/1.1 404 Nope\r\nUSN: x\r\n\r\n");
  info->FormatStartLine();
  std::string line;
  EXPECT_EQ(result::kOk, info->GetStartLine(line));
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\n", line);
}

TEST(HttpInfo, HeaderTextIsWrittenOutAgain) {
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\nusn: a:b\r\nExt: \r\n\r\n",
            HeaderText(*Parsed("HTTP/1.1   404 Nope\r\nusn:a:b \r\nExt:\r\n\r\n")));
  EXPECT_EQ("M-SEARCH * HTTP/1.0\r\nMAN: \"x\"\r\n\r\n",
            HeaderText(*Parsed("M-SEARCH * HTTP/1.0\r\nMAN:\"x\"\r\n\r\n")));
}

TEST(HttpInfo, KeptUnknownMethodIsWrittenOutAsUnknown) {
  const InfoPtr info = Parsed("FOO /x HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ("UNKNOWN /x HTTP/1.1\r\nContent-Length: 0\r\n\r\n", HeaderText(*info));
}

TEST(HttpInfo, HeaderTextChangesTheStartLineAndNothingElse) {
  const InfoPtr info = Parsed("HTTP/1.1 404 Nope\r\nUSN: x\r\n\r\n");
  const std::string once = HeaderText(*info);
  std::string line;
  info->GetStartLine(line);
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\n", line);
  EXPECT_EQ(once, HeaderText(*info));
}

TEST(HttpInfo, HeaderTextOfANewMessage) {
  HTTPInfo info;
  EXPECT_EQ("HTTP/0.0 0 UNKNOWN\r\n\r\n", HeaderText(info));
}

// Runs `call` with its first allocation failing.
template <typename Call>
int WithoutMemory(Call call) {
  const FailAlloc fail(1);
  return call();
}

TEST(HttpInfo, GettersWithoutMemoryLeaveTheirOutputs) {
  const std::string target = "/" + std::string(100, 'u');
  const InfoPtr info =
      Parsed("GET " + target + " HTTP/1.1\r\nName: " + std::string(100, 'v') + "\r\n\r\n");
  const std::string address(100, '1');
  std::string uri = "before";
  std::string line = "before";
  std::string value = "before";
  std::string text = "before";
  std::vector<NameValue*> records;
  EXPECT_EQ(result::kNoMemory, WithoutMemory([&] { return info->GetURI(uri); }));
  EXPECT_EQ(result::kFailure, WithoutMemory([&] { return info->GetStartLine(line); }));
  EXPECT_EQ(result::kFailure, WithoutMemory([&] { return info->GetHeaderValue("Name", value); }));
  EXPECT_EQ(result::kFailure, WithoutMemory([&] { return info->GetHeader(records); }));
  WithoutMemory([&] { return info->SetMyIpAddress(address), 0; });
  WithoutMemory([&] { return info->FormatStartLine(), 0; });
  const int asked_for = vex_test::EachAllocationFails(
      [&] { info->GetHeader(text); }, [&](bool failed) { EXPECT_EQ(failed, text == "before"); });
  EXPECT_LE(2, asked_for);
  text = "before";
  EXPECT_EQ("beforebeforebeforebefore", uri + line + value + text);
  EXPECT_TRUE(records.empty());
  std::string mine = "before";
  info->GetMyIpAddress(mine);
  EXPECT_EQ("", mine);
  EXPECT_EQ(std::string(100, 'v'), Value(*info, "Name"));
}

// A message that waits in the middle of a chunk-size line.
InfoPtr HoldingSizeLine(const std::string& line) {
  return Parsed("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + line);
}

TEST(HttpInfo, GetHexWithoutAHeldLine) {
  const LogCapture log;
  HTTPInfo info;
  unsigned int consumed = 77;
  EXPECT_EQ(nullptr, info.GetHex("5\r\n", 3, consumed));
  EXPECT_EQ(77U, consumed);
  EXPECT_EQ(1, log.Count(16, kTag, "No Hex value "));
}

TEST(HttpInfo, GetHexBehindTheCrSkipsTheLf) {
  const InfoPtr info = HoldingSizeLine("1a;x\r");
  unsigned int consumed = 0;
  EXPECT_STREQ("1a;x", info->GetHex("\nhello", 6, consumed));
  EXPECT_EQ(1U, consumed);
}

TEST(HttpInfo, GetHexTakesTheRestOfTheLine) {
  const InfoPtr info = HoldingSizeLine("1");
  unsigned int consumed = 0;
  EXPECT_STREQ("1a", info->GetHex("a\r\nhello", 8, consumed));
  EXPECT_EQ(3U, consumed);
}

TEST(HttpInfo, GetHexOfABufferThatBeginsWithCrAddsNothing) {
  const InfoPtr info = HoldingSizeLine("1");
  unsigned int consumed = 0;
  EXPECT_STREQ("1", info->GetHex("\r\nhello", 7, consumed));
  EXPECT_EQ(2U, consumed);
}

TEST(HttpInfo, GetHexEndsTheLineAtTheBuffersEnd) {
  const vex_test::HeapEdge edge("ab");
  const InfoPtr info = HoldingSizeLine("1");
  unsigned int consumed = 0;
  EXPECT_STREQ("1ab", info->GetHex(edge.data(), edge.size(), consumed));
  EXPECT_EQ(4U, consumed);
  EXPECT_STREQ("1ab", info->GetHex(nullptr, 0, consumed));
  EXPECT_EQ(2U, consumed);
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

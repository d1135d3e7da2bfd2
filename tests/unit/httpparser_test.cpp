#include <vexupnpcp/httpparser.h>

#include <gmock/gmock.h>

#include <chrono>
#include <climits>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <boost/make_shared.hpp>

#include "tests/support/any_cut.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

using vex_test::FailAlloc;
using vex_test::HeapEdge;
using vex_test::LogCapture;
using vex_test::ParseAnyCut;
using vex_test::ParsedMessage;

constexpr char kTag[] = "VEX_CORE_UTILS";

using InfoPtr = boost::shared_ptr<HTTPInfo>;

int Parse(InfoPtr& info, const std::string& piece) {
  const HeapEdge edge(piece);
  return HTTPParser::Parse(edge.data(), edge.size(), info);
}

int Feed(InfoPtr& info, const std::string& piece) {
  info->SetParsingStatus(PARSING_CONTINUE);
  return Parse(info, piece);
}

std::string StartLine(HTTPInfo& info) {
  std::string line;
  info.GetStartLine(line);
  return line;
}

// A complete request of this first line.
ParsedMessage Request(const std::string& first_line) {
  return ParseAnyCut(first_line + "\r\nContent-Length: 0\r\n\r\n");
}

// A complete response of this first line.
ParsedMessage Response(const std::string& first_line) {
  return ParseAnyCut(first_line + "\r\nUSN: x\r\n\r\n");
}

// A message that fails with state 2 and this log line.
void ExpectFailure(const std::string& message, const std::string& text) {
  const LogCapture log;
  const ParsedMessage parsed = vex_test::CutFeeder(message).Whole();
  EXPECT_EQ(result::kFailure, parsed.result) << message;
  EXPECT_EQ(2, parsed.state) << message;
  EXPECT_EQ(1, parsed.parsing_status) << message;
  EXPECT_EQ(1, log.Count(16, kTag, text)) << message;
  ParseAnyCut(message);
}

TEST(HttpParser, NoMessageObject) {
  const LogCapture log;
  InfoPtr none;
  EXPECT_EQ(result::kFailure, HTTPParser::Parse("x", 1, none));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid params!!!"));
  EXPECT_EQ("httpparser.cpp", log.Lines()[0].file);
  EXPECT_EQ("Parse", log.Lines()[0].function);
}

TEST(HttpParser, NoData) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, HTTPParser::Parse(nullptr, 5, info));
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  info->SetParsingStatus(PARSING_CONTINUE);
  EXPECT_EQ(result::kOk, HTTPParser::Parse("", 0, info));
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
  EXPECT_EQ(2, log.Count(4, kTag, "Has nothing to be parsed!!!"));
}

TEST(HttpParser, RequestLine) {
  const ParsedMessage parsed = Request("M-SEARCH * HTTP/1.1");
  EXPECT_EQ(result::kOk, parsed.result);
  EXPECT_EQ(2, parsed.status);
  EXPECT_EQ(1, parsed.state);
  EXPECT_TRUE(parsed.is_request);
  EXPECT_EQ(6, parsed.type);
  EXPECT_EQ("*", parsed.uri);
  EXPECT_EQ(1, parsed.major);
  EXPECT_EQ(1, parsed.minor);
  EXPECT_EQ(0U, parsed.code);
  EXPECT_EQ("M-SEARCH * HTTP/1.1", parsed.start_line);
}

TEST(HttpParser, ResponseLine) {
  const ParsedMessage parsed = Response("HTTP/1.0 404 Not Here");
  EXPECT_EQ(1, parsed.state);
  EXPECT_FALSE(parsed.is_request);
  EXPECT_EQ(7, parsed.type);
  EXPECT_EQ(404U, parsed.code);
  EXPECT_EQ(1, parsed.major);
  EXPECT_EQ(0, parsed.minor);
  EXPECT_EQ("HTTP/1.0 404 Not Here", parsed.start_line);
}

// The parsing status is not cleared between these.
InfoPtr KeepStatus(const std::vector<std::string>& pieces) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  for (const std::string& piece : pieces) EXPECT_EQ(result::kOk, Parse(info, piece)) << piece;
  return info;
}

TEST(HttpParser, KeptStatusLosesTheBodyOfTheBufferThatEndsTheHeader) {
  for (const char* const length : {"Content-Length: 1000000", "Server: as long as the other"}) {
    const std::string begin = std::string("HTTP/1.1 200 OK\r\n") + length;
    for (std::size_t cut = sizeof("HTTP/1.1 200 OK"); cut < begin.size(); ++cut) {
      const InfoPtr info = KeepStatus({begin.substr(0, cut), begin.substr(cut) + "\r\n\r\nx", "y"});
      EXPECT_EQ(HEADER_COMPLETE, info->GetStatus());
      EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
      EXPECT_EQ("y", vex_test::TakeBody(*info)) << length << ' ' << cut;
    }
  }
}

TEST(HttpParser, KeptStatusLosesTheBufferBehindAFirstLineInTwo) {
  const InfoPtr info =
      KeepStatus({"HTTP/1.1 200", " OK\r\nContent-Length: 8\r\n\r\nlost", "as well", "kept"});
  EXPECT_EQ(HEADER_COMPLETE, info->GetStatus());
  EXPECT_EQ("kept", vex_test::TakeBody(*info));
  EXPECT_EQ(MESSAGE_COMPLETE, KeepStatus({"GET ", "/ HTTP/1.1\r\n\r\n", "x"})->GetState());
}

TEST(HttpParser, KeptStatusNeverReadsOutsideABuffer) {
  const std::string messages[] = {
      "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nhello",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nA: b\r\n\r\nhello",
      "GET / HTTP/1.1\r\n:b\r\n\r\nhello",
  };
  for (const std::string& message : messages) {
    const vex_test::CutFeeder feeder(message, vex_test::CutFeeder::Between::kKept);
    feeder.EveryCut([&](const std::vector<std::size_t>&, const ParsedMessage& parsed) {
      EXPECT_LE(parsed.body.size(), message.size());
    });
  }
}

TEST(HttpParser, UnknownMethodIsNoFailure) {
  const ParsedMessage parsed = Request("FOO /x HTTP/1.1");
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ(7, parsed.type);
  EXPECT_EQ("/x", parsed.uri);
}

TEST(HttpParser, KeptWordInFrontOfTheVersionsSlashIsNotLookedAt) {
  const ParsedMessage parsed = ParseAnyCut("GET / FOO/1.1\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ(1, parsed.major);
  EXPECT_EQ(1, parsed.minor);
}

TEST(HttpParser, VersionNumbersMayHaveSigns) {
  const ParsedMessage parsed = Request("GET / HTTP/+1.-20");
  EXPECT_EQ(1, parsed.major);
  EXPECT_EQ(-20, parsed.minor);
}

TEST(HttpParser, StartLineIsTrimmed) {
  const ParsedMessage parsed = Request(" \t GET /a HTTP/1.1 \t ");
  EXPECT_EQ("GET /a HTTP/1.1", parsed.start_line);
  EXPECT_EQ(0, parsed.type);
}

TEST(HttpParser, FirstLineEndsAtALoneCrAndHeadersBeginBehindTheFirstCrlf) {
  const ParsedMessage parsed = ParseAnyCut("GET / HTTP/1.1\rA: 1\r\nB: 2\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ("GET / HTTP/1.1", parsed.start_line);
  ASSERT_EQ(1U, parsed.headers.size());
  EXPECT_EQ("2", parsed.Header("B"));
}

TEST(HttpParser, BadRequestLines) {
  const struct {
    const char* line;
    const char* text;
  } rows[] = {
      {"GET", "Space not found : 1!"},
      {"", "Space not found : 1!"},
      {"GET /", "Space not found : 2!"},
      {"GET / ", "Space not found : 2!"},
      {"GET / HTTP", "Slash not found!"},
      {"GET / HTTP/1", "Dot not found!"},
      {"GET / HTTP/x.1", "Invalid Val, can not convert to int"},
      {"GET / HTTP/.1", "Invalid Val, can not convert to int"},
      {"GET / HTTP/1.", "Invalid Val, can not convert to int"},
      {"GET / HTTP/1.x", "Invalid Val, can not convert to int"},
      {"GET / HTTP/1.1 more", "Invalid Val, can not convert to int"},
      {"GET / HTTP/99999999999.1", "Invalid Val, can not convert to int"},
      {"GET  / HTTP/1.1", "Invalid Val, can not convert to int"},
      {"http/1.1 200 OK", "Slash not found!"},
  };
  for (const auto& row : rows) ExpectFailure(std::string(row.line) + "\r\n\r\n", row.text);
}

TEST(HttpParser, BadStatusLines) {
  const struct {
    const char* line;
    const char* text;
  } rows[] = {
      {"HTTP/1 200 OK", "Dot not found!"},
      {"HTTP/x.1 200 OK", "Invalid Val, can not convert to int"},
      {"HTTP/1.x 200 OK", "Invalid Val, can not convert to int"},
      {"HTTP/1. 200 OK", "Invalid Val, can not convert to int"},
      {"HTTP/1.99999999999 200 OK", "Invalid Val, can not convert to int"},
      {"HTTP/1.1", "Space not found!"},
      {"HTTP/1.1 2x0 OK", "Invalid Val, can not convert to unsigned"},
      {"HTTP/1.1 4294967296 OK", "Invalid Val, can not convert to unsigned"},
  };
  for (const auto& row : rows) ExpectFailure(std::string(row.line) + "\r\n\r\n", row.text);
}

TEST(HttpParser, KeptStatusLineWithoutReasonPhraseFails) {
  ExpectFailure("HTTP/1.1 200\r\n\r\n", "Dot not found!");
  ExpectFailure("HTTP/1.1 200 \r\n\r\n", "Dot not found!");
}

TEST(HttpParser, StatusCodesOfAnySize) {
  EXPECT_EQ(0U, Response("HTTP/1.1 0 OK").code);
  EXPECT_EQ(1000U, Response("HTTP/9.9 1000 OK").code);
  EXPECT_EQ(200U, Response("HTTP/1.1    +200 OK").code);
  EXPECT_EQ(UINT_MAX, Response("HTTP/1.1 -1 OK").code);
  EXPECT_EQ(UINT_MAX, Response("HTTP/1.1 4294967295 OK").code);
}

TEST(HttpParser, IncompleteFirstLineIsLoggedAndReadOn) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Parse(info, "GET /so"));
  EXPECT_EQ(1, log.Count(4, kTag, "parsing completed for data GET /so!"));
  EXPECT_EQ(1, log.Count(4, kTag, "parsing completed!"));
  EXPECT_EQ(0, info->GetStatus());
  EXPECT_EQ(0, info->GetState());
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ("GET /so", StartLine(*info));
  EXPECT_FALSE(info->IsRequest());
}

TEST(HttpParser, LoggedPieceOfAnEndlessFirstLineIsBounded) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Parse(info, std::string(65507, 'a')));
  EXPECT_EQ(1, log.Count("parsing completed for data " + std::string(1024, 'a') + "!"));
}

TEST(HttpParser, IncompleteHeaderIsReadOn) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Parse(info, "GET / HTTP/1.1\r\nA: 1\r\n"));
  EXPECT_EQ(1, log.Count(4, kTag, "CRLF not yet received !"));
  EXPECT_EQ(1, info->GetStatus());
  EXPECT_EQ(0, info->GetState());
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
}

TEST(HttpParser, FailedFirstLineLeavesStatusAt1) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kFailure, Parse(info, "GET\r\n\r\n"));
  EXPECT_EQ(1, info->GetStatus());
}

TEST(HttpParser, FailedMessageStaysFailed) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kFailure, Parse(info, "GET\r\n\r\n"));
  EXPECT_EQ(result::kFailure, Feed(info, "GET / HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(2, info->GetState());
  info->CleanInfo();
  EXPECT_EQ(result::kOk, Feed(info, "GET / HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(1, info->GetState());
}

TEST(HttpParser, CompleteMessageStaysComplete) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Parse(info, "GET / HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(result::kOk, Feed(info, "more\r\n\r\n"));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(0U, info->GetProcessedBodySize());
}

TEST(HttpParser, HeaderNamesAndValuesAreTrimmedAndKeptInTheirCase) {
  const ParsedMessage parsed = ParseAnyCut(
      "GET / HTTP/1.1\r\n"
      "  NaMe \t: \t Va Lue \t\r\n"
      "Empty:\r\n"
      "Blank:   \r\n"
      "Colons: a:b::c\r\n"
      "Bytes\x80\xFF: \x81\xFE\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  ASSERT_EQ(5U, parsed.headers.size());
  EXPECT_EQ("Va Lue", parsed.Header("NaMe"));
  EXPECT_EQ("", parsed.Header("Empty"));
  EXPECT_EQ("", parsed.Header("Blank"));
  EXPECT_EQ("a:b::c", parsed.Header("Colons"));
  EXPECT_EQ("\x81\xFE", parsed.Header("Bytes\x80\xFF"));
}

TEST(HttpParser, NulInNamesAndValuesIsKept) {
  const std::string message("GET / HTTP/1.1\r\nA\0B: c\0d\r\n\r\n", 29);
  const ParsedMessage parsed = ParseAnyCut(message);
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ(std::string("c\0d", 3), parsed.Header(std::string("A\0B", 3)));
}

TEST(HttpParser, KeptLineWithoutColonGoesBehindTheLastValue) {
  const LogCapture log;
  const std::string message = "GET / HTTP/1.1\r\nBar: x\r\nFoo\r\nNext: 1\r\n folded \r\n\r\n";
  const ParsedMessage parsed = vex_test::CutFeeder(message).Whole();
  EXPECT_EQ("xFoo", parsed.Header("Bar"));
  EXPECT_EQ("1 folded ", parsed.Header("Next"));
  EXPECT_EQ(2, log.Count("colon not found in header"));
  ParseAnyCut(message);
}

TEST(HttpParser, RegressionLinesWithoutColonDoNotFloodTheLog) {
  const LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  std::string message = "GET / HTTP/1.1\r\nBar: x\r\n";
  for (int i = 0; i < 20000; ++i) message += "x\r\n";
  const ParsedMessage parsed = vex_test::CutFeeder(message + "\r\n").Whole();
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ(20001U, parsed.Header("Bar").size());
  const int lines = log.Count("colon not found in header");
  const auto passed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(lines, 8);
  // One more at once, and one for each second.
  EXPECT_LE(lines, 10 + std::chrono::duration_cast<std::chrono::seconds>(passed).count());
  // The next message has a say of its own.
  vex_test::CutFeeder("GET / HTTP/1.1\r\nBar: x\r\nFoo\r\n\r\n").Whole();
  EXPECT_EQ(lines + 1, log.Count("colon not found in header"));
}

TEST(HttpParser, KeptLineOfBlanksIsNoBlankLine) {
  const ParsedMessage parsed = ParseAnyCut("GET / HTTP/1.1\r\nBar: x\r\n  \r\nB: 1\r\n\r\n");
  EXPECT_EQ("x  ", parsed.Header("Bar"));
  EXPECT_EQ("1", parsed.Header("B"));
  ExpectFailure("GET / HTTP/1.1\r\n  \r\n\r\n", "colon not found in header");
}

TEST(HttpParser, FirstHeaderLineWithoutColonFails) {
  ExpectFailure("GET / HTTP/1.1\r\nFoo\r\nBar: x\r\n\r\n", "colon not found in header");
  ExpectFailure("GET / HTTP/1.1\r\nFoo\r\nBar: x\r\n\r\n", "StoreHeader failed!");
}

TEST(HttpParser, HeaderLineThatBeginsWithCrEndsTheHeaders) {
  const ParsedMessage parsed = ParseAnyCut("GET / HTTP/1.1\r\nA: 1\r\n\rB: 2\r\nC: 3\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  ASSERT_EQ(1U, parsed.headers.size());
  EXPECT_EQ("1", parsed.Header("A"));
}

TEST(HttpParser, KeptLineWithAnEmptyNameNeverEndsTheHeader) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  const std::string message = "POST / HTTP/1.1\r\nA: 1\r\n: x\r\nB: 2\r\n\r\n";
  EXPECT_EQ(result::kOk, Parse(info, message));
  EXPECT_EQ(1, info->GetStatus());
  EXPECT_EQ(0, info->GetState());
  EXPECT_EQ(PARSING_CONTINUE, info->GetParsingStatus());
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid input"));
  EXPECT_EQ(1, log.Count(16, kTag, "StoreHeader failed!"));
  EXPECT_EQ(1U, info->GetHeaderCount());

  EXPECT_EQ(result::kOk, Feed(info, "more"));
  EXPECT_EQ(1, info->GetStatus());
  EXPECT_EQ(2U, info->GetHeaderCount());
  EXPECT_EQ(message + "more", vex_test::TakeBody(*info));
}

TEST(HttpParser, KeptNulInTheFirstLineHidesItsEnd) {
  const std::string message("GET /\0 HTTP/1.1\r\n\r\n", 19);
  for (const bool byte_by_byte : {false, true}) {
    InfoPtr info = boost::make_shared<HTTPInfo>();
    for (std::size_t at = 0; at < message.size(); at += byte_by_byte ? 1 : message.size()) {
      EXPECT_EQ(result::kOk, Feed(info, byte_by_byte ? message.substr(at, 1) : message));
    }
    EXPECT_EQ(0, info->GetStatus());
    EXPECT_EQ(0, info->GetState());
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_EQ(message, StartLine(*info));
    // With the blank line behind it there is no place for what comes next.
    const LogCapture log;
    EXPECT_EQ(result::kFailure, Feed(info, "x"));
    EXPECT_EQ(2, info->GetState());
    EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "String cant find CRLF !"));
  }
}

TEST(HttpParser, BlankLineCutAtEveryByte) {
  const std::string message = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  const ParsedMessage parsed = ParseAnyCut(message);
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ("ok", parsed.body);

  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Parse(info, message.substr(0, 37)));
  EXPECT_EQ(1, info->GetStatus());
  EXPECT_EQ(result::kOk, Feed(info, "\nok"));
  EXPECT_EQ(38U, info->GetRawHeaderSize());
  EXPECT_EQ(1, info->GetState());
}

TEST(HttpParser, BlankLineThatTheSearchWithoutStepBackMissesIsFound) {
  const ParsedMessage parsed =
      ParseAnyCut("HTTP/1.1 200 OK\r\nA: x\r\n\r\r\n\r\nContent-Length: 2\r\n\r\nok");
  // A line that begins with CR ends the headers; the header itself ends at the first blank line.
  EXPECT_EQ("Content-Length: 2\r\n\r\nok", parsed.body);
}

TEST(HttpParser, PipelinedDataBehindAMessageWithoutBodyIsLost) {
  const ParsedMessage parsed = ParseAnyCut("GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ("/a", parsed.uri);
  EXPECT_EQ("", parsed.body);
}

TEST(HttpParser, InterimAnswerIsAMessageOfItsOwn) {
  const ParsedMessage parsed = ParseAnyCut("HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(100U, parsed.code);
  EXPECT_EQ(1, parsed.state);
}

TEST(HttpParser, MemoryRunsOutAtAnyAllocation) {
  const std::string head =
      "POST /" + std::string(40, 'u') + " HTTP/1.1\r\nName: " + std::string(40, 'v') + "\r\n" +
      std::string(40, 'w') + "\r\nTransfer-Encoding: chunked\r\n\r\n5;" + std::string(20, 'e');
  const std::string tail = std::string(20, 'e') + "\r\nhello\r\n0\r\n";
  for (int nth = 1;; ++nth) {
    InfoPtr info = boost::make_shared<HTTPInfo>();
    int code = 0;
    bool failed = false;
    {
      const FailAlloc fail(nth);
      code = HTTPParser::Parse(head.data(), static_cast<unsigned int>(head.size()), info);
      if (code == result::kOk) {
        info->SetParsingStatus(PARSING_CONTINUE);
        code = HTTPParser::Parse(tail.data(), static_cast<unsigned int>(tail.size()), info);
      }
      failed = fail.Failed();
    }
    if (!failed) {
      EXPECT_GT(nth, 6);
      EXPECT_EQ(result::kOk, code);
      EXPECT_EQ(1, info->GetState());
      EXPECT_EQ("hello", vex_test::TakeBody(*info));
      break;
    }
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_THAT(code, testing::AnyOf(result::kFailure, result::kNoMemory));
    EXPECT_EQ(code == result::kFailure ? 2 : 0, info->GetState());
  }
}

TEST(HttpParser, NoMemoryForAChunkSizeLine) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  Parse(info, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
  info->SetParsingStatus(PARSING_CONTINUE);
  const std::string line = "5;" + std::string(100, 'e');
  const LogCapture log;
  int code = -1;
  {
    const FailAlloc fail(1);
    code = HTTPParser::Parse(line.data(), static_cast<unsigned int>(line.size()), info);
  }
  EXPECT_EQ(result::kNoMemory, code);
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(1, log.Count(16, kTag, "Memory allocation failed"));
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

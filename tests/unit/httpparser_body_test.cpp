#include <gmock/gmock.h>

#include <climits>
#include <string>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>
#include <boost/make_shared.hpp>

#include "base/limits.h"
#include "tests/support/any_cut.h"
#include "tests/support/cpu_seconds.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

using vex_test::HeapEdge;
using vex_test::LogCapture;
using vex_test::ParseAnyCut;
using vex_test::ParsedMessage;
using vex_test::TakeBody;

constexpr char kTag[] = "VEX_CORE_UTILS";
constexpr char kChunkedHeader[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

using InfoPtr = boost::shared_ptr<HTTPInfo>;

int Feed(InfoPtr& info, const std::string& piece) {
  info->SetParsingStatus(PARSING_CONTINUE);
  const HeapEdge edge(piece);
  return HTTPParser::Parse(edge.data(), edge.size(), info);
}

// A message whose header has just ended.
InfoPtr Begun(const std::string& header) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Feed(info, header));
  EXPECT_EQ(HEADER_COMPLETE, info->GetStatus());
  return info;
}

// How a message ends, whose body would be "tail".
std::string Ending(const std::string& header) {
  const ParsedMessage parsed = ParseAnyCut(header + "\r\n\r\ntail");
  if (parsed.result != result::kOk) {
    return "refused, state " + std::to_string(parsed.state);
  }
  if (parsed.state == 1) return "complete, body '" + parsed.body + "'";
  return "reads on, body '" + parsed.body + "'";
}

// Result, state and body of a chunked message, however it is cut.
std::string Chunked(const std::string& body) {
  const ParsedMessage parsed = ParseAnyCut(kChunkedHeader + body);
  return std::to_string(parsed.result) + std::to_string(parsed.state) + " " + parsed.body;
}

TEST(HttpBody, MethodsWithoutABodyWhateverTheirHeadersSay) {
  for (const char* method : {"GET", "HEAD", "SUBSCRIBE", "UNSUBSCRIBE", "M-SEARCH"}) {
    EXPECT_EQ("complete, body ''", Ending(std::string(method) + " * HTTP/1.1\r\nContent-Length: 4"))
        << method;
    EXPECT_EQ("complete, body ''",
              Ending(std::string(method) + " * HTTP/1.1\r\nTransfer-Encoding: gzip"))
        << method;
  }
}

TEST(HttpBody, SsdpAnnouncementsHaveNone) {
  EXPECT_EQ("complete, body ''", Ending("NOTIFY * HTTP/1.1\r\nNTS: SSDP:BYEBYE"));
  EXPECT_EQ("complete, body ''", Ending("NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive"));
  EXPECT_EQ("complete, body ''",
            Ending("NOTIFY * HTTP/1.1\r\nnts:ssdp:Alive\r\nContent-Length: 4"));
}

TEST(HttpBody, OtherNotificationsGoByTheirHeaders) {
  EXPECT_EQ("reads on, body 'tail'", Ending("NOTIFY /e HTTP/1.1\r\nNTS: upnp:propchange"));
  EXPECT_EQ("complete, body 'tail'",
            Ending("NOTIFY /e HTTP/1.1\r\nNTS: upnp:propchange\r\nContent-Length: 4"));
  EXPECT_EQ("reads on, body 'tail'", Ending("NOTIFY * HTTP/1.1\r\nNTS: ssdp:update"));
  EXPECT_EQ("reads on, body 'tail'", Ending("NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive2"));
}

TEST(HttpBody, SearchAnswerHasNone) {
  EXPECT_EQ("complete, body ''", Ending("HTTP/1.1 200 OK\r\nUSN: x\r\nContent-Length: 100"));
  EXPECT_EQ("complete, body ''", Ending("HTTP/1.1 200 OK\r\nusn:\r\nTransfer-Encoding: gzip"));
  const InfoPtr info = Begun("HTTP/1.1 200 OK\r\nUSN: x\r\nContent-Length: 100\r\n\r\n");
  EXPECT_EQ(0U, info->GetContentLength());
}

TEST(HttpBody, UsnOfARequestIsNoSearchAnswer) {
  EXPECT_EQ("complete, body 'tail'", Ending("POST / HTTP/1.1\r\nUSN: x\r\nContent-Length: 4"));
}

TEST(HttpBody, EachPieceOfABodyUntilCloseGoesBackToTheCaller) {
  InfoPtr info = Begun("HTTP/1.0 200 OK\r\n\r\n");
  for (int i = 0; i < 2; ++i) {
    info->SetParsingStatus(PARSING_CONTINUE);
    EXPECT_EQ(result::kOk, info->StoreData("ab", 2));
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_EQ(result::kOk, Feed(info, "cd"));
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
  }
  EXPECT_EQ("abcdabcd", TakeBody(*info));
}

TEST(HttpBody, WithoutEitherHeaderItRunsUntilClose) {
  for (const char* line : {"HTTP/1.1 200 OK", "HTTP/1.1 204 No Content",
                           "HTTP/1.1 304 Not Modified", "POST / HTTP/1.1", "FOO /x HTTP/1.1"}) {
    EXPECT_EQ("reads on, body 'tail'", Ending(std::string(line) + "\r\nA: 1")) << line;
  }
}

TEST(HttpBody, TransferEncodingMustBeChunkedAlone) {
  for (const char* value : {"gzip", "gzip, chunked", "chunked, chunked", "chunke", ""}) {
    const LogCapture log;
    InfoPtr info = boost::make_shared<HTTPInfo>();
    EXPECT_EQ(
        result::kFailure,
        Feed(info, "HTTP/1.1 200 OK\r\nTransfer-Encoding: " + std::string(value) + "\r\n\r\n"));
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
    EXPECT_EQ(1, info->GetStatus());
    EXPECT_EQ(1, log.Count(16, kTag,
                           "Un-supported Transfer-Encoding value [" + std::string(value) + "]!"));
    EXPECT_EQ(1, log.Count(16, kTag, "UNIDENTIFIED encoding type!"));
  }
  EXPECT_EQ("refused, state 0", Ending("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip"));
}

TEST(HttpBody, TransferEncodingWinsOverContentLength) {
  const ParsedMessage parsed = ParseAnyCut(
      "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: ChUnKeD\r\n\r\n"
      "5\r\nhello\r\n0\r\n\r\n");
  EXPECT_EQ(1, parsed.state);
  EXPECT_EQ("hello", parsed.body);
  EXPECT_EQ(0U, parsed.content_length);
}

TEST(HttpBody, ContentLengthValues) {
  const struct {
    const char* value;
    const char* ending;
  } rows[] = {
      {"4", "complete, body 'tail'"},
      {"+4", "complete, body 'tail'"},
      {"004", "complete, body 'tail'"},
      {"3", "complete, body 'tai'"},
      {"5", "reads on, body 'tail'"},
      {"+7", "reads on, body 'tail'"},
      {"0", "complete, body ''"},
      {"-0", "complete, body ''"},
      {"", "complete, body ''"},
      {"-1", "reads on, body 'tail'"},
      {"18446744073709551615", "reads on, body 'tail'"},
      {"18446744073709551616", "refused, state 0"},
      {"12abc", "refused, state 0"},
      {"0x10", "refused, state 0"},
      {"4, 4", "refused, state 0"},
      {"+", "refused, state 0"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.ending, Ending("HTTP/1.1 200 OK\r\nContent-Length: " + std::string(row.value)))
        << row.value;
  }
}

TEST(HttpBody, ContentLengthIsTheFirstOfTwo) {
  EXPECT_EQ("complete, body 'tai'",
            Ending("HTTP/1.1 200 OK\r\nContent-Length: 3\r\nContent-Length: 4"));
}

TEST(HttpBody, ContentLengthOfMinusOneIsTheLargestNumber) {
  EXPECT_EQ(7U, Begun("HTTP/1.1 200 OK\r\nContent-Length: +7\r\n\r\n")->GetContentLength());
  EXPECT_EQ(ULLONG_MAX, Begun("HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n")->GetContentLength());
}

TEST(HttpBody, BadContentLengthIsLogged) {
  const LogCapture log;
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kFailure, Feed(info, "HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n\r\n"));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid Val, can not convert to int"));
  EXPECT_EQ(1, log.Count(16, kTag, "UNIDENTIFIED encoding type!"));
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
}

TEST(HttpBody, HeaderFirstThenBody) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Feed(info, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"));
  EXPECT_EQ(2, info->GetStatus());
  EXPECT_EQ(0, info->GetState());
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(result::kOk, Feed(info, "hello"));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ("hello", TakeBody(*info));
}

TEST(HttpBody, BytesBehindTheLengthAreDropped) {
  InfoPtr info = Begun("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhe");
  EXPECT_EQ(result::kOk, Feed(info, "llo and more"));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ("hello", TakeBody(*info));
}

TEST(HttpBody, BodyIsTakenPiecemeal) {
  InfoPtr info = Begun("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nab");
  EXPECT_EQ("ab", TakeBody(*info));
  Feed(info, "cd");
  EXPECT_EQ("cd", TakeBody(*info));
  EXPECT_EQ(0, info->GetState());
  Feed(info, "ef");
  EXPECT_EQ("ef", TakeBody(*info));
  EXPECT_EQ(1, info->GetState());
}

TEST(HttpChunks, OneAndMany) {
  EXPECT_EQ("01 hello", Chunked("5\r\nhello\r\n0\r\n\r\n"));
  EXPECT_EQ("01 hello world!", Chunked("5\r\nhello\r\n6\r\n world\r\n1\r\n!\r\n0\r\n\r\n"));
  EXPECT_EQ("01 ", Chunked("0\r\n\r\n"));
  EXPECT_EQ("00 hello", Chunked("5\r\nhello\r\n"));
  EXPECT_EQ("00 hel", Chunked("5\r\nhel"));
  EXPECT_EQ("00 ", Chunked("5\r\n"));
  EXPECT_EQ("00 ", Chunked("5"));
}

TEST(HttpChunks, UpperAndLowerCaseDigits) {
  EXPECT_EQ("01 " + std::string(171, 'x'), Chunked("aB\r\n" + std::string(171, 'x') + "\r\n0\r\n"));
}

TEST(HttpChunks, ExtensionIsIgnored) {
  EXPECT_EQ("01 hello", Chunked("5;ext=1\r\nhello\r\n0;last\r\n\r\n"));
}

TEST(HttpChunks, KeptSizeIsReadAsLenientlyAsTheCLibraryReadsIt) {
  EXPECT_EQ("01 hello", Chunked(" \t5 \r\nhello\r\n0\r\n"));
  EXPECT_EQ("01 hello", Chunked("0x5\r\nhello\r\n0\r\n"));
  EXPECT_EQ("01 hello", Chunked("+5\r\nhello\r\n0\r\n"));
  EXPECT_EQ("01 hello", Chunked("00000000000005\r\nhello\r\n0\r\n"));
  EXPECT_EQ("01 hello", Chunked("5g\r\nhello\r\n0\r\n"));
  EXPECT_EQ("01 hello", Chunked(std::string("5\0;x\r\nhello\r\n0\r\n", 16)));
  EXPECT_EQ("01 ", Chunked("0x\r\n"));
  EXPECT_EQ("01 ", Chunked("0xg\r\n"));
  EXPECT_EQ("01 ", Chunked("-0\r\n"));
}

TEST(HttpChunks, KeptLineWithoutADigitEndsTheMessage) {
  EXPECT_EQ("01 hello", Chunked("5\r\nhello\r\nzz\r\nmore"));
  EXPECT_EQ("01 ", Chunked(" \r\n"));
  EXPECT_EQ("01 ", Chunked(";x\r\n"));
}

TEST(HttpChunks, KeptTrailersAreNotLookedAt) {
  const LogCapture log;
  InfoPtr info = Begun(kChunkedHeader);
  EXPECT_EQ(result::kOk, Feed(info, "5\r\nhello\r\n0\r\n"));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ(1, log.Count(4, kTag, "End of chunked encoded data!"));
  EXPECT_EQ("01 hello", Chunked("5\r\nhello\r\n0\r\nTrailer: 1\r\n\r\n"));
}

TEST(HttpChunks, EmptySizeLineFails) {
  const LogCapture log;
  InfoPtr info = Begun(kChunkedHeader);
  EXPECT_EQ(result::kFailure, Feed(info, "\r\nhello"));
  EXPECT_EQ(2, info->GetState());
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid CRLF!"));
  EXPECT_EQ("12 ", Chunked("\r\nhello"));
  EXPECT_EQ("12 hello", Chunked("5\r\nhello\r\n\r\n"));
}

TEST(HttpChunks, KeptBytesBehindAChunkAreSkippedByCount) {
  EXPECT_EQ("01 helloworld", Chunked("5\r\nhelloXX5\r\nworldYY0\r\n"));
}

TEST(HttpChunks, KeptSizeLineEndIsSearchedWithoutSteppingBack) {
  // The second CR fails the match that the first one began, so the line goes on.
  EXPECT_EQ("01 world", Chunked("5\r\r\nabc\r\nworld\r\n0\r\n"));
  EXPECT_EQ("01 world", Chunked("5\r\r\r\nworld\r\n0\r\n"));
  EXPECT_EQ("01 world", Chunked("\r\r5\r\nworld\r\n0\r\n"));
}

TEST(HttpChunks, SizeLineCutBehindItsCr) {
  InfoPtr info = Begun(kChunkedHeader);
  EXPECT_EQ(result::kOk, Feed(info, "5\r"));
  EXPECT_EQ(result::kOk, Feed(info, "\nhello\r\n0\r\n"));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ("hello", TakeBody(*info));
}

TEST(HttpChunks, SizeLineOverThreeReads) {
  InfoPtr info = Begun(kChunkedHeader);
  for (const char* piece : {"0", "0", "5", ";", "e", "\r", "\n", "hello\r\n0\r\n"}) {
    EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
    EXPECT_EQ(result::kOk, Feed(info, piece));
  }
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ("hello", TakeBody(*info));
}

TEST(HttpChunks, ChunkThatEndsAtTheBuffersEndLeavesItsCrlf) {
  for (const char* rest : {"", "\r", "\r\n"}) {
    InfoPtr info = Begun(kChunkedHeader);
    EXPECT_EQ(result::kOk, Feed(info, "5\r\nhello" + std::string(rest)));
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    EXPECT_EQ("hello", TakeBody(*info));
    const std::string missing = std::string("\r\n").substr(std::string(rest).size());
    EXPECT_EQ(result::kOk, Feed(info, missing + "1\r\n!\r\n0\r\n"));
    EXPECT_EQ(1, info->GetState());
    EXPECT_EQ("!", TakeBody(*info));
  }
}

TEST(HttpChunks, ChunkFinishedInALaterBufferLeavesItsCrlfToo) {
  for (const char* rest : {"", "\r", "\r\n"}) {
    InfoPtr info = Begun(kChunkedHeader);
    Feed(info, "5\r\nhe");
    EXPECT_EQ(result::kOk, Feed(info, "llo" + std::string(rest)));
    EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
    const std::string missing = std::string("\r\n").substr(std::string(rest).size());
    EXPECT_EQ(result::kOk, Feed(info, missing + "1\r\n!\r\n0\r\n"));
    EXPECT_EQ("hello!", TakeBody(*info));
  }
}

TEST(HttpChunks, ProgressIsLogged) {
  const LogCapture log;
  InfoPtr info = Begun(kChunkedHeader);
  Feed(info, "5");
  EXPECT_EQ(1, log.Count(4, kTag, "Did not receive enough data!"));
  Feed(info, "\r\nhe");
  EXPECT_EQ(1, log.Count(4, kTag, "End of current packet!"));
}

TEST(HttpChunks, SizesThatDoNotFitFail) {
  for (const char* size : {"100000000", "FFFFFFFFF", "0x100000000", "-100000000",
                           "10000000000000000", "100000000000000000000000000000005"}) {
    const LogCapture log;
    EXPECT_EQ("12 ", Chunked(std::string(size) + "\r\nhello\r\n0\r\n")) << size;
    EXPECT_LE(1, log.Count(16, kTag, "Invalid Val, can not convert to unsigned"));
  }
}

TEST(HttpChunks, LargestSizesReadOn) {
  EXPECT_EQ("00 hello", Chunked("FFFFFFFF\r\nhello"));
  EXPECT_EQ("00 hello", Chunked("fffffffe\r\nhello"));
  EXPECT_EQ("00 hello", Chunked("7fffffff\r\nhello"));
  EXPECT_EQ("00 hello", Chunked("00FFFFFFFF\r\nhello"));
}

TEST(HttpChunks, KeptNegativeSizeIsTakenModulo) {
  EXPECT_EQ("00 hello", Chunked("-1\r\nhello"));
  // Minus 2^32 - 5 is 5.
  EXPECT_EQ("01 hello", Chunked("-FFFFFFFB\r\nhello\r\n0\r\n"));
}

TEST(HttpChunks, SizeLineAtItsBoundAndBeyond) {
  const std::string extension(limits::kChunkSizeLine - 2, 'e');
  EXPECT_EQ("01 hello",
            vex_test::CutFeeder(kChunkedHeader + ("5;" + extension) + "\r\nhello\r\n0\r\n")
                .Whole()
                .body.insert(0, "01 "));
  ParseAnyCut(kChunkedHeader + ("5;" + extension) + "\r\nhello\r\n0\r\n");

  const std::string beyond = kChunkedHeader + ("5;e" + extension) + "\r\nhello\r\n0\r\n";
  const ParsedMessage parsed = ParseAnyCut(beyond);
  EXPECT_EQ(result::kFailure, parsed.result);
  EXPECT_EQ(2, parsed.state);
}

TEST(HttpChunks, ExtensionOfAMegabyteFails) {
  InfoPtr info = Begun(kChunkedHeader);
  EXPECT_EQ(result::kFailure, Feed(info, "5;" + std::string(1 << 20, 'e')));
  EXPECT_EQ(2, info->GetState());
}

TEST(HttpChunks, OneBufferBecomesOnePiece) {
  std::string tiny;
  for (int i = 0; i < 1000; ++i) tiny += "1\r\nx\r\n";
  InfoPtr info = Begun(kChunkedHeader);
  EXPECT_EQ(result::kOk, Feed(info, tiny));
  EXPECT_EQ(1000U, info->GetProcessedBodySize());
  EXPECT_EQ(1000U, info->GetBodyCost());
  EXPECT_EQ(std::string(1000, 'x'), TakeBody(*info));
}

TEST(HttpChunks, BodyTakenBetweenTwoBuffers) {
  InfoPtr info = Begun(kChunkedHeader);
  Feed(info, "3\r\nabc\r\n5\r\nde");
  EXPECT_EQ("abcde", TakeBody(*info));
  Feed(info, "fgh\r\n1\r\n");
  EXPECT_EQ("fgh", TakeBody(*info));
  Feed(info, "i\r\n0\r\n");
  EXPECT_EQ("i", TakeBody(*info));
  EXPECT_EQ(1, info->GetState());
}

TEST(HttpHostile, HeaderWithoutEndGrowsByWhatComes) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  Feed(info, "GET / HTTP/1.1\r\nA: ");
  const std::string piece(8192, 'a');
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(result::kOk, Feed(info, piece));
  EXPECT_EQ(19U + 8192U * 1000U, info->GetRawHeaderSize());
  EXPECT_EQ(1, info->GetStatus());
}

TEST(HttpHostile, AMillionHeaders) {
  std::string message = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < 1000000; ++i) message += "a:\r\n";
  message += "\r\n";
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Feed(info, message));
  EXPECT_EQ(1, info->GetState());
  EXPECT_EQ(1000000U, info->GetHeaderCount());
  EXPECT_GT(info->GetHeldSize(), 1000000U * 16U);
}

TEST(HttpHostile, ManyStrayLines) {
  std::string message = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < 200000; ++i) message += "a:1\r\nstray\r\n";
  message += "\r\n";
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Feed(info, message));
  std::string value;
  EXPECT_EQ(result::kOk, info->GetHeaderValue("A", value));
  EXPECT_EQ("1stray", value);
  EXPECT_EQ(200000U, info->GetHeaderCount());
}

// What the quickest of three runs costs: others may have disturbed the rest.
template <typename Work>
double Cost(Work work) {
  double least = 0;
  for (int run = 0; run < 3; ++run) {
    const vex_test::CpuSeconds cpu;
    work();
    const double cost = cpu.Elapsed();
    if (run == 0 || cost < least) least = cost;
  }
  return least;
}

// Four times as much may cost four times as much; a search that starts anew costs sixteen times.
constexpr double kWellBelowSquare = 9;

TEST(HttpHostile, AHeaderByteByByteCostsWhatItIsLong) {
  const auto feed = [](std::size_t size) {
    InfoPtr info = boost::make_shared<HTTPInfo>();
    Feed(info, "GET / HTTP/1.1\r\nA: ");
    const std::string value(size, 'a');
    for (const char& byte : value) {
      info->SetParsingStatus(PARSING_CONTINUE);
      ASSERT_EQ(result::kOk, HTTPParser::Parse(&byte, 1, info));
    }
    EXPECT_EQ(19U + size, info->GetRawHeaderSize());
  };
  const double quarter = Cost([&] { feed(64 * 1024); });
  EXPECT_LT(Cost([&] { feed(256 * 1024); }), kWellBelowSquare * quarter);
}

TEST(HttpHostile, StrayLinesCostWhatTheyAreLong) {
  const auto parse = [](int lines) {
    std::string message = "GET / HTTP/1.1\r\n";
    for (int i = 0; i < lines; ++i) message += "a:1\r\nstray\r\n";
    message += "\r\n";
    InfoPtr info = boost::make_shared<HTTPInfo>();
    EXPECT_EQ(result::kOk, Feed(info, message));
    EXPECT_EQ(static_cast<unsigned int>(lines), info->GetHeaderCount());
  };
  const double quarter = Cost([&] { parse(10000); });
  EXPECT_LT(Cost([&] { parse(40000); }), kWellBelowSquare * quarter);
}

TEST(HttpHostile, DatagramsThatAreNoMessages) {
  for (const std::string& datagram :
       {std::string("x"), std::string("\r\n"), std::string("\r\n\r\n"), std::string("\n"),
        std::string(1, '\0'), std::string("\r"), std::string(300, 'a'), std::string(300, '\n'),
        std::string(300, '\r'), std::string("\xFF\xFE\r\n\r\n")}) {
    const ParsedMessage parsed = ParseAnyCut(datagram);
    EXPECT_NE(1, parsed.state) << datagram;
  }
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

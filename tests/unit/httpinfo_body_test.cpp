#include <gmock/gmock.h>

#include <climits>
#include <cstdlib>
#include <string>

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

int Store(HTTPInfo& info, const std::string& data) {
  return info.StoreData(data.data(), static_cast<unsigned int>(data.size()));
}

TEST(HttpInfoBody, BodyOfAMessageWithoutOne) {
  HTTPInfo info;
  unsigned int size = 7;
  EXPECT_EQ(nullptr, info.GetBody(size));
  EXPECT_EQ(0U, size);
}

TEST(HttpInfoBody, OnePieceIsHandedOutWithoutACopy) {
  HTTPInfo info;
  Store(info, "hello");
  unsigned int size = 0;
  char* block = nullptr;
  bool allocated = true;
  {
    const FailAlloc fail(1);
    block = info.GetBody(size);
    allocated = fail.Failed();
  }
  EXPECT_FALSE(allocated);
  EXPECT_EQ("hello", std::string(block, size));
  std::free(block);
}

TEST(HttpInfoBody, PiecesAreJoinedInOrderAndTakenOnce) {
  HTTPInfo info;
  Store(info, "he");
  Store(info, std::string("l\0", 2));
  Store(info, "lo");
  EXPECT_EQ(6U, info.GetProcessedBodySize());
  EXPECT_EQ(std::string("hel\0lo", 6), TakeBody(info));
  EXPECT_EQ(0U, info.GetProcessedBodySize());
  unsigned int size = 7;
  EXPECT_EQ(nullptr, info.GetBody(size));
  EXPECT_EQ(0U, size);
  Store(info, "more");
  EXPECT_EQ("more", TakeBody(info));
}

TEST(HttpInfoBody, BodyWithoutMemoryIsKept) {
  const LogCapture log;
  HTTPInfo info;
  Store(info, "he");
  Store(info, "llo");
  unsigned int size = 0;
  char* block = nullptr;
  {
    const FailAlloc fail(1);
    block = info.GetBody(size);
  }
  EXPECT_EQ(nullptr, block);
  EXPECT_EQ(5U, size);
  EXPECT_EQ(1, log.Count(16, kTag, "Memory allocation failed"));
  EXPECT_EQ("hello", TakeBody(info));
}

TEST(HttpInfoBody, ContentLengthLimitsWhatIsStored) {
  InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
  EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
  info->SetParsingStatus(PARSING_CONTINUE);
  EXPECT_EQ(result::kOk, Store(*info, "0123456789abcde"));
  EXPECT_EQ(MESSAGE_COMPLETE, info->GetState());
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ("0123456789", TakeBody(*info));
}

TEST(HttpInfoBody, StoreOfNothingIsNoFailure) {
  HTTPInfo info;
  EXPECT_EQ(result::kOk, info.StoreData("", 0));
  EXPECT_EQ(result::kOk, info.StoreData(nullptr, 0));
  EXPECT_EQ(MESSAGE_INCOMPLETE, info.GetState());
  unsigned int size = 7;
  EXPECT_EQ(nullptr, info.GetBody(size));
  EXPECT_EQ(result::kFailure, info.StoreData(nullptr, 1));
}

TEST(HttpInfoBody, NothingIsStoredBehindAMessageWithoutBody) {
  const InfoPtr info = Parsed("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(result::kOk, Store(*info, "hello"));
  EXPECT_EQ(0U, info->GetProcessedBodySize());
}

TEST(HttpInfoBody, StoreWithoutMemoryFailsTheMessage) {
  const std::string data(3000, 'x');
  for (int nth = 1;; ++nth) {
    const LogCapture log;
    HTTPInfo info;
    Store(info, "earlier");
    int code = -1;
    bool failed = false;
    {
      const FailAlloc fail(nth);
      code = info.StoreData(data.data(), 3000);
      failed = fail.Failed();
    }
    if (!failed) {
      EXPECT_EQ(3, nth);
      EXPECT_EQ(result::kOk, code);
      break;
    }
    EXPECT_EQ(result::kFailure, code);
    EXPECT_EQ(MESSAGE_FAILED, info.GetState());
    EXPECT_EQ(PARSING_RETURN, info.GetParsingStatus());
    EXPECT_EQ(1, log.Count(16, kTag, "malloc failed!"));
    EXPECT_EQ("earlier", TakeBody(info));
  }
}

TEST(HttpInfoBody, MemoryIsAskedForBeforeTheSourceIsRead) {
  HTTPInfo info;
  int code = -1;
  {
    const FailAlloc fail(2);
    // One byte stands for the 4 GiB - 1 that were promised.
    code = info.StoreData("x", UINT_MAX);
  }
  EXPECT_EQ(result::kFailure, code);
}

TEST(HttpInfoBody, ReadBodyAppendsAndReleases) {
  HTTPInfo info;
  Store(info, "he");
  Store(info, "llo");
  std::string text = "say ";
  EXPECT_EQ(result::kOk, info.ReadBody(text));
  EXPECT_EQ("say hello", text);
  EXPECT_EQ(result::kOk, info.ReadBody(text));
  EXPECT_EQ("say hello", text);
  EXPECT_EQ(0U, info.GetProcessedBodySize());
}

TEST(HttpInfoBody, KeptReadBodyWithANulIsLoggedAndEmpty) {
  const LogCapture log;
  HTTPInfo info;
  Store(info, std::string("a\0b", 3));
  std::string text = "say ";
  EXPECT_EQ(result::kOk, info.ReadBody(text));
  EXPECT_EQ("", text);
  EXPECT_EQ(1, log.Count(16, kTag, "abnormally null-inserted in the string [5, 7]"));
  EXPECT_EQ(0U, info.GetProcessedBodySize());
}

TEST(HttpInfoBody, ReadBodyWithoutMemoryKeepsBoth) {
  HTTPInfo info;
  Store(info, std::string(100, 'x'));
  std::string text = "say ";
  int code = -1;
  {
    const FailAlloc fail(1);
    code = info.ReadBody(text);
  }
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ("say ", text);
  EXPECT_EQ(100U, info.GetProcessedBodySize());
}

TEST(HttpInfoBody, SizesForBudgets) {
  InfoPtr info = Parsed("HTTP/1.1 200 OK\r\nA: 1\r\nB");
  EXPECT_EQ(24U, info->GetRawHeaderSize());
  EXPECT_EQ(0U, info->GetHeaderCount());
  Feed(info, ": 2\r\n\r\n0123456789");
  EXPECT_EQ(31U, info->GetRawHeaderSize());
  EXPECT_EQ(2U, info->GetHeaderCount());
  EXPECT_EQ(10U, info->GetProcessedBodySize());
  // One record costs more than ten bytes; of a large body it is not worth counting.
  EXPECT_EQ(64U, info->GetBodyCost());
  Feed(info, std::string(10000, 'x'));
  EXPECT_EQ(10010U, info->GetBodyCost());
  EXPECT_GE(info->GetHeldSize(), 10010U + 31U + sizeof(HTTPInfo));
}

TEST(HttpInfoBody, ABodyInReadsOfOneByteCostsItsRecords) {
  InfoPtr info = Parsed("HTTP/1.1 200 OK\r\n\r\n");
  for (int i = 0; i < 100; ++i) Feed(info, "x");
  EXPECT_EQ(100U, info->GetProcessedBodySize());
  EXPECT_EQ(6400U, info->GetBodyCost());
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

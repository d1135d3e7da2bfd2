#include "src/http_feed.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vexupnpcp/result_codes.h>
#include <boost/make_shared.hpp>

namespace vex_upnp {
namespace utils {
namespace {

using InfoPtr = boost::shared_ptr<HTTPInfo>;

int Feed(InfoPtr& info, const std::string& text) {
  return FeedParser(text.data(), text.size(), info);
}

TEST(HttpFeed, ClearsTheParsingStatusForTheNextRead) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kOk, Feed(info, "HTTP/1.1 200 OK\r\nContent-Le"));
  EXPECT_EQ(PARSING_CONTINUE, info->GetParsingStatus());
  EXPECT_EQ(result::kOk, Feed(info, "ngth: 5\r\n\r\nhel"));
  EXPECT_EQ(PARSING_CONTINUE, info->GetParsingStatus());
  EXPECT_EQ(MESSAGE_INCOMPLETE, info->GetState());
  EXPECT_EQ(result::kOk, Feed(info, "lo"));
  EXPECT_EQ(MESSAGE_COMPLETE, info->GetState());
  std::string body;
  info->ReadBody(body);
  EXPECT_EQ("hello", body);
}

TEST(HttpFeed, LeavesAFaultAsItIs) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kFailure, Feed(info, "no start line\r\n\r\n"));
  EXPECT_EQ(PARSING_RETURN, info->GetParsingStatus());
  EXPECT_EQ(MESSAGE_FAILED, info->GetState());
}

TEST(HttpFeed, NoMessageAndAnImpossibleSizeAreFailures) {
  InfoPtr none;
  EXPECT_EQ(result::kFailure, Feed(none, "x"));
#if SIZE_MAX > UINT_MAX
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_EQ(result::kFailure, FeedParser("x", static_cast<std::size_t>(UINT_MAX) + 1, info));
#endif
}

TEST(HttpFeed, RegressionAMessageBehindAHeaderLineWithoutANameIsGivenUpWithItsNextRead) {
  for (const char* const begin :
       {"GET / HTTP/1.1\r\na: b\r\n:x\r\n\r\n", "HTTP/1.1 200 OK\r\n:\r\n\r\nbody"}) {
    InfoPtr info = boost::make_shared<HTTPInfo>();
    EXPECT_EQ(result::kOk, Feed(info, begin));
    EXPECT_TRUE(CannotEnd(*info));
    EXPECT_EQ(HEADER_START_LINE, info->GetStatus());
    const unsigned long long held = info->GetHeldSize();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(result::kFailure, Feed(info, "more"));
    EXPECT_EQ(held, info->GetHeldSize());
    // A new message on the same object is none of it.
    info->CleanInfo();
    EXPECT_FALSE(CannotEnd(*info));
    EXPECT_EQ(result::kOk, Feed(info, "GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(MESSAGE_COMPLETE, info->GetState());
  }
}

TEST(HttpFeed, AMessageOnItsWayCanEnd) {
  InfoPtr info = boost::make_shared<HTTPInfo>();
  EXPECT_FALSE(CannotEnd(*info));
  for (const char* const piece :
       {"HTTP/1.1 2", "00 OK\r\na", ": b\r\nContent-Length: 4\r\n\r", "\nbo", "d"}) {
    EXPECT_EQ(result::kOk, Feed(info, piece));
    EXPECT_FALSE(CannotEnd(*info)) << piece;
  }
}

class AdoptedBlock : public testing::Test {
 protected:
  void Feed(const std::string& text) {
    ASSERT_EQ(result::kOk, FeedParser(text.data(), text.size(), info_));
  }
  // Whether the message took the block and handed the very same one out.
  bool IsTaken(const std::string& bytes) {
    char* const block = static_cast<char*>(std::malloc(bytes.size()));
    std::memcpy(block, bytes.data(), bytes.size());
    if (!AdoptBlock(block, bytes.size(), *info_)) {
      std::free(block);
      return false;
    }
    unsigned int size = 0;
    char* const body = info_->GetBody(size);
    EXPECT_EQ(block, body);
    EXPECT_EQ(bytes, std::string(body, size));
    std::free(body);
    return true;
  }
  boost::shared_ptr<HTTPInfo> info_{new HTTPInfo};
};

TEST_F(AdoptedBlock, IsHandedOutWithoutACopyUntilTheLengthIsReached) {
  Feed("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n");
  EXPECT_TRUE(IsTaken("abc"));
  EXPECT_EQ(MESSAGE_INCOMPLETE, info_->GetState());
  EXPECT_FALSE(IsTaken("too long"));
  Feed("d");
  unsigned int size = 0;
  std::free(info_->GetBody(size));
  EXPECT_TRUE(IsTaken("efgh"));
  EXPECT_EQ(MESSAGE_COMPLETE, info_->GetState());
  EXPECT_FALSE(IsTaken("i"));
}

TEST_F(AdoptedBlock, IsTakenByABodyThatEndsWithTheConnection) {
  Feed("HTTP/1.0 200 OK\r\n\r\n");
  EXPECT_TRUE(IsTaken("abc"));
  EXPECT_TRUE(IsTaken("def"));
  EXPECT_EQ(MESSAGE_INCOMPLETE, info_->GetState());
}

TEST_F(AdoptedBlock, IsRefusedWhereFramingMayBe) {
  EXPECT_FALSE(IsTaken("HTTP/1.1 200 OK\r\n"));
  Feed("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_FALSE(IsTaken("3\r\nabc\r\n"));
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

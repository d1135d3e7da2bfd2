#include "src/http_feed.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
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

}  // namespace
}  // namespace utils
}  // namespace vex_upnp

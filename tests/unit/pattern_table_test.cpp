#include "src/pattern_table.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::ElementsAre;
using Table = PatternTable<int>;

boost::shared_ptr<int> Listener(int number) { return boost::shared_ptr<int>(new int(number)); }

// The number of the listener found, 0 for none.
int Find(const Table& table, std::string text) {
  const boost::shared_ptr<int> found = table.Match(text);
  return found ? *found : 0;
}

TEST(PatternTable, SplitsAtCommasAndLeavesEmptyTokensOut) {
  EXPECT_THAT(SplitPattern("NOTIFY,HOST,1900"), ElementsAre("notify", "host", "1900"));
  EXPECT_THAT(SplitPattern(",,NT,,NTS,"), ElementsAre("nt", "nts"));
  EXPECT_THAT(SplitPattern(" A , B"), ElementsAre(" a ", " b"));
  EXPECT_THAT(SplitPattern(""), ElementsAre());
  EXPECT_THAT(SplitPattern(",,,"), ElementsAre());
}

TEST(PatternTable, EveryTokenMustOccurWhereverItStands) {
  Table table;
  table.Append(1, {"b,a,cd"}, Listener(1));
  EXPECT_EQ(1, Find(table, "xaxbxcdx"));
  EXPECT_EQ(1, Find(table, "cdba"));
  EXPECT_EQ(0, Find(table, "abc"));
  EXPECT_EQ(0, Find(table, "abdc"));
  EXPECT_EQ(0, Find(table, ""));
}

TEST(PatternTable, CaseDoesNotMatterOnEitherSide) {
  Table table;
  table.Append(1, {"notify,HoSt"}, Listener(1));
  EXPECT_EQ(1, Find(table, "NOTIFY * HTTP/1.1\r\nHost: x\r\n\r\n"));
  EXPECT_EQ(1, Find(table, "notify * http/1.1\r\nhOST: x\r\n\r\n"));
}

TEST(PatternTable, OnlyAsciiLettersFold) {
  Table table;
  table.Append(1, {"\xC4@[`{"}, Listener(1));
  EXPECT_EQ(1, Find(table, "\xC4@[`{"));
  EXPECT_EQ(0, Find(table, "\xE4@[`{"));
  EXPECT_EQ(0, Find(table, "\xC4`{@["));
}

TEST(PatternTable, FirstListenerInOrderOfRegistrationWins) {
  Table table;
  table.Append(1, {"zzz", "a"}, Listener(1));
  table.Append(2, {"a,b"}, Listener(2));
  EXPECT_EQ(1, Find(table, "a b"));
  EXPECT_TRUE(table.Remove(1));
  EXPECT_EQ(2, Find(table, "a b"));
}

TEST(PatternTable, AnyPatternOfAListenerWillDo) {
  Table table;
  table.Append(1, {"HTTP/1.1,200,OK", "NOTIFY,HOST"}, Listener(1));
  EXPECT_EQ(1, Find(table, "NOTIFY * HTTP/1.1\r\nHOST: x\r\n\r\n"));
  EXPECT_EQ(1, Find(table, "HTTP/1.1 200 OK\r\n\r\n"));
}

TEST(PatternTable, PatternWithoutTokensMatchesNothing) {
  Table table;
  table.Append(1, {"", ",,"}, Listener(1));
  EXPECT_EQ(0, Find(table, "anything"));
  table.Append(2, {"any"}, Listener(2));
  EXPECT_EQ(2, Find(table, "anything"));
}

TEST(PatternTable, BytesBehindANulCount) {
  Table table;
  table.Append(1, {"behind"}, Listener(1));
  EXPECT_EQ(1, Find(table, std::string("front\0behind", 12)));
}

TEST(PatternTable, RemoveKeepsTheOrderOfTheRest) {
  Table table;
  for (int i = 1; i <= 3; ++i) table.Append(i, {"a"}, Listener(i));
  EXPECT_TRUE(table.Remove(2));
  EXPECT_FALSE(table.Remove(2));
  EXPECT_EQ(1, Find(table, "a"));
  EXPECT_TRUE(table.Remove(1));
  EXPECT_EQ(3, Find(table, "a"));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

#include "src/outgoing_loops.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>

#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::ElementsAre;
using vex_test::WaitUntil;

// The names of the threads that were added since `before`.
std::vector<std::string> Added(const std::vector<std::string>& before) {
  std::vector<std::string> added;
  const std::vector<std::string> now = vex_test::ThreadNames("");
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(added));
  return added;
}

TEST(OutgoingLoops, WithoutThreadsEverythingBeginsOnTheFirst) {
  OutgoingLoops loops;
  EXPECT_EQ(&loops.First(), &loops.Next());
  EXPECT_EQ(&loops.First(), &loops.Next());
}

TEST(OutgoingLoops, EachThreadHasALoopAndTheyAreTakenInTurn) {
  const std::vector<std::string> before = vex_test::ThreadNames("");
  OutgoingLoops loops;
  loops.Start(3, "tst", "Loop");
  EXPECT_THAT(Added(before), ElementsAre("tstLoop0", "tstLoop1", "tstLoop2"));
  std::set<io_service*> taken;
  for (int i = 0; i < 3; ++i) taken.insert(&loops.Next());
  EXPECT_EQ(3U, taken.size());
  EXPECT_EQ(1U, taken.count(&loops.First()));
  for (int i = 0; i < 3; ++i) taken.insert(&loops.Next());
  EXPECT_EQ(3U, taken.size());
  loops.Stop();
  loops.Join();
  EXPECT_THAT(Added(before), ElementsAre());
}

TEST(OutgoingLoops, WhatBeganBeforeTheStartGoesOnWithIt) {
  OutgoingLoops loops;
  std::atomic<int> ran{0};
  boost::asio::post(loops.Next(), [&] { ++ran; });
  loops.Start(2, "tst", "Loop");
  EXPECT_TRUE(WaitUntil([&] { return ran == 1; }));
  loops.Stop();
  loops.Join();
}

TEST(OutgoingLoops, AStoppedSetStartsAgainWithAnyNumber) {
  const std::vector<std::string> before = vex_test::ThreadNames("");
  OutgoingLoops loops;
  for (const int count : {3, 1, 2, 0, 4}) {
    loops.Start(count, "tst", "Again");
    EXPECT_TRUE(WaitUntil([&] { return Added(before).size() == static_cast<std::size_t>(count); }));
    std::atomic<int> ran{0};
    for (int i = 0; i < count; ++i) boost::asio::post(loops.Next(), [&] { ++ran; });
    EXPECT_TRUE(WaitUntil([&] { return ran == count; }));
    loops.Stop();
    loops.Join();
  }
}

// Otherwise the first request after the process has run out of descriptors would fail for want of
// the loop's own.
TEST(OutgoingLoops, ItsDescriptorsAreTakenAtTheStart) {
  OutgoingLoops loops;
  loops.Start(3, "tst", "Loop");
  const int descriptors = vex_test::DescriptorCount();
  for (int i = 0; i < 3; ++i) const tcp::socket socket(loops.Next());
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
  loops.Stop();
  loops.Join();
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

#include "src/packet_queue.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <chrono>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::ElementsAre;
using Queue = PacketQueue<int>;

int TakeOne(Queue& queue, std::string& key) {
  int packet = -1;
  queue.Take(key, packet);
  return packet;
}

TEST(PacketQueue, GivesOutInOrderOfArrival) {
  Queue queue(10, 100, 3);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(Queue::Entry::kReady, queue.Append("", i, 1));
  std::string key;
  EXPECT_EQ(1, TakeOne(queue, key));
  EXPECT_EQ(2, TakeOne(queue, key));
  EXPECT_EQ(3, TakeOne(queue, key));
  int packet = 0;
  EXPECT_FALSE(queue.Take(key, packet));
}

TEST(PacketQueue, HoldsBackASecondPacketOfAKeyUntilTheFirstIsFinished) {
  Queue queue(10, 100, 3);
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("a", 1, 1));
  EXPECT_EQ(Queue::Entry::kHeldBack, queue.Append("a", 2, 1));
  EXPECT_EQ(Queue::Entry::kHeldBack, queue.Append("a", 3, 1));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("b", 4, 1));
  std::string a;
  std::string b;
  EXPECT_EQ(1, TakeOne(queue, a));
  EXPECT_EQ("a", a);
  EXPECT_EQ(4, TakeOne(queue, b));
  EXPECT_EQ("b", b);
  std::string none;
  EXPECT_EQ(-1, TakeOne(queue, none));
  EXPECT_FALSE(queue.Finish(b));
  EXPECT_TRUE(queue.Finish(a));
  EXPECT_EQ(2, TakeOne(queue, a));
  EXPECT_TRUE(queue.Finish(a));
  EXPECT_EQ(3, TakeOne(queue, a));
  EXPECT_FALSE(queue.Finish(a));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("a", 5, 1));
}

TEST(PacketQueue, PacketsWithoutAKeyNeverWaitForEachOther) {
  Queue queue(10, 100, 3);
  std::string key = "x";
  queue.Append("", 1, 1);
  EXPECT_EQ(1, TakeOne(queue, key));
  EXPECT_EQ("", key);
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 2, 1));
  EXPECT_FALSE(queue.Finish(key));
}

TEST(PacketQueue, RefusesWhatIsPastTheNumber) {
  Queue queue(2, 100, 3);
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 1, 1));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("a", 2, 1));
  EXPECT_EQ(Queue::Entry::kRefused, queue.Append("a", 3, 1));
  EXPECT_EQ(Queue::Entry::kRefused, queue.Append("", 3, 0));
  EXPECT_EQ(2U, queue.size());
  std::string key;
  EXPECT_EQ(1, TakeOne(queue, key));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 4, 1));
}

TEST(PacketQueue, RefusesWhatIsPastTheBytesAndTakesWhatFitsExactly) {
  Queue queue(10, 100, 3);
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 1, 60));
  EXPECT_EQ(Queue::Entry::kRefused, queue.Append("", 2, 41));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 3, 40));
  EXPECT_EQ(Queue::Entry::kRefused, queue.Append("", 4, 1));
  std::string key;
  EXPECT_EQ(1, TakeOne(queue, key));
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("", 5, 60));
}

TEST(PacketQueue, RefusedPacketDoesNotHoldBackItsKey) {
  Queue queue(1, 100, 3);
  queue.Append("", 1, 1);
  EXPECT_EQ(Queue::Entry::kRefused, queue.Append("a", 2, 1));
  std::string key;
  TakeOne(queue, key);
  EXPECT_EQ(Queue::Entry::kReady, queue.Append("a", 3, 1));
}

// Long enough for a copy of it to need memory.
const char kLongKey[] = "192.168.100.100:49152/upnp/event/0123456789";

TEST(PacketQueue, AnAppendThatFailsForWantOfMemoryLeavesTheKeyOpen) {
  const std::string key = kLongKey;
  const int failed = vex_test::EachAllocationFails(
      [&] {
        Queue queue(10, 100, 3);
        bool taken_in = true;
        try {
          queue.Append(key, 1, 1);
        } catch (const std::bad_alloc&) {
          taken_in = false;
        }
        vex_test::SuspendFailAlloc(true);
        EXPECT_EQ(taken_in ? 1U : 0U, queue.size());
        if (!taken_in) {
          EXPECT_EQ(Queue::Entry::kReady, queue.Append(key, 1, 1));
        }
        std::string taken;
        EXPECT_EQ(1, TakeOne(queue, taken));
        vex_test::SuspendFailAlloc(false);
      },
      [](bool) {});
  EXPECT_GE(failed, 3);
}

TEST(PacketQueue, FinishingNeedsNoMemory) {
  const std::string key = kLongKey;
  Queue queue(10, 100, 3);
  queue.Append(key, 1, 1);
  queue.Append(key, 2, 1);
  std::string taken;
  EXPECT_EQ(1, TakeOne(queue, taken));
  const vex_test::FailAlloc fail(1);
  EXPECT_TRUE(queue.Finish(key));
  EXPECT_FALSE(fail.Failed());
}

std::vector<int> All(PacketQueue<int>& queue) {
  std::vector<int> all;
  queue.TakeAll([&all](int packet) { all.push_back(packet); });
  return all;
}

TEST(PacketQueue, TakeAllGivesReadyAndHeldBackPacketsAndMakesRoom) {
  Queue queue(3, 3, 3);
  queue.Append("a", 1, 1);
  queue.Append("a", 2, 1);
  queue.Append("", 3, 1);
  EXPECT_THAT(All(queue), testing::UnorderedElementsAre(1, 2, 3));
  EXPECT_EQ(0U, queue.size());
  EXPECT_THAT(All(queue), ElementsAre());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Queue::Entry::kReady, queue.Append("", i, 1));
}

TEST(PacketQueue, FinishAfterTakeAllFindsNothing) {
  Queue queue(10, 100, 3);
  queue.Append("a", 1, 1);
  queue.Append("a", 2, 1);
  std::string key;
  TakeOne(queue, key);
  All(queue);
  EXPECT_FALSE(queue.Finish(key));
}

void Fill(Queue& queue, int packets) {
  for (int i = 0; i < packets; ++i) queue.Append("", i, 1);
}

// Longer than any test may take: who waits so long fails it.
constexpr boost::chrono::hours kForEver(1);

TEST(PacketQueue, NobodyWaitsForAnEasyOne) {
  Queue queue(10, 100, 3);
  Fill(queue, 2);
  queue.AwaitEasy(kForEver);
  EXPECT_EQ(2U, queue.size());
}

// Waits until `queue` is easy, and until then, asleep, cannot end.
class Waiter {
 public:
  explicit Waiter(Queue& queue)
      : thread_([&queue] {
          pthread_setname_np(pthread_self(), "waits-for-easy");
          queue.AwaitEasy(kForEver);
        }) {
    EXPECT_TRUE(vex_test::WaitUntil([] { return vex_test::IsAsleep("waits-for-easy"); }));
  }
  void Join() { thread_.join(); }

 private:
  std::thread thread_;
};

TEST(PacketQueue, IsEasyAgainWhenOneOfTooManyIsTaken) {
  Queue queue(10, 100, 3);
  Fill(queue, 3);
  Waiter waiter(queue);
  std::string key;
  EXPECT_EQ(0, TakeOne(queue, key));
  waiter.Join();
}

TEST(PacketQueue, IsEasyAgainWhenItIsEmptied) {
  Queue queue(10, 100, 3);
  Fill(queue, 5);
  Waiter waiter(queue);
  queue.TakeAll([](int) {});
  waiter.Join();
}

TEST(PacketQueue, WhoWaitsForAnEasyOneWaitsNoLongerThanAsked) {
  Queue queue(10, 100, 3);
  Fill(queue, 3);
  const auto begun = std::chrono::steady_clock::now();
  queue.AwaitEasy(boost::chrono::milliseconds(20));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(20));
  EXPECT_EQ(3U, queue.size());
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

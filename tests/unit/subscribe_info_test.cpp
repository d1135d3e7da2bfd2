#include "src/subscribe_info.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

class SilentListener : public DeviceEventListener {
 public:
  void OnEventReceived(const std::string&) override {}
};

class SubscribeInfoListTest : public testing::Test {
 protected:
  using Pointer = SubscribeInfoList::Pointer;

  void SetUp() override {
    SubscribeInfoList::restart();
    list_ = SubscribeInfoList::getInstance();
  }
  void TearDown() override { SubscribeInfoList::terminate(); }

  Pointer Add() {
    const Pointer record(new SubscribeInfo);
    record->listener = &listener_;
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    return list_->add(record) == 0 ? Pointer() : record;
  }
  template <typename Look>
  Pointer With(Look look) {
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    return look(*list_);
  }
  void Remove(int handler_id) {
    With([=](SubscribeInfoList& list)
             VEX_NO_THREAD_SAFETY_ANALYSIS { return list.remove_by_handlerid(handler_id); });
  }

  boost::shared_ptr<SubscribeInfoList> list_;
  SilentListener listener_;
};

TEST_F(SubscribeInfoListTest, HandlesStartAtOneAndAreNeverGivenTwice) {
  EXPECT_EQ(1, Add()->handler_id);
  EXPECT_EQ(2, Add()->handler_id);
  Remove(2);
  Remove(1);
  EXPECT_EQ(3, Add()->handler_id);
}

TEST_F(SubscribeInfoListTest, LookUpsSkipZeroAndEmptyFields) {
  Add();
  boost::lock_guard<boost::mutex> lock(list_->mutex);
  EXPECT_FALSE(list_->get_by_handlerid(0));
  EXPECT_FALSE(list_->get_by_handlerid(99));
  EXPECT_FALSE(list_->get_by_timerid(0));
  EXPECT_FALSE(list_->get_by_sid(""));
  EXPECT_FALSE(list_->get_by_nwsession_id(0));
}

TEST_F(SubscribeInfoListTest, EachFieldFindsItsRecord) {
  Add();
  const Pointer second = Add();
  {
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    second->sid = "uuid:Two";
    second->timer_id = 7;
    second->nwsession_id = 1000000009;
    EXPECT_EQ(second, list_->get_by_handlerid(2));
    EXPECT_EQ(second, list_->get_by_timerid(7));
    EXPECT_EQ(second, list_->get_by_sid("uuid:Two"));
    EXPECT_EQ(second, list_->get_by_nwsession_id(1000000009));
    EXPECT_FALSE(list_->get_by_sid("uuid:two"));
    EXPECT_FALSE(list_->get_by_sid("uuid:Tw"));
    EXPECT_FALSE(list_->get_by_sid("uuid:Two2"));
    second->timer_id = 0;
    second->nwsession_id = 0;
  }
}

TEST_F(SubscribeInfoListTest, TheOlderOfTwoRecordsWithOneSidIsFound) {
  const Pointer first = Add();
  const Pointer second = Add();
  boost::lock_guard<boost::mutex> lock(list_->mutex);
  second->sid = "uuid:1";
  first->sid = "uuid:1";
  EXPECT_EQ(first, list_->get_by_sid("uuid:1"));
}

TEST_F(SubscribeInfoListTest, ARemovedRecordHasNoListener) {
  const Pointer record = Add();
  Remove(1);
  EXPECT_EQ(nullptr, record->listener);
  boost::lock_guard<boost::mutex> lock(list_->mutex);
  EXPECT_FALSE(list_->get_by_handlerid(1));
  EXPECT_FALSE(list_->remove_by_handlerid(1));
}

TEST_F(SubscribeInfoListTest, RemovingAllEmptiesTheList) {
  const Pointer record = Add();
  Add();
  list_->remove_all();
  EXPECT_EQ(nullptr, record->listener);
  boost::lock_guard<boost::mutex> lock(list_->mutex);
  EXPECT_FALSE(list_->get_by_handlerid(1));
  EXPECT_FALSE(list_->get_by_handlerid(2));
}

TEST_F(SubscribeInfoListTest, AClosedListTakesNoRecord) {
  list_->Close();
  EXPECT_FALSE(Add());
}

TEST_F(SubscribeInfoListTest, AnEndedListComesBackOnlyByRestart) {
  Add();
  SubscribeInfoList::terminate();
  EXPECT_FALSE(SubscribeInfoList::getInstance());
  SubscribeInfoList::restart();
  list_ = SubscribeInfoList::getInstance();
  ASSERT_TRUE(list_);
  EXPECT_EQ(1, Add()->handler_id);
}

class AwaitSidTest : public SubscribeInfoListTest {
 protected:
  Pointer AddInFlight(int session_id) {
    const Pointer record = Add();
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    record->nwsession_id = session_id;
    return record;
  }
  // What the handling of an answer does: the record learns its SID, then the handling ends.
  void HandleAnswer(const Pointer& record, int session_id) {
    {
      boost::lock_guard<boost::mutex> lock(list_->mutex);
      record->sid = kSid;
    }
    list_->AnswerHandled(session_id);
  }
  Pointer WithSid() {
    return With([](const SubscribeInfoList& list)
                    VEX_NO_THREAD_SAFETY_ANALYSIS { return list.get_by_sid(kSid); });
  }
  // Runs the wait on a thread of its own, which is known to have begun when this returns.
  void StartWait() {
    waiter_ = std::thread([this] {
      begun_ = true;
      found_ = list_->AwaitSid(kSid);
      returned_ = true;
    });
    ASSERT_TRUE(vex_test::WaitUntil([this] { return begun_.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned_);
  }
  // Far below the wait itself under SlowerTime(20), so that only a wake-up gets here in time.
  void ExpectWokenUp() {
    EXPECT_TRUE(vex_test::WaitUntil([this] { return returned_.load(); }, std::chrono::seconds(10)));
    waiter_.join();
  }
  void TearDown() override {
    if (waiter_.joinable()) waiter_.join();
    SubscribeInfoListTest::TearDown();
  }

  static constexpr const char* kSid = "uuid:sid-1";
  std::thread waiter_;
  std::atomic<bool> begun_{false};
  std::atomic<bool> found_{false};
  std::atomic<bool> returned_{false};
};

constexpr int kSession = 1000000011;

TEST_F(AwaitSidTest, AKnownSidIsNotWaitedFor) {
  const Pointer record = AddInFlight(kSession);
  HandleAnswer(record, kSession);
  const Pointer other = AddInFlight(kSession + 1);
  list_->AnswerArrived(kSession + 1);
  EXPECT_TRUE(list_->AwaitSid(kSid));
}

TEST_F(AwaitSidTest, ARequestWithoutAnAnswerIsNotWaitedFor) {
  AddInFlight(kSession);
  EXPECT_FALSE(list_->AwaitSid(kSid));
}

TEST_F(AwaitSidTest, AnAnswerThatArrivedIsWaitedForUntilItIsHandled) {
  const vex_test::SlowerTime slower(20);
  const Pointer record = AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  HandleAnswer(record, kSession);
  ExpectWokenUp();
  EXPECT_TRUE(found_);
}

TEST_F(AwaitSidTest, AnAnswerThatBringsAnotherSidIsWaitedForInVain) {
  const vex_test::SlowerTime slower(20);
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  list_->AnswerHandled(kSession);
  ExpectWokenUp();
  EXPECT_FALSE(found_);
}

TEST_F(AwaitSidTest, AnAnswerForAnotherSessionCountsForNothing) {
  AddInFlight(kSession);
  list_->AnswerArrived(kSession + 1);
  EXPECT_FALSE(list_->AwaitSid(kSid));
}

TEST_F(AwaitSidTest, AnAnswerThatComesDuringTheWaitDoesNotProlongIt) {
  const vex_test::SlowerTime slower(20);
  const Pointer record = AddInFlight(kSession);
  AddInFlight(kSession + 1);
  list_->AnswerArrived(kSession);
  StartWait();
  list_->AnswerArrived(kSession + 1);
  HandleAnswer(record, kSession);
  ExpectWokenUp();
  EXPECT_TRUE(found_);
}

TEST_F(AwaitSidTest, TheWaitEndsWithTheRecord) {
  const vex_test::SlowerTime slower(20);
  const Pointer record = AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  Remove(record->handler_id);
  ExpectWokenUp();
  EXPECT_FALSE(found_);
}

TEST_F(AwaitSidTest, TheWaitEndsWhenTheListIsClosed) {
  const vex_test::SlowerTime slower(20);
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  list_->Close();
  ExpectWokenUp();
  EXPECT_FALSE(found_);
}

TEST_F(AwaitSidTest, TheWaitEndsAfterASecond) {
  const vex_test::FasterTime faster(20);
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(list_->AwaitSid(kSid));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(AwaitSidTest, AnAnswerThatStaysInHandIsWaitedForOnce) {
  const Pointer record = AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  {
    const vex_test::FasterTime faster(20);
    EXPECT_FALSE(list_->AwaitSid(kSid));
  }
  {
    const vex_test::SlowerTime slower(20);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(list_->AwaitSid(kSid));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  }
  // Another answer has a wait of its own.
  list_->AnswerHandled(kSession);
  {
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    record->nwsession_id = kSession + 1;
  }
  list_->AnswerArrived(kSession + 1);
  StartWait();
  HandleAnswer(record, kSession + 1);
  waiter_.join();
  EXPECT_TRUE(found_);
}

// An answer whose handling ended between a look for the SID and a look at the answers in hand was
// missed, and its first event refused. Each round meets the look-up a little later.
TEST_F(AwaitSidTest, RegressionAnAnswerHandledAtAnyMomentIsSeen) {
  const vex_test::SlowerTime slower(20);
  constexpr int kRounds = 5000;
  const Pointer record = AddInFlight(0);
  std::atomic<int> begun{-1};
  // Others want the list too, so that who lets go of it may have to wait for it again.
  std::atomic<bool> ended{false};
  std::thread others([&] {
    while (!ended) WithSid();
  });
  std::thread answers([&] {
    for (int round = 0; round < kRounds; ++round) {
      while (begun < round) std::this_thread::yield();
      for (volatile int delay = round % 100; delay > 0; delay = delay - 1) {
      }
      HandleAnswer(record, kSession + round);
    }
  });
  int missed = 0;
  for (int round = 0; round < kRounds; ++round) {
    {
      boost::lock_guard<boost::mutex> lock(list_->mutex);
      record->nwsession_id = kSession + round;
      record->sid.clear();
    }
    list_->AnswerArrived(kSession + round);
    begun = round;
    missed += list_->AwaitSid(kSid) ? 0 : 1;
    ASSERT_TRUE(vex_test::WaitUntil([&] { return WithSid() == record; }));
  }
  ended = true;
  answers.join();
  others.join();
  EXPECT_EQ(0, missed);
}

TEST_F(SubscribeInfoListTest, WaitingForDeliveryOutlastsOneOnAnotherThread) {
  std::atomic<bool> inside{false};
  std::atomic<bool> ended{false};
  std::thread delivery([&] {
    boost::lock_guard<boost::recursive_mutex> lock(list_->delivery_mutex);
    inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ended = true;
  });
  ASSERT_TRUE(vex_test::WaitUntil([&] { return inside.load(); }));
  list_->WaitForDelivery();
  EXPECT_TRUE(ended);
  delivery.join();
}

TEST_F(SubscribeInfoListTest, WaitingForDeliveryInsideOneDoesNotHang) {
  boost::lock_guard<boost::recursive_mutex> lock(list_->delivery_mutex);
  list_->WaitForDelivery();
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

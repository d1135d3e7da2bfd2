#include "src/subscribe_info.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

  void SetUp() override { list_ = SubscribeInfoList::restart(); }
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
  list_ = SubscribeInfoList::restart();
  ASSERT_TRUE(list_);
  EXPECT_EQ(1, Add()->handler_id);
}

class WaitForAnswersTest : public SubscribeInfoListTest {
 protected:
  Pointer AddInFlight(int session_id) {
    const Pointer record = Add();
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    record->nwsession_id = session_id;
    return record;
  }
  // Runs the wait on a thread of its own.
  void StartWait() {
    waiter_ = std::thread([this] {
      waited_ = list_->WaitForAnswers();
      returned_ = true;
    });
  }
  void TearDown() override {
    if (waiter_.joinable()) waiter_.join();
    SubscribeInfoListTest::TearDown();
  }

  std::thread waiter_;
  std::atomic<bool> waited_{false};
  std::atomic<bool> returned_{false};
};

constexpr int kSession = 1000000011;

TEST_F(WaitForAnswersTest, ARequestWithoutAnAnswerIsNotWaitedFor) {
  AddInFlight(kSession);
  EXPECT_FALSE(list_->WaitForAnswers());
}

TEST_F(WaitForAnswersTest, AnAnswerThatArrivedIsWaitedForUntilItIsHandled) {
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned_);
  list_->AnswerHandled(kSession);
  waiter_.join();
  EXPECT_TRUE(waited_);
  EXPECT_FALSE(list_->WaitForAnswers());
}

TEST_F(WaitForAnswersTest, AnAnswerForAnotherSessionCountsForNothing) {
  AddInFlight(kSession);
  list_->AnswerArrived(kSession + 1);
  EXPECT_FALSE(list_->WaitForAnswers());
}

TEST_F(WaitForAnswersTest, AnAnswerThatComesDuringTheWaitDoesNotProlongIt) {
  AddInFlight(kSession);
  AddInFlight(kSession + 1);
  list_->AnswerArrived(kSession);
  StartWait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  list_->AnswerArrived(kSession + 1);
  list_->AnswerHandled(kSession);
  waiter_.join();
  EXPECT_TRUE(waited_);
}

TEST_F(WaitForAnswersTest, TheWaitEndsWithTheRecord) {
  const Pointer record = AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  Remove(record->handler_id);
  waiter_.join();
  EXPECT_TRUE(waited_);
}

TEST_F(WaitForAnswersTest, TheWaitEndsWhenTheListIsClosed) {
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  StartWait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  list_->Close();
  waiter_.join();
  EXPECT_TRUE(waited_);
}

TEST_F(WaitForAnswersTest, TheWaitEndsAfterASecond) {
  const vex_test::FasterTime faster(20);
  AddInFlight(kSession);
  list_->AnswerArrived(kSession);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(list_->WaitForAnswers());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
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

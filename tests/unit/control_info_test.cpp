#include "src/control_info.h"

#include <gtest/gtest.h>

#include <vector>

#include <boost/thread/lock_guard.hpp>

namespace vex_upnp {
namespace cp_control {
namespace {

class CountingListener : public ControlResponseListener {
 public:
  void OnResponseReceived(const int&, const int&, const std::string&, void*) override {
    ++results;
    if (throws) throw 1;
  }
  void DeleteContext(void* context) override { given_back.push_back(context); }

  int results = 0;
  bool throws = false;
  std::vector<void*> given_back;
};

// Records with an id end their exchange when they go; ids far beyond those of real sessions.
constexpr int kFirstId = 1000000001;

class ControlInfoListTest : public testing::Test {
 protected:
  void SetUp() override {
    ControlInfoList::restart();
    list_ = ControlInfoList::getInstance();
  }
  void TearDown() override { ControlInfoList::terminate(); }

  ControlInfoList::Pointer Add(int id) {
    const ControlInfoList::Pointer record(new ControlInfo("uuid:1", &listener_, &context_));
    record->action_id = id;
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    return list_->add(record) ? record : ControlInfoList::Pointer();
  }
  ControlInfoList::Pointer Get(int id) {
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    return list_->get_by_action_id(id);
  }
  ControlInfoList::Pointer Remove(int id) {
    boost::lock_guard<boost::mutex> lock(list_->mutex);
    return list_->remove_by_action_id(id);
  }

  boost::shared_ptr<ControlInfoList> list_;
  CountingListener listener_;
  int context_ = 0;
};

TEST_F(ControlInfoListTest, FindsByIdAndNothingForZeroOrAnUnknownId) {
  const ControlInfoList::Pointer record = Add(kFirstId);
  EXPECT_EQ(record, Get(kFirstId));
  EXPECT_FALSE(Get(0));
  EXPECT_FALSE(Get(kFirstId + 1));
}

TEST_F(ControlInfoListTest, RemovingTwiceFindsNothingTheSecondTime) {
  const ControlInfoList::Pointer record = Add(kFirstId);
  EXPECT_EQ(record, Remove(kFirstId));
  EXPECT_FALSE(Remove(kFirstId));
  EXPECT_FALSE(Get(kFirstId));
}

TEST_F(ControlInfoListTest, AContextIsGivenBackOnce) {
  const ControlInfoList::Pointer record = Add(kFirstId);
  GiveContextBack(*record);
  GiveContextBack(*record);
  ASSERT_EQ(1U, listener_.given_back.size());
  EXPECT_EQ(&context_, listener_.given_back[0]);
  EXPECT_EQ(nullptr, record->context);
  EXPECT_EQ(nullptr, record->listener);
}

TEST_F(ControlInfoListTest, AClaimedContextIsNotGivenBack) {
  const ControlInfoList::Pointer record = Add(kFirstId);
  record->context = nullptr;
  GiveContextBack(*record);
  EXPECT_TRUE(listener_.given_back.empty());
}

TEST_F(ControlInfoListTest, ADyingRecordLeavesItsContextAlone) {
  Add(kFirstId);
  Remove(kFirstId);
  EXPECT_TRUE(listener_.given_back.empty());
}

TEST_F(ControlInfoListTest, CancellingAllLeavesTheEntriesAndClosesTheList) {
  Add(kFirstId);
  list_->cancel_control_actions();
  EXPECT_TRUE(Get(kFirstId));
  EXPECT_FALSE(Add(kFirstId + 1));
}

TEST_F(ControlInfoListTest, AnEndedListComesBackOnlyByRestart) {
  Add(kFirstId);
  ControlInfoList::terminate();
  EXPECT_FALSE(ControlInfoList::getInstance());
  EXPECT_FALSE(Get(kFirstId));
  EXPECT_FALSE(Add(kFirstId));
  EXPECT_TRUE(listener_.given_back.empty());
  ControlInfoList::restart();
  EXPECT_TRUE(ControlInfoList::getInstance());
  EXPECT_TRUE(ControlInfoList::getInstance());
}

TEST_F(ControlInfoListTest, WhatAListenerThrowsEndsAtTheDelivery) {
  listener_.throws = true;
  DeliverResult(&listener_, 1, 200, "", nullptr);
  DeliverResult(nullptr, 1, 200, "", nullptr);
  EXPECT_EQ(1, listener_.results);
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

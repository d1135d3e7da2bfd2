#include "src/generic_cp_info.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <list>
#include <string>
#include <thread>

#include <boost/thread/lock_guard.hpp>

#include "src/generic_host_callback.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

using testing::ElementsAre;
using vex_test::WaitUntil;

using HandlePointer = GenericCPInfo::HandlePointer;

HandlePointer MakeHandle(const std::string& udn, const std::string& service_type) {
  return HandlePointer(new GenericSubscribeHandle(1, udn, service_type));
}

// What does not wait has returned by then.
constexpr std::chrono::milliseconds kLongEnoughToReturn(50);

class GenericCPInfoTest : public testing::Test {
 protected:
  GenericCPInfoTest() : info_(nullptr, nullptr) {}

  void List(const HandlePointer& handle) {
    boost::lock_guard<boost::mutex> lock(info_.info_mutex);
    info_.subscribe_handles.push_back(handle);
  }
  bool Finds(const std::string& udn, const std::string& service_type) {
    HandlePointer out;
    boost::lock_guard<boost::mutex> lock(info_.info_mutex);
    return info_.GetSubscribeHandle(udn, service_type, out) &&
           out->GetSubscribedDeviceUdn() == udn && out->GetSubscribedServiceType() == service_type;
  }
  void MarkLeaving(const HandlePointer& handle) {
    boost::lock_guard<boost::mutex> lock(info_.info_mutex);
    handle->leaving = true;
  }

  std::list<int>& ActionIds() VEX_NO_THREAD_SAFETY_ANALYSIS { return info_.action_ids; }
  bool IsClosed() VEX_NO_THREAD_SAFETY_ANALYSIS { return info_.closed; }

  GenericCPInfo info_;
};

TEST_F(GenericCPInfoTest, WithoutCallbacksAllAreNull) {
  EXPECT_EQ(nullptr, info_.callbacks().event_callback);
  EXPECT_EQ(nullptr, info_.callbacks().action_callback);
  EXPECT_EQ(nullptr, info_.callbacks().device_callback);
  EXPECT_EQ(nullptr, info_.callbacks().reserved_callback);
}

TEST_F(GenericCPInfoTest, TypesAreCopiedInOrderDuplicatesIncluded) {
  char a[] = "a";
  char b[] = "b";
  CPDeviceTypeInfo third = {a, nullptr};
  CPDeviceTypeInfo skipped = {nullptr, &third};
  CPDeviceTypeInfo second = {b, &skipped};
  CPDeviceTypeInfo first = {a, &second};
  const GenericCPInfo info(&first, nullptr);
  a[0] = 'x';
  EXPECT_THAT(info.device_types(), ElementsAre("a", "b", "a"));
}

TEST_F(GenericCPInfoTest, HandlesAreFoundByTheirExactPair) {
  List(MakeHandle("uuid:1+lan0", "AVTransport:1"));
  EXPECT_TRUE(Finds("uuid:1+lan0", "AVTransport:1"));
  EXPECT_FALSE(Finds("uuid:1+lan0", "AVTransport"));
  EXPECT_FALSE(Finds("uuid:1+lan0", "avtransport:1"));
  EXPECT_FALSE(Finds("uuid:1", "AVTransport:1"));
  EXPECT_FALSE(Finds("UUID:1+lan0", "AVTransport:1"));
}

TEST_F(GenericCPInfoTest, OneIdIsRemovedAtATime) {
  ActionIds() = {4, 5, 4};
  info_.RemoveActionId(9);
  info_.RemoveActionId(4);
  EXPECT_THAT(ActionIds(), ElementsAre(5, 4));
}

TEST_F(GenericCPInfoTest, CancellingLeavesTheIdsListedAndLetsNothingIn) {
  ActionIds() = {4, 5};
  EXPECT_FALSE(IsClosed());
  info_.CancelAllActions();
  EXPECT_THAT(ActionIds(), ElementsAre(4, 5));
  EXPECT_TRUE(IsClosed());
}

TEST_F(GenericCPInfoTest, ASuccessfulEndTakesTheHandleOffTheList) {
  const HandlePointer handle = MakeHandle("u", "s");
  List(handle);
  MarkLeaving(handle);
  info_.FinishLeaving(handle, true);
  EXPECT_FALSE(Finds("u", "s"));
}

TEST_F(GenericCPInfoTest, KeptAFailedEndPutsTheHandleBack) {
  const HandlePointer handle = MakeHandle("u", "s");
  List(handle);
  MarkLeaving(handle);
  info_.FinishLeaving(handle, false);
  EXPECT_TRUE(Finds("u", "s"));
  EXPECT_FALSE(handle->leaving);
}

TEST_F(GenericCPInfoTest, WhoWaitsForALeavingHandleGoesOnWhenItHasLeft) {
  const HandlePointer handle = MakeHandle("u", "s");
  List(handle);
  MarkLeaving(handle);
  std::atomic<bool> begun{false};
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    begun = true;
    info_.WaitWhileLeaving(handle);
    returned = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
  EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, kLongEnoughToReturn));
  info_.FinishLeaving(handle, true);
  EXPECT_TRUE(WaitUntil([&] { return returned.load(); }));
  waiter.join();
}

TEST_F(GenericCPInfoTest, UnsubscribingAllWaitsForWhatIsLeaving) {
  const HandlePointer handle = MakeHandle("u", "s");
  List(handle);
  MarkLeaving(handle);
  std::atomic<bool> begun{false};
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    begun = true;
    info_.UnSubscribeAllServices();
    returned = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
  EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, kLongEnoughToReturn));
  info_.FinishLeaving(handle, true);
  EXPECT_TRUE(WaitUntil([&] { return returned.load(); }));
  waiter.join();
}

TEST_F(GenericCPInfoTest, InsideACallbackNobodyWaits) {
  const HandlePointer leaving = MakeHandle("u", "s");
  List(leaving);
  List(MakeHandle("u", "t"));
  MarkLeaving(leaving);
  {
    const HostCallbackScope inside;
    info_.UnSubscribeAllServices();
  }
  // The one that is leaving is left to the thread that ends it.
  EXPECT_TRUE(Finds("u", "s"));
  EXPECT_FALSE(Finds("u", "t"));
}

TEST(HostCallbackScope, CountsNestedCallbacksOfItsOwnThread) {
  EXPECT_FALSE(HostCallbackScope::Inside());
  {
    const HostCallbackScope outer;
    {
      const HostCallbackScope inner;
      EXPECT_TRUE(HostCallbackScope::Inside());
    }
    EXPECT_TRUE(HostCallbackScope::Inside());
    bool inside_elsewhere = true;
    std::thread([&] { inside_elsewhere = HostCallbackScope::Inside(); }).join();
    EXPECT_FALSE(inside_elsewhere);
  }
  EXPECT_FALSE(HostCallbackScope::Inside());
}

}  // namespace
}  // namespace generic_cp
}  // namespace vex_upnp

// The numbers that the documents promise, typed from there: whoever changes one has to change the
// promise as well.

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>

#include "base/limits.h"
#include "base/timing.h"
#include "src/callbackhandler.h"
#include "src/message_budget.h"

namespace vex_upnp {
namespace {

struct Promise {
  const char* name;
  double promised;
  double is;
};

#define VEX_PROMISE(name, promised) \
  { #name, promised, static_cast < double>(name) }

void ExpectKept(const Promise& promise) {
  EXPECT_DOUBLE_EQ(promise.promised, promise.is) << promise.name;
}

TEST(TimesAndBounds, TimesAreThePromisedOnes) {
  const Promise promises[] = {
      VEX_PROMISE(timing::kDescriptionTimeoutMs, 30000),
      VEX_PROMISE(timing::kActionTimeoutMs, 30000),
      VEX_PROMISE(timing::kResponseTimeoutMs, 30000),
      VEX_PROMISE(timing::kRescanCheckMs, 5000),
      VEX_PROMISE(timing::kGlobalRescanGuardMs, 120000),
      VEX_PROMISE(timing::kAutoRescanMs, 60000),
      VEX_PROMISE(timing::kRescanConnectTimeoutSeconds, 3),
      VEX_PROMISE(timing::kSearchMx, 4),
      VEX_PROMISE(timing::kSubscriptionSeconds, 1800),
      VEX_PROMISE(timing::kRenewalPercent, 75),
      VEX_PROMISE(timing::kUseCountPollMs, 50),
      VEX_PROMISE(timing::kInterfaceScanMs, 2000),
      VEX_PROMISE(timing::kAddressChangePauseMs, 500),
      VEX_PROMISE(timing::kSyncConnectTimeoutMs, 5000),
      VEX_PROMISE(timing::kServedConnectionPauseMs, 20),
      VEX_PROMISE(timing::kSubscribeAnswerWaitMs, 1000),
      VEX_PROMISE(timing::kClockLookMs, 10000),
  };
  for (const Promise& promise : promises) ExpectKept(promise);
}

TEST(TimesAndBounds, BoundsOfMessagesAreThePromisedOnes) {
  const Promise promises[] = {
      VEX_PROMISE(limits::kReceiveBuffer, 8192),
      VEX_PROMISE(limits::kDatagramsPerWakeUp, 32),
      VEX_PROMISE(limits::kEasyDatagrams, 32),
      VEX_PROMISE(limits::kReadingPauseMs, 10),
      VEX_PROMISE(limits::kPartialDatagramHeader, 65536),
      VEX_PROMISE(limits::kQueuedDatagrams, 10000),
      VEX_PROMISE(limits::kQueuedDatagramBytes, 16777216),
      VEX_PROMISE(limits::kHttpHeaderBytes, 262144),
      VEX_PROMISE(limits::kHttpHeaderLines, 1000),
      VEX_PROMISE(limits::kEventRequestBytes, 1048576),
      VEX_PROMISE(limits::kChunkSizeLine, 4096),
      VEX_PROMISE(limits::kChunkSizeDigits, 8),
      VEX_PROMISE(limits::kControlBody, 8388608),
      VEX_PROMISE(limits::kControlBodyCost, 16777216),
      VEX_PROMISE(limits::kAnswersTogether, 67108864),
      VEX_PROMISE(limits::kEventRequestsTogether, 33554432),
      VEX_PROMISE(limits::kSmallMessage, 65536),
  };
  for (const Promise& promise : promises) ExpectKept(promise);
}

TEST(TimesAndBounds, OtherBoundsAreThePromisedOnes) {
  const Promise promises[] = {
      VEX_PROMISE(limits::kSessionShare, 0.7),
      VEX_PROMISE(limits::kDroppedSessionsPart, 10),
      VEX_PROMISE(limits::kDescriptorSharePercent, 85),
      VEX_PROMISE(limits::kDescriptionRequests, 16384),
      VEX_PROMISE(limits::kDescriptionRequestBytes, 33554432),
      VEX_PROMISE(limits::kListedDevices, 16384),
      VEX_PROMISE(limits::kHeldDeviceBytes, 268435456),
      VEX_PROMISE(limits::kReachabilityBatch, 256),
      VEX_PROMISE(limits::kDescriptionWorkers, 8),
      VEX_PROMISE(limits::kServicesPerDevice, 1024),
      VEX_PROMISE(limits::kDescriptionTags, 524288),
      VEX_PROMISE(limits::kDescriptionRecords, 131072),
      VEX_PROMISE(limits::kAttributeIndexFrom, 32),
      VEX_PROMISE(limits::kUnescapedText, 16777216),
      VEX_PROMISE(limits::kUnescapeWork, 268435456),
      VEX_PROMISE(limits::kImmediateRenewals, 2),
      VEX_PROMISE(limits::kRenewalSpacingMs, 1000),
      VEX_PROMISE(limits::kSsdpReceiveBuffer, 4194304),
      VEX_PROMISE(limits::kScannedInterfaces, 32),
      VEX_PROMISE(limits::kArpInterfaces, 10),
      VEX_PROMISE(limits::kThreadStack, 524288),
  };
  for (const Promise& promise : promises) ExpectKept(promise);
}

void ExpectToGiveOut(network_layer::MessageBudget& budget, std::size_t most) {
  ASSERT_EQ(0U, budget.held());
  std::size_t held = 0;
  EXPECT_TRUE(budget.Change(held, most));
  EXPECT_FALSE(budget.Change(held, most + 1));
  budget.Change(held, 0);
  EXPECT_EQ(0U, budget.held());
}

TEST(TimesAndBounds, AllAnswersTogetherHoldSixtyFourMebibytesAndNoMore) {
  ExpectToGiveOut(network_layer::AnswerBudget(), 67108864);
}

TEST(TimesAndBounds, AllEventRequestsTogetherHoldThirtyTwoMebibytesAndNoMore) {
  ExpectToGiveOut(network_layer::EventRequestBudget(), 33554432);
}

// How long a server is held up that could read more.
std::chrono::steady_clock::duration HeldUpFor(network_layer::CallBackHandler& handler) {
  const auto begun = std::chrono::steady_clock::now();
  handler.LetDatagramsBeHandled();
  return std::chrono::steady_clock::now() - begun;
}

TEST(TimesAndBounds, ReadingPausesWhenThirtyTwoDatagramsWaitAndNotBefore) {
  using network_layer::CallBackHandler;
  const boost::shared_ptr<CallBackHandler> handler = CallBackHandler::GetInstance();
  const std::chrono::milliseconds pause(10);
  const auto wait_for_one = [&] {
    boost::shared_ptr<utils::HTTPInfo> datagram = boost::make_shared<utils::HTTPInfo>();
    EXPECT_EQ(0, handler->InvokeUDPRequestHandler(datagram, 1));
  };
  for (int waiting = 0; waiting < 31; ++waiting) wait_for_one();
  // A busy machine may take that long for nothing, but not each time.
  bool went_on = false;
  for (int look = 0; look < 1000 && !went_on; ++look) went_on = HeldUpFor(*handler) < pause;
  EXPECT_TRUE(went_on);
  wait_for_one();
  for (int look = 0; look < 3; ++look) EXPECT_GE(HeldUpFor(*handler), pause);
  CallBackHandler::DestroyInstance();
}

}  // namespace
}  // namespace vex_upnp

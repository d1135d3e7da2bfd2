#include "src/outgoing_timeouts.h"

#include <gmock/gmock.h>

#include <chrono>
#include <new>
#include <vector>

#include <boost/make_shared.hpp>

#include "src/outgoingsession.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/timing_scaled.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

// Keeps the ids of the sessions that fail.
class Owner : public Notify {
 public:
  void SessionCompleted(const int&) override {}
  void HandleFailureCondition(const int& id) override { failed.push_back(id); }
  std::vector<int> failed;
};

class OutgoingTimeoutsTest : public testing::Test {
 protected:
  boost::shared_ptr<OutgoingSession> Session(int id) {
    const auto session = boost::make_shared<OutgoingSession>(io_, &owner_, utils::PROTOCOL_TCP);
    session->set_handler_id(id);
    return session;
  }

  io_service io_;
  Owner owner_;
  OutgoingTimeouts timeouts_{io_};
};

TEST_F(OutgoingTimeoutsTest, EachExpiresOnceInItsTime) {
  const auto first = Session(1);
  const auto second = Session(2);
  const auto third = Session(3);
  const auto begin = std::chrono::steady_clock::now();
  timeouts_.Add(first, milliseconds(20));
  timeouts_.Add(second, milliseconds(60));
  timeouts_.Add(third, milliseconds(40));
  io_.run();
  EXPECT_THAT(owner_.failed, ElementsAre(1, 3, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(60));
}

TEST_F(OutgoingTimeoutsTest, ARemovedOneDoesNotExpire) {
  const auto first = Session(1);
  const auto second = Session(2);
  const OutgoingTimeouts::Ticket ticket = timeouts_.Add(first, milliseconds(5));
  const OutgoingTimeouts::Ticket expiring = timeouts_.Add(second, milliseconds(10));
  EXPECT_TRUE(timeouts_.Remove(ticket));
  EXPECT_FALSE(timeouts_.Remove(ticket));
  io_.run();
  EXPECT_THAT(owner_.failed, ElementsAre(2));
  EXPECT_FALSE(timeouts_.Remove(expiring));
}

TEST_F(OutgoingTimeoutsTest, AnEarlierOneMovesTheTimerForward) {
  const auto late = Session(1);
  const auto soon = Session(2);
  const OutgoingTimeouts::Ticket ticket = timeouts_.Add(late, milliseconds(60000));
  timeouts_.Add(soon, milliseconds(5));
  while (owner_.failed.empty()) io_.run_one();
  EXPECT_THAT(owner_.failed, ElementsAre(2));
  EXPECT_TRUE(timeouts_.Remove(ticket));
}

TEST_F(OutgoingTimeoutsTest, ASessionThatHasGoneIsPassedOver) {
  timeouts_.Add(Session(1), milliseconds(5));
  const auto second = Session(2);
  timeouts_.Add(second, milliseconds(5));
  io_.run();
  EXPECT_THAT(owner_.failed, ElementsAre(2));
}

TEST_F(OutgoingTimeoutsTest, AfterTheLastHasExpiredItStartsAnew) {
  for (int id = 1; id <= 3; ++id) {
    const auto session = Session(id);
    timeouts_.Add(session, milliseconds(1));
    io_.restart();
    io_.run();
  }
  EXPECT_THAT(owner_.failed, ElementsAre(1, 2, 3));
}

TEST_F(OutgoingTimeoutsTest, RegressionOneThatCouldNotBeAddedStopsNoOther) {
  std::vector<int> expected;
  vex_test::EachAllocationFails(
      [this] {
        const boost::weak_ptr<OutgoingSession> nobody;
        try {
          timeouts_.Add(nobody, milliseconds(1));
        } catch (const std::bad_alloc&) {
        }
      },
      [&](bool) {
        const int id = static_cast<int>(expected.size()) + 1;
        expected.push_back(id);
        const auto session = Session(id);
        timeouts_.Add(session, milliseconds(2));
        io_.restart();
        io_.run();
        EXPECT_EQ(expected, owner_.failed);
      });
  EXPECT_GT(expected.size(), 1U);
}

// What expires while there is no memory is told all the same, and so is what expires behind it.
TEST_F(OutgoingTimeoutsTest, RegressionOnesThatExpireWithoutMemoryAreAllTold) {
  vex_test::FasterTime faster(100);
  const auto first = Session(1);
  const auto second = Session(2);
  const auto third = Session(3);
  owner_.failed.reserve(3);
  timeouts_.Add(first, milliseconds(1));
  timeouts_.Add(second, milliseconds(1));
  timeouts_.Add(third, milliseconds(30));
  for (int nth = 1; nth <= 20; ++nth) {
    const vex_test::FailAlloc fail(nth, 3);
    io_.run_for(milliseconds(2));
  }
  io_.run();
  EXPECT_THAT(owner_.failed, ElementsAre(1, 2, 3));
}

TEST_F(OutgoingTimeoutsTest, ASessionStopsHarmlesslyBeforeItsSocketWasOpened) {
  vex_test::LogCapture log;
  const auto session = Session(1);
  session->stop();
  session->stop();
  EXPECT_EQ(2, log.Count("TCP Socket shutdown error, possibly shutdown already!"));
  EXPECT_EQ(0, log.Count("TCP Socket close error, possibly closed already!"));
  EXPECT_EQ(2, session->GetSessionType());
}

TEST_F(OutgoingTimeoutsTest, ACancelledTimeOutIsToldFromAFailedOne) {
  vex_test::LogCapture log;
  const auto session = Session(1);
  session->TimeoutClose(boost::asio::error::operation_aborted);
  EXPECT_EQ(1, log.Count("operation_aborted"));
  session->TimeoutClose(boost::asio::error::no_memory);
  EXPECT_EQ(1, log.Count("error"));
  EXPECT_TRUE(owner_.failed.empty());
  session->TimeoutClose(error_code());
  session->TimeoutClose(error_code());
  EXPECT_EQ(1, log.Count("TimeoutClose handler_id_ = 1, error = 0 "));
  EXPECT_THAT(owner_.failed, ElementsAre(1));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

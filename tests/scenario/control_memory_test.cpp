#include <gmock/gmock.h>

#include <memory>
#include <string>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>

#include "src/control_response_callback.h"
#include "src/event_callback.h"
#include "src/subscribe_response_callback.h"
#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using testing::AnyOf;
using testing::Each;
using testing::SizeIs;
using vex_test::ControlPeer;
using vex_test::EachAllocationFails;
using vex_test::PeerRequest;
using vex_test::Text;
using vex_test::WaitUntil;

constexpr char kGranted[] =
    "HTTP/1.1 200 OK\r\nSID: uuid:s1\r\nTIMEOUT: Second-1800\r\nCONTENT-LENGTH: 0\r\n\r\n";

boost::shared_ptr<utils::HTTPInfo> Parsed(const std::string& text) {
  boost::shared_ptr<utils::HTTPInfo> message(new utils::HTTPInfo);
  utils::HTTPParser::Parse(text.data(), static_cast<unsigned>(text.size()), message);
  return message;
}

class ControlMemory : public testing::Test {
 protected:
  vex_test::ActionLog actions_;
  vex_test::EventLog events_;
  std::unique_ptr<ControlPeer> peer_;
  vex_test::ControlStack stack_;
};

TEST_F(ControlMemory, AnActionWithoutMemoryFailsOrGoesItsWay) {
  const vex_test::FasterTime faster(100);
  peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0, [](const PeerRequest&) {
    return Text("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n");
  }));
  const std::string host = peer_->HostLine();
  const std::string url = peer_->Url("/ctl");
  const std::string udn = "uuid:1";
  const std::string line = "SOAPACTION: \"urn:schemas-upnp-org:service:X:1#Go\"";
  const std::string body(200, 'x');
  const std::string agent = "agent/1.0 of some length";
  std::size_t sent = 0;
  int result = 0;
  int out_of_memory = 0;
  const int failures = EachAllocationFails(
      [&] {
        int id = 0;
        result = SendAction(udn, host, line, url, body, agent, &actions_, &sent, id);
      },
      [&](bool) {
        EXPECT_THAT(result, AnyOf(0, 5001, 2200));
        if (result == 2200) ++out_of_memory;
        if (result != 0) return;
        ++sent;
        ASSERT_TRUE(WaitUntil([&] { return actions_.ResultCount() == sent; }));
      });
  EXPECT_EQ(0, result);
  EXPECT_GT(failures, 5);
  EXPECT_GT(out_of_memory, 0);
  EXPECT_THAT(actions_.Results(), SizeIs(sent));
  EXPECT_THAT(actions_.GivenBack(), SizeIs(0));
}

TEST_F(ControlMemory, ASubscriptionWithoutMemoryFailsOrGoesItsWay) {
  const vex_test::FasterTime faster(100);
  peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0,
                              [](const PeerRequest&) { return Text(kGranted); }));
  const std::string host = peer_->HostLine();
  const std::string url = peer_->Url("/evt");
  const std::string callback = stack_.CallbackUrl();
  const std::string udn = "uuid:1";
  const std::string agent = "agent/1.0 of some length";
  std::size_t subscribed = 0;
  int result = 0;
  int handle = 0;
  const int failures = EachAllocationFails(
      [&] {
        handle = 0;
        result = Subscribe(udn, host, agent, callback, url, &events_, handle);
      },
      [&](bool) {
        EXPECT_THAT(result, AnyOf(0, 1, 5001));
        if (result == 0) {
          ++subscribed;
          ASSERT_TRUE(WaitUntil([&] { return events_.Outcomes().size() == subscribed; }));
        }
        if (handle == 0) return;
        EXPECT_EQ(result == 0 ? 0 : 5001, Unsubscribe(handle, host));
      });
  EXPECT_EQ(0, result);
  EXPECT_GT(failures, 5);
}

TEST_F(ControlMemory, AnUnsubscribeWithoutMemoryEndsTheSubscriptionAllTheSame) {
  peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0,
                              [](const PeerRequest&) { return Text(kGranted); }));
  const std::string host = peer_->HostLine();
  int handle = 0;
  std::size_t subscribed = 0;
  const auto subscribe = [&] {
    ASSERT_EQ(0, Subscribe("uuid:1", host, "", stack_.CallbackUrl(), peer_->Url("/evt"), &events_,
                           handle));
    ++subscribed;
    ASSERT_TRUE(WaitUntil([&] { return events_.Outcomes().size() == subscribed; }));
  };
  subscribe();
  int result = 0;
  EachAllocationFails([&] { result = Unsubscribe(handle, host); },
                      [&](bool failed) {
                        EXPECT_THAT(result, AnyOf(0, 5001));
                        EXPECT_EQ(5000, Unsubscribe(handle, host));
                        if (failed) subscribe();
                      });
  EXPECT_EQ(0, result);
}

TEST_F(ControlMemory, AnEventWithoutMemoryHarmsNobody) {
  peer_.reset(new ControlPeer(vex_test::kDeviceAddress, 0,
                              [](const PeerRequest&) { return Text(kGranted); }));
  int handle = 0;
  ASSERT_EQ(0, Subscribe("uuid:1", peer_->HostLine(), "", stack_.CallbackUrl(), peer_->Url("/evt"),
                         &events_, handle));
  ASSERT_TRUE(WaitUntil([&] { return events_.Outcomes().size() == 1; }));
  const std::string request =
      vex_test::NotifyRequest(handle, "uuid:s1", 0, "<e>a body too long for its place</e>");
  boost::shared_ptr<utils::HTTPInfo> message = Parsed(request);
  const boost::shared_ptr<EventCallback> callback = EventCallback::GetInstance();
  EachAllocationFails([&] { callback->OnTCPRequestReceived(message, nullptr); },
                      [&](bool) { message = Parsed(request); });
  EXPECT_THAT(events_.Events(), Each("<e>a body too long for its place</e>"));
  EXPECT_FALSE(events_.Events().empty());
}

TEST_F(ControlMemory, AnswersWithoutMemoryHarmNobody) {
  const std::string grant = kGranted;
  boost::shared_ptr<utils::HTTPInfo> message = Parsed(grant);
  const boost::shared_ptr<ControlResponseCallback> actions = ControlResponseCallback::GetInstance();
  EachAllocationFails([&] { actions->OnResponseReceived(message, 4711); },
                      [&](bool) { message = Parsed(grant); });
  const boost::shared_ptr<SubscribeResponseCallback> subscriptions =
      SubscribeResponseCallback::GetInstance();
  EachAllocationFails([&] { subscriptions->OnResponseReceived(message, 4711); },
                      [&](bool) { message = Parsed(grant); });
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

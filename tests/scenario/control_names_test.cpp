// Devices whose URLs hold a host name.

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/result_codes.h>

#include "base/asio.h"
#include "src/looked_up_ahead.h"
#include "src/outgoing_address.h"
#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/log_capture.h"
#include "tests/support/name_server.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using vex_test::ControlPeer;
using vex_test::NameServer;
using vex_test::PeerRequest;
using vex_test::WaitUntil;

constexpr char kName[] = "slow.example";

class ControlNames : public testing::Test {
 protected:
  std::string NameUrl(const std::string& path) const {
    return std::string("http://") + kName + ":" + std::to_string(peer_.port()) + path;
  }
  int Act(const std::string& url) {
    int id = 0;
    return SendAction("uuid:dev", peer_.HostLine(), "SOAPACTION: \"x#Go\"", url, "", "", &actions_,
                      nullptr, id);
  }
  int Subscribe(const std::string& url, int& handle) {
    return cp_control::Subscribe("uuid:dev", peer_.HostLine(), "", stack_.CallbackUrl(), url,
                                 &events_, handle);
  }

  // Destroyed last, so that no listener goes before the library is quiet.
  vex_test::ActionLog actions_;
  vex_test::EventLog events_;
  ControlPeer peer_{vex_test::kDeviceAddress, 0, [](const PeerRequest& request) {
                      return vex_test::Text("HTTP/1.1 200 OK\r\nSID: uuid:s" +
                                            std::to_string(request.number) +
                                            "\r\nTIMEOUT: Second-1800\r\n"
                                            "CONTENT-LENGTH: 0\r\n\r\n");
                    }};
  vex_test::ControlStack stack_;
};

TEST_F(ControlNames, WhoWaitsForANameServerHoldsUpNobodyElse) {
  NameServer names(kName, {vex_test::kDeviceAddress});
  names.Hold();
  int slow_handle = 0;
  std::thread subscriber([&] { EXPECT_EQ(0, Subscribe(NameUrl("/event"), slow_handle)); });
  std::thread actor([&] { EXPECT_EQ(0, Act(NameUrl("/control"))); });
  EXPECT_TRUE(WaitUntil([&] { return names.Waiting() == 2; }));
  int handle = 0;
  EXPECT_EQ(0, Subscribe(peer_.Url("/event"), handle));
  EXPECT_EQ(0, Act(peer_.Url("/control")));
  EXPECT_TRUE(WaitUntil([&] { return events_.Outcomes().size() == 1; }));
  EXPECT_TRUE(WaitUntil([&] { return actions_.ResultCount() == 1; }));
  EXPECT_EQ(0, Unsubscribe(handle, peer_.HostLine()));
  EXPECT_EQ(2, names.Waiting());
  names.Release();
  subscriber.join();
  actor.join();
  EXPECT_TRUE(WaitUntil([&] { return events_.Outcomes().size() == 2; }));
  EXPECT_TRUE(WaitUntil([&] { return actions_.ResultCount() == 2; }));
}

TEST_F(ControlNames, ANameThatNobodyKnowsFailsAtOnce) {
  const NameServer names(kName, {});
  const vex_test::LogCapture log;
  int handle = 0;
  EXPECT_EQ(5001, Subscribe(NameUrl("/event"), handle));
  EXPECT_EQ(5001, Act(NameUrl("/control")));
  EXPECT_EQ(2, log.Count("Exception: resolve: Host not found (authoritative)"));
  EXPECT_EQ(0, peer_.Count());
}

TEST(LookedUpAhead, IsThereForItsHostPortAndThreadToTheEndOfTheScope) {
  using network_layer::EndpointsOfName;
  using network_layer::LookedUpAhead;
  io_service io;
  std::unique_ptr<NameServer> names(new NameServer(kName, {"10.77.0.2", "10.77.0.3"}));
  std::unique_ptr<LookedUpAhead> ahead(new LookedUpAhead(kName, 80));
  // From now on the name is unknown.
  names.reset();
  names.reset(new NameServer(kName, {}));
  const std::vector<tcp::endpoint> endpoints = EndpointsOfName(io, kName, 80);
  ASSERT_EQ(2U, endpoints.size());
  EXPECT_EQ("10.77.0.2", endpoints[0].address().to_string());
  EXPECT_EQ("10.77.0.3", endpoints[1].address().to_string());
  EXPECT_EQ(80, endpoints[1].port());
  EXPECT_THROW(EndpointsOfName(io, kName, 81), system_error);
  std::thread([&] { EXPECT_THROW(EndpointsOfName(io, kName, 80), system_error); }).join();
  ahead.reset();
  EXPECT_THROW(EndpointsOfName(io, kName, 80), system_error);
}

TEST(LookedUpAhead, IsMadeOnceForOneInsideTheOther) {
  using network_layer::LookedUpAhead;
  const NameServer names(kName, {"10.77.0.2"});
  const LookedUpAhead outer(std::string("http://") + kName + ":80/a/b");
  EXPECT_EQ(1, names.Asked());
  {
    const LookedUpAhead same(kName, 80);
    EXPECT_EQ(1, names.Asked());
    EXPECT_EQ(&outer, LookedUpAhead::Find(kName, 80));
    const LookedUpAhead other(kName, 81);
    EXPECT_EQ(2, names.Asked());
    EXPECT_EQ(&other, LookedUpAhead::Find(kName, 81));
  }
  EXPECT_EQ(&outer, LookedUpAhead::Find(kName, 80));
}

TEST(LookedUpAhead, AsksNobodyForAUrlThatCannotBeRead) {
  const NameServer names(kName, {"10.77.0.2"});
  const network_layer::LookedUpAhead none(std::string("http://") + kName + "/a");
  const network_layer::LookedUpAhead empty(std::string{});
  EXPECT_EQ(0, names.Asked());
}

TEST(LookedUpAhead, AsksNobodyForAnAddress) {
  // Would wait, and be seen to.
  NameServer names("10.77.0.2", {});
  names.Hold();
  const network_layer::LookedUpAhead ahead("10.77.0.2", 80);
  EXPECT_EQ(nullptr, network_layer::LookedUpAhead::Find("10.77.0.2", 80));
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp

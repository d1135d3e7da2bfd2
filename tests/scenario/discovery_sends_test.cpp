// Description requests whose connections cannot even be begun.

#include <gmock/gmock.h>

#include <cerrno>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/timer.h>

#include "src/cp_discovery_manager.h"
#include "src/device_list.h"
#include "src/now_requesting.h"
#include "tests/support/discovery_rig.h"
#include "tests/support/fail_calls.h"
#include "tests/support/fake_device.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::DiscoveryRig;
using vex_test::FailCalls;
using vex_test::FakeDevice;
using vex_test::NothingInFlight;
using vex_test::SystemCall;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";
constexpr char kKey[] = "uuid:a+localhost";
constexpr char kRetryLine[] = "Retry for description request for [uuid:a+localhost]";

// Time runs as it does in the product, so that no timer has a part in what is seen here.
class DiscoverySends : public testing::Test {
 protected:
  DiscoverySends() { DiscoveryRig::Register("upnp:rootdevice"); }

  void Announce(int services) {
    FakeDevice device;
    device.udn = "uuid:a";
    device.services = vex_test::FakeServices(services, "/a");
    const std::string url = ServeDevice(server_, "/d.xml", device);
    DiscoveryRig::Receive(
        vex_test::AliveDatagram("uuid:a::upnp:rootdevice", "upnp:rootdevice", url));
  }
  static bool IsListed() {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    return list->IsDeviceAdded(kKey) != nullptr;
  }
  static bool WasAdded() {
    return WaitUntil([] { return !DiscoveryRig::EventLog().empty(); });
  }

  DiscoveryRig rig_;
  vex_test::DescriptionServer server_{"127.0.0.1"};
  vex_test::LogCapture log_;
};

TEST_F(DiscoverySends, ADescriptionRequestThatCannotBeginIsSentOnceMoreAtOnce) {
  {
    const FailCalls no_socket(SystemCall::kSocket, EMFILE, 1, 1);
    Announce(0);
    EXPECT_EQ(1, no_socket.Failed());
  }
  EXPECT_TRUE(WasAdded());
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost"));
  EXPECT_EQ(1, log_.Count(4, kTag, kRetryLine));
  EXPECT_EQ(0, log_.Count("SendTCPHTTPPacket failed"));
  EXPECT_EQ(1, server_.Count("/d.xml"));
}

TEST_F(DiscoverySends, BehindASecondFailureTheRequestIsGoneAndTheNextAnnouncementAsksAfresh) {
  {
    // A third try would fail as well, and be counted.
    const FailCalls no_socket(SystemCall::kSocket, EMFILE, 1, 3);
    Announce(0);
    EXPECT_EQ(2, no_socket.Failed());
  }
  EXPECT_EQ(1, log_.Count(4, kTag, kRetryLine));
  EXPECT_EQ(1, log_.Count(16, kTag, "SendTCPHTTPPacket failed"));
  EXPECT_FALSE(log_.Holds("Recv M-SEARCH res from NEW dev"));
  EXPECT_TRUE(NothingInFlight(kKey));
  Announce(0);
  EXPECT_TRUE(log_.Holds("Recv M-SEARCH res from NEW dev [uuid:a+localhost]"));
  EXPECT_TRUE(WasAdded());
  EXPECT_EQ(1, server_.Count("/d.xml"));
}

// The request for a service's description whose timer was started last.
boost::shared_ptr<NowRequesting> ServiceRequest() {
  const auto manager = CPDiscoveryManager::GetInstance();
  // Ids rise by one for each timer of the process.
  int id = utils::Timer::Start(
      60000, [](int, void*) {}, nullptr);
  utils::Timer::Cancel(id, nullptr);
  while (--id > 0) {
    const boost::shared_ptr<NowRequesting> request = manager->GetNowRequestingByTimerId(id);
    if (request && request->IsForService()) return request;
  }
  return boost::shared_ptr<NowRequesting>();
}

TEST_F(DiscoverySends, KeptAServiceRequestThatCannotBeginStaysListedAndWaitsForItsTimer) {
  // The first socket is that of the device description.
  {
    const FailCalls no_socket(SystemCall::kSocket, EMFILE, 2, 2);
    Announce(1);
    ASSERT_TRUE(WaitUntil([&] {
      return log_.Count("Unable to fetch service description for device uuid:a+localhost ") == 1;
    }));
    ASSERT_TRUE(WaitUntil([] { return !IsListed(); }));
    EXPECT_EQ(1, no_socket.Failed());
  }
  EXPECT_EQ(1, log_.Count(16, kTag, "SendTCPPacket failed !!!"));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
  EXPECT_EQ(0, server_.Count("/a/scpd0.xml"));
  EXPECT_FALSE(NothingInFlight(kKey));

  const boost::shared_ptr<NowRequesting> left = ServiceRequest();
  ASSERT_TRUE(left);
  EXPECT_EQ(kKey, left->udn);
  // What its timer does after thirty seconds.
  CPDiscoveryManager::GetInstance()->CheckNowRequesting(left->timer_id);
  EXPECT_TRUE(WaitUntil([&] { return server_.Count("/a/scpd0.xml") == 1; }));
  // Its answer finds no device to belong to.
  EXPECT_TRUE(WaitUntil([] { return NothingInFlight(kKey); }));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

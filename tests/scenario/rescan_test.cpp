// Searches on the wire, and the checks that end them. Runs in a private network namespace.

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/timer.h>

#include "src/cp_discovery_manager.h"
#include "src/cp_network_state_listener.h"
#include "src/device_list.h"
#include "tests/support/discovery_rig.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/fail_calls.h"
#include "tests/support/fake_device.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::AliveDatagram;
using vex_test::DescriptionServer;
using vex_test::DiscoveryRig;
using vex_test::FakeDevice;
using vex_test::FasterTime;
using vex_test::GroupWatcher;
using vex_test::LogCapture;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";
constexpr char kGroup[] = "239.255.255.250";
constexpr char kMediaServer[] = "urn:schemas-upnp-org:device:MediaServer:1";
constexpr char kRenderer[] = "urn:schemas-upnp-org:device:MediaRenderer:1";

std::string SearchFor(const std::string& type, const std::string& group = kGroup) {
  return "M-SEARCH * HTTP/1.1\r\nST: " + type +
         "\r\nMX: 4\r\nMAN: \"ssdp:discover\"\r\nHOST: " + group + ":1900\r\n\r\n";
}

FakeDevice Plain(const std::string& udn, const std::string& type = kMediaServer) {
  FakeDevice device;
  device.udn = udn;
  device.type = type;
  return device;
}

std::string Alive(const std::string& udn, const std::string& url) {
  return AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", url);
}

bool HasEvents(std::size_t count) {
  return WaitUntil([count] { return DiscoveryRig::EventLog().size() >= count; });
}

bool IsValid(const std::string& key) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  const boost::shared_ptr<Device> device = list->IsDeviceAdded(key);
  return device && device->is_valid;
}

class Search : public testing::Test {
 protected:
  // Sends one more search and waits for it, so that whatever was sent before has arrived too.
  void WaitForAllSearches() {
    const std::string marker = "urn:x-y:device:Marker" + std::to_string(++markers_) + ":1";
    Rescan(marker);
    ASSERT_TRUE(WaitUntil([&] { return watcher_.Count(SearchFor(marker)) == 2; }));
  }

  GroupWatcher watcher_{kGroup, "10.77.0.1"};
  DiscoveryRig rig_{{"lan0"}};

 private:
  int markers_ = 0;
};

TEST_F(Search, ARegistrationSendsTwoEqualDatagrams) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 2; }));
  WaitForAllSearches();
  const auto datagrams = watcher_.Received();
  ASSERT_EQ(4U, datagrams.size());
  EXPECT_EQ(
      "M-SEARCH * HTTP/1.1\r\nST: urn:schemas-upnp-org:device:MediaServer:1\r\nMX: 4\r\n"
      "MAN: \"ssdp:discover\"\r\nHOST: 239.255.255.250:1900\r\n\r\n",
      datagrams[0].bytes);
  EXPECT_EQ(datagrams[0].bytes, datagrams[1].bytes);
  EXPECT_EQ("10.77.0.1", datagrams[0].sender_ip);
  EXPECT_EQ(1, log.Count("Sending Rescan for [" + std::string(kMediaServer) + "]"));
  EXPECT_EQ(1, log.Count(4, kTag, "Registering CP Success"));
}

TEST_F(Search, AnswersComeBackToThePortOfTheUdpServer) {
  DescriptionServer server("10.77.0.1");
  int port = 0;
  {
    DescriptionServer free_port("10.77.0.1");
    port = free_port.port();
  }
  ASSERT_EQ(0, network_layer::ConfigureUDPServer(port, true));
  DiscoveryRig::Register(kMediaServer);
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Received().size() == 2; }));
  vex_test::SsdpPeer peer("10.77.0.2");
  const std::string url = ServeDevice(server, "/d.xml", Plain("uuid:a"));
  const auto search = watcher_.Received()[0];
  EXPECT_EQ(port, search.sender_port);
  peer.Send(
      vex_test::SearchAnswerDatagram("uuid:a::" + std::string(kMediaServer), kMediaServer, url),
      search.sender_ip, search.sender_port);
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+lan0"));
}

// The server's socket never waits, and a search that found it full failed.
TEST_F(Search, RegressionASearchThatFindsTheServersSocketFullGoesOutAllTheSame) {
  const int port = DescriptionServer("10.77.0.1").port();
  ASSERT_EQ(0, network_layer::ConfigureUDPServer(port, true));
  const vex_test::FailCalls full(vex_test::SystemCall::kSend, EAGAIN, 1, 1);
  EXPECT_EQ(0, CPDiscoveryManager::GetInstance()->Rescan(kMediaServer));
  EXPECT_EQ(1, full.Failed());
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Count(SearchFor(kMediaServer)) == 2; }));
  for (const auto& search : watcher_.Received()) EXPECT_EQ(port, search.sender_port);
}

// Without the timer of its check it stood in the way of the next one for ever.
TEST_F(Search, RegressionASearchThatFindsNoTimerStandsInNobodysWay) {
  const int port = DescriptionServer("10.77.0.1").port();
  ASSERT_EQ(0, network_layer::ConfigureUDPServer(port, true));
  utils::Timer::TerminateManager();
  const auto manager = CPDiscoveryManager::GetInstance();
  {
    const vex_test::NoDescriptors none;
    EXPECT_EQ(1, manager->Rescan(kMediaServer));
  }
  EXPECT_EQ(0, manager->Rescan(kMediaServer));
  EXPECT_TRUE(WaitUntil([&] { return watcher_.Count(SearchFor(kMediaServer)) == 4; }));
}

TEST_F(Search, AnnouncementsToTheGroupAreHeard) {
  DescriptionServer server("10.77.0.1");
  ASSERT_EQ(0, network_layer::ConfigureUPnPMulticastServer(1900, true));
  DiscoveryRig::Register("upnp:rootdevice");
  vex_test::SsdpPeer peer("10.77.0.2", "10.77.0.1");
  peer.Send(Alive("uuid:a", ServeDevice(server, "/d.xml", Plain("uuid:a"))), kGroup, 1900);
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+lan0"));
  peer.Send(vex_test::ByebyeDatagram("uuid:a", "uuid:a"), kGroup, 1900);
  ASSERT_TRUE(HasEvents(2));
  EXPECT_EQ("-uuid:a+lan0", DiscoveryRig::EventLog()[1]);
}

TEST_F(Search, TheSameTypeWithinFiveSecondsSendsOnce) {
  LogCapture log;
  const auto manager = CPDiscoveryManager::GetInstance();
  EXPECT_EQ(0, manager->Rescan(kMediaServer));
  EXPECT_EQ(0, manager->Rescan(kMediaServer));
  // Another type isn't held up.
  EXPECT_EQ(0, manager->Rescan(kRenderer));
  WaitForAllSearches();
  EXPECT_EQ(2, watcher_.Count(SearchFor(kMediaServer)));
  EXPECT_EQ(2, watcher_.Count(SearchFor(kRenderer)));
  EXPECT_EQ(
      1, log.Count(2, kTag, "Rescan already in progress for [" + std::string(kMediaServer) + "]"));
}

TEST_F(Search, TwoRegistrationsOfOneTypeSendOneSearch) {
  EXPECT_GT(DiscoveryRig::Register(kMediaServer), 0);
  EXPECT_GT(DiscoveryRig::Register(kMediaServer), 0);
  WaitForAllSearches();
  EXPECT_EQ(2, watcher_.Count(SearchFor(kMediaServer)));
}

TEST_F(Search, AGlobalSearchIsNotRepeatedFor120Seconds) {
  LogCapture log;
  const auto manager = CPDiscoveryManager::GetInstance();
  EXPECT_EQ(0, manager->Rescan("ssdp:all"));
  EXPECT_EQ(1, log.Count(4, kTag, "Rescan progress timer started"));
  EXPECT_EQ(0, manager->Rescan("ssdp:all"));
  EXPECT_EQ(0, manager->Rescan("upnp:rootdevice"));
  EXPECT_EQ(1, log.Count(2, kTag, "Rescan already in progress for [ssdp:all]"));
  EXPECT_EQ(1, log.Count(2, kTag, "Rescan already in progress for [upnp:rootdevice]"));
  // Cancelling, as a network change does, opens the guard at once.
  manager->CancelRescanTimers();
  EXPECT_EQ(0, manager->Rescan("upnp:rootdevice"));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Count("M-SEARCH") == 4; }));
  EXPECT_EQ(2, watcher_.Count(SearchFor("ssdp:all")));
  EXPECT_EQ(2, watcher_.Count(SearchFor("upnp:rootdevice")));
}

TEST_F(Search, TheGuardOfGlobalSearchesEndsByItself) {
  FasterTime faster(400);
  LogCapture log;
  const auto manager = CPDiscoveryManager::GetInstance();
  EXPECT_EQ(0, manager->Rescan("ssdp:all"));
  ASSERT_TRUE(WaitUntil([&] { return log.Count(4, kTag, "Rescan progress timer stopped") == 1; }));
  ASSERT_TRUE(WaitUntil([&] {
    manager->Rescan("ssdp:all");
    return watcher_.Count(SearchFor("ssdp:all")) >= 4;
  }));
}

TEST_F(Search, ARegistrationDuringAGlobalSearchIsNotSearchedFor) {
  const auto manager = CPDiscoveryManager::GetInstance();
  EXPECT_EQ(0, manager->Rescan("upnp:rootdevice"));
  EXPECT_GT(DiscoveryRig::Register(kMediaServer), 0);
  manager->CancelRescanTimers();
  WaitForAllSearches();
  EXPECT_EQ(0, watcher_.Count(SearchFor(kMediaServer)));
}

TEST_F(Search, ASearchForFileTransferServersGoesTwiceToEachGroup) {
  const std::string other = "239.255.255.177";
  GroupWatcher other_watcher(other, "10.77.0.1");
  const std::string type = "urn:tolmark:device:FileTransferServer:1";
  Rescan(type);
  // Whatever follows the literal doesn't count; one character less is another type.
  Rescan("urn:tolmark:device:FileTransferServerX:2");
  Rescan("urn:tolmark:device:FileTransferServe");
  WaitForAllSearches();
  ASSERT_TRUE(WaitUntil([&] { return other_watcher.Received().size() == 4; }));
  EXPECT_EQ(2, watcher_.Count(SearchFor(type)));
  EXPECT_EQ(2, other_watcher.Count(SearchFor(type, other)));
  EXPECT_EQ(2, other_watcher.Count(SearchFor("urn:tolmark:device:FileTransferServerX:2", other)));
  EXPECT_EQ(2, watcher_.Count(SearchFor("urn:tolmark:device:FileTransferServe")));
}

TEST_F(Search, KeptRescanForRegisteredPassesOverObserversOfEverything) {
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Register("ssdp:all");
  DiscoveryRig::Register(kMediaServer);
  DiscoveryRig::Register(kRenderer);
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  WaitForAllSearches();
  watcher_.Clear();
  RescanForRegisteredCP();
  WaitForAllSearches();
  EXPECT_EQ(2, watcher_.Count(SearchFor(kMediaServer)));
  EXPECT_EQ(2, watcher_.Count(SearchFor(kRenderer)));
  EXPECT_EQ(6, watcher_.Count("M-SEARCH"));
}

TEST_F(Search, AutomaticRescansRepeatUntilTheyAreDisabled) {
  FasterTime faster(100);
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  EXPECT_EQ(0, EnableAutoRescanFeature());
  EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan started"));
  EXPECT_EQ(0, EnableAutoRescanFeature());
  EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan already enabled"));
  ASSERT_TRUE(WaitUntil([&] { return log.Count(4, kTag, "Auto refreshing device list") >= 3; }));
  ASSERT_TRUE(WaitUntil([&] { return watcher_.Count(SearchFor(kMediaServer)) >= 6; }));
  EXPECT_EQ(0, DisableAutoRescanFeature());
  EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan stopped "));
  EXPECT_EQ(0, DisableAutoRescanFeature());
  EXPECT_EQ(1, log.Count(4, kTag, "Auto rescan already stopped "));
  const int refreshed = log.Count("Auto refreshing device list");
  // One that was disabled would be due before a timer of the same length that is started now.
  EXPECT_EQ(0, EnableAutoRescanFeature());
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Auto refreshing device list") > refreshed; }));
  EXPECT_EQ(refreshed + 1, log.Count("Auto refreshing device list"));
}

// One search that found no memory was the last one.
TEST_F(Search, RegressionAutomaticRescansGoOnWhenThereIsMemoryAgain) {
  FasterTime faster(1000);
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  ASSERT_EQ(0, EnableAutoRescanFeature());
  {
    const int before = log.Count("Auto refreshing device list");
    const vex_test::FailOnLibraryThreads failing(1, 1);
    ASSERT_TRUE(WaitUntil([&] {
      return log.Count("Auto refreshing device list") > before && failing.Failures() > 1;
    }));
  }
  const int after = log.Count("Auto refreshing device list");
  EXPECT_TRUE(WaitUntil([&] { return log.Count("Auto refreshing device list") > after + 1; }));
  EXPECT_EQ(0, DisableAutoRescanFeature());
}

// What the host threw at the first one went up through the loop, and the rest was never told.
TEST_F(Search, RegressionAHostThatThrowsIsToldOfEveryUnreachableDevice) {
  FasterTime faster(50);
  DescriptionServer dead("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  for (const char* udn : {"uuid:a", "uuid:b", "uuid:c"}) {
    const std::string url = ServeDevice(dead, std::string("/") + udn + ".xml", Plain(udn));
    DiscoveryRig::Receive(Alive(udn, url), "10.77.0.2");
  }
  ASSERT_TRUE(HasEvents(3));
  dead.Close();
  DiscoveryRig::ClearEvents();
  DiscoveryRig::OnEvent([](const vex_test::DeviceEvent&) { throw 1; });
  Rescan(kMediaServer);
  ASSERT_TRUE(HasEvents(3));
  for (const char* udn : {"uuid:a", "uuid:b", "uuid:c"}) {
    EXPECT_EQ(1, DiscoveryRig::CountEvents("-" + std::string(udn) + "+lan0"));
  }
}

TEST_F(Search, AfterTheCheckUnreachableDevicesAreRemovedInListOrder) {
  FasterTime faster(5);
  LogCapture log;
  DescriptionServer alive("10.77.0.1");
  DescriptionServer dead("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  FakeDevice root = Plain("uuid:dead-root");
  root.embedded = {Plain("uuid:dead-embedded")};
  const auto announce = [](const std::string& udn, const std::string& url) {
    const std::size_t before = DiscoveryRig::EventLog().size();
    DiscoveryRig::Receive(Alive(udn, url), "10.77.0.2");
    ASSERT_TRUE(HasEvents(before + 1));
  };
  announce("uuid:dead-1", ServeDevice(dead, "/1.xml", Plain("uuid:dead-1")));
  announce("uuid:busy", ServeDevice(alive, "/2.xml", Plain("uuid:busy")));
  announce("uuid:dead-root", ServeDevice(dead, "/3.xml", root));
  ASSERT_TRUE(HasEvents(4));
  const std::string answering = ServeDevice(dead, "/4.xml", Plain("uuid:answering"));
  announce("uuid:answering", answering);
  announce("uuid:other", ServeDevice(dead, "/5.xml", Plain("uuid:other", kRenderer)));
  dead.Close();
  DiscoveryRig::ClearEvents();
  Rescan(kMediaServer);
  EXPECT_FALSE(IsValid("uuid:busy+lan0"));
  EXPECT_FALSE(IsValid("uuid:answering+lan0"));
  EXPECT_TRUE(IsValid("uuid:other+lan0"));
  // It shows itself in time.
  DiscoveryRig::Receive(Alive("uuid:answering", answering), "10.77.0.2");
  EXPECT_TRUE(IsValid("uuid:answering+lan0"));
  ASSERT_TRUE(HasEvents(3));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("-uuid:dead-1+lan0", "-uuid:dead-root+lan0", "-uuid:dead-embedded+lan0"));
  EXPECT_TRUE(IsValid("uuid:busy+lan0"));
  EXPECT_EQ(1, log.Count(4, kTag, "Device is valid and busy in performing other activity!!"));
  EXPECT_EQ(3, log.Count(4, kTag, "Invalid device found. adding to list!!"));
  DetailedDeviceInfo info;
  EXPECT_EQ(0, GetDeviceDetailInfo("uuid:answering+lan0", &info));
  EXPECT_EQ(1, GetDeviceDetailInfo("uuid:dead-1+lan0", &info));
}

TEST_F(Search, AGlobalSearchChecksDevicesOfEveryType) {
  FasterTime faster(50);
  DescriptionServer dead("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(dead, "/1.xml", Plain("uuid:a"))), "10.77.0.2");
  DiscoveryRig::Receive(Alive("uuid:b", ServeDevice(dead, "/2.xml", Plain("uuid:b", kRenderer))),
                        "10.77.0.2");
  ASSERT_TRUE(HasEvents(2));
  dead.Close();
  Rescan("ssdp:all");
  ASSERT_TRUE(HasEvents(4));
  EXPECT_EQ(1, DiscoveryRig::CountEvents("-uuid:a+lan0"));
  EXPECT_EQ(1, DiscoveryRig::CountEvents("-uuid:b+lan0"));
}

TEST_F(Search, ADeviceThatIsNotReadyIsLeftAlone) {
  FasterTime faster(50);
  LogCapture log;
  DescriptionServer server("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  FakeDevice device = Plain("uuid:a");
  device.services = vex_test::FakeServices(1, "/a");
  server.Hold("/a/scpd0.xml");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server, "/d.xml", device)), "10.77.0.2");
  ASSERT_TRUE(WaitUntil([&] { return server.Count("/a/scpd0.xml") == 1; }));
  Rescan(kMediaServer);
  EXPECT_TRUE(IsValid("uuid:a+lan0"));
}

TEST_F(Search, AMissingDeviceCostsNoCheckWhenAllHaveAnswered) {
  FasterTime faster(500);
  LogCapture log;
  Rescan(kMediaServer);
  // The search is over when the same type may be searched for again.
  ASSERT_TRUE(WaitUntil([&] {
    Rescan(kMediaServer);
    return log.Count("Sending Rescan for [" + std::string(kMediaServer) + "]") == 2;
  }));
  EXPECT_FALSE(log.Holds("IsReachable"));
  EXPECT_FALSE(log.Holds("Sleeping for"));
}

TEST_F(Search, ANetworkChangeCancelsTheCheck) {
  FasterTime faster(5);
  LogCapture log;
  DescriptionServer dead("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(dead, "/1.xml", Plain("uuid:a"))), "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  dead.Close();
  log.Clear();
  Rescan(kMediaServer);
  EXPECT_FALSE(IsValid("uuid:a+lan0"));
  std::string name = "lan1";
  CPNetworkStateListener::GetInstance()->OnNetworkChanged(name, network_layer::NIC_ADDED);
  // Timers fire in order: when this later one has fired, the cancelled one would have.
  Rescan(kRenderer);
  ASSERT_TRUE(WaitUntil(
      [&] { return log.Holds("Creating new thread for invalid device removal. timer_id:"); }));
  int threads = 0;
  for (const auto& line : log.Lines()) {
    if (line.text.find("Creating new thread for invalid device removal.") == 0) ++threads;
  }
  EXPECT_EQ(1, threads);
  EXPECT_EQ(0, DiscoveryRig::CountEvents("-uuid:a+lan0"));
}

TEST_F(Search, TerminationEndsACheckThatIsRunning) {
  DescriptionServer dead("10.77.0.1");
  LogCapture log;
  SetRescanConnectTimeout(600);
  EXPECT_EQ(1, log.Count(4, kTag, "Setting Rescan connect timeout to 600 sec"));
  DiscoveryRig::Register("upnp:rootdevice");
  CPDiscoveryManager::GetInstance()->CancelRescanTimers();
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(dead, "/1.xml", Plain("uuid:a"))), "10.77.0.2");
  ASSERT_TRUE(HasEvents(1));
  dead.Close();
  {
    FasterTime faster(1000);
    Rescan(kMediaServer);
  }
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("Initiating connection to udn:uuid:a+lan0"); }));
  const auto start = std::chrono::steady_clock::now();
  rig_.TerminateDiscovery();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(log.Holds("Stop requested for IsReachable check"));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+lan0"));
}

TEST(SearchWithoutInterface, FailsAndHoldsUpNoLaterOne) {
  DiscoveryRig rig;
  LogCapture log;
  const auto manager = CPDiscoveryManager::GetInstance();
  EXPECT_EQ(2008, manager->Rescan(kMediaServer));
  EXPECT_EQ(2008, manager->Rescan(kMediaServer));
  EXPECT_EQ(2, log.Count(16, kTag, "SendMulticastPacket failed with error 2008"));
  Rescan(kMediaServer);
  EXPECT_EQ(1, log.Count(2, kTag, "Rescan failed."));
  // A registration goes on all the same.
  EXPECT_GT(DiscoveryRig::Register(kMediaServer), 0);
  EXPECT_EQ(1, log.Count(2, kTag, "Rescan failed. "));
  RescanForRegisteredCP();
  EXPECT_EQ(1,
            log.Count(2, kTag, "Auto rescan failed for device type: " + std::string(kMediaServer)));
  // KEPT: the guard of global searches stays shut until its own timer ends.
  EXPECT_EQ(2008, manager->Rescan("ssdp:all"));
  EXPECT_EQ(0, manager->Rescan("ssdp:all"));
}

TEST(SearchOnTwoInterfaces, GoesOutOnBoth) {
  GroupWatcher first(kGroup, "10.77.0.1");
  GroupWatcher second(kGroup, "10.77.1.1");
  DiscoveryRig rig({"lan0", "lan1"});
  Rescan(kMediaServer);
  ASSERT_TRUE(WaitUntil([&] { return first.Received().size() == 2; }));
  ASSERT_TRUE(WaitUntil([&] { return second.Received().size() == 2; }));
  EXPECT_EQ("10.77.0.1", first.Received()[0].sender_ip);
  EXPECT_EQ("10.77.1.1", second.Received()[0].sender_ip);
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

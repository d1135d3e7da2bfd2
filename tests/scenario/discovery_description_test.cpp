// From an announcement to the added event, over real connections on loopback.

#include <gmock/gmock.h>

#include <algorithm>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/httpinfo.h>

#include "base/limits.h"
#include "src/cp_discovery_manager.h"
#include "src/description_listener.h"
#include "src/device_list.h"
#include "src/discovery_listener.h"
#include "src/now_requesting.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/discovery_rig.h"
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
using vex_test::ByebyeDatagram;
using vex_test::DescriptionServer;
using vex_test::DiscoveryRig;
using vex_test::FakeDevice;
using vex_test::FasterTime;
using vex_test::LogCapture;
using vex_test::SearchAnswerDatagram;
using vex_test::WaitUntil;

constexpr char kMediaServer[] = "urn:schemas-upnp-org:device:MediaServer:1";
constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";

FakeDevice Plain(const std::string& udn, int services) {
  FakeDevice device;
  device.udn = udn;
  device.services = vex_test::FakeServices(services, "/" + udn.substr(5));
  return device;
}

std::string Alive(const std::string& udn, const std::string& url) {
  return AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", url);
}

bool HasEvents(std::size_t count) {
  return WaitUntil([count] { return DiscoveryRig::EventLog().size() >= count; });
}

boost::shared_ptr<Device> Listed(const std::string& key) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  return list->IsDeviceAdded(key);
}

std::size_t ListSize() {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  const auto all = list->GetAllDevices();
  return all ? all->size() : 0;
}

bool CanBeFound(const std::string& key) {
  DetailedDeviceInfo info;
  return GetDeviceDetailInfo(key, &info) == 0;
}

// Whether the device's description could be asked for afresh: no request stands in the way.
bool NothingIsRequestedOf(const std::string& key) {
  const auto manager = CPDiscoveryManager::GetInstance();
  const boost::shared_ptr<NowRequesting> fresh(new NowRequesting(key, "", "127.0.0.1", 1, "", ""));
  if (manager->AddNowRequesting(fresh) != 0) return false;
  manager->RemoveNowRequestingByUdn(key);
  return true;
}

class DiscoveryDescription : public testing::Test {
 protected:
  DiscoveryRig rig_;
  DescriptionServer server_{"127.0.0.1"};
};

TEST_F(DiscoveryDescription, ADeviceWithoutServicesIsAddedStraightAway) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost"));
  EXPECT_EQ(1U, server_.Requests().size());
}

// It left the list without a word, and its host was never told that it had gone.
TEST_F(DiscoveryDescription, RegressionADeviceWhoseListenerThrowsStaysListed) {
  DiscoveryRig::Register(kMediaServer);
  DiscoveryRig::OnEvent(
      [](const vex_test::DeviceEvent&) { throw std::runtime_error("of a host"); });
  const LogCapture log;
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("of a host"); }));
  // The request goes behind everything that follows the exception.
  ASSERT_TRUE(WaitUntil([] { return NothingIsRequestedOf("uuid:a+localhost"); }));
  DiscoveryRig::OnEvent(nullptr);
  std::list<DeviceInfo> devices;
  EXPECT_EQ(0, GetDeviceList(kMediaServer, &devices));
  EXPECT_EQ(1U, devices.size());
}

TEST_F(DiscoveryDescription, TheThirdAnswerOfThreeAddsTheDeviceInAnyOrder) {
  DiscoveryRig::Register(kMediaServer);
  std::vector<int> order{0, 1, 2};
  int run = 0;
  do {
    const std::string udn = "uuid:order" + std::to_string(run++);
    const FakeDevice device = Plain(udn, 3);
    const std::string url = ServeDevice(server_, "/" + udn, device);
    for (const auto& service : device.services) server_.Hold(service.scpd_url);
    DiscoveryRig::ClearEvents();
    DiscoveryRig::Receive(Alive(udn, url));
    for (std::size_t answered = 0; answered < 3; ++answered) {
      const std::string& path = device.services[static_cast<std::size_t>(order[answered])].scpd_url;
      ASSERT_TRUE(WaitUntil([&] { return server_.Count(path) == 1; }));
      EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
      EXPECT_FALSE(CanBeFound(udn + "+localhost"));
      server_.Release(path);
      if (answered == 2) continue;
      const std::string key = udn + "+localhost";
      const std::size_t stored = answered + 1;
      ASSERT_TRUE(WaitUntil([&] {
        const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
        boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
        const auto& services = list->IsDeviceAdded(key)->services;
        return static_cast<std::size_t>(std::count_if(
                   services.begin(), services.end(),
                   [](const auto& service) { return !service->scpd_xml.empty(); })) == stored;
      }));
    }
    ASSERT_TRUE(HasEvents(1));
    EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+" + udn + "+localhost"));
    EXPECT_TRUE(CanBeFound(udn + "+localhost"));
    std::string xml;
    EXPECT_EQ(0, GetServiceDescription(udn + "+localhost", "service:Fake1", xml));
    EXPECT_EQ("<scpd>urn:upnp-org:serviceId:Fake1</scpd>", xml);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(DiscoveryDescription, TheFirstTryAsksForThePath) {
  SetDefaultUserAgent("agent/1.0");
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/dir/d.xml", Plain("uuid:a", 1));
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(1));
  const std::string host = "127.0.0.1:" + std::to_string(server_.port());
  EXPECT_THAT(server_.Requests(),
              ElementsAre("GET /dir/d.xml HTTP/1.1\r\nHOST: " + host +
                              "\r\nACCEPT-LANGUAGE: en-us\r\nConnection: Keep-Alive\r\n"
                              "USER-AGENT: agent/1.0\r\nContent-Length: 0\r\n\r\n",
                          "GET /a/scpd0.xml HTTP/1.1\r\nHOST: " + host +
                              "\r\nACCEPT-LANGUAGE: en-us\r\nConnection: Keep-Alive\r\n"
                              "USER-AGENT: agent/1.0\r\nContent-Length: 0\r\n\r\n"));
}

std::string AgentOf(const std::string& request) {
  const std::string name = "USER-AGENT: ";
  const std::size_t start = request.find(name) + name.size();
  return request.substr(start, request.find("\r\n", start) - start);
}

TEST_F(DiscoveryDescription, KeptServicesAreAskedWithTheDefaultAgentAloneEvenAnEmptyOne) {
  DiscoveryRig::Register(kMediaServer, "own/1.0");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  DiscoveryRig::Receive(SearchAnswerDatagram("uuid:a", kMediaServer, url));
  ASSERT_TRUE(HasEvents(1));
  ASSERT_EQ(2U, server_.Requests().size());
  EXPECT_EQ("own/1.0", AgentOf(server_.Requests()[0]));
  EXPECT_EQ("", AgentOf(server_.Requests()[1]));
}

TEST_F(DiscoveryDescription, TheAgentFollowsTheTypeOfTheAnnouncement) {
  DiscoveryRig::Register(kMediaServer, "own/1.0");
  const std::string built_in = "DLNADOC/1.50 TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0";
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  const auto agent_for = [&](const std::string& datagram) {
    const std::size_t before = server_.Requests().size();
    DiscoveryRig::Receive(datagram);
    EXPECT_TRUE(WaitUntil([&] { return server_.Requests().size() > before; }));
    EXPECT_TRUE(WaitUntil([] { return Listed("uuid:a+localhost") != nullptr; }));
    DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
    return AgentOf(server_.Requests().back());
  };
  // By NT, by ST, by a type that nobody registered, and without any type.
  EXPECT_EQ("own/1.0", agent_for(AliveDatagram("uuid:a::x", kMediaServer, url)));
  EXPECT_EQ("own/1.0", agent_for(SearchAnswerDatagram("uuid:a", kMediaServer, url)));
  EXPECT_EQ(built_in, agent_for(AliveDatagram("uuid:a::x", "upnp:rootdevice", url)));
  EXPECT_EQ("", agent_for(AliveDatagram("uuid:a", "uuid:a", url)));
  SetDefaultUserAgent("default/1.0");
  EXPECT_EQ("default/1.0", agent_for(AliveDatagram("uuid:a::x", "upnp:rootdevice", url)));
  EXPECT_EQ("default/1.0", agent_for(AliveDatagram("uuid:a", "uuid:a", url)));
  EXPECT_EQ("default/1.0",
            agent_for("HTTP/1.1 200 OK\r\nLOCATION: " + url + "\r\nUSN: uuid:a\r\n\r\n"));
}

TEST_F(DiscoveryDescription, FiveAnnouncementsInARowMakeOneRequest) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  server_.Hold("/d.xml");
  for (int i = 0; i < 5; ++i) DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Count("/d.xml") == 1; }));
  const boost::shared_ptr<NowRequesting> again(
      new NowRequesting("uuid:a+localhost", url, "127.0.0.1", 1, "", ""));
  EXPECT_EQ(1, CPDiscoveryManager::GetInstance()->AddNowRequesting(again));
  server_.Release("/d.xml");
  ASSERT_TRUE(HasEvents(1));
  EXPECT_EQ(1U, server_.Requests().size());
}

TEST_F(DiscoveryDescription, ASearchAnswerOfThisMachineGetsTheLoopbackKey) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Receive(
      SearchAnswerDatagram("uuid:a::" + std::string(kMediaServer), kMediaServer, url));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost"));
  EXPECT_EQ("localhost", DiscoveryRig::Events()[0].device.interface_name);
  EXPECT_EQ(1, log.Count(2, kTag,
                         "Recv M-SEARCH res from NEW dev [uuid:a+localhost] client_ip = "
                         "[127.0.0.1] Interface ip []"));
  EXPECT_EQ(1, log.Count(4, kTag, "Making description request for [uuid:a+localhost]"));
}

TEST_F(DiscoveryDescription, A404OnOneOfThreeServicesLosesTheDeviceWithoutAnEvent) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  const FakeDevice device = Plain("uuid:a", 3);
  const std::string url = ServeDevice(server_, "/d.xml", device);
  server_.Hold("/a/scpd0.xml");
  server_.Hold("/a/scpd2.xml");
  server_.Serve("/a/scpd1.xml", "", 404);
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("Error code 404 by device uuid:a+localhost "); }));
  ASSERT_TRUE(WaitUntil([] { return !Listed("uuid:a+localhost"); }));
  // The two others are cancelled, so new ones of the same services are no duplicates.
  const auto manager = CPDiscoveryManager::GetInstance();
  for (const char* number : {"0", "2"}) {
    const boost::shared_ptr<NowRequesting> again(
        new NowRequesting("uuid:a+localhost", std::string("urn:upnp-org:serviceId:Fake") + number,
                          "/", "127.0.0.1", 1, ""));
    EXPECT_TRUE(WaitUntil([&] { return manager->AddNowRequesting(again) == 0; }));
  }
  manager->RemoveNowRequestingByUdn("uuid:a+localhost");
  server_.Release("/a/scpd0.xml");
  server_.Release("/a/scpd2.xml");
  // It may be found again later, with a single added event.
  server_.Serve("/a/scpd1.xml", "<scpd/>");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, AnEmptyServiceDescriptionLosesTheDevice) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  server_.Serve("/a/scpd0.xml", "");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  EXPECT_TRUE(WaitUntil([&] {
    return log.Count("Unable to fetch service description for device uuid:a+localhost ") == 1;
  }));
  EXPECT_TRUE(WaitUntil([] { return !Listed("uuid:a+localhost"); }));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

TEST_F(DiscoveryDescription, AnErrorPageIsNoDescription) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  server_.Serve("/d.xml", " \r\n\t<HTML><body>busy</body></HTML>");
  DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
  ASSERT_TRUE(WaitUntil([&] {
    return log.Count(16, kTag, "Reason for description failure:\n<HTML><body>busy</body></HTML>") ==
           1;
  }));
  EXPECT_EQ(0U, ListSize());
  // The next announcement starts afresh.
  ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  ASSERT_TRUE(WaitUntil([&] {
    DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
    return !DiscoveryRig::EventLog().empty();
  }));
}

struct BadAnswer {
  const char* name;
  std::string bytes;
  const char* line;
};

TEST_F(DiscoveryDescription, AnswersWithoutADescriptionLeaveNoTraceButTheirLine) {
  const std::vector<BadAnswer> answers = {
      {"no body", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", "body is NONE"},
      {"the reason", "HTTP/1.1 200 Because\r\nContent-Length: 0\r\n\r\n",
       "Reason => HTTP/1.1 200 Because"},
      {"a NUL in the body",
       std::string("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n<r>\0</r>\n", 47), "body is NONE"},
      {"no XML", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", "MakeDeviceInfo failed"},
      {"a fault", "HTTP/1.1 500 Internal\r\nContent-Length: 2\r\n\r\n<a", nullptr},
      {"a redirection", "HTTP/1.1 301 Moved\r\nContent-Length: 2\r\n\r\n<a", nullptr},
  };
  DiscoveryRig::Register(kMediaServer);
  for (const BadAnswer& answer : answers) {
    LogCapture log;
    server_.ServeRaw("/d.xml", answer.bytes);
    const int before = server_.Count("/d.xml");
    DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
    ASSERT_TRUE(WaitUntil([&] { return server_.Count("/d.xml") == before + 1; })) << answer.name;
    if (answer.line != nullptr) {
      EXPECT_TRUE(WaitUntil([&] { return log.Count(16, kTag, answer.line) == 1; })) << answer.name;
    }
    // Asked for afresh as soon as the request has been removed.
    EXPECT_TRUE(WaitUntil([] { return NothingIsRequestedOf("uuid:a+localhost"); })) << answer.name;
    EXPECT_EQ(0U, ListSize()) << answer.name;
  }
}

TEST_F(DiscoveryDescription, KeptAStatusOf300PassesForASuccess) {
  DiscoveryRig::Register(kMediaServer);
  server_.Serve("/d.xml", vex_test::DescriptionOf(Plain("uuid:a", 0)), 300);
  DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
  EXPECT_TRUE(HasEvents(1));
}

TEST_F(DiscoveryDescription, ATypeNobodyAskedForIsFetchedAgainOnEveryAnnouncement) {
  LogCapture log;
  DiscoveryRig::Register(kMediaServer);
  FakeDevice device = Plain("uuid:a", 0);
  device.type = "urn:schemas-upnp-org:device:Toaster:1";
  const std::string url = ServeDevice(server_, "/d.xml", device);
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(WaitUntil([&] {
      DiscoveryRig::Receive(Alive("uuid:a", url));
      return server_.Count("/d.xml") >= round;
    }));
    ASSERT_TRUE(WaitUntil([&] {
      return log.Count("Not Accepted Device[urn:schemas-upnp-org:device:Toaster:1]") >= round;
    }));
  }
  EXPECT_EQ(0U, ListSize());
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

TEST_F(DiscoveryDescription, ADescriptionThatComesTooLateForItsServiceIsDropped) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(1));
  LogCapture log;
  server_.Serve("/a/scpd0.xml", "<other/>");
  const auto manager = CPDiscoveryManager::GetInstance();
  const boost::shared_ptr<NowRequesting> late(
      new NowRequesting("uuid:a+localhost", "urn:upnp-org:serviceId:Fake0", "/a/scpd0.xml",
                        "127.0.0.1", server_.port(), ""));
  // Once the first request has gone, which is behind the event.
  ASSERT_TRUE(WaitUntil([&] { return manager->AddNowRequesting(late) == 0; }));
  ASSERT_EQ(0, manager->SendNowRequesting(late, "GET /a/scpd0.xml HTTP/1.1\r\n\r\n",
                                          DescriptionListener::GetInstance()));
  ASSERT_TRUE(WaitUntil([&] {
    return log.Count("Service description received for already notified device uuid:a+localhost") ==
           1;
  }));
  std::string xml;
  EXPECT_EQ(0, GetServiceDescription("uuid:a+localhost", "Fake0", xml));
  EXPECT_EQ("<scpd>urn:upnp-org:serviceId:Fake0</scpd>", xml);
  EXPECT_EQ(1U, DiscoveryRig::EventLog().size());
}

TEST_F(DiscoveryDescription, AServiceDescriptionOfADeviceThatIsGoneCancelsItsOtherRequests) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 2));
  server_.Hold("/a/scpd0.xml");
  server_.Hold("/a/scpd1.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Count("/a/scpd1.xml") == 1; }));
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    list->RemoveByUdn("uuid:a+localhost");
  }
  server_.Release("/a/scpd0.xml");
  const auto manager = CPDiscoveryManager::GetInstance();
  const boost::shared_ptr<NowRequesting> other(new NowRequesting(
      "uuid:a+localhost", "urn:upnp-org:serviceId:Fake1", "/", "127.0.0.1", 1, ""));
  EXPECT_TRUE(WaitUntil([&] { return manager->AddNowRequesting(other) == 0; }));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

TEST_F(DiscoveryDescription, ALocationWithAPortAndNothingBehindAsksForTheRoot) {
  DiscoveryRig::Register(kMediaServer);
  ServeDevice(server_, "/", Plain("uuid:a", 0));
  DiscoveryRig::Receive(Alive("uuid:a", server_.Url("")));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_EQ(1, server_.Count("/"));
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a+localhost", &info));
  EXPECT_EQ(server_.Url(""), info.location);
  // KEPT: the last slash is one of the scheme's.
  EXPECT_EQ("http:/", info.description_path);
}

TEST_F(DiscoveryDescription, FieldsThatTheRequestTellsStandInTheRecord) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/dir/sub/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(1));
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a+localhost", &info));
  EXPECT_EQ("127.0.0.1", info.device_ip);
  EXPECT_EQ(server_.port(), info.device_port);
  EXPECT_EQ("127.0.0.1", info.local_ip);
  EXPECT_EQ("localhost", info.interface_name);
  EXPECT_EQ(url, info.location);
  EXPECT_EQ(server_.Url("/dir/sub"), info.description_path);
  EXPECT_EQ(vex_test::DescriptionOf(Plain("uuid:a", 0)), info.description_xml);
  EXPECT_EQ("Fake", info.display_name);
  EXPECT_EQ("", DiscoveryRig::Events()[0].device.display_name);
}

TEST_F(DiscoveryDescription, ALocationWithoutAPortIsRefused) {
  LogCapture log;
  DiscoveryRig::Receive(Alive("uuid:a", "http://127.0.0.1/d.xml"));
  EXPECT_EQ(1, log.Count(16, kTag, "No IP value"));
  EXPECT_EQ(1, log.Count(2, kTag, "ParseURI failed"));
  EXPECT_TRUE(NothingIsRequestedOf("uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, AMissingLocationIsRefused) {
  LogCapture log;
  DiscoveryRig::Receive("HTTP/1.1 200 OK\r\nUSN: uuid:a\r\nST: x\r\n\r\n");
  EXPECT_EQ(1, log.Count(2, kTag, "Header value not found."));
  EXPECT_EQ(1, log.Count(16, kTag, "Description Url is empty"));
}

TEST_F(DiscoveryDescription, PacketsThatTellNothingAreDropped) {
  LogCapture log;
  DiscoveryRig::Receive("NOTIFY * HTTP/1.1\r\nHOST: h\r\nNTS: ssdp:alive\r\n\r\n");
  EXPECT_EQ(1, log.Count(16, kTag, "RetrieveUDN failed"));
  EXPECT_EQ(1, log.Count(4, kTag, "String length of USN is <= 0"));
  DiscoveryRig::Receive(AliveDatagram("uuid:a", "uuid:a", "http://10.9.9.9:1/"), "10.9.9.9");
  EXPECT_EQ(1, log.Count(4, kTag, "No interface is found!"));
}

TEST_F(DiscoveryDescription, AnUpdateCountsAsASearchAnswer) {
  DiscoveryRig::Register(kMediaServer);
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Receive("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nLOCATION: " + url +
                        "\r\nNT: upnp:rootdevice\r\nNTS: ssdp:update\r\nUSN: uuid:a\r\n\r\n");
  EXPECT_TRUE(HasEvents(1));
}

TEST_F(DiscoveryDescription, EmbeddedDevicesComeParentsFirstWhenNoneHasServices) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 0);
  root.embedded = {Plain("uuid:one", 0), Plain("uuid:two", 0)};
  root.embedded[0].embedded = {Plain("uuid:one-one", 0), Plain("uuid:one-two", 0)};
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(server_, "/d.xml", root)));
  ASSERT_TRUE(HasEvents(5));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("+uuid:root+localhost", "+uuid:one+localhost", "+uuid:one-one+localhost",
                          "+uuid:one-two+localhost", "+uuid:two+localhost"));
  EXPECT_EQ(1U, server_.Requests().size());
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:one-two+localhost", &info));
  EXPECT_EQ("127.0.0.1", info.device_ip);
  EXPECT_EQ(server_.Url("/d.xml"), info.location);
  EXPECT_EQ(vex_test::DescriptionOf(root), info.description_xml);
  DiscoveryRig::ClearEvents();
  DiscoveryRig::Receive(ByebyeDatagram("uuid:root::upnp:rootdevice", "upnp:rootdevice"));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("-uuid:root+localhost", "-uuid:one+localhost", "-uuid:one-one+localhost",
                          "-uuid:one-two+localhost", "-uuid:two+localhost"));
  EXPECT_EQ(0U, ListSize());
}

TEST_F(DiscoveryDescription, EachDeviceOfATreeBecomesReadyByItself) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 1);
  root.embedded = {Plain("uuid:one", 1)};
  const std::string url = ServeDevice(server_, "/d.xml", root);
  server_.Hold("/root/scpd0.xml");
  DiscoveryRig::Receive(Alive("uuid:root", url));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:one+localhost"));
  server_.Release("/root/scpd0.xml");
  ASSERT_TRUE(HasEvents(2));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:one+localhost", "+uuid:root+localhost"));
}

TEST_F(DiscoveryDescription, AFailingRootLeavesItsEmbeddedDevices) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 1);
  root.services[0].scpd_url = "http://127.0.0.1/no-port.xml";
  root.embedded = {Plain("uuid:one", 1)};
  LogCapture log;
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(server_, "/d.xml", root)));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:one+localhost"));
  EXPECT_EQ(1, log.Count(16, kTag, "Unable to form service  URI from abs_uri "));
  EXPECT_FALSE(Listed("uuid:root+localhost"));
}

TEST_F(DiscoveryDescription, RegressionARootThatFailsAgainAndAgainDoesNotDoubleItsDevices) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (const int services : {0, 1}) {
    DiscoveryRig::ClearEvents();
    FakeDevice root = Plain("uuid:root", 1);
    root.services[0].scpd_url = "http://127.0.0.1/no-port.xml";
    root.embedded = {Plain("uuid:one", services)};
    const std::string url = ServeDevice(server_, "/d.xml", root);
    LogCapture log;
    for (int round = 1; round <= 3; ++round) {
      DiscoveryRig::Receive(Alive("uuid:root", url));
      EXPECT_TRUE(WaitUntil(
          [&] { return log.Count("Unable to form service  URI from abs_uri ") == round; }));
      EXPECT_TRUE(WaitUntil([] { return NothingIsRequestedOf("uuid:root+localhost"); }));
      EXPECT_TRUE(WaitUntil([] { return NothingIsRequestedOf("uuid:one+localhost"); }));
      EXPECT_EQ(1U, ListSize());
      ASSERT_TRUE(HasEvents(1));
    }
    EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:one+localhost"));
    DiscoveryRig::Receive(ByebyeDatagram("uuid:one", "uuid:one"));
    EXPECT_THAT(DiscoveryRig::EventLog(),
                ElementsAre("+uuid:one+localhost", "-uuid:one+localhost"));
    EXPECT_EQ(0U, ListSize());
  }
}

// Its last missing answer may come while the request is being given up.
TEST_F(DiscoveryDescription, RegressionADeviceThatIsReadyIsNotLost) {
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 1))));
  ASSERT_TRUE(HasEvents(1));
  CPDiscoveryManager::GetInstance()->LoseDevice("uuid:a+localhost");
  EXPECT_TRUE(CanBeFound("uuid:a+localhost"));
  DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost", "-uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, URLBaseLeadsTheRootsRequestsOnly) {
  DiscoveryRig::Register("upnp:rootdevice");
  DescriptionServer other("127.0.0.1");
  FakeDevice root = Plain("uuid:root", 1);
  root.services[0].scpd_url = "scpd/root.xml";
  root.root_more = "<URLBase>" + other.Url("/base/") + "</URLBase>";
  root.embedded = {Plain("uuid:one", 1)};
  root.embedded[0].services[0].scpd_url = "scpd/one.xml";
  other.Serve("/base/scpd/root.xml", "<scpd/>");
  server_.Serve("/dir/scpd/one.xml", "<scpd/>");
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(server_, "/dir/d.xml", root)));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_EQ(1, other.Count("/base/scpd/root.xml"));
  EXPECT_EQ(1, server_.Count("/dir/scpd/one.xml"));
}

TEST_F(DiscoveryDescription, AnEmbeddedDeviceThatWasLostComesBackWithoutNewRequests) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 0);
  root.embedded = {Plain("uuid:one", 0)};
  root.embedded[0].embedded = {Plain("uuid:deep", 1)};
  const std::string url = ServeDevice(server_, "/d.xml", root);
  DiscoveryRig::Receive(Alive("uuid:root", url));
  ASSERT_TRUE(HasEvents(3));
  for (const char* key : {"uuid:root+localhost", "uuid:deep+localhost"}) {
    ASSERT_TRUE(WaitUntil([&] { return NothingIsRequestedOf(key); }));
  }
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    list->RemoveByUdn("uuid:deep+localhost");
  }
  EXPECT_FALSE(CanBeFound("uuid:deep+localhost"));
  DiscoveryRig::ClearEvents();
  LogCapture log;
  DiscoveryRig::Receive(Alive("uuid:deep", url));
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:deep+localhost"));
  EXPECT_TRUE(CanBeFound("uuid:deep+localhost"));
  EXPECT_EQ(1, log.Count(2, kTag, "Services already available for device. Notifying "));
  EXPECT_EQ(1, server_.Count("/deep/scpd0.xml"));
  EXPECT_EQ(2, server_.Count("/d.xml"));
  // The name is made once, however often the device is listed.
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:deep+localhost", &info));
  EXPECT_EQ("Fake", info.display_name);
}

TEST_F(DiscoveryDescription, AnEmbeddedDeviceLostHalfwayIsAskedForWhatIsMissing) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 0);
  root.embedded = {Plain("uuid:one", 1)};
  const std::string url = ServeDevice(server_, "/d.xml", root);
  server_.Serve("/one/scpd0.xml", "", 500);
  DiscoveryRig::Receive(Alive("uuid:root", url));
  ASSERT_TRUE(WaitUntil(
      [&] { return server_.Count("/one/scpd0.xml") == 1 && !Listed("uuid:one+localhost"); }));
  server_.Serve("/one/scpd0.xml", "<scpd/>");
  DiscoveryRig::Receive(Alive("uuid:one", url));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:root+localhost", "+uuid:one+localhost"));
  EXPECT_EQ(2, server_.Count("/one/scpd0.xml"));
}

TEST_F(DiscoveryDescription, RegressionAHostThatThrowsIsToldOfEveryEmbeddedDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:root", 0);
  FakeDevice first = Plain("uuid:first", 0);
  first.embedded = {Plain("uuid:below", 0)};
  root.embedded = {first, Plain("uuid:second", 0)};
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(server_, "/d.xml", root)));
  ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().size() == 4; }));
  DiscoveryRig::ClearEvents();
  DiscoveryRig::OnEvent([](const vex_test::DeviceEvent&) { throw 1; });
  DiscoveryRig::Receive(ByebyeDatagram("uuid:root", "uuid:root"));
  EXPECT_THAT(DiscoveryRig::EventLog(),
              ElementsAre("-uuid:root+localhost", "-uuid:first+localhost", "-uuid:below+localhost",
                          "-uuid:second+localhost"));
}

TEST_F(DiscoveryDescription, ByebyeOfAStrangerTellsNobody) {
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 0))));
  ASSERT_TRUE(HasEvents(1));
  DiscoveryRig::Receive(ByebyeDatagram("uuid:b::upnp:rootdevice", "upnp:rootdevice"));
  EXPECT_EQ(1U, DiscoveryRig::EventLog().size());
  EXPECT_TRUE(CanBeFound("uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, ByebyeDuringTheDescriptionLeavesTheRequestInFlight) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  server_.Hold("/d.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Count("/d.xml") == 1; }));
  DiscoveryRig::Receive(ByebyeDatagram("uuid:a::upnp:rootdevice", "upnp:rootdevice"));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
  server_.Release("/d.xml");
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, KeptByebyeBeforeReadyIsTold) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  server_.Hold("/a/scpd0.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Count("/a/scpd0.xml") == 1; }));
  DiscoveryRig::Receive(ByebyeDatagram("uuid:a::upnp:rootdevice", "upnp:rootdevice"));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("-uuid:a+localhost"));
  // The answer that is still to come is not waited for any more.
  server_.Release("/a/scpd0.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("-uuid:a+localhost", "+uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, ADeviceThatComesBackGetsANewAddedEvent) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  for (std::size_t round = 1; round <= 3; ++round) {
    DiscoveryRig::Receive(Alive("uuid:a", url));
    ASSERT_TRUE(HasEvents(2 * round - 1));
    DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
    ASSERT_TRUE(HasEvents(2 * round));
  }
  EXPECT_EQ(3, DiscoveryRig::CountEvents("+uuid:a+localhost"));
  EXPECT_EQ(3, DiscoveryRig::CountEvents("-uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, ASilentDeviceIsTriedTwiceThenGivenUp) {
  LogCapture log;
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  server_.Hold("/d.xml");
  {
    FasterTime faster(200);
    DiscoveryRig::Receive(Alive("uuid:a", url));
    ASSERT_TRUE(WaitUntil([&] {
      return log.Count(16, kTag, "Description request failed for device uuid:a+localhost") == 1;
    }));
  }
  // The line comes before the request goes, and until that has gone an announcement is a repeated
  // one.
  ASSERT_TRUE(WaitUntil([] { return NothingIsRequestedOf("uuid:a+localhost"); }));
  const std::vector<std::string> requests = server_.Requests();
  ASSERT_EQ(2U, requests.size());
  EXPECT_EQ(0U, requests[0].find("GET /d.xml HTTP/1.1\r\n"));
  // KEPT: the second one has the absolute URL.
  EXPECT_EQ(0U, requests[1].find("GET " + url + " HTTP/1.1\r\n"));
  EXPECT_EQ(requests[0].substr(requests[0].find("\r\n")),
            requests[1].substr(requests[1].find("\r\n")));
  // The next announcement starts again.
  server_.Release("/d.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  EXPECT_TRUE(HasEvents(1));
}

TEST_F(DiscoveryDescription, TheAnswerToTheSecondTryCounts) {
  // The second try has as long as the first, a second and a half here, to be answered.
  FasterTime faster(20);
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  server_.Hold("/d.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Count(url) == 1; }));
  server_.Release("/d.xml");
  ASSERT_TRUE(HasEvents(1));
  DetailedDeviceInfo info;
  ASSERT_EQ(0, GetDeviceDetailInfo("uuid:a+localhost", &info));
  EXPECT_EQ(url, info.location);
}

// With many requests open at a time the oldest are dropped in silence; none of their devices is
// lost.
TEST(DiscoveryShortOfDescriptors, WhatWasDroppedComesWithTheSecondTry) {
  constexpr std::size_t kDevices = 120;
  std::unique_ptr<DiscoveryRig> rig;
  {
    const vex_test::ScopedDescriptorLimit limit(100);
    rig = std::make_unique<DiscoveryRig>();
  }
  FasterTime faster(10);
  LogCapture log;
  DescriptionServer server("127.0.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  for (std::size_t i = 0; i < kDevices; ++i) {
    const std::string number = std::to_string(i);
    const std::string url = ServeDevice(server, "/" + number, Plain("uuid:" + number, 0));
    server.Hold("/" + number);
    DiscoveryRig::Receive(Alive("uuid:" + number, url));
  }
  EXPECT_TRUE(log.Holds("too many outgoing session, delete : 7"));
  for (std::size_t i = 0; i < kDevices; ++i) server.Release("/" + std::to_string(i));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().size() >= kDevices; }));
  EXPECT_EQ(kDevices, ListSize());
}

TEST_F(DiscoveryDescription, ASilentServiceLosesTheDeviceAfterTwoTries) {
  FasterTime faster(30);
  LogCapture log;
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 2));
  server_.Hold("/a/scpd1.xml");
  DiscoveryRig::Receive(Alive("uuid:a", url));
  // The path both times.
  ASSERT_TRUE(WaitUntil([&] { return server_.Count("/a/scpd1.xml") == 2; }));
  ASSERT_TRUE(WaitUntil([&] { return Listed("uuid:a+localhost") == nullptr; }));
  EXPECT_EQ(2, server_.Count("/a/scpd1.xml"));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

TEST_F(DiscoveryDescription, SlowTheRetryComesAfterThirtySeconds) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  server_.Hold("/d.xml");
  const auto start = std::chrono::steady_clock::now();
  DiscoveryRig::Receive(Alive("uuid:a", url));
  ASSERT_TRUE(WaitUntil([&] { return server_.Requests().size() == 2; }, std::chrono::seconds(40)));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(29900));
  EXPECT_LE(waited, std::chrono::seconds(35));
}

TEST_F(DiscoveryDescription, AnUnreachableDeviceIsForgottenInTime) {
  FasterTime faster(500);
  LogCapture log;
  // A port that refuses: connections fail without any answer.
  int port = 0;
  {
    DescriptionServer gone("127.0.0.1");
    port = gone.port();
  }
  DiscoveryRig::Receive(Alive("uuid:a", "http://127.0.0.1:" + std::to_string(port) + "/d.xml"));
  EXPECT_TRUE(WaitUntil(
      [&] { return log.Count("Description request failed for device uuid:a+localhost") == 1; }));
}

TEST_F(DiscoveryDescription, PacketsAfterTerminationAreRefused) {
  const boost::shared_ptr<DiscoveryListener> packets = DiscoveryListener::GetInstance();
  const boost::shared_ptr<DescriptionListener> answers = DescriptionListener::GetInstance();
  rig_.TerminateDiscovery();
  LogCapture log;
  const boost::shared_ptr<utils::HTTPInfo> info(new utils::HTTPInfo);
  packets->OnUDPRequestReceived(info);
  answers->OnResponseReceived(info, 1);
  EXPECT_EQ(2, log.Count("Received after CP termination"));
  EXPECT_EQ(1, packets->IncrementUseCount());
  EXPECT_EQ(1, answers->IncrementUseCount());
}

TEST_F(DiscoveryDescription, TerminationCancelsWhatIsInFlight) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (int i = 0; i < 50; ++i) {
    const std::string udn = "uuid:" + std::to_string(i);
    const std::string path = "/" + udn;
    const std::string url = ServeDevice(server_, path, Plain(udn, 1));
    server_.Hold(i % 2 == 0 ? path : "/" + std::to_string(i) + "/scpd0.xml");
    DiscoveryRig::Receive(Alive(udn, url));
  }
  ASSERT_TRUE(WaitUntil([&] { return server_.Requests().size() == 75; }));
  LogCapture log;
  rig_.TerminateDiscovery();
  EXPECT_EQ(1, log.Count(4, kTag, "cleanup start"));
  EXPECT_EQ(1, log.Count(4, kTag, "joining rescan threads"));
  EXPECT_EQ(1, log.Count("cleanup done"));
  EXPECT_EQ(1, log.Count(4, kTag, "CP Discovery Terminate"));
  EXPECT_EQ(1, log.Count("CP Discovery Terminate DeviceList"));
  EXPECT_EQ(1, log.Count("CP Discovery Terminate Finish"));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
  EXPECT_FALSE(CPDiscoveryManager::ExistingInstance());
  EXPECT_FALSE(DescriptionListener::ExistingInstance());
}

TEST_F(DiscoveryDescription, ATimerThatFiresAfterTerminationBuildsNothing) {
  rig_.TerminateDiscovery();
  TimerExpiredCallBack(1, nullptr);
  RescanTimerExpiredCallBack(1, nullptr);
  RescanProgressTimerExpiredCallback(1, nullptr);
  AutoRescanTimerExpiredCallback(1, nullptr);
  EXPECT_FALSE(CPDiscoveryManager::ExistingInstance());
}

TEST_F(DiscoveryDescription, UnregisteringEndsTheEvents) {
  const int first = DiscoveryRig::Register("upnp:rootdevice");
  const int second = DiscoveryRig::Register("upnp:rootdevice");
  EXPECT_LT(first, second);
  EXPECT_EQ(0, UnRegisterCP(first));
  EXPECT_EQ(0, UnRegisterCP(12345));
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 0))));
  ASSERT_TRUE(HasEvents(1));
  ASSERT_EQ(1U, DiscoveryRig::Events().size());
  EXPECT_EQ(second, DiscoveryRig::Events()[0].handle);
}

TEST_F(DiscoveryDescription, AnObserverUnregisteredInsideACallbackIsNotCalledAnyMore) {
  static int later = 0;
  static std::atomic<bool> gone{false};
  gone = false;
  DiscoveryRig::Register("upnp:rootdevice");
  later = DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::OnEvent([](const vex_test::DeviceEvent&) {
    UnRegisterCP(later);
    gone = true;
  });
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 0))));
  ASSERT_TRUE(WaitUntil([] { return gone.load(); }));
  DiscoveryRig::OnEvent(nullptr);
  DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost", "-uuid:a+localhost"));
}

TEST_F(DiscoveryDescription, ADeviceRemovedDuringADeliveryGetsNoLateAddedEvent) {
  // The first device's callback holds up delivery; meanwhile the second one becomes complete and
  // leaves again.
  static std::atomic<bool> go{false};
  go = false;
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::OnEvent([](const vex_test::DeviceEvent&) { WaitUntil([] { return go.load(); }); });
  const std::string second = ServeDevice(server_, "/b.xml", Plain("uuid:b", 1));
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/a.xml", Plain("uuid:a", 0))));
  ASSERT_TRUE(HasEvents(1));
  LogCapture log;
  DiscoveryRig::Receive(Alive("uuid:b", second));
  ASSERT_TRUE(WaitUntil(
      [&] { return log.Count("All services available for device uuid:b+localhost ") == 1; }));
  {
    const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    list->RemoveByUdn("uuid:b+localhost");
  }
  go = true;
  DiscoveryRig::OnEvent(nullptr);
  // A third device shows that delivery has gone on past the second.
  DiscoveryRig::Receive(Alive("uuid:c", ServeDevice(server_, "/c.xml", Plain("uuid:c", 0))));
  ASSERT_TRUE(HasEvents(2));
  rig_.TerminateDiscovery();
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:a+localhost", "+uuid:c+localhost"));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

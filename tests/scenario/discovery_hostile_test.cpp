// What a broken or malicious device may try, and what many of them cost.

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>

#include "base/limits.h"
#include "src/cp_discovery_manager.h"
#include "src/device.h"
#include "src/device_list.h"
#include "src/now_requesting.h"
#include "tests/support/cpu_seconds.h"
#include "tests/support/discovery_rig.h"
#include "tests/support/fake_device.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/sanitizers.h"
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
using vex_test::LogCapture;
using vex_test::NothingInFlight;
using vex_test::WaitUntil;

FakeDevice Plain(const std::string& udn, int services) {
  FakeDevice device;
  device.udn = udn;
  device.services = vex_test::FakeServices(services, "/" + udn.substr(5));
  return device;
}

std::string Alive(const std::string& udn, const std::string& url) {
  return AliveDatagram(udn + "::upnp:rootdevice", "upnp:rootdevice", url);
}

std::size_t ListSize() {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  const auto all = list->GetAllDevices();
  return all ? all->size() : 0;
}

// Seconds of processor time that ten thousand look-ups cost at most; a sanitizer's own not counted.
constexpr double kPromisedCpuTime = vex_test::kUnderSanitizer ? vex_test::kLittleCpuTime : 1.0;

// Datagrams are handed to discovery on the test's own thread, as if they had come from this
// machine.
class DiscoveryHostile : public vex_test::HostileRig {
 protected:
  DiscoveryHostile() {
    DiscoveryRig::ClearEvents();
    DiscoveryRig::OnEvent(nullptr);
  }

  // Announces a device whose description is fine and that must nevertheless come to nothing.
  void ExpectLost(const FakeDevice& device) {
    ExpectLostAt(ServeDevice(server_, "/lost.xml", device), device);
  }

  void ExpectLostAt(const std::string& url, const FakeDevice& device) {
    const std::string key = device.udn + "+localhost";
    LogCapture log;
    const auto is_told = [&] {
      return log.Count("Unable to fetch service description for device " + key + " ") > 0;
    };
    // An answer about a service of the device before it, of the same name, that is handled late
    // takes the new request with it; a device says it once more.
    bool told = false;
    for (int tries = 0; tries < 5 && !told; ++tries) {
      DiscoveryRig::Receive(Alive(device.udn, url));
      told = WaitUntil(is_told, std::chrono::seconds(5));
    }
    EXPECT_TRUE(told);
    EXPECT_TRUE(WaitUntil([] { return ListSize() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(key); }));
    EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
  }

  DescriptionServer server_{"127.0.0.1"};
};

TEST_F(DiscoveryHostile, LocationsThatCannotBeRightAreDropped) {
  const std::string port = std::to_string(server_.port());
  ServeDevice(server_, "/d.xml", Plain("uuid:a", 0));
  DiscoveryRig::Register("upnp:rootdevice");
  const std::vector<std::string> locations = {
      "http://0.0.0.0:" + port + "/d.xml",
      "http://0.1.2.3:" + port + "/d.xml",
      "http://255.255.255.255:" + port + "/d.xml",
      "http://239.255.255.250:1900/d.xml",
      "http://224.0.0.1:" + port + "/d.xml",
      "http://2130706433:" + port + "/d.xml",
      "http://0x7f000001:" + port + "/d.xml",
      "http://0x7f.0.0.1:" + port + "/d.xml",
      "http://017700000001:" + port + "/d.xml",
      "http://0177.0.0.1:" + port + "/d.xml",
      "http://127.0.0.01:" + port + "/d.xml",
      "http://127.1:" + port + "/d.xml",
      "http://127.0.1:" + port + "/d.xml",
      "http://127.0.0.1.:" + port + "/d.xml",
      "http://user@127.0.0.1:" + port + "/d.xml",
      "http://127.0.0.1:0/d.xml",
      "http://127.0.0.1:65536/d.xml",
      "http://127.0.0.1:-1/d.xml",
      "http://127.0.0.1:/d.xml",
      "http://127.0.0.1:80a/d.xml",
      "http://:" + port + "/d.xml",
      "http://[::1]:" + port + "/d.xml",
      "http://a b:" + port + "/d.xml",
      "http://h/a:" + port + "/b",
      "127.0.0.1:" + port + "/d.xml",
      "http:",
      "//",
      ":",
  };
  for (const std::string& location : locations) {
    DiscoveryRig::Receive(Alive("uuid:a", location));
    EXPECT_TRUE(NothingInFlight("uuid:a+localhost")) << location;
  }
  EXPECT_EQ(0, server_.Connections());
  // The proper form passes.
  DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().size() == 1; }));
}

TEST_F(DiscoveryHostile, RefusedLocationsAreLoggedOnceASecondAtMost) {
  LogCapture log;
  const auto begun = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) DiscoveryRig::Receive(Alive("uuid:a", "http://0.0.0.0:1/"));
  const auto took = std::chrono::steady_clock::now() - begun;
  int lines = 0;
  for (const auto& line : log.Lines()) {
    if (line.text.find("Location of [uuid:a+localhost] refused") == 0) ++lines;
  }
  EXPECT_LE(lines, std::chrono::duration_cast<std::chrono::seconds>(took).count() + 2);
}

TEST_F(DiscoveryHostile, OddDatagramsDoNoHarm) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string long_text(8000, 'x');
  const std::vector<std::string> datagrams = {
      AliveDatagram(long_text, long_text, "http://127.0.0.1:1/" + long_text),
      AliveDatagram(std::string(5000, ':'), std::string(5000, ':'), std::string(5000, ':')),
      AliveDatagram("::", "::", "::"),
      ByebyeDatagram("::", "::"),
      AliveDatagram("\x80\xff\xfe", "\x80", "http://\xff:1/"),
      AliveDatagram(std::string("uu\0id", 5), "x", std::string("http://127.0.0.1:1/\0x", 21)),
      "HTTP/1.1 200 OK\r\n\r\n",
      "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\nUSN: \r\n\r\n",
      "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\nUSN:  uuid:x\r\n\r\n",
  };
  for (const std::string& datagram : datagrams) DiscoveryRig::Receive(datagram);
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 1))));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:a+localhost") == 1; }));
}

TEST_F(DiscoveryHostile, AServiceUrlThatCannotBeRightLosesTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (const char* url : {"http://0.0.0.0:80/s.xml", "http://239.255.255.250:1900/s.xml",
                          "http://0x7f000001:80/s.xml", "http://127.0.0.1:0/s.xml"}) {
    for (const std::string which : {"scpd", "control", "event"}) {
      FakeDevice device = Plain("uuid:a", 2);
      vex_test::FakeService& service = device.services[1];
      if (which == "scpd") service.scpd_url = url;
      if (which == "control") service.control_url = url;
      if (which == "event") service.event_sub_url = url;
      ExpectLost(device);
    }
  }
  // The same through the base of all URLs.
  FakeDevice device = Plain("uuid:a", 1);
  device.root_more = "<URLBase>http://255.255.255.255:80/</URLBase>";
  ExpectLost(device);
}

TEST_F(DiscoveryHostile, AServiceUrlWithALineEndInItLosesTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice device = Plain("uuid:a", 1);
  device.services[0].scpd_url = "/s.xml HTTP/1.1&#13;&#10;X: y";
  // However the reference is read, no line of the device's own may reach the request.
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", device)));
  device.services[0].scpd_url = "/s.xml HTTP/1.1\r\nX: y";
  device.udn = "uuid:b";
  ExpectLost(device);
  for (const std::string& request : server_.Requests()) {
    EXPECT_EQ(std::string::npos, request.find("\nX: y")) << request;
  }
}

// Without a path in the location what is joined to its base becomes a host of its own.
TEST_F(DiscoveryHostile, RegressionARelativeUrlThatBecomesAnotherHostLosesTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (const char* url : {"0.0.0.0:7676/x", "239.255.255.250:1900/x", "0x7f000001:80/x"}) {
    for (const std::string which : {"scpd", "control", "event"}) {
      FakeDevice device = Plain("uuid:a", 1);
      vex_test::FakeService& service = device.services[0];
      if (which == "scpd") service.scpd_url = url;
      if (which == "control") service.control_url = url;
      if (which == "event") service.event_sub_url = url;
      ServeDevice(server_, "/", device);
      ExpectLostAt(server_.Url(""), device);
    }
  }
}

TEST_F(DiscoveryHostile, RegressionALineEndInWhatARequestWillSayLosesTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (const char* end : {"\r", "\n", "\r\nX: y"}) {
    for (const std::string which : {"type", "control", "event"}) {
      FakeDevice device = Plain("uuid:a", 1);
      vex_test::FakeService& service = device.services[0];
      if (which == "type") service.type += end;
      if (which == "control") service.control_url += end;
      if (which == "event") service.event_sub_url += end;
      ExpectLost(device);
      // Nor when it stands behind a base without a port, which gives no URL that can be used.
      device.root_more = "<URLBase>http://127.0.0.1/</URLBase>";
      device.services[0].scpd_url = server_.Url("/s.xml");
      ExpectLost(device);
    }
  }
}

TEST(DiscoveryOnInterfaces, OurOwnEventServerAndTheBroadcastAddressAreNoDevices) {
  DiscoveryRig rig({"lan0"});
  LogCapture log;
  int port = 0;
  {
    DescriptionServer free_port("10.77.0.1");
    port = free_port.port();
  }
  ASSERT_EQ(0, network_layer::ConfigureTCPServer(port, true));
  const std::string own = "http://10.77.0.1:" + std::to_string(port) + "/";
  // The line comes once a second at most, over all refusals.
  EXPECT_TRUE(WaitUntil([&] {
    DiscoveryRig::Receive(Alive("uuid:a", own), "10.77.0.2");
    return log.Count("Location of [uuid:a+lan0] refused, our own server") == 1;
  }));
  EXPECT_TRUE(NothingInFlight("uuid:a+lan0"));
  DiscoveryRig::Receive(Alive("uuid:a", "http://10.77.0.255:80/"), "10.77.0.2");
  EXPECT_TRUE(NothingInFlight("uuid:a+lan0"));
  // Another server of this machine may be a device.
  DescriptionServer server("10.77.0.1");
  DiscoveryRig::Register("upnp:rootdevice");
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server, "/d.xml", Plain("uuid:a", 0))),
                        "10.77.0.2");
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:a+lan0") == 1; }));
}

TEST_F(DiscoveryHostile, ServicesWithoutAnIdOrWithTheSameIdLoseTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice same = Plain("uuid:same", 2);
  same.services[1].id = same.services[0].id;
  ExpectLost(same);
  FakeDevice without = Plain("uuid:without", 1);
  without.services[0].id = "";
  ExpectLost(without);
  // An embedded device without an id must not have its answer taken for a device.
  FakeDevice root = Plain("uuid:root", 0);
  root.embedded = {without};
  DiscoveryRig::Receive(Alive("uuid:root", ServeDevice(server_, "/d.xml", root)));
  ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().size() == 1; }));
  EXPECT_TRUE(WaitUntil([] { return ListSize() == 1; }));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("+uuid:root+localhost"));
}

TEST_F(DiscoveryHostile, RegressionAnEarly404LeavesNoRequestOfALaterServiceBehind) {
  DiscoveryRig::Register("upnp:rootdevice");
  for (int round = 0; round < 30; ++round) {
    // The first answer is there long before the last request is out; the last one is never
    // answered, so a request that is left behind stays.
    // Few enough that both ends of all connections fit into the usual descriptor limit.
    FakeDevice device = Plain("uuid:a", 50);
    const std::string url = ServeDevice(server_, "/d.xml", device);
    server_.Serve(device.services[0].scpd_url, "", 404);
    for (std::size_t i = 1; i < device.services.size(); ++i) {
      server_.Hold(device.services[i].scpd_url);
    }
    LogCapture log;
    DiscoveryRig::Receive(Alive("uuid:a", url));
    ASSERT_TRUE(WaitUntil([&] { return log.Holds("Error code 404 by device uuid:a+localhost "); }));
    ASSERT_TRUE(WaitUntil([] { return NothingInFlight("uuid:a+localhost"); })) << round;
  }
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
}

TEST_F(DiscoveryHostile, AsManyServicesAsTheBoundAreDescribedAndOneMoreLosesTheDevice) {
  DiscoveryRig::Register("upnp:rootdevice");
  const int bound = static_cast<int>(limits::kServicesPerDevice);
  ExpectLost(Plain("uuid:many", bound + 1));
  EXPECT_EQ(1U, server_.Requests().size());
  DiscoveryRig::Receive(
      Alive("uuid:most", ServeDevice(server_, "/m.xml", Plain("uuid:most", bound))));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:most+localhost") == 1; },
                        std::chrono::seconds(60)));
}

TEST_F(DiscoveryHostile, ServiceDescriptionsWithoutRoomLoseTheirDevicesWithALineASecond) {
  DiscoveryRig::Register("upnp:rootdevice");
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::shared_ptr<Device> full(new Device);
  {
    boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
    ASSERT_TRUE(list->Add(full));
    // What is left is enough for any of these devices without its service description.
    ASSERT_TRUE(list->Reserve(full, limits::kHeldDeviceBytes - 512 * 1024));
  }
  LogCapture log;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    const FakeDevice device = Plain("uuid:large-" + std::to_string(i), 1);
    const std::string url = ServeDevice(server_, "/" + std::to_string(i) + ".xml", device);
    server_.Serve(device.services[0].scpd_url, std::string(1024 * 1024, 's'));
    DiscoveryRig::Receive(Alive(device.udn, url));
    EXPECT_TRUE(WaitUntil([&] { return server_.Count(device.services[0].scpd_url) == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(device.udn + "+localhost"); }));
  }
  EXPECT_TRUE(WaitUntil([] { return ListSize() == 1; }));
  EXPECT_THAT(DiscoveryRig::EventLog(), IsEmpty());
  int lines = 0;
  for (const auto& line : log.Lines()) {
    if (line.text.find("No room for service descriptions of device ") == 0) ++lines;
  }
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_GE(lines, 1);
  EXPECT_LE(lines, static_cast<int>(elapsed.count()) + 2);
  boost::lock_guard<boost::recursive_mutex> lock(list->device_list_mutex);
  list->Remove(full);
}

TEST_F(DiscoveryHostile, EmptyFieldsMakeAnOddDeviceAndNoMore) {
  DiscoveryRig::Register("upnp:rootdevice");
  server_.Serve("/d.xml", "<root><device></device></root>");
  DiscoveryRig::Receive(Alive("uuid:a", server_.Url("/d.xml")));
  ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().size() == 1; }));
  EXPECT_THAT(DiscoveryRig::EventLog(), ElementsAre("++localhost"));
  FakeDevice device = Plain("uuid:b", 1);
  device.services[0].control_url = "";
  device.services[0].event_sub_url = "";
  DiscoveryRig::Receive(Alive("uuid:b", ServeDevice(server_, "/e.xml", device)));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:b+localhost") == 1; }));
}

TEST_F(DiscoveryHostile, DevicesWithOneUdnComeAndGoTogether) {
  DiscoveryRig::Register("upnp:rootdevice");
  FakeDevice root = Plain("uuid:a", 0);
  root.embedded = {Plain("uuid:a", 0), Plain("uuid:a", 0)};
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", root)));
  ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:a+localhost") == 3; }));
  DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
  EXPECT_EQ(3, DiscoveryRig::CountEvents("-uuid:a+localhost"));
  EXPECT_EQ(0U, ListSize());
}

TEST_F(DiscoveryHostile, AnyDepthOfEmbeddingIsWalkedAndListedUpToTheBound) {
  DiscoveryRig::Register("urn:schemas-upnp-org:device:MediaServer:1");
  DiscoveryRig::Register("upnp:rootdevice");
  constexpr int kLevels = 50000;
  std::string xml = "<root>";
  std::string end;
  for (int i = 0; i < kLevels; ++i) {
    xml += "<device><deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType><UDN>uuid:" +
           std::to_string(i) + "</UDN><deviceList>";
    end += "</deviceList></device>";
  }
  server_.Serve("/d.xml", xml + end + "</root>");
  DiscoveryRig::Receive(Alive("uuid:0", server_.Url("/d.xml")));
  const std::size_t bound = limits::kListedDevices;
  ASSERT_TRUE(WaitUntil([&] { return DiscoveryRig::Events().size() == 2 * bound; },
                        std::chrono::seconds(120)));
  EXPECT_EQ(bound, ListSize());
  // A full list takes no one else, and says so once a second.
  LogCapture log;
  const std::string url = ServeDevice(server_, "/z.xml", Plain("uuid:z", 0));
  EXPECT_TRUE(WaitUntil([&] {
    DiscoveryRig::Receive(Alive("uuid:z", url));
    return log.Count("Device list is full, device not listed [uuid:z+localhost]") == 1;
  }));
  EXPECT_TRUE(WaitUntil([] { return NothingInFlight("uuid:z+localhost"); }));
  EXPECT_EQ(bound, ListSize());
  DiscoveryRig::ClearEvents();
  DiscoveryRig::Receive(ByebyeDatagram("uuid:0", "uuid:0"));
  EXPECT_EQ(0U, ListSize());
  // What was never listed is not told.
  EXPECT_EQ(2 * bound, DiscoveryRig::Events().size());
}

TEST_F(DiscoveryHostile, ADescriptionWithoutEndHoldsUpNobodyElse) {
  vex_test::FasterTime faster(20);
  DiscoveryRig::Register("upnp:rootdevice");
  for (int i = 0; i < 300; ++i) {
    const std::string path = "/silent" + std::to_string(i);
    server_.Hold(path);
    DiscoveryRig::Receive(Alive("uuid:silent" + std::to_string(i), server_.Url(path)));
  }
  DiscoveryRig::Receive(Alive("uuid:a", ServeDevice(server_, "/d.xml", Plain("uuid:a", 3))));
  EXPECT_TRUE(WaitUntil([] { return DiscoveryRig::CountEvents("+uuid:a+localhost") == 1; }));
  // All of them are given up in the end.
  for (int i = 0; i < 300; ++i) {
    const std::string key = "uuid:silent" + std::to_string(i) + "+localhost";
    EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(key); }));
  }
}

TEST_F(DiscoveryHostile, AliveAndByebyeAThousandTimesEndInOrder) {
  DiscoveryRig::Register("upnp:rootdevice");
  const std::string url = ServeDevice(server_, "/d.xml", Plain("uuid:a", 1));
  for (int i = 0; i < 1000; ++i) {
    DiscoveryRig::Receive(Alive("uuid:a", url));
    DiscoveryRig::Receive(ByebyeDatagram("uuid:a", "uuid:a"));
  }
  // Whatever happened in between, the device settles as known.
  EXPECT_TRUE(WaitUntil([&] {
    DiscoveryRig::Receive(Alive("uuid:a", url));
    DetailedDeviceInfo info;
    return GetDeviceDetailInfo("uuid:a+localhost", &info) == 0;
  }));
  const std::vector<std::string> log = DiscoveryRig::EventLog();
  ASSERT_TRUE(WaitUntil([] { return DiscoveryRig::EventLog().back()[0] == '+'; }));
  for (std::size_t i = 1; i < log.size(); ++i) {
    EXPECT_FALSE(log[i][0] == '+' && log[i - 1][0] == '+') << i;
  }
}

TEST_F(DiscoveryHostile, TenThousandStrangersCostLittleInLookUps) {
  // Each has a key of its own and a location that is refused, so look-ups are all that is done.
  std::vector<std::string> datagrams;
  for (int i = 0; i < 10000; ++i) {
    datagrams.push_back(Alive("uuid:stranger-" + std::to_string(i), "http://0.0.0.0:80/d.xml"));
  }
  const vex_test::CpuSeconds cpu;
  for (const std::string& datagram : datagrams) DiscoveryRig::Receive(datagram);
  EXPECT_LT(cpu.Elapsed(), kPromisedCpuTime);
  EXPECT_EQ(0U, ListSize());
}

TEST_F(DiscoveryHostile, TenThousandRequestsInFlightCostLittleInLookUps) {
  const auto manager = CPDiscoveryManager::GetInstance();
  const auto fill = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const std::string key = "uuid:" + std::to_string(i) + "+localhost";
      const boost::shared_ptr<NowRequesting> request(
          new NowRequesting(key, "http://127.0.0.1:1/", "127.0.0.1", 1, "", ""));
      EXPECT_EQ(0, manager->AddNowRequesting(request)) << i;
    }
  };
  const vex_test::CpuSeconds cpu;
  const int bound = static_cast<int>(limits::kDescriptionRequests);
  fill(bound);
  const boost::shared_ptr<NowRequesting> one_more(
      new NowRequesting("uuid:more", "", "127.0.0.1", 1, "", ""));
  EXPECT_EQ(1, manager->AddNowRequesting(one_more));
  for (int i = 0; i < bound; ++i) {
    manager->RemoveNowRequestingByUdn("uuid:" + std::to_string(i) + "+localhost");
  }
  EXPECT_LT(cpu.Elapsed(), kPromisedCpuTime);
  EXPECT_EQ(0, manager->AddNowRequesting(one_more));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

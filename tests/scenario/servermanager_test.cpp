#include "src/servermanager.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/networkmonitor.h>

#include "src/incoming_tcp_session.h"
#include "src/networkinterface.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/remote_host.h"
#include "tests/support/server_fixture.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
constexpr char kGroup[] = "239.255.255.250";
constexpr char kOtherGroup[] = "239.255.255.177";
const char kRequest[] = "NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n";
const char kOk[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";

bool PortIsFree(const std::string& ip, int port) {
  return vex_test::HeldPorts(SOCK_DGRAM, ip, port, 1).all();
}

class ServerManagerTest : public testing::Test {
 protected:
  ServerManagerTest()
      : first_("sv0", "10.78.0.1", "10.78.0.2"), second_("sv1", "10.78.1.1", "10.78.1.2") {}

  void SetUp() override {
    callbacks_.Begin();
    messages_ = callbacks_.Collect("USN");
    callbacks_.Listen("NOTIFY", [](const vex_test::MessagePointer&, void* context) {
      ServerManager::SendResponsePacket(new std::string(kOk), sizeof(kOk) - 1, context);
    });
    manager_ = ServerManager::GetInstance();
    NetworkInterface::GetInstance();
    manager_->StartServerThreads(3, 1, 1);
    Scan();
  }
  void TearDown() override {
    manager_->StopServerThreads();
    callbacks_.End();
    NetworkInterface::DestroyInstance();
    manager_.reset();
    ServerManager::DestroyInstance();
  }

  static void Scan() { NetworkInterface::GetInstance()->Scan(); }
  static void Select(std::string name) { ConfigureNetworkInterface(name, true); }
  static void Unselect(std::string name) { ConfigureNetworkInterface(name, false); }
  void SelectBoth() {
    Select("sv0");
    Select("sv1");
  }

  // Each endpoint as "ip:port/configured port@interface".
  using Ports = std::vector<std::string>;
  static Ports Texts(const std::list<boost::shared_ptr<IpInfo>>& list, int type) {
    Ports texts;
    for (const auto& info : list) {
      EXPECT_EQ(type, info->type);
      texts.push_back(info->ip + ":" + std::to_string(info->port) + "/" +
                      std::to_string(info->configured_port) + "@" + info->interface_name);
    }
    return texts;
  }
  Ports TcpPorts() {
    std::list<boost::shared_ptr<IpInfo>> list;
    const int result = manager_->GetConfiguredTcpPorts(list);
    EXPECT_EQ(list.empty() ? 1 : 0, result);
    return Texts(list, 1);
  }
  Ports UdpPorts() {
    std::list<boost::shared_ptr<IpInfo>> list;
    const int result = manager_->GetConfiguredUdpPorts(list);
    EXPECT_EQ(list.empty() ? 1 : 0, result);
    return Texts(list, 2);
  }

  static bool Connects(const std::string& ip, int port) { return TcpClient(ip, port).connected(); }
  static bool Serves(const std::string& ip, int port) {
    TcpClient client(ip, port);
    client.Send(kRequest);
    return client.ReadToEnd() == kOk;
  }
  static std::string NewUsn() {
    static int number = 0;
    return "uuid:" + std::to_string(++number);
  }
  static std::string Alive(const std::string& usn) {
    return vex_test::AliveDatagram(usn, "upnp:rootdevice", "http://10.78.0.2/d.xml");
  }
  // Whether an announcement on the group comes through so many times, and no more.
  bool IsHeard(int times, vex_test::RemoteHost& host, const std::string& group, int port) {
    const std::string usn = NewUsn();
    host.Send(group, port, Alive(usn));
    if (!WaitUntil([&] { return messages_->CountOf(usn) >= times; })) return false;
    // A later datagram on the way of every server shows that the earlier one is through.
    const std::string later = NewUsn();
    host.Send(group, port, Alive(later));
    WaitUntil([&] { return messages_->CountOf(later) >= times; });
    return messages_->CountOf(usn) == times;
  }
  bool HearsUnicast(vex_test::RemoteHost& host, int port) {
    const std::string usn = NewUsn();
    host.Send(host.near_ip(), port, vex_test::SearchAnswerDatagram(usn, "ssdp:all", "http://x/"));
    return WaitUntil([&] { return messages_->CountOf(usn) == 1; });
  }

  vex_test::RemoteHost first_;
  vex_test::RemoteHost second_;
  vex_test::RunningCallbacks callbacks_;
  boost::shared_ptr<vex_test::DatagramSink> messages_;
  boost::shared_ptr<ServerManager> manager_;
};

TEST_F(ServerManagerTest, ThreadsAreNamedByKind) {
  std::vector<std::string> names = vex_test::ThreadNames("");
  names.erase(std::remove_if(names.begin(), names.end(),
                             [](const std::string& name) {
                               return name.size() < 2 || name.find("Io") == std::string::npos ||
                                      name.find("Neti") != std::string::npos;
                             }),
              names.end());
  EXPECT_THAT(names, ElementsAre("tstVexMcastIo0", "tstVexTcpIo0", "tstVexTcpIo1", "tstVexTcpIo2",
                                 "tstVexUdpIo0"));
}

TEST_F(ServerManagerTest, WithoutARegistryNothingIsConfigured) {
  NetworkInterface::DestroyInstance();
  vex_test::LogCapture log;
  EXPECT_EQ(1, manager_->ConfigureTcpServer(5000, true));
  EXPECT_EQ(1, manager_->ConfigureUdpServer(5001, true));
  EXPECT_EQ(1, manager_->ConfigureUPnPMulticastServer(1900, true));
  EXPECT_EQ(1, manager_->ConfigureMulticastServer(kOtherGroup, 1900, true));
  EXPECT_EQ(4, log.Count(16, kTag, "Instance of network interface is null."));
  // Switching off needs none.
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5000, false));
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5001, false));
  EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, false));
}

TEST_F(ServerManagerTest, WithoutAnInterfaceOnlyTheWishIsKeptAndTheFirstOneGetsItsServers) {
  vex_test::LogCapture log;
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5000, true));
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5001, true));
  EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, true));
  EXPECT_THAT(TcpPorts(), ElementsAre());
  EXPECT_THAT(UdpPorts(), ElementsAre());
  EXPECT_EQ(1, log.Count(2, kTag, "No configured TCP servers found!!!"));
  EXPECT_EQ(1, log.Count(2, kTag, "No configured UDP servers found!!!"));
  Select("sv0");
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::OnNetworkChanged:NIC_ADDED : sv0"));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5000/5000@sv0"));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0"));
  EXPECT_TRUE(Serves("10.78.0.1", 5000));
  EXPECT_TRUE(HearsUnicast(first_, 5001));
  EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, EveryActiveInterfaceGetsItsServers) {
  SelectBoth();
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5000, true));
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5001, true));
  EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, true));
  EXPECT_EQ(0, manager_->ConfigureMulticastServer(kOtherGroup, 1901, true));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5000/5000@sv0", "10.78.1.1:5000/5000@sv1"));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0", "10.78.1.1:5001/5001@sv1"));
  EXPECT_TRUE(Serves("10.78.0.1", 5000));
  EXPECT_TRUE(Serves("10.78.1.1", 5000));
  EXPECT_TRUE(HearsUnicast(first_, 5001));
  EXPECT_TRUE(HearsUnicast(second_, 5001));
  EXPECT_TRUE(IsHeard(2, first_, kGroup, 1900));
  EXPECT_TRUE(IsHeard(2, second_, kOtherGroup, 1901));
  // The interfaces of the test's surroundings are not selected.
  EXPECT_FALSE(Connects("10.77.0.1", 5000));
}

TEST_F(ServerManagerTest, ClimbedTcpServerIsListedWithBothPorts) {
  Select("sv0");
  const vex_test::HeldPorts held(SOCK_STREAM, "10.78.0.1", 5200, 4);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5200, true));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5204/5200@sv0"));
  EXPECT_TRUE(Serves("10.78.0.1", 5204));
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5200, false));
  EXPECT_THAT(TcpPorts(), ElementsAre());
  EXPECT_FALSE(Connects("10.78.0.1", 5204));
}

TEST_F(ServerManagerTest, ClimbedUdpServerIsListedWithBothPortsAndEndsWithItsPort) {
  Select("sv0");
  const vex_test::HeldPorts held(SOCK_DGRAM, "10.78.0.1", 5000, 4);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5000, true));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5004/5000@sv0"));
  EXPECT_TRUE(HearsUnicast(first_, 5004));
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5000, false));
  EXPECT_THAT(UdpPorts(), ElementsAre());
  EXPECT_TRUE(WaitUntil([] { return PortIsFree("10.78.0.1", 5004); }));
}

TEST_F(ServerManagerTest, EndingAClimbedUdpServerLeavesTheOneOfThatPortAlone) {
  Select("sv0");
  const vex_test::HeldPorts held(SOCK_DGRAM, "10.78.0.1", 5000, 1);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5000, true));
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5001, true));
  const Ports both = UdpPorts();
  ASSERT_EQ(2U, both.size());
  EXPECT_EQ("10.78.0.1:5001/5000@sv0", both[0]);
  manager_->ConfigureUdpServer(5000, false);
  EXPECT_THAT(UdpPorts(), ElementsAre(both[1]));
}

// The datagram servers go on with the next interface, this one does not.
TEST_F(ServerManagerTest, KeptTcpServerThatFailsEndsTheCall) {
  SelectBoth();
  vex_test::LogCapture log;
  const vex_test::HeldPorts held(SOCK_STREAM, "10.78.0.1", 5400, 100);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(2006, manager_->ConfigureTcpServer(5400, true));
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::ConfigureTcpServer failed"));
  EXPECT_THAT(TcpPorts(), ElementsAre());
  EXPECT_FALSE(Connects("10.78.1.1", 5400));
}

TEST_F(ServerManagerTest, TcpServerThatFailsOnTheSecondInterfaceKeepsTheFirst) {
  SelectBoth();
  const vex_test::HeldPorts held(SOCK_STREAM, "10.78.1.1", 5600, 100);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(2006, manager_->ConfigureTcpServer(5600, true));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5600/5600@sv0"));
}

TEST_F(ServerManagerTest, TcpServerThatFailsOnANewInterfaceDoesNotEndTheWalk) {
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5700, true));
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5900, true));
  const vex_test::HeldPorts held(SOCK_STREAM, "10.78.0.1", 5700, 100);
  ASSERT_TRUE(held.all());
  vex_test::LogCapture log;
  Select("sv0");
  EXPECT_EQ(1, log.Count(16, kTag, "Not able to start TCP on interface."));
  EXPECT_EQ(1, log.Count(2, kTag, "Not able to start TCP on interface 10.78.0.1"));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5900/5900@sv0"));
}

TEST_F(ServerManagerTest, DatagramServersThatFailOnOneInterfaceRunOnTheOthers) {
  SelectBoth();
  vex_test::LogCapture log;
  const vex_test::HeldPorts held(SOCK_DGRAM, "10.78.0.1", 5000, 100);
  ASSERT_TRUE(held.all());
  EXPECT_EQ(0, manager_->ConfigureUdpServer(5000, true));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.1.1:5000/5000@sv1"));
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::ConfigureUDPServerOnInterface failed"));
  EXPECT_EQ(1, log.Count(2, kTag, "Configure Udp Server On Interface failed."));
  EXPECT_EQ(1, log.Count(2, kTag, "Configure Udp Server On Interface for IP Address 10.78.0.1 "));
  const vex_test::HeldPorts group(SOCK_DGRAM, "0.0.0.0", 1902, 1);
  EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1902, true));
  EXPECT_EQ(2, log.Count(16, kTag, "ServerManager::ConfigureMulticastServerOnInterface failed"));
  EXPECT_EQ(2, log.Count(2, kTag, "Configure Multicast Server On Interface failed"));
  EXPECT_EQ(1,
            log.Count(2, kTag,
                      "Configure Multicast Server On Interface failed for IP Address 10.78.1.1"));
}

TEST_F(ServerManagerTest, LostInterfaceLosesItsServersAndGetsNewOnesWhenItComesBack) {
  SelectBoth();
  manager_->ConfigureTcpServer(5000, true);
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUPnPMulticastServer(1900, true);
  vex_test::LogCapture log;
  Unselect("sv0");
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::OnNetworkChanged:NIC_REMOVED : sv0"));
  EXPECT_EQ(3, log.Count(4, kTag, "interface_name : sv0"));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.1.1:5000/5000@sv1"));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.1.1:5001/5001@sv1"));
  EXPECT_FALSE(Connects("10.78.0.1", 5000));
  EXPECT_TRUE(Serves("10.78.1.1", 5000));
  EXPECT_TRUE(IsHeard(1, second_, kGroup, 1900));
  Select("sv0");
  EXPECT_THAT(TcpPorts(),
              UnorderedElementsAre("10.78.0.1:5000/5000@sv0", "10.78.1.1:5000/5000@sv1"));
  EXPECT_TRUE(Serves("10.78.0.1", 5000));
  EXPECT_TRUE(HearsUnicast(first_, 5001));
  EXPECT_TRUE(IsHeard(2, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, UnpluggedCableIsALostInterface) {
  Select("sv0");
  manager_->ConfigureTcpServer(5000, true);
  vex_test::Shell("ip link set sv0 down");
  Scan();
  EXPECT_THAT(TcpPorts(), ElementsAre());
  vex_test::Shell("ip link set sv0 up");
  vex_test::WaitForCarrier("sv0");
  Scan();
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5000/5000@sv0"));
  EXPECT_TRUE(Serves("10.78.0.1", 5000));
}

TEST_F(ServerManagerTest, ServersFollowAChangeOfAddress) {
  Select("sv0");
  manager_->ConfigureTcpServer(5000, true);
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUPnPMulticastServer(1900, true);
  vex_test::LogCapture log;
  vex_test::Shell("ip addr del 10.78.0.1/24 dev sv0 && ip addr add 10.78.0.9/24 dev sv0");
  Scan();
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::OnNetworkChanged:NIC_REMOVED : sv0"));
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::OnNetworkChanged:NIC_IPCHANGED : sv0"));
  EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.9:5000/5000@sv0"));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.9:5001/5001@sv0"));
  EXPECT_TRUE(Serves("10.78.0.9", 5000));
  EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, SecondReportOfAnInterfaceReplacesItsServers) {
  Select("sv0");
  manager_->ConfigureTcpServer(5000, true);
  manager_->ConfigureUPnPMulticastServer(1900, true);
  const int open = vex_test::DescriptorCount();
  for (int i = 0; i < 3; ++i) {
    manager_->OnNetworkChanged("sv0", NIC_ADDED);
    EXPECT_THAT(TcpPorts(), ElementsAre("10.78.0.1:5000/5000@sv0"));
  }
  EXPECT_TRUE(Serves("10.78.0.1", 5000));
  EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == open; }));
}

TEST_F(ServerManagerTest, EventsOfUnknownInterfacesAndOfNoKindDoNothing) {
  manager_->ConfigureTcpServer(5000, true);
  vex_test::LogCapture log;
  manager_->OnNetworkChanged("nosuch0", NIC_ADDED);
  manager_->OnNetworkChanged("nosuch0", NIC_IPCHANGED);
  EXPECT_EQ(2, log.Count(4, kTag, "Network Info Not found"));
  EXPECT_FALSE(log.Holds("OnNetworkChanged"));
  log.Clear();
  manager_->OnNetworkChanged("sv0", static_cast<NicEvent>(7));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ServerManagerTest, DatagramTrafficCanBeSwitchedOffAndOn) {
  Select("sv0");
  manager_->ConfigureTcpServer(5000, true);
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUPnPMulticastServer(1900, true);
  vex_test::LogCapture log;
  EXPECT_EQ(0, manager_->ConfigureMulticastSupport(false));
  EXPECT_EQ(1, log.Count(16, kTag, "Disabling udp servers!!!"));
  ASSERT_TRUE(WaitUntil([&] { return log.Count(16, kTag, "stop state") == 2; }));
  // The ports become free, so nobody hears what is sent to them.
  EXPECT_TRUE(
      WaitUntil([&] { return PortIsFree("10.78.0.1", 5001) && PortIsFree("0.0.0.0", 1900); }));
  EXPECT_TRUE(Serves("10.78.0.1", 5000));

  // An interface that comes meanwhile gets its servers, but they don't run.
  Select("sv1");
  EXPECT_EQ(1, log.Count(4, kTag, "Start of udp server blocked as multicasting is disabled"));
  EXPECT_EQ(1, log.Count(4, kTag, "Start of multicast server blocked as multicasting is disabled"));
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0", "10.78.1.1:5001/5001@sv1"));
  EXPECT_TRUE(PortIsFree("10.78.1.1", 5001));
  EXPECT_TRUE(Serves("10.78.1.1", 5000));

  EXPECT_EQ(0, manager_->ConfigureMulticastSupport(true));
  EXPECT_EQ(1, log.Count(16, kTag, "Enabling udp servers!!!"));
  EXPECT_TRUE(HearsUnicast(first_, 5001));
  EXPECT_TRUE(HearsUnicast(second_, 5001));
  EXPECT_TRUE(IsHeard(2, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, ServersThatCannotBeSwitchedOnAgainAreLogged) {
  Select("sv0");
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUPnPMulticastServer(1900, true);
  manager_->ConfigureMulticastSupport(false);
  ASSERT_TRUE(
      WaitUntil([&] { return PortIsFree("10.78.0.1", 5001) && PortIsFree("0.0.0.0", 1900); }));
  vex_test::LogCapture log;
  {
    const vex_test::HeldPorts udp(SOCK_DGRAM, "10.78.0.1", 5001, 100);
    const vex_test::HeldPorts multicast(SOCK_DGRAM, "0.0.0.0", 1900, 1);
    EXPECT_EQ(0, manager_->ConfigureMulticastSupport(true));
  }
  EXPECT_EQ(1, log.Count(16, kTag, "Error in starting udp server !!!"));
  EXPECT_EQ(1, log.Count(16, kTag, "Error in starting multicast server !!!"));
  EXPECT_EQ(0, manager_->ConfigureMulticastSupport(true));
  EXPECT_TRUE(HearsUnicast(first_, 5001));
  EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, UdpServerThatClimbsWhenSwitchedOnIsListedWithItsNewPort) {
  Select("sv0");
  manager_->ConfigureUdpServer(5000, true);
  manager_->ConfigureMulticastSupport(false);
  ASSERT_TRUE(WaitUntil([] { return PortIsFree("10.78.0.1", 5000); }));
  const vex_test::HeldPorts held(SOCK_DGRAM, "10.78.0.1", 5000, 2);
  ASSERT_TRUE(held.all());
  manager_->ConfigureMulticastSupport(true);
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5002/5000@sv0"));
  EXPECT_TRUE(HearsUnicast(first_, 5002));
  manager_->ConfigureUdpServer(5000, false);
  EXPECT_THAT(UdpPorts(), ElementsAre());
  EXPECT_TRUE(WaitUntil([] { return PortIsFree("10.78.0.1", 5002); }));
}

TEST_F(ServerManagerTest, KeptSwitchingOffAPortEndsWhateverWasConfiguredForIt) {
  Select("sv0");
  manager_->ConfigureTcpServer(5000, true);
  manager_->ConfigureUdpServer(5000, true);
  manager_->ConfigureUdpServer(5001, true);
  EXPECT_EQ(0, manager_->ConfigureTcpServer(5000, false));
  EXPECT_THAT(TcpPorts(), ElementsAre());
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0"));
  // The wishes have gone as well.
  Unselect("sv0");
  Select("sv0");
  EXPECT_THAT(TcpPorts(), ElementsAre());
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0"));
}

TEST_F(ServerManagerTest, KeptSwitchingOffOneUdpPortKeepsNewInterfacesFromAllUdpServers) {
  Select("sv0");
  manager_->ConfigureUdpServer(5000, true);
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUdpServer(5000, false);
  Select("sv1");
  EXPECT_THAT(UdpPorts(), ElementsAre("10.78.0.1:5001/5001@sv0"));
}

TEST_F(ServerManagerTest, MulticastSwitchedOffAndOnGivesOneServerForEachGroup) {
  Select("sv0");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, true));
    EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
    EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, false));
    ASSERT_TRUE(WaitUntil([] { return PortIsFree("0.0.0.0", 1900); }));
  }
  EXPECT_EQ(0, manager_->ConfigureUPnPMulticastServer(1900, true));
  Unselect("sv0");
  Select("sv0");
  EXPECT_TRUE(IsHeard(1, first_, kGroup, 1900));
}

TEST_F(ServerManagerTest, MulticastSwitchedOffDoesNotComeBackWithAnInterface) {
  manager_->ConfigureUPnPMulticastServer(1900, true);
  manager_->ConfigureUPnPMulticastServer(1900, false);
  Select("sv0");
  EXPECT_TRUE(PortIsFree("0.0.0.0", 1900));
}

class SendingServers : public ServerManagerTest {
 protected:
  // The port that a search from that address leaves from.
  int PortOfASearch() {
    EXPECT_TRUE(Send("10.78.0.1"));
    std::string data;
    std::string from;
    int port = 0;
    EXPECT_TRUE(peer_->Receive(data, from, port));
    EXPECT_EQ("M-SEARCH", data);
    EXPECT_EQ("10.78.0.1", from);
    return port;
  }
  bool Send(const std::string& local_ip) {
    if (!peer_) first_.Run([&] { peer_.reset(new vex_test::UdpSocket("10.78.0.2")); });
    const udp::endpoint to(boost::asio::ip::make_address("10.78.0.2"),
                           static_cast<unsigned short>(peer_->port()));
    error_code error;
    const bool sent = manager_->SendFromUdpServer(local_ip, to, "M-SEARCH", error);
    EXPECT_FALSE(error);
    return sent;
  }

 private:
  std::unique_ptr<vex_test::UdpSocket> peer_;
};

TEST_F(SendingServers, SendFromTheSocketOnThatAddress) {
  Select("sv0");
  manager_->ConfigureUdpServer(5001, true);
  EXPECT_EQ(5001, PortOfASearch());
  EXPECT_FALSE(Send("10.78.1.1"));
  manager_->ConfigureMulticastSupport(false);
  EXPECT_FALSE(Send("10.78.0.1"));
}

TEST_F(SendingServers, RegressionOfTwoOnOneAddressTheLastOneSends) {
  Select("sv0");
  manager_->ConfigureUdpServer(5001, true);
  manager_->ConfigureUdpServer(5003, true);
  EXPECT_EQ(5003, PortOfASearch());
}

TEST_F(ServerManagerTest, MulticastSentFromAServerGoesOutOnItsInterface) {
  SelectBoth();
  manager_->ConfigureUdpServer(5001, true);
  std::unique_ptr<vex_test::GroupWatcher> watcher;
  second_.Run([&] { watcher.reset(new vex_test::GroupWatcher(kGroup, "10.78.1.2")); });
  error_code error;
  ASSERT_TRUE(manager_->SendFromUdpServer(
      "10.78.1.1", udp::endpoint(boost::asio::ip::make_address(kGroup), 1900), "M-SEARCH", error));
  ASSERT_TRUE(WaitUntil([&] { return watcher->Count("M-SEARCH") == 1; }));
  EXPECT_EQ("10.78.1.1", watcher->Received()[0].sender_ip);
  EXPECT_EQ(5001, watcher->Received()[0].sender_port);
}

TEST_F(ServerManagerTest, SendingAndSwitchingAtOnceIsSafe) {
  Select("sv0");
  manager_->ConfigureUdpServer(5001, true);
  std::atomic<bool> done{false};
  std::atomic<int> sent{0};
  std::thread sender([&] {
    const udp::endpoint to(boost::asio::ip::make_address("10.78.0.2"), 9);
    error_code error;
    while (!done) sent += manager_->SendFromUdpServer("10.78.0.1", to, "x", error) ? 1 : 0;
  });
  ASSERT_TRUE(WaitUntil([&] { return sent > 0; }));
  for (int i = 0; i < 20; ++i) {
    manager_->ConfigureMulticastSupport(false);
    manager_->ConfigureMulticastSupport(true);
    manager_->OnNetworkChanged("sv0", NIC_REMOVED);
    manager_->OnNetworkChanged("sv0", NIC_ADDED);
  }
  done = true;
  sender.join();
  EXPECT_TRUE(HearsUnicast(first_, 5001));
}

TEST_F(ServerManagerTest, StopClosesEverySocketAndConnection) {
  SelectBoth();
  int open = 0;
  for (int round = 0; round < 2; ++round) {
    // The first round also opens what the event loops need for themselves.
    manager_->StartServerThreads(3, 1, 1);
    manager_->ConfigureTcpServer(5000, true);
    manager_->ConfigureUdpServer(5001, true);
    manager_->ConfigureUPnPMulticastServer(1900, true);
    TcpClient silent("10.78.0.1", 5000);
    TcpClient half("10.78.1.1", 5000);
    half.Send("NOTIFY / HT");
    vex_test::LogCapture log;
    manager_->StopServerThreads();
    EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::StopServerThreads"));
    EXPECT_EQ(1, log.Count("StopServerSockets"));
    EXPECT_EQ(1, log.Count("StopServerSockets return"));
    EXPECT_TRUE(silent.PeerCloses());
    EXPECT_TRUE(half.PeerCloses());
    if (round == 0) open = vex_test::DescriptorCount();
    EXPECT_EQ(open, vex_test::DescriptorCount());
  }
}

TEST_F(ServerManagerTest, StartIsLogged) {
  vex_test::LogCapture log;
  manager_->StartServerThreads(0, 0, 0);
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager::StartServerThreads"));
}

// The whole layer comes and goes, with traffic on its way and answers outstanding.
TEST_F(ServerManagerTest, CyclesUnderTrafficLeaveNoThreadAndNoDescriptor) {
  TearDown();
  const int threads = vex_test::ThreadCount();
  const int descriptors = vex_test::DescriptorCount();
  std::atomic<bool> done{false};
  std::thread traffic([&] {
    while (!done) {
      first_.Send("10.78.0.1", 5001,
                  vex_test::SearchAnswerDatagram("uuid:t", "ssdp:all", "http://x/"));
      first_.Send(kGroup, 1900, Alive("uuid:t"));
      TcpClient client("10.78.0.1", 5000);
      if (client.connected()) client.Send(kRequest);
    }
  });
  for (int i = 0; i < 10; ++i) {
    vex_test::RunningCallbacks callbacks;
    std::mutex mutex;
    std::vector<void*> held;
    const boost::shared_ptr<vex_test::DatagramSink> messages = callbacks.Collect("USN");
    callbacks.Listen("NOTIFY", [&](const vex_test::MessagePointer&, void* context) {
      const std::lock_guard<std::mutex> lock(mutex);
      held.push_back(context);
    });
    const boost::shared_ptr<ServerManager> manager = ServerManager::GetInstance();
    NetworkInterface::GetInstance();
    manager->StartServerThreads(3, 1, 1);
    Scan();
    Select("sv0");
    manager->ConfigureTcpServer(5000, true);
    manager->ConfigureUdpServer(5001, true);
    manager->ConfigureUPnPMulticastServer(1900, true);
    EXPECT_TRUE(WaitUntil([&] {
      const std::lock_guard<std::mutex> lock(mutex);
      return messages->Count() >= 3 && !held.empty();
    }));
    manager->StopServerThreads();
    callbacks.End();
    NetworkInterface::DestroyInstance();
    ServerManager::DestroyInstance();
    for (void* const context : held) TakeSession(context);
  }
  done = true;
  traffic.join();
  EXPECT_TRUE(vex_test::ThreadsBecome(threads));
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
  SetUp();
}

TEST_F(ServerManagerTest, EndIsLoggedAndBringsNothingBack) {
  TearDown();
  EXPECT_EQ(nullptr, ServerManager::ExistingInstance());
  vex_test::LogCapture log;
  ServerManager::GetInstance();
  ServerManager::DestroyInstance();
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager Destructor"));
  EXPECT_EQ(nullptr, ServerManager::ExistingInstance());
  SetUp();
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

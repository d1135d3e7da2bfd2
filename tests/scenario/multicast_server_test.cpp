#include "src/multicast_server.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <fstream>
#include <sstream>
#include <string>

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

using vex_test::DatagramSink;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
constexpr char kGroup[] = "239.255.255.250";
constexpr int kPort = 1900;

std::string Alive(const std::string& usn) {
  return vex_test::AliveDatagram(usn, "upnp:rootdevice", "http://10.78.0.2/d.xml");
}

// Whether this host is a member of the group on the interface.
bool Joined(const std::string& interface, const std::string& group_in_hex) {
  std::ifstream file("/proc/net/igmp");
  std::string line;
  bool in_interface = false;
  while (std::getline(file, line)) {
    if (line[0] != '\t') in_interface = line.find("\t" + interface + " ") != std::string::npos;
    if (in_interface && line.find(group_in_hex) != std::string::npos) return true;
  }
  return false;
}

class MulticastServerTest : public testing::Test {
 protected:
  MulticastServerTest()
      : first_("sv0", "10.78.0.1", "10.78.0.2"),
        second_("sv1", "10.78.1.1", "10.78.1.2"),
        loop_(1),
        announcements_(callbacks_.Collect("NOTIFY,USN")) {}
  void TearDown() override { callbacks_.End(); }

  boost::shared_ptr<MulticastServer> Server(const vex_test::RemoteHost& host) {
    return boost::shared_ptr<MulticastServer>(
        new MulticastServer(host.near_ip(), host.name(), kGroup, kPort, loop_.io()));
  }
  // Whether the other host is heard; it sends until it is.
  bool Hears(vex_test::RemoteHost& host) {
    static int number = 0;
    const std::string usn = "uuid:check-" + std::to_string(++number);
    host.Send(kGroup, kPort, Alive(usn));
    return WaitUntil([&] { return announcements_->CountOf(usn) > 0; });
  }

  vex_test::RemoteHost first_;
  vex_test::RemoteHost second_;
  vex_test::RunningLoop loop_;
  vex_test::RunningCallbacks callbacks_;
  boost::shared_ptr<DatagramSink> announcements_;
};

TEST_F(MulticastServerTest, AnnouncementOfAnotherHostIsDelivered) {
  vex_test::LogCapture log;
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  int port = kPort;
  ASSERT_EQ(0, server->Start(port));
  EXPECT_EQ(1, log.Count("New MulticastServer::Start() : 10.78.0.1:1900 Started"));
  first_.Send(kGroup, kPort, Alive("uuid:1"));
  ASSERT_TRUE(WaitUntil([&] { return announcements_->Count() == 1; }));
  const DatagramSink::Seen seen = announcements_->All()[0];
  EXPECT_EQ("uuid:1", seen.usn);
  EXPECT_EQ("10.78.0.2", seen.client_ip);
  EXPECT_EQ("10.78.0.1", seen.my_ip);
  EXPECT_EQ(1, log.Count(4, kTag, "Multicast Server Received Packet " + Alive("uuid:1")));
  EXPECT_EQ(kPort, server->GetPort());
  EXPECT_EQ("10.78.0.1", server->GetIP());
  EXPECT_EQ("sv0", server->GetInterfaceName());
  server->Stop();
}

TEST_F(MulticastServerTest, OwnAnnouncementIsNotHeardOnItsInterface) {
  vex_test::LogCapture log;
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  int port = kPort;
  ASSERT_EQ(0, server->Start(port));
  vex_test::SsdpPeer self("10.78.0.1");
  self.Send(Alive("uuid:self"), kGroup, kPort);
  EXPECT_TRUE(Hears(first_));
  EXPECT_EQ(0, announcements_->CountOf("uuid:self"));
  server->Stop();
}

TEST_F(MulticastServerTest, KeptOwnAnnouncementIsHeardByAnotherInterfacesServer) {
  const boost::shared_ptr<MulticastServer> on_first = Server(first_);
  const boost::shared_ptr<MulticastServer> on_second = Server(second_);
  int port = kPort;
  ASSERT_EQ(0, on_first->Start(port));
  ASSERT_EQ(0, on_second->Start(port));
  vex_test::SsdpPeer self("10.78.0.1");
  self.Send(Alive("uuid:self"), kGroup, kPort);
  ASSERT_TRUE(WaitUntil([&] { return announcements_->CountOf("uuid:self") == 1; }));
  EXPECT_EQ("10.78.1.1", announcements_->All()[0].my_ip);
  EXPECT_TRUE(Hears(first_));
  EXPECT_EQ(1, announcements_->CountOf("uuid:self"));
  on_first->Stop();
  on_second->Stop();
}

TEST_F(MulticastServerTest, TwoServersOfOneGroupEachDeliverWhatTheStackGivesThem) {
  const boost::shared_ptr<MulticastServer> on_first = Server(first_);
  const boost::shared_ptr<MulticastServer> on_second = Server(second_);
  int port = kPort;
  ASSERT_EQ(0, on_first->Start(port));
  ASSERT_EQ(0, on_second->Start(port));
  first_.Send(kGroup, kPort, Alive("uuid:a"));
  second_.Send(kGroup, kPort, Alive("uuid:b"));
  // Each once from every server.
  ASSERT_TRUE(WaitUntil([&] { return announcements_->Count() == 4; }));
  EXPECT_EQ(2, announcements_->CountOf("uuid:a"));
  EXPECT_EQ(2, announcements_->CountOf("uuid:b"));
  on_first->Stop();
  on_second->Stop();
}

TEST_F(MulticastServerTest, BadAndUnfinishedDatagramsAreSurvived) {
  vex_test::LogCapture log;
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  int port = kPort;
  ASSERT_EQ(0, server->Start(port));
  first_.Send(kGroup, kPort, "no message at all\r\n\r\n");
  EXPECT_TRUE(Hears(first_));
  EXPECT_EQ(1,
            log.Count(16, kTag, "PARSER FAILURE Status 1 and Buffer: no message at all\r\n\r\n"));
  first_.Send(kGroup, kPort, "");
  EXPECT_TRUE(Hears(first_));
  EXPECT_TRUE(log.Holds("[Multicast Server::receive_handler] Error ["));
  const std::string whole = Alive("uuid:joined");
  first_.Send(kGroup, kPort, whole.substr(0, 50));
  first_.Send(kGroup, kPort, whole.substr(50));
  EXPECT_TRUE(WaitUntil([&] { return announcements_->CountOf("uuid:joined") == 1; }));
  server->Stop();
}

TEST_F(MulticastServerTest, WithoutACallbackHandlerTheMessageIsLostWithALine) {
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  int port = kPort;
  ASSERT_EQ(0, server->Start(port));
  callbacks_.End();
  vex_test::LogCapture log;
  first_.Send(kGroup, kPort, Alive("uuid:1"));
  EXPECT_TRUE(WaitUntil(
      [&] { return log.Count(2, kTag, "Invocation of UDP Request Handler Failed.") == 1; }));
  server->Stop();
}

TEST_F(MulticastServerTest, StopLeavesTheGroupAndClosesTheSocket) {
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  const int open = vex_test::DescriptorCount();
  int port = kPort;
  ASSERT_EQ(0, server->Start(port));
  EXPECT_TRUE(Joined("sv0", "FAFFFFEF"));
  vex_test::LogCapture log;
  EXPECT_EQ(0, server->Stop());
  EXPECT_FALSE(Joined("sv0", "FAFFFFEF"));
  EXPECT_EQ(1, log.Count(16, kTag, "Stop Called [Scoped Locked in Stop]"));
  EXPECT_EQ(1, log.Count("Leaving multicast group at interface [10.78.0.1]"));
  EXPECT_EQ(1, log.Count("close multicast server"));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == open; }));
  EXPECT_EQ(1, log.Count(16, kTag, "stop state"));
  EXPECT_EQ(1, log.Count(16, kTag,
                         "TCP Socket shutdown error, possibly shutdown already!, error [Transport "
                         "endpoint is not connected]"));
}

TEST_F(MulticastServerTest, StopOfAServerThatNeverRanIsLoggedAndGoesOn) {
  vex_test::LogCapture log;
  EXPECT_EQ(0, Server(first_)->Stop());
  EXPECT_TRUE(log.Holds("MulticastServer::Stop failure in leaving multicast group, error ["));
  EXPECT_EQ(1, log.Count("close multicast server"));
}

TEST_F(MulticastServerTest, StoppedServerMayBeStartedAgain) {
  const boost::shared_ptr<MulticastServer> server = Server(first_);
  const int open = vex_test::DescriptorCount();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0, server->Start());
    EXPECT_TRUE(Hears(first_));
    server->Stop();
  }
  EXPECT_EQ(0, server->Start());
  EXPECT_EQ(0, server->Start());
  EXPECT_TRUE(Hears(first_));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == open + 1; }));
  vex_test::LogCapture log;
  server->Reset();
  EXPECT_EQ(1, log.Count("Reset multicast server"));
  EXPECT_FALSE(Joined("sv0", "FAFFFFEF"));
}

struct FailedStart {
  const char* ip;
  const char* group;
  int port;
  int result;
  const char* line;
};

TEST_F(MulticastServerTest, EachFailureOfAStartHasItsCodeAndLine) {
  const FailedStart failures[] = {
      {"10.78.0.1", "nonsense", 1900, 2006, "Invalid multicast ip, error [Invalid argument]"},
      {"nonsense", kGroup, 1900, 2006, "Invalid local ip, error [Invalid argument]"},
      {"", kGroup, 1900, 2006, "Invalid local ip, error [Invalid argument]"},
      {"10.78.0.1", "10.1.2.3", 1900, 2005,
       "MulticastServer::Start:UDP Socket joingroup set_option error, [Invalid argument]"},
      {"10.99.0.1", kGroup, 1900, 2005,
       "MulticastServer::Start:UDP Socket joingroup set_option error, [No such device]"},
      {"10.78.0.1", kGroup, 65536, 2006,
       "MulticastServer::Start:UDP Socket bind error, [Invalid argument]"},
      {"10.78.0.1", kGroup, -1, 2006,
       "MulticastServer::Start:UDP Socket bind error, [Invalid argument]"},
      {"10.78.0.1", kGroup, 1901, 2006,
       "MulticastServer::Start:UDP Socket bind error, [Address already in use]"}};
  const vex_test::HeldPorts held(SOCK_DGRAM, "0.0.0.0", 1901, 1);
  ASSERT_TRUE(held.all());
  for (const FailedStart& failure : failures) {
    vex_test::LogCapture log;
    const boost::shared_ptr<MulticastServer> server(
        new MulticastServer(failure.ip, "sv0", failure.group, failure.port, loop_.io()));
    int port = failure.port;
    EXPECT_EQ(failure.result, server->Start(port)) << failure.line;
    EXPECT_EQ(failure.port, port);
    EXPECT_EQ(1, log.Count(16, kTag, failure.line)) << failure.line;
  }
}

TEST_F(MulticastServerTest, KeptSocketStaysOpenAfterAFailedStartUntilTheServerEnds) {
  int open = 0;
  {
    const boost::shared_ptr<MulticastServer> server(
        new MulticastServer("nonsense", "sv0", kGroup, kPort, loop_.io()));
    open = vex_test::DescriptorCount();
    EXPECT_EQ(2006, server->Start());
    EXPECT_EQ(open + 1, vex_test::DescriptorCount());
    EXPECT_EQ(2006, server->Start());
    EXPECT_EQ(open + 1, vex_test::DescriptorCount());
  }
  EXPECT_EQ(open, vex_test::DescriptorCount());
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

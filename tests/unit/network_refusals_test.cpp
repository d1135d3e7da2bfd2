// What the system refuses to servers and to what goes out, and what is told of it.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>

#include "base/asio.h"
#include "src/callbackhandler.h"
#include "src/clientmanager.h"
#include "src/multicast_server.h"
#include "src/tcp_server.h"
#include "tests/support/answer_recorder.h"
#include "tests/support/fail_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/raw_socket.h"
#include "tests/support/thread_count.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::FailCalls;
using vex_test::LogCapture;
using vex_test::SystemCall;

constexpr char kTag[] = "VEX_CORE_NETWORK";

// Starts a server of the group of all devices, with one kind of call failing once.
int StartedWithout(SystemCall call, int error) {
  io_service io;
  const boost::shared_ptr<MulticastServer> server(
      new MulticastServer("127.0.0.1", "lo", "239.255.255.250", 1900, io));
  int port = 1900;
  const FailCalls failing(call, error, 1, 1);
  const int result = server->Start(port);
  EXPECT_EQ(1, failing.Failed());
  EXPECT_EQ(1900, port);
  return result;
}

TEST(NetworkRefusals, AMulticastServerWithoutASocket) {
  const LogCapture log;
  EXPECT_EQ(2004, StartedWithout(SystemCall::kSocket, EMFILE));
  EXPECT_EQ(1, log.Count(16, kTag,
                         "MulticastServer::Start:UDP Socket Open error, [Too many open files]"));
  EXPECT_EQ(1U, log.Lines().size());
}

TEST(NetworkRefusals, AMulticastServerThatMayNotShareItsPort) {
  const LogCapture log;
  EXPECT_EQ(2005, StartedWithout(SystemCall::kSetOption, ENOMEM));
  EXPECT_EQ(1, log.Count(16, kTag,
                         "MulticastServer::Start:UDP Socket reuse_address set_option error, "
                         "[Cannot allocate memory]"));
  EXPECT_EQ(1U, log.Lines().size());
}

TEST(NetworkRefusals, ATcpServerThatCannotListenClosesItsSocketAndMayBeStartedAgain) {
  const std::string ip = vex_test::OwnLoopbackAddress();
  io_service io;
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip, "lo", io));
  const int descriptors = vex_test::DescriptorCount();
  int port = 0;
  {
    const LogCapture log;
    const FailCalls deaf(SystemCall::kListen, EADDRINUSE, 1, 1);
    EXPECT_EQ(2005, server->Start(port));
    EXPECT_EQ(1, deaf.Failed());
    EXPECT_EQ(1, log.Count(16, kTag, "Socket listen Failed!!!"));
    EXPECT_EQ(0, log.Count("Accept Failed!!!"));
  }
  EXPECT_EQ(descriptors, vex_test::DescriptorCount());
  EXPECT_FALSE(vex_test::TcpClient(ip, port).connected());
  port = 0;
  EXPECT_EQ(0, server->Start(port));
  EXPECT_TRUE(vex_test::TcpClient(ip, port).connected());
  server->Stop();
  io.poll();
}

TEST(NetworkRefusals, ARequestWhoseListenerCannotBeRegisteredLeavesNoSession) {
  ASSERT_FALSE(CallBackHandler::ExistingInstance());
  const boost::shared_ptr<ClientManager> manager = ClientManager::GetInstance();
  const auto recorder = vex_test::AnswerRecorder::Make();
  const LogCapture log;
  int id = 0;
  EXPECT_EQ(1, manager->SendTCPPacket("127.0.0.1", 9, "GET / HTTP/1.1\r\n\r\n", recorder, id));
  EXPECT_EQ(1, id);
  EXPECT_EQ(1, log.Count(16, kTag, "Registration failed for packet\nGET / HTTP/1.1\r\n\r\n"));
  // There is nothing that could be cancelled.
  EXPECT_EQ(1, manager->CancelTcpPacket(id));
  EXPECT_EQ(1, recorder.use_count());
  ClientManager::DestroyInstance();
}

// The server's own socket has no room, and the port that another one would share with it is taken.
TEST(NetworkRefusals, ADatagramThatCannotHaveItsServersPortIsNotSent) {
  const vex_test::NetworkRun run;
  const std::string ip = vex_test::OwnLoopbackAddress();
  ASSERT_EQ(0, NotifyNICAdded("lo", ip, "255.0.0.0"));
  ASSERT_EQ(0, ConfigureUDPServer(5380, true));
  const LogCapture log;
  {
    const FailCalls full(SystemCall::kSend, EAGAIN, 1, 1);
    const FailCalls taken(SystemCall::kBind, EADDRINUSE, 1, 1);
    EXPECT_EQ(2000, SendMulticastPacket(ip, ip, "searching", 9));
    EXPECT_EQ(1, full.Failed());
    EXPECT_EQ(1, taken.Failed());
  }
  EXPECT_EQ(1, log.Count(16, kTag, "Exception: Address already in use"));
  EXPECT_TRUE(log.Holds("UDPBind failed for session id "));
  EXPECT_EQ(1, log.Count(16, kTag, "Multicasting failed!"));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

#include <vexupnpcp/network_layer.h>

#include <gmock/gmock.h>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "src/callbackhandler.h"
#include "src/clientmanager.h"
#include "src/networkinterface.h"
#include "src/servermanager.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/thread_count.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_NETWORK";

bool AnySingleton() {
  return CallBackHandler::ExistingInstance() || ServerManager::ExistingInstance() ||
         ClientManager::ExistingInstance() || NetworkInterface::ExistingInstance();
}

TEST(NetworkLayer, ItsLifeMakesTheSingletonsAndTakesThemAway) {
  EXPECT_FALSE(AnySingleton());
  EXPECT_EQ(result::kOk, InitializeNetworkLayer());
  EXPECT_TRUE(CallBackHandler::ExistingInstance());
  EXPECT_TRUE(ServerManager::ExistingInstance());
  EXPECT_TRUE(ClientManager::ExistingInstance());
  EXPECT_TRUE(NetworkInterface::ExistingInstance());

  LogCapture log;
  EXPECT_EQ(result::kOk, TerminateNetworkLayer());
  EXPECT_FALSE(AnySingleton());
  EXPECT_EQ(1, log.Count("NetworkInterface Destroyed"));
  EXPECT_EQ(1, log.Count("ServerManager Destroyed"));
  EXPECT_EQ(1, log.Count("CallBackHandler Destroyed, Exit"));
}

TEST(NetworkLayer, StartAndStopRunAllThreadsAndLeaveNone) {
  const int before = vex_test::ThreadCount();
  EXPECT_EQ(result::kOk, InitializeNetworkLayer());
  EXPECT_EQ(result::kOk, StartNetworkLayer());
  // 2 + 2 + 5 for callbacks, 3 + 1 + 1 for servers, 3 for clients, 2 for interface events.
  EXPECT_TRUE(vex_test::ThreadsBecome(before + 19));
  LogCapture log;
  EXPECT_EQ(result::kOk, StopNetworkLayer());
  EXPECT_TRUE(vex_test::ThreadsBecome(before + 2));
  EXPECT_EQ(1, log.Count(4, kTag, "1: Calling StopClientThreads"));
  EXPECT_EQ(1, log.Count(4, kTag, "2: StopClientThreads done"));
  EXPECT_EQ(1, log.Count(4, kTag, "3: Calling StopServerThreads"));
  EXPECT_EQ(1, log.Count(4, kTag, "4: Calling Stopcallback handler threads"));
  EXPECT_EQ(result::kOk, TerminateNetworkLayer());
  EXPECT_TRUE(vex_test::ThreadsBecome(before));
}

TEST(NetworkLayer, StartWithoutSingletonsFailsAtTheFirstThatIsMissing) {
  LogCapture log;
  EXPECT_EQ(result::kFailure, StartNetworkLayer());
  EXPECT_EQ(1, log.Count(16, kTag, "Error: CallBackHandler is NULL!"));
  CallBackHandler::GetInstance();
  EXPECT_EQ(result::kFailure, StartNetworkLayer());
  EXPECT_EQ(1, log.Count(16, kTag, "Error: ServerManager is NULL!"));
  ServerManager::GetInstance();
  EXPECT_EQ(result::kFailure, StartNetworkLayer());
  EXPECT_EQ(1, log.Count(16, kTag, "Error: ClientManager is NULL!"));
  EXPECT_EQ(result::kOk, StopNetworkLayer());
  EXPECT_EQ(result::kOk, TerminateNetworkLayer());
}

TEST(NetworkLayer, OutsideItsLifeEveryFunctionFailsAndRevivesNothing) {
  LogCapture log;
  std::list<boost::shared_ptr<IpInfo>> ports;
  int id = 0;
  boost::shared_ptr<utils::HTTPInfo> response;
  EXPECT_EQ(result::kFailure, ConfigureTCPServer(1, true));
  EXPECT_EQ(result::kFailure, ConfigureUDPServer(1, true));
  EXPECT_EQ(1, log.Count(16, kTag, "ServerManager: ConfigureUdpServer failed"));
  EXPECT_EQ(result::kFailure, ConfigureUPnPMulticastServer(1, true));
  EXPECT_EQ(result::kFailure, ConfigureMulticastServer("239.255.255.250", 1, true));
  EXPECT_EQ(result::kFailure, ConfigureMulticastSupport(true));
  EXPECT_EQ(result::kFailure, GetConfiguredTcpPorts(ports));
  EXPECT_EQ(result::kFailure, SendMulticastPacket("239.255.255.250", "0.0.0.0", "x", 1));
  EXPECT_EQ(result::kFailure, SendUDPPacket("127.0.0.1", 9, "x", 1));
  EXPECT_EQ(result::kFailure,
            SendTCPHTTPPacket("127.0.0.1", 9, "x", 1, boost::shared_ptr<ResponseListener>(), id));
  EXPECT_EQ(result::kFailure, CancelTCPHTTPPacket(1));
  EXPECT_EQ(result::kFailure, SendSyncTCPPacket("127.0.0.1", 9, "x", 1, response, 10));
  EXPECT_EQ(result::kFailure, RegisterTCPRequestListener({"x"}, {}, id));
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler:RegisterTCPPattern failed"));
  EXPECT_EQ(result::kFailure, RegisterUDPRequestListener({"x"}, {}, id));
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler:RegisterUDPPattern failed"));
  EXPECT_EQ(result::kFailure, UnRegisterRequestListener(202));
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler:UnRegisterPattern failed"));
  std::map<std::string, boost::shared_ptr<valid_address_info>> addresses;
  boost::mutex mutex;
  boost::unique_lock<boost::mutex> lock(mutex);
  boost::condition_variable condition;
  bool stop = false;
  EXPECT_EQ(result::kFailure, IsReachable(addresses, 1, lock, condition, stop));
  EXPECT_FALSE(AnySingleton());
}

TEST(NetworkLayer, ARefusedListenerIsLogged) {
  vex_test::NetworkRun run;
  LogCapture log;
  int id = 0;
  EXPECT_EQ(result::kFailure, RegisterUDPRequestListener({"x"}, {}, id));
  EXPECT_EQ(-1, id);
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler:RegisterUDPPattern failed"));
  EXPECT_EQ(result::kFailure, UnRegisterRequestListener(12345));
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler:UnRegisterPattern failed"));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

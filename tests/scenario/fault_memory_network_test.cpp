// The network layer's exported functions, called with each of their allocations failing in turn.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/timer.h>

#include "tests/support/answer_recorder.h"
#include "tests/support/control_peer.h"
#include "tests/support/memory_table.h"
#include "tests/support/private_network.h"
#include "tests/support/server_fixture.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::ControlPeer;
using vex_test::FailEach;
using vex_test::MemoryRow;
using vex_test::PeerRequest;
using vex_test::WaitUntil;

constexpr char kNear[] = "10.77.0.1";
constexpr char kFar[] = "10.77.0.2";
constexpr char kRequest[] = "NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n";
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n";

MemoryRow OkOrFailure(std::function<void(int)> after = {}) {
  return {result::kOk, {result::kFailure}, std::move(after), false};
}

class FaultMemoryNetwork : public testing::Test {
 protected:
  static void Up() {
    ASSERT_EQ(result::kOk, InitializeNetworkLayer());
    utils::Timer::InitializeManager();
    ASSERT_EQ(result::kOk, StartNetworkLayer());
  }
  static void Watch() {
    std::string name = "lan0";
    ASSERT_EQ(result::kYes, ConfigureNetworkInterface(name, true));
    ASSERT_EQ(result::kOk, InitializeNetworkMonitor());
  }
  static void Down() {
    TerminateNetworkMonitor();
    StopNetworkLayer();
    utils::Timer::TerminateManager();
    TerminateNetworkLayer();
  }
  // The whole layer works: a request goes out, is answered, and comes back.
  static void ExpectToWork() {
    Up();
    Watch();
    ASSERT_EQ(result::kOk, ConfigureTCPServer(5100, true));
    const auto sink = boost::make_shared<vex_test::RequestSink>(
        [](const vex_test::MessagePointer&, void* context) {
          SendResponsePacket(new std::string(kAnswer), sizeof(kAnswer) - 1, context);
        });
    int listener = 0;
    ASSERT_EQ(result::kOk, RegisterTCPRequestListener({"NOTIFY"}, sink, listener));
    EXPECT_NE(std::string::npos, vex_test::ExchangeWith(kNear, Port(), kRequest).find("200 OK"));
    Down();
  }
  static int Port() {
    std::list<boost::shared_ptr<IpInfo>> servers;
    GetConfiguredTcpPorts(servers);
    return servers.empty() ? 0 : servers.front()->port;
  }

  const vex_test::FasterTime faster_{20};
};

TEST_F(FaultMemoryNetwork, StartAndStop) {
  EXPECT_GT(FailEach("vex_upnp::network_layer::InitializeNetworkLayer", InitializeNetworkLayer,
                     OkOrFailure([](int) { TerminateNetworkLayer(); })),
            3);
  ASSERT_EQ(result::kOk, InitializeNetworkLayer());
  EXPECT_GT(FailEach("vex_upnp::network_layer::StartNetworkLayer", StartNetworkLayer,
                     OkOrFailure([](int) { EXPECT_EQ(result::kOk, StopNetworkLayer()); })),
            10);
  ASSERT_EQ(result::kOk, StartNetworkLayer());
  const auto silent = vex_test::AnswerRecorder::Make();
  ControlPeer mute(kFar, 0, [](const PeerRequest&) { return vex_test::Silence(); });
  const auto begin = [&] {
    int session = 0;
    EXPECT_EQ(result::kOk, SendTCPHTTPPacket(kFar, mute.port(), kRequest, 0, silent, session));
  };
  begin();
  FailEach("vex_upnp::network_layer::StopNetworkLayer", StopNetworkLayer, OkOrFailure([&](int) {
             // The first one, without memory, has ended the exchange.
             EXPECT_EQ(1, silent.use_count());
             StopNetworkLayer();
             StartNetworkLayer();
             begin();
           }));
  StopNetworkLayer();
  FailEach("vex_upnp::network_layer::TerminateNetworkLayer", TerminateNetworkLayer,
           OkOrFailure([](int) {
             TerminateNetworkLayer();
             InitializeNetworkLayer();
           }));
  TerminateNetworkLayer();
  ExpectToWork();
}

TEST_F(FaultMemoryNetwork, Servers) {
  Up();
  Watch();
  const std::string group = "239.255.255.177";
  EXPECT_GT(FailEach("vex_upnp::network_layer::ConfigureTCPServer",
                     [] { return ConfigureTCPServer(5100, true); },
                     {result::kOk,
                      {result::kFailure, result::kBindFailed},
                      [](int) { ConfigureTCPServer(5100, false); },
                      false}),
            2);
  EXPECT_GT(FailEach(
                "vex_upnp::network_layer::ConfigureUDPServer",
                [] { return ConfigureUDPServer(5300, true); },
                OkOrFailure([](int) { ConfigureUDPServer(5300, false); })),
            2);
  EXPECT_GT(FailEach(
                "vex_upnp::network_layer::ConfigureUPnPMulticastServer",
                [] { return ConfigureUPnPMulticastServer(1900, true); },
                OkOrFailure([](int) { ConfigureUPnPMulticastServer(1900, false); })),
            2);
  EXPECT_GT(FailEach(
                "vex_upnp::network_layer::ConfigureMulticastServer",
                [&] { return ConfigureMulticastServer(group, 1901, true); },
                OkOrFailure([&](int) { ConfigureMulticastServer(group, 1901, false); })),
            2);
  ConfigureUDPServer(5300, true);
  ConfigureUPnPMulticastServer(1900, true);
  FailEach(
      "vex_upnp::network_layer::ConfigureMulticastSupport",
      [] { return ConfigureMulticastSupport(true); },
      OkOrFailure([](int) { ConfigureMulticastSupport(false); }));
  FailEach(
      "vex_upnp::network_layer::ConfigureMulticastSupport",
      [] { return ConfigureMulticastSupport(false); }, OkOrFailure());
  ConfigureTCPServer(5100, true);
  EXPECT_GT(FailEach(
                "vex_upnp::network_layer::GetConfiguredTcpPorts",
                [] {
                  std::list<boost::shared_ptr<IpInfo>> servers;
                  return GetConfiguredTcpPorts(servers);
                },
                OkOrFailure()),
            1);
  Down();
  ExpectToWork();
}

// The session contexts of requests that came, for the answers below to use up.
class Requests {
 public:
  Requests() {
    const auto sink = boost::make_shared<vex_test::RequestSink>(
        [this](const vex_test::MessagePointer&, void* context) {
          const std::lock_guard<std::mutex> lock(mutex_);
          contexts_.push_back(context);
        });
    EXPECT_EQ(result::kOk, RegisterTCPRequestListener({"NOTIFY"}, sink, id_));
  }
  // Has a request sent and gives its context.
  void* Next(int port) {
    peers_.emplace_back([port] { vex_test::ExchangeWith(kNear, port, kRequest); });
    EXPECT_TRUE(WaitUntil([this] {
      const std::lock_guard<std::mutex> lock(mutex_);
      return contexts_.size() == peers_.size();
    }));
    return contexts_.back();
  }
  // Every connection must end, answered or not.
  ~Requests() {
    for (std::thread& peer : peers_) peer.join();
    UnRegisterRequestListener(id_);
  }

 private:
  std::mutex mutex_;
  std::vector<void*> contexts_;
  std::vector<std::thread> peers_;
  int id_ = 0;
};

TEST_F(FaultMemoryNetwork, Answers) {
  Up();
  Watch();
  ASSERT_EQ(result::kOk, ConfigureTCPServer(5100, true));
  {
    Requests requests;
    const int port = Port();
    void* context = requests.Next(port);
    std::string* text = new std::string(kAnswer);
    char* bytes = nullptr;
    const std::string answer = kAnswer;
    const int length = static_cast<int>(answer.size());
    FailEach(
        "vex_upnp::network_layer::SendResponsePacket",
        [&] { return SendResponsePacket(text, length, context); }, OkOrFailure([&](int code) {
          if (code != result::kOk) delete text;
          text = new std::string(kAnswer);
          context = requests.Next(port);
        }));
    delete text;
    FailEach("vex_upnp::network_layer::SendSyncResponsePacket",
             [&] { return SendSyncResponsePacket(answer, length, context); },
             {result::kOk,
              {result::kFailure, result::kSocketFailed},
              [&](int) {
                context = requests.Next(port);
                bytes = static_cast<char*>(std::malloc(answer.size()));
                std::memcpy(bytes, answer.data(), answer.size());
              },
              false});
    FailEach(
        "vex_upnp::network_layer::SendBinaryResponsePacket",
        [&] { return SendBinaryResponsePacket(bytes, length, context); }, OkOrFailure([&](int) {
          context = requests.Next(port);
          bytes = static_cast<char*>(std::malloc(answer.size()));
          std::memcpy(bytes, answer.data(), answer.size());
        }));
    SendBinaryResponsePacket(bytes, length, context);
  }
  Down();
}

TEST_F(FaultMemoryNetwork, Datagrams) {
  Up();
  Watch();
  const std::string group = "239.255.255.250";
  const std::string all = "0.0.0.0";
  const std::string far = kFar;
  const std::string data(100, 'x');
  const std::vector<int> codes = {result::kFailure, result::kConnectFailed,
                                  result::kNoNetworkInterface};
  EXPECT_GT(FailEach("vex_upnp::network_layer::SendMulticastPacket",
                     [&] { return SendMulticastPacket(group, all, data, 100); },
                     {result::kOk, codes, {}, false}),
            2);
  FailEach("vex_upnp::network_layer::SendUDPPacket",
           [&] { return SendUDPPacket(far, 9, data, 100); }, {result::kOk, codes, {}, false});
  Down();
}

TEST_F(FaultMemoryNetwork, Requests) {
  Up();
  Watch();
  vex_test::Ip("neigh replace 10.77.0.50 lladdr 00:1a:2b:3c:4d:5e dev lan0 nud permanent");
  const std::string neighbour = "10.77.0.50";
  std::string unused;
  // An emulator does not find it.
  const int found = GetMacAddress(neighbour, unused);
  FailEach("vex_upnp::network_layer::GetMacAddress",
           [&] {
             std::string mac;
             return GetMacAddress(neighbour, mac);
           },
           {found, {result::kFailure}, {}, false});
  vex_test::Ip("neigh del 10.77.0.50 dev lan0");
  ControlPeer peer(kFar, 0, [](const PeerRequest&) { return vex_test::Text(kAnswer); });
  const std::string far = kFar;
  const std::string request = "GET /a/path HTTP/1.1\r\nHOST: 10.77.0.2\r\n\r\n";
  const auto recorder = vex_test::AnswerRecorder::Make();
  const boost::shared_ptr<ResponseListener> listener = recorder;
  int session = 0;
  int sent = 0;
  EXPECT_GT(
      FailEach("vex_upnp::network_layer::SendTCPHTTPPacket",
               [&] { return SendTCPHTTPPacket(far, peer.port(), request, 0, listener, session); },
               {result::kOk,
                {result::kFailure, result::kNoSession, result::kConnectFailed},
                [&](int code) {
                  sent += code == result::kOk ? 1 : 0;
                  EXPECT_TRUE(WaitUntil([&] { return recorder->count() == sent; }));
                  // This function's own two.
                  EXPECT_TRUE(WaitUntil([&] { return recorder.use_count() == 2; }));
                },
                false}),
      3);
  const auto silent = vex_test::AnswerRecorder::Make();
  ControlPeer mute(kFar, 0, [](const PeerRequest&) { return vex_test::Silence(); });
  const auto begin = [&](int) {
    EXPECT_EQ(result::kOk, SendTCPHTTPPacket(far, mute.port(), request, 0, silent, session));
  };
  begin(0);
  FailEach(
      "vex_upnp::network_layer::CancelTCPHTTPPacket", [&] { return CancelTCPHTTPPacket(session); },
      OkOrFailure(begin));
  EXPECT_EQ(result::kOk, CancelTCPHTTPPacket(session));
  boost::shared_ptr<utils::HTTPInfo> response(new utils::HTTPInfo);
  EXPECT_GT(
      FailEach("vex_upnp::network_layer::SendSyncTCPPacket",
               [&] { return SendSyncTCPPacket(far, peer.port(), request, 0, response, 20000); },
               {result::kOk,
                {result::kFailure, result::kNoSession, result::kConnectFailed,
                 result::kSocketFailed, result::kBadHttp},
                [&](int) { response.reset(new utils::HTTPInfo); },
                false}),
      3);
  EXPECT_EQ(0, silent->count());
  Down();
}

TEST_F(FaultMemoryNetwork, Listeners) {
  Up();
  int id = 0;
  const std::vector<std::string> patterns{"NOTIFY,HOST,a pattern that is long enough for a block"};
  const auto tcp =
      boost::make_shared<vex_test::RequestSink>([](const vex_test::MessagePointer&, void*) {});
  const auto udp = boost::make_shared<vex_test::DatagramSink>();
  // The copies of the arguments are the caller's.
  std::vector<std::string> copy = patterns;
  const auto again = [&](int code) {
    copy = patterns;
    if (code == result::kOk) {
      EXPECT_EQ(result::kOk, UnRegisterRequestListener(id));
    }
  };
  EXPECT_GT(
      FailEach(
          "vex_upnp::network_layer::RegisterTCPRequestListener",
          [&] { return RegisterTCPRequestListener(std::move(copy), tcp, id); }, OkOrFailure(again)),
      1);
  EXPECT_EQ(1, tcp.use_count());
  FailEach(
      "vex_upnp::network_layer::RegisterUDPRequestListener",
      [&] { return RegisterUDPRequestListener(std::move(copy), udp, id); }, OkOrFailure(again));
  EXPECT_EQ(1, udp.use_count());
  const auto registered = [&](int) {
    EXPECT_EQ(result::kOk, RegisterTCPRequestListener(patterns, tcp, id));
  };
  registered(0);
  FailEach(
      "vex_upnp::network_layer::UnRegisterRequestListener",
      [&] { return UnRegisterRequestListener(id); }, OkOrFailure(registered));
  Down();
}

TEST_F(FaultMemoryNetwork, Addresses) {
  Up();
  Watch();
  const std::string near = kNear;
  const std::string far = kFar;
  const std::string name = "lan0";
  const MemoryRow yes = {1, {0}, {}, false};
  FailEach(
      "vex_upnp::network_layer::IsLocalMachine", [&] { return IsLocalMachine(near) ? 1 : 0; }, yes);
  FailEach(
      "vex_upnp::network_layer::IsInterfaceExisting",
      [&] { return IsInterfaceExisting(near, name) ? 1 : 0; }, yes);
  FailEach(
      "vex_upnp::network_layer::IsSameSubnet",
      [&] {
        std::string mask;
        return IsSameSubnet(near, far, mask) ? 1 : 0;
      },
      yes);
  FailEach("vex_upnp::network_layer::GetOutgoingIPaddress",
           [&] {
             std::string local;
             return GetOutgoingIPaddress(far, local);
           },
           {result::kOk, {result::kFailure, result::kNoNetworkInterface}, {}, false});
  FailEach("vex_upnp::network_layer::GetMacAddress",
           [&] {
             std::string mac;
             return GetMacAddress(far, mac);
           },
           {result::kNotInArpCache, {result::kFailure, result::kSocketFailed}, {}, false});
  ControlPeer peer(kFar, 0, [](const PeerRequest&) { return vex_test::Text(kAnswer); });
  std::map<std::string, boost::shared_ptr<valid_address_info>> addresses;
  addresses["a"].reset(new valid_address_info);
  addresses["a"]->ip = kFar;
  addresses["a"]->port = peer.port();
  boost::mutex mutex;
  boost::condition_variable condition;
  bool stop = false;
  boost::unique_lock<boost::mutex> lock(mutex);
  FailEach("vex_upnp::network_layer::IsReachable",
           [&] { return IsReachable(addresses, 1, lock, condition, stop); },
           {result::kOk,
            {result::kFailure, result::kNoSession},
            [&](int) { EXPECT_TRUE(lock.owns_lock()); },
            false});
  lock.unlock();
  Down();
}

class Changes : public NetworkEventListener {
 public:
  void OnNetworkChanged(std::string&, NicEvent) override {}
};

TEST_F(FaultMemoryNetwork, Interfaces) {
  Up();
  FailEach("vex_upnp::network_layer::InitializeNetworkMonitor", InitializeNetworkMonitor,
           OkOrFailure([](int) { EXPECT_EQ(result::kOk, TerminateNetworkMonitor()); }));
  Watch();
  FailEach("vex_upnp::network_layer::TerminateNetworkMonitor", TerminateNetworkMonitor,
           OkOrFailure([](int) { EXPECT_EQ(result::kOk, InitializeNetworkMonitor()); }));
  std::vector<NetInfo> all;
  FailEach("vex_upnp::network_layer::GetNetworkInterfaces", [&] { GetNetworkInterfaces(&all); });
  EXPECT_FALSE(all.empty());
  FailEach("vex_upnp::network_layer::GetActiveSelectedNetworkInterfaces",
           [&] { GetActiveSelectedNetworkInterfaces(&all); });
  std::string name = "lan0";
  const std::string ip = kNear;
  FailEach(
      "vex_upnp::network_layer::GetNetworkInterface",
      [&] {
        NetInfo info;
        return GetNetworkInterface(name, info);
      },
      OkOrFailure());
  FailEach(
      "vex_upnp::network_layer::GetNetworkInterfaceByIP",
      [&] {
        NetInfo info;
        return GetNetworkInterfaceByIP(ip, info);
      },
      OkOrFailure());
  const auto unselect = [&](int) { ConfigureNetworkInterface(name, false); };
  unselect(0);
  FailEach("vex_upnp::network_layer::ConfigureNetworkInterface",
           [&] { return ConfigureNetworkInterface(name, true); },
           {result::kYes, {result::kNo}, unselect, false});
  FailEach("vex_upnp::network_layer::ConfigureOnAllNetworkInterfaces",
           [] { return ConfigureOnAllNetworkInterfaces(false); }, {result::kYes, {}, {}, false});
  Changes changes;
  int id = 0;
  FailEach(
      "vex_upnp::network_layer::RegisterNetworkEventListener",
      [&] { return RegisterNetworkEventListener(&changes, id); }, OkOrFailure([&](int code) {
        if (code == result::kOk) UnRegisterEventListener(id);
      }));
  ASSERT_EQ(result::kOk, RegisterNetworkEventListener(&changes, id));
  const std::string added = "an-added-name0";
  const std::string address = "192.168.100.100";
  const std::string mask = "255.255.255.0";
  const auto remove = [&](int) { EXPECT_EQ(result::kOk, NotifyNICRemoved(added)); };
  EXPECT_GT(FailEach(
                "vex_upnp::network_layer::NotifyNICAdded",
                [&] { return NotifyNICAdded(added, address, mask); }, OkOrFailure(remove)),
            1);
  const auto add = [&](int) { EXPECT_EQ(result::kOk, NotifyNICAdded(added, address, mask)); };
  add(0);
  FailEach(
      "vex_upnp::network_layer::NotifyNICRemoved", [&] { return NotifyNICRemoved(added); },
      OkOrFailure(add));
  FailEach("vex_upnp::network_layer::UnRegisterEventListener",
           [&] { UnRegisterEventListener(id); });
  Down();
  ExpectToWork();
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

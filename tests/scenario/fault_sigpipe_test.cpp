// Peers that are gone when they are written to, on each road that writes. The signal of a broken
// pipe has its default in the test programs (tests/support/test_main.cpp): raised, it would end
// them.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

#include <boost/make_shared.hpp>

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/control_stack.h"
#include "tests/support/fail_calls.h"
#include "tests/support/fake_device.h"
#include "tests/support/host_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/media_host.h"
#include "tests/support/raw_socket.h"
#include "tests/support/scripted_device.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/still_works.h"
#include "tests/support/tcp_table.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::BrokenPipes;
using vex_test::HostLog;
using vex_test::HttpPeer;
using vex_test::MediaHost;
using vex_test::PeerConnection;
using vex_test::ScriptedDevice;
using vex_test::TcpClient;
using vex_test::TcpRow;
using vex_test::WaitUntil;
namespace streaming = vex_upnp::streaming;

constexpr char kLibrary[] = "10.77.0.1";
constexpr char kPeer[] = "10.77.0.2";
constexpr int kEventPort = 5100;
// More than the kernel takes on both sides of a connection while nobody reads.
constexpr std::size_t kMoreThanFits = 16 * 1024 * 1024;

// Whether an end of a connection that is still open has something to it. The table also has what
// was closed on these ports a minute ago.
bool AnyOpen(const std::function<bool(const TcpRow&)>& holds) {
  for (const TcpRow& row : vex_test::TcpTable()) {
    if (row.owned && !row.listening && holds(row)) return true;
  }
  return false;
}

// Ends a peer's connection so that writing to it from now on is to a broken pipe: with a reset
// alone, it would be a connection that was reset.
void Leave(TcpClient& peer, int library_port) {
  const int peer_port = peer.local_port();
  peer.EndSending();
  const auto is_other_end = [&](const TcpRow& row) {
    return row.local_port == library_port && row.remote_port == peer_port;
  };
  ASSERT_TRUE(WaitUntil([&] {
    return AnyOpen([&](const TcpRow& row) { return is_other_end(row) && row.half_closed; });
  }));
  peer.Reset();
  ASSERT_TRUE(WaitUntil([&] { return !AnyOpen(is_other_end); }));
}

// A peer that leaves in the same way as soon as something has come, of which it reads nothing.
class LeavingPeer {
 public:
  LeavingPeer() : peer_([this](PeerConnection& connection) { Leave(connection); }, kPeer) {
    port_ = peer_.port();
  }

  const HttpPeer& peer() const { return peer_; }
  bool HasLeft() const { return left_; }

 private:
  void Leave(PeerConnection& connection) {
    const int port = AwaitPort();
    WaitUntil([&] {
      return AnyOpen([&](const TcpRow& row) { return row.local_port == port && row.unread > 0; });
    });
    connection.FinishSending();
    WaitUntil([&] {
      return AnyOpen([&](const TcpRow& row) { return row.remote_port == port && row.half_closed; });
    });
    connection.Reset();
    WaitUntil([&] { return !AnyOpen([&](const TcpRow& row) { return row.remote_port == port; }); });
    left_ = true;
  }
  int AwaitPort() const {
    WaitUntil([this] { return port_ != 0; });
    return port_;
  }

  std::atomic<int> port_{0};
  std::atomic<bool> left_{false};
  HttpPeer peer_;
};

// A whole library, which has met a broken pipe by the test's end, and works.
class FaultBrokenPipe : public testing::Test {
 protected:
  void SetUp() override {
    struct sigaction action = {};
    sigset_t blocked;
    ASSERT_EQ(0, ::sigaction(SIGPIPE, nullptr, &action));
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked));
    ASSERT_EQ(SIG_DFL, action.sa_handler);
    ASSERT_EQ(0, ::sigismember(&blocked, SIGPIPE));
    handle_ = rig_.Register();
    before_ = BrokenPipes();
  }
  void TearDown() override {
    EXPECT_TRUE(WaitUntil([this] { return BrokenPipes() > before_; }));
    EXPECT_TRUE(vex_test::StillWorks(handle_));
  }

  const vex_test::Watchdog watchdog_{120};
  vex_test::HostRig rig_;
  int handle_ = 0;
  int before_ = 0;
};

TEST_F(FaultBrokenPipe, AnAnswerToAnEventFindsNobody) {
  ScriptedDevice device("uuid:telling", {"First"});
  const std::string key = rig_.Meet(device);
  ASSERT_EQ(0, SubscribeService(handle_, key.c_str(), "First"));
  ASSERT_TRUE(WaitUntil(
      [&] { return device.Notify("First", 0, "<A>1</A>").find("200") != std::string::npos; }));
  vex_test::Gate gate;
  HostLog::OnEvent([&](const vex_test::ToldEvent&) { gate.Pass(); });
  const std::string body =
      "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"><e:property><A>2</A>"
      "</e:property></e:propertyset>";
  TcpClient peer(kLibrary, kEventPort);
  peer.Send(
      "NOTIFY /eventing_1/ HTTP/1.1\r\nHOST: 10.77.0.1:5100\r\nNT: upnp:event\r\n"
      "NTS: upnp:propchange\r\nSEQ: 1\r\nSID: uuid:telling-sub-1\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  Leave(peer, kEventPort);
  gate.Open();
  EXPECT_TRUE(WaitUntil([this] { return BrokenPipes() > before_; }));
  HostLog::OnEvent({});
}

TEST_F(FaultBrokenPipe, ARequestOfAnActionFindsNobody) {
  LeavingPeer peer;
  vex_test::FakeDevice device;
  device.udn = "uuid:leaving";
  vex_test::FakeService service;
  service.type = "urn:schemas-upnp-org:service:Leaving:1";
  service.id = "urn:upnp-org:serviceId:Leaving";
  service.scpd_url = "/scpd.xml";
  service.control_url = "http://" + peer.peer().authority() + "/control";
  device.services.push_back(service);
  vex_test::DescriptionServer server(kPeer);
  const std::string url = ServeDevice(server, "/d.xml", device);
  vex_test::SsdpPeer announcer(kPeer);
  ASSERT_TRUE(WaitUntil([&] {
    announcer.Send(
        vex_test::AliveDatagram(device.udn + "::upnp:rootdevice", "upnp:rootdevice", url), kLibrary,
        5300);
    return WaitUntil([] { return !HostLog::Devices().empty(); }, std::chrono::milliseconds(300));
  }));
  std::string value(kMoreThanFits, 'v');
  char name[] = "Value";
  CPArgument argument = {name, &value[0], nullptr};
  // What has failed is told when its time is over.
  const vex_test::FasterTime faster(10);
  int id = 0;
  ASSERT_EQ(0, SendAction(handle_, "uuid:leaving+lan0", "Leaving", "Take", &argument, &id));
  EXPECT_TRUE(WaitUntil([&] { return peer.HasLeft(); }));
  ASSERT_TRUE(WaitUntil([] { return HostLog::Actions().size() == 1; }));
  EXPECT_EQ(CP_ERR_ACTION_FAILED, HostLog::Actions()[0].code);
}

TEST_F(FaultBrokenPipe, ABlockingRequestFindsNobody) {
  LeavingPeer peer;
  const std::string request =
      "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(kMoreThanFits) + "\r\n\r\n" +
      std::string(kMoreThanFits, 'v');
  auto response = boost::make_shared<vex_upnp::utils::HTTPInfo>();
  EXPECT_NE(0, vex_upnp::network_layer::SendSyncTCPPacket(kPeer, peer.peer().port(), request,
                                                          static_cast<int>(request.size()),
                                                          response, 20000));
  EXPECT_TRUE(WaitUntil([&] { return peer.HasLeft(); }));
}

TEST_F(FaultBrokenPipe, ServedMediaFindNobody) {
  MediaHost host;
  vex_test::Gate gate;
  std::atomic<int> refused{-1};
  host.DoOnRequest([](const MediaHost::Request& got) {
    streaming::ResHeaderInfo response = vex_test::Response(200);
    response.content_length = 5;
    streaming::SendHTTPResponse(got.server, got.session, &response, false);
  });
  host.DoOnWritten([&](int server, int session, unsigned int) {
    gate.Pass();
    void* const block = vex_test::MallocCopy("media");
    refused = streaming::SendHTTPPayload(server, session, block, 5, true);
    if (refused != 0) std::free(block);
  });
  streaming::stServer* servers = nullptr;
  int configuration = 0;
  ASSERT_EQ(0, streaming::StartServers(MediaHost::callbacks(), kLibrary, 21000, &servers,
                                       &configuration));
  const int port = servers->port;
  streaming::FreeServerInfoList(servers);
  TcpClient peer(kLibrary, port);
  peer.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(WaitUntil([&] { return gate.waiting() == 1; }));
  Leave(peer, port);
  gate.Open();
  EXPECT_TRUE(WaitUntil([&] { return refused >= 0; }));
  EXPECT_TRUE(WaitUntil([this] { return BrokenPipes() > before_; }));
  EXPECT_EQ(0, streaming::StopServers(configuration));
}

TEST_F(FaultBrokenPipe, ABlockingUploadFindsNobody) {
  LeavingPeer peer;
  int id = 0;
  streaming::StreamingManager::GetInstance()->ConfigureStreamingThreads(0, true);
  ASSERT_EQ(0, streaming::StartSyncClient(&id));
  ASSERT_EQ(0, streaming::ConnectSyncClient(id, kPeer, peer.peer().port()));
  streaming::ReqHeaderInfo request;
  streaming::InitializeRequestHeaderInfo(&request);
  request.request_type = vex_upnp::utils::HTTP_POST;
  request.http_version = streaming::HTTP_1_1;
  request.uri = vex_test::Literal("/up");
  request.content_length = 5;
  ASSERT_EQ(0, streaming::SendSyncHTTPRequest(id, &request));
  ASSERT_TRUE(WaitUntil([&] { return peer.HasLeft(); }));
  EXPECT_NE(0, streaming::SendSyncHTTPPayload(id, vex_test::Literal("media"), 5, true));
  streaming::StopClientTransfer(id);
}

}  // namespace

// Allocations failing on the library's own threads while everything goes on: no crash and no leak,
// every action ends exactly once, and with memory to be had again everything works.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/fail_calls.h"
#include "tests/support/host_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/media_host.h"
#include "tests/support/no_failures.h"
#include "tests/support/raw_socket.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::FailOnLibraryThreads;
using vex_test::HostLog;
using vex_test::HttpPeer;
using vex_test::NoFailures;
using vex_test::PeerConnection;
using vex_test::ScriptedDevice;
using vex_test::ToldAction;
using vex_test::WaitUntil;
namespace streaming = vex_upnp::streaming;

constexpr char kService[] = "RenderingControl";

// The recording callbacks, with memory of their own.
void OnAction(int id, errorcodes code, CPArgument* output, const char* description) {
  const NoFailures no_failures;
  vex_test::RecordingCallbacks().action_callback(id, code, output, description);
}
void OnEvent(const char* udn, errorcodes code, CPArgument* variables) {
  const NoFailures no_failures;
  vex_test::RecordingCallbacks().event_callback(udn, code, variables);
}
void OnDevice(int event, CPDeviceInfo* device) {
  const NoFailures no_failures;
  vex_test::RecordingCallbacks().device_callback(event, device);
}

std::atomic<int> media_responses{0};
std::atomic<int> media_ends{0};
void OnMediaStatus(int, int, int) { ++media_ends; }
void OnMediaResponse(int, int, streaming::ResHeaderInfo* response, void* body, unsigned int, bool) {
  streaming::FreeResponseHeader(response);
  streaming::Free(body);
  ++media_responses;
}
void OnMediaData(int, int, void* data, unsigned int, bool) { streaming::Free(data); }
void OnMediaWritten(int, int, unsigned int) {}
constexpr streaming::ClientAppCallbacks kMedia = {OnMediaStatus, OnMediaResponse, OnMediaData,
                                                  OnMediaWritten};

class FaultMemoryThreads : public testing::Test {
 protected:
  void SetUp() override {
    char root[] = "upnp:rootdevice";
    CPDeviceTypeInfo types = {root, nullptr};
    ControlPointCalbacks callbacks = {OnEvent, OnAction, OnDevice, nullptr};
    ASSERT_EQ(0, RegisterCP(&types, &callbacks, &handle_));
    name_ = rig_.Meet(device_);
    serving_.DoOnRequest([](const vex_test::MediaHost::Request& got) {
      const NoFailures no_failures;
      const streaming::ResHeaderInfo response = vex_test::Response(200);
      streaming::SendHTTPResponse(got.server, got.session, &response, true);
    });
    ASSERT_EQ(0, streaming::StartServers(vex_test::MediaHost::callbacks(), "10.77.0.1", 21000,
                                         &servers_, &configuration_));
  }
  void TearDown() override {
    streaming::FreeServerInfoList(servers_);
    streaming::StopServers(configuration_);
  }

  // One of everything that is asked for and comes.
  void Traffic(int round) {
    int id = 0;
    if (SendAction(handle_, name_.c_str(), kService, "Play", nullptr, &id) == 0) sent_.insert(id);
    device_.SayAlive("10.77.0.1", 5300);
    if (round % 4 == 1) SubscribeService(handle_, name_.c_str(), kService);
    if (round % 4 == 2) device_.Notify(kService, round, "<Volume>1</Volume>");
    if (round % 4 == 3) UnSubscribeService(handle_, name_.c_str(), kService);
    if (round % 5 == 0) RescanNetwork(handle_, "urn:schemas-upnp-org:device:MediaServer:1");
    if (round % 7 == 3) device_.SayByebye("10.77.0.1", 5300);
    int client = 0;
    if (streaming::StartClient(&kMedia, media_.ip().c_str(), media_.port(), &client) == 0) {
      clients_.push_back(client);
      streaming::SendHTTPRequest(client, &request_);
    }
    vex_test::TcpClient(servers_->ip, servers_->port).Send("GET / HTTP/1.0\r\n\r\n");
  }

  void ExpectEachActionToEndOnce() {
    EXPECT_TRUE(WaitUntil([this] { return HostLog::Actions().size() >= sent_.size(); }))
        << HostLog::Actions().size() << " of " << sent_.size();
    std::multiset<int> ended;
    for (const ToldAction& action : HostLog::Actions()) ended.insert(action.action_id);
    for (const int id : sent_) EXPECT_EQ(1U, ended.count(id)) << id;
    EXPECT_EQ(sent_.size(), ended.size());
  }

  void ExpectToWork(const std::string& udn) {
    for (const int client : clients_) streaming::StopClientTransfer(client);
    clients_.clear();
    ScriptedDevice later(udn, {kService});
    const std::string name = rig_.Meet(later);
    const std::size_t before = HostLog::Actions().size();
    int id = 0;
    ASSERT_EQ(0, SendAction(handle_, name.c_str(), kService, "Play", nullptr, &id));
    sent_.insert(id);
    ASSERT_TRUE(WaitUntil([&] { return HostLog::Actions().size() == before + 1; }));
    EXPECT_EQ(CP_ERR_NONE, HostLog::Actions().back().code);
    ASSERT_EQ(0, SubscribeService(handle_, name.c_str(), kService));
    ASSERT_TRUE(WaitUntil(
        [&] { return later.Notify(kService, 0, "<A>1</A>").find("200") != std::string::npos; }));
    int client = 0;
    const int responses = media_responses;
    ASSERT_EQ(0, streaming::StartClient(&kMedia, media_.ip().c_str(), media_.port(), &client));
    ASSERT_EQ(0, streaming::SendHTTPRequest(client, &request_));
    EXPECT_TRUE(WaitUntil([&] { return media_responses > responses; }));
    streaming::StopClientTransfer(client);
    vex_test::TcpClient viewer(servers_->ip, servers_->port);
    ASSERT_TRUE(viewer.Send("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_NE(std::string::npos, viewer.ReadToEnd().find("200"));
    UnSubscribeService(handle_, name.c_str(), kService);
    later.SayByebye("10.77.0.1", 5300);
    ExpectToBeThere();
    // Nothing is under way any more: it leaves and comes back.
    const std::size_t told = HostLog::Devices().size();
    device_.SayByebye("10.77.0.1", 5300);
    ASSERT_TRUE(WaitUntil([&] {
      device_.SayAlive("10.77.0.1", 5300);
      const std::vector<vex_test::ToldDevice> all = HostLog::Devices();
      return std::any_of(
          all.begin() + static_cast<std::ptrdiff_t>(told), all.end(),
          [this](const vex_test::ToldDevice& one) { return one.event == 1 && one.udn == name_; });
    }));
  }

  // Whatever the want has left of it, the one that was there all the time is found by what it
  // announces, without a farewell.
  void ExpectToBeThere() {
    int id = 0;
    ASSERT_TRUE(WaitUntil([&] {
      device_.SayAlive("10.77.0.1", 5300);
      return SendAction(handle_, name_.c_str(), kService, "Play", nullptr, &id) == 0;
    }));
    sent_.insert(id);
    ASSERT_TRUE(WaitUntil([&] { return OutcomeOf(id) != nullptr; }));
    EXPECT_EQ(CP_ERR_NONE, OutcomeOf(id)->code);
  }
  static std::unique_ptr<ToldAction> OutcomeOf(int id) {
    for (const ToldAction& action : HostLog::Actions()) {
      if (action.action_id == id) return std::make_unique<ToldAction>(action);
    }
    return nullptr;
  }

  static streaming::ReqHeaderInfo MediaRequest() {
    streaming::ReqHeaderInfo request;
    streaming::InitializeRequestHeaderInfo(&request);
    request.request_type = vex_upnp::utils::HTTP_GET;
    request.http_version = streaming::HTTP_1_0;
    request.uri = vex_test::Literal("/media");
    return request;
  }

  const vex_test::Watchdog watchdog_{240};
  // An action that nobody answers ends after 600 ms.
  const vex_test::FasterTime faster_{50};
  vex_test::HostRig rig_;
  ScriptedDevice device_{"uuid:threads", {kService}};
  HttpPeer media_{[](PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\n12345");
  }};
  vex_test::MediaHost serving_;
  const streaming::ReqHeaderInfo request_ = MediaRequest();
  streaming::stServer* servers_ = nullptr;
  int configuration_ = 0;
  int handle_ = 0;
  std::string name_;
  std::set<int> sent_;
  std::vector<int> clients_;
};

TEST_F(FaultMemoryThreads, EverythingGoesOnAndEveryActionEndsOnce) {
  unsigned failures = 0;
  unsigned seed = 0;
  for (const unsigned period : {400U, 100U, 30U, 10U}) {
    {
      const FailOnLibraryThreads fail(period, ++seed);
      for (int round = 0; round < 30; ++round) Traffic(round);
      failures += fail.Failures();
    }
    ExpectEachActionToEndOnce();
    ExpectToWork("uuid:after-" + std::to_string(seed));
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(failures, 50U);
  ExpectEachActionToEndOnce();
}

// Every step of an accept that is tried again and again finds no memory now and then.
TEST_F(FaultMemoryThreads, RegressionTheEventServerStaysDeafForNoLack) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::unique_ptr<vex_test::TcpClient> visitor;
    {
      const vex_test::FailCalls no_descriptors(vex_test::SystemCall::kAccept, EMFILE);
      const FailOnLibraryThreads no_memory(2, seed);
      visitor.reset(new vex_test::TcpClient("10.77.0.1", 5100));
      ASSERT_TRUE(WaitUntil([&] { return no_descriptors.Failed() >= 20; })) << seed;
    }
    // Nobody is subscribed; whoever is let in is told so.
    ASSERT_TRUE(visitor->Send("NOTIFY /nobody HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
    ASSERT_EQ(5U, visitor->ReadBytes(5).size()) << seed;
  }
}

// The same for a streaming server, whose connections are taken without memory now and then.
TEST_F(FaultMemoryThreads, RegressionAStreamingServerStaysDeafForNoLack) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    {
      const FailOnLibraryThreads no_memory(2, seed);
      for (unsigned knock = 1; knock <= 4; ++knock) {
        const unsigned failures = no_memory.Failures();
        vex_test::TcpClient visitor(servers_->ip, servers_->port);
        ASSERT_TRUE(visitor.connected());
        ASSERT_TRUE(WaitUntil([&] { return no_memory.Failures() > failures; }));
      }
    }
    vex_test::TcpClient viewer(servers_->ip, servers_->port);
    ASSERT_TRUE(viewer.Send("GET / HTTP/1.0\r\n\r\n"));
    ASSERT_NE(std::string::npos, viewer.ReadToEnd().find("200")) << seed;
  }
}

TEST_F(FaultMemoryThreads, SlowManySeeds) {
  for (unsigned seed = 100; seed < 140; ++seed) {
    {
      const FailOnLibraryThreads fail(5 + seed % 60, seed);
      for (int round = 0; round < 25; ++round) Traffic(round);
    }
    ExpectEachActionToEndOnce();
    ExpectToWork("uuid:after-" + std::to_string(seed));
    if (HasFailure()) {
      FAIL() << "seed " << seed;
    }
  }
}

}  // namespace

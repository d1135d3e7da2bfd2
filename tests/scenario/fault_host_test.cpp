// A host that has run out of descriptors or threads, or whose system calls fail: no crash, a
// result, and everything works when the want is over.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/timer.h>

#include "tests/support/fail_calls.h"
#include "tests/support/host_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/media_host.h"
#include "tests/support/private_network.h"
#include "tests/support/raw_socket.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::FailCalls;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::NoDescriptors;
using vex_test::ScriptedDevice;
using vex_test::SystemCall;
using vex_test::TcpClient;
using vex_test::WaitUntil;
namespace core = vex_upnp::framework_core;
namespace streaming = vex_upnp::streaming;
namespace result = vex_upnp::result;

constexpr char kService[] = "RenderingControl";
constexpr char kType[] = "urn:schemas-upnp-org:device:MediaServer:1";

void OnMediaStatus(int, int, int) {}
void OnMediaResponse(int, int, streaming::ResHeaderInfo* response, void* body, unsigned int, bool) {
  streaming::FreeResponseHeader(response);
  streaming::Free(body);
}
void OnMediaData(int, int, void* data, unsigned int, bool) { streaming::Free(data); }
void OnMediaWritten(int, int, unsigned int) {}
constexpr streaming::ClientAppCallbacks kMedia = {OnMediaStatus, OnMediaResponse, OnMediaData,
                                                  OnMediaWritten};

// A control point with one device that it acts on, subscribes and streams with.
class FaultHost : public testing::Test {
 protected:
  void SetUp() override {
    handle_ = rig_.Register();
    name_ = rig_.Meet(device_);
    serving_.DoOnRequest([](const vex_test::MediaHost::Request& got) {
      const streaming::ResHeaderInfo response = vex_test::Response(200);
      streaming::SendHTTPResponse(got.server, got.session, &response, true);
    });
  }

  // All that needs the system, whatever comes of it.
  void TryAll() {
    int id = 0;
    if (SendAction(handle_, name_.c_str(), kService, "Play", nullptr, &id) == 0) ++sent_;
    RescanNetwork(handle_, kType);
    SubscribeService(handle_, name_.c_str(), kService);
    int client = 0;
    if (streaming::StartClient(&kMedia, "10.77.0.2", 9, &client) == 0) {
      streaming::StopClientTransfer(client);
    }
    streaming::stServer* servers = nullptr;
    int configuration = 0;
    if (streaming::StartServers(vex_test::MediaHost::callbacks(), "10.77.0.1", 21000, &servers,
                                &configuration) == 0) {
      streaming::StopServers(configuration);
    }
    streaming::FreeServerInfoList(servers);
    vex_upnp::network_layer::SendUDPPacket("10.77.0.2", 9, "x", 1);
    UnSubscribeService(handle_, name_.c_str(), kService);
  }

  void ExpectToWork() {
    // Every action that was taken on has ended, one way or the other.
    EXPECT_TRUE(WaitUntil([this] { return HostLog::Actions().size() == sent_; }));
    // What could not be ended stays listed until its control point goes.
    ASSERT_EQ(0, UnRegisterCP(handle_));
    handle_ = rig_.Register();
    ScriptedDevice later("uuid:later-" + std::to_string(++later_), {kService});
    const std::string name = rig_.Meet(later);
    int id = 0;
    ASSERT_EQ(0, SendAction(handle_, name.c_str(), kService, "Play", nullptr, &id));
    ++sent_;
    ASSERT_TRUE(WaitUntil([this] { return HostLog::Actions().size() == sent_; }));
    EXPECT_EQ(CP_ERR_NONE, HostLog::Actions().back().code);
    ASSERT_EQ(0, SubscribeService(handle_, name.c_str(), kService));
    ASSERT_TRUE(WaitUntil(
        [&] { return later.Notify(kService, 0, "<A>1</A>").find("200") != std::string::npos; }));
    EXPECT_EQ(0, UnSubscribeService(handle_, name.c_str(), kService));
    ExpectToServe();
    later.SayByebye("10.77.0.1", 5300);
  }

  void ExpectToServe() {
    streaming::stServer* servers = nullptr;
    int configuration = 0;
    ASSERT_EQ(0, streaming::StartServers(vex_test::MediaHost::callbacks(), "10.77.0.1", 21000,
                                         &servers, &configuration));
    TcpClient viewer("10.77.0.1", servers->port);
    ASSERT_TRUE(viewer.Send("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_NE(std::string::npos, viewer.ReadToEnd().find("200"));
    streaming::FreeServerInfoList(servers);
    EXPECT_EQ(0, streaming::StopServers(configuration));
  }

  const vex_test::Watchdog watchdog_{180};
  const vex_test::FasterTime faster_{50};
  HostRig rig_;
  ScriptedDevice device_{"uuid:host", {kService}};
  vex_test::MediaHost serving_;
  int handle_ = 0;
  std::string name_;
  std::size_t sent_ = 0;
  int later_ = 0;
};

struct CallFault {
  const char* name;
  SystemCall call;
  std::vector<int> errors;
};

const std::vector<CallFault>& CallFaults() {
  static const std::vector<CallFault> faults = {
      {"socket", SystemCall::kSocket, {ENOMEM, ENOBUFS, EPERM, EMFILE}},
      {"bind", SystemCall::kBind, {ENOMEM, EPERM, EADDRNOTAVAIL}},
      {"connect", SystemCall::kConnect, {ENOMEM, ENOBUFS, ENETUNREACH, EPERM, ECONNABORTED}},
      {"send", SystemCall::kSend, {ENOMEM, ENOBUFS, ENETUNREACH, EPERM}},
  };
  return faults;
}

TEST_F(FaultHost, SystemCallsFailWithAResultAndLeaveNoHarm) {
  for (const CallFault& fault : CallFaults()) {
    for (const int error : fault.errors) {
      SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(error));
      {
        const FailCalls fail(fault.call, error);
        TryAll();
        EXPECT_TRUE(WaitUntil([&] { return fail.Failed() > 0; }));
      }
      EXPECT_TRUE(WaitUntil([this] { return HostLog::Actions().size() == sent_; }));
    }
    ExpectToWork();
    if (HasFatalFailure()) return;
  }
}

// The first call of the kind fails, then the second, and so on.
TEST_F(FaultHost, ASingleFailedCallDoesNoMoreHarm) {
  for (const CallFault& fault : CallFaults()) {
    for (int nth = 1; nth <= 4; ++nth) {
      const FailCalls fail(fault.call, fault.errors.front(), nth, 1);
      TryAll();
    }
    ExpectToWork();
    if (HasFatalFailure()) return;
  }
}

TEST_F(FaultHost, AnInterruptedCallIsMadeAgainOrFails) {
  for (const SystemCall call : {SystemCall::kSend, SystemCall::kConnect}) {
    const FailCalls fail(call, EINTR, 1, 2);
    TryAll();
  }
  ExpectToWork();
}

// The connection stays in the kernel's queue: the next accept finds it.
TEST_F(FaultHost, AnAcceptThatFailsLosesNoEvent) {
  ASSERT_EQ(0, SubscribeService(handle_, name_.c_str(), kService));
  ASSERT_TRUE(WaitUntil(
      [this] { return device_.Notify(kService, 0, "<A>1</A>").find("200") != std::string::npos; }));
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, ECONNABORTED, EINTR}) {
    const FailCalls fail(SystemCall::kAccept, error, 1, 3);
    const std::size_t events = HostLog::Events().size();
    EXPECT_NE(std::string::npos, device_.Notify(kService, 1, "<A>2</A>").find("200")) << error;
    EXPECT_EQ(events + 1, HostLog::Events().size());
  }
  ExpectToWork();
}

// A device's event comes while there is no descriptor for its connection, which waits.
TEST_F(FaultHost, WithoutDescriptorsAnEventWaits) {
  ASSERT_EQ(0, SubscribeService(handle_, name_.c_str(), kService));
  ASSERT_TRUE(WaitUntil(
      [this] { return device_.Notify(kService, 0, "<A>1</A>").find("200") != std::string::npos; }));
  const std::size_t events = HostLog::Events().size();
  std::string answer;
  std::thread device;
  {
    const FailCalls none_left(SystemCall::kAccept, EMFILE);
    device = std::thread([&] { answer = device_.Notify(kService, 1, "<A>2</A>"); });
    ASSERT_TRUE(WaitUntil([&] { return none_left.Failed() > 2; }));
    EXPECT_EQ(events, HostLog::Events().size());
  }
  device.join();
  EXPECT_NE(std::string::npos, answer.find("200")) << answer;
  ExpectToWork();
}

TEST_F(FaultHost, WithoutDescriptorsEverythingFailsAndComesBack) {
  for (int round = 0; round < 3; ++round) {
    NoDescriptors none;
    int id = 0;
    // An exchange of before may be ending still, and give its descriptors to an action.
    EXPECT_TRUE(WaitUntil([&] {
      none.TakeWhatIsFree();
      const int code = SendAction(handle_, name_.c_str(), kService, "Play", nullptr, &id);
      if (code == 0) ++sent_;
      return code == CP_ERR_OPERATION_FAILED;
    }));
    EXPECT_EQ(0, RescanNetwork(handle_, kType));
    TryAll();
    // Looks at the interfaces go on meanwhile; they find nothing out and change nothing.
    core::NetworkInfo* list = nullptr;
    EXPECT_EQ(0, core::GetAvailableNetworkInterfaces(&list));
    core::FreeInterfaceList(list);
  }
  EXPECT_TRUE(HostLog::Devices().back().event == 1) << "the device was lost meanwhile";
  ExpectToWork();
}

TEST_F(FaultHost, ADeviceAnnouncedWithoutDescriptorsIsFoundAtItsNextAnnouncement) {
  ScriptedDevice other("uuid:announced", {kService});
  const std::size_t told = HostLog::Devices().size();
  {
    const FailCalls fail(SystemCall::kSocket, EMFILE);
    // The device's own socket is none of the library's.
    std::thread([&] { other.SayAlive("10.77.0.1", 5300); }).join();
    ASSERT_TRUE(WaitUntil([&] { return fail.Failed() > 0; }));
  }
  EXPECT_EQ(told, HostLog::Devices().size());
  EXPECT_TRUE(WaitUntil([&] {
    other.SayAlive("10.77.0.1", 5300);
    return HostLog::Devices().size() > told;
  }));
}

// Each start fails at another thread, up to the one that has them all.
TEST(FaultHostLife, WithoutThreadsTheStartDoesNoHarm) {
  const vex_test::Watchdog watchdog(180);
  const vex_test::FasterTime faster(50);
  const int threads = vex_test::ThreadCount();
  bool failed = true;
  int tries = 0;
  for (int nth = 1; failed; ++nth) {
    {
      const FailCalls fail(SystemCall::kThread, EAGAIN, nth);
      const int initialized = core::InitFrameworkCore("");
      EXPECT_TRUE(initialized == 0 || initialized == result::kFailure) << initialized;
      core::ConfigureServers(5100, 1900, 5300, false);
      core::StartFrameworkCore();
      core::StartNetworkMonitor();
      core::ConfigureApplicationOnAllInterfaces();
      InitializeGenericCP();
      failed = fail.Failed() > 0;
    }
    TerminateGenericCP();
    core::StopNetworkMonitor();
    core::TerminateFrameworkCore();
    ++tries;
    EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() <= threads; })) << nth;
  }
  EXPECT_GT(tries, 15);
  HostRig rig;
  ScriptedDevice device("uuid:after", {kService});
  rig.Register();
  rig.Meet(device);
}

std::atomic<bool> fired{false};
void NoteFired(int, void*) { fired = true; }

TEST(FaultHostLife, RegressionATimerGetsItsThreadAsSoonAsThereIsOne) {
  fired = false;
  {
    const FailCalls fail(SystemCall::kThread, EAGAIN);
    vex_upnp::utils::Timer::InitializeManager();
    vex_upnp::utils::Timer::Start(0, &NoteFired, nullptr);
    EXPECT_EQ(2, fail.Failed());
  }
  EXPECT_FALSE(fired);
  vex_upnp::utils::Timer::Start(0, &NoteFired, nullptr);
  EXPECT_TRUE(WaitUntil([] { return fired.load(); }));
  vex_upnp::utils::Timer::TerminateManager();
}

TEST_F(FaultHost, WithoutThreadsStreamingFailsAndStartsLater) {
  for (int nth = 1; nth <= 20; nth += 6) {
    const int threads = vex_test::ThreadCount();
    const FailCalls fail(SystemCall::kThread, EAGAIN, nth);
    streaming::stServer* servers = nullptr;
    int configuration = 0;
    EXPECT_EQ(result::kFailure,
              streaming::StartServers(vex_test::MediaHost::callbacks(), "10.77.0.1", 21000,
                                      &servers, &configuration));
    EXPECT_EQ(nullptr, servers);
    int client = 0;
    const FailCalls again(SystemCall::kThread, EAGAIN, nth);
    EXPECT_EQ(result::kFailure, streaming::StartClient(&kMedia, "10.77.0.2", 9, &client));
    EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() <= threads; }));
  }
  ExpectToWork();
}

// Checks behind a search, and of descriptions that did not come, take threads of their own.
TEST_F(FaultHost, WithoutThreadsASearchStandsInNobodysWay) {
  {
    const FailCalls fail(SystemCall::kThread, EAGAIN);
    RescanNetwork(handle_, kType);
    ASSERT_TRUE(WaitUntil([&] { return fail.Failed() > 0; }));
  }
  const FailCalls count(SystemCall::kThread, EAGAIN);
  EXPECT_TRUE(WaitUntil([&] {
    RescanNetwork(handle_, kType);
    return count.Failed() > 0;
  }));
}

TEST_F(FaultHost, WithoutAThreadTheInterfacesAreWatchedFromTheNextStartOn) {
  core::StopNetworkMonitor();
  {
    const FailCalls fail(SystemCall::kThread, EAGAIN);
    core::StartNetworkMonitor();
    EXPECT_EQ(1, fail.Failed());
  }
  ASSERT_EQ(0, core::StartNetworkMonitor());
  const vex_test::ScopedLinkDown down("lan0");
  EXPECT_TRUE(WaitUntil([] { return HostLog::Devices().back().event == 2; }));
}

}  // namespace

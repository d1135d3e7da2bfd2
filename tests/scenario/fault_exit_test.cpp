// A process that ends in the middle of everything, without having ended the library. Runs in a
// private network namespace.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/timer.h>

#include "tests/support/host_rig.h"
#include "tests/support/media_host.h"
#include "tests/support/media_peer.h"
#include "tests/support/raw_socket.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

namespace streaming = vex_upnp::streaming;
using vex_test::HostRig;
using vex_test::ScriptedDevice;

constexpr char kService[] = "RenderingControl";
constexpr char kLan0[] = "10.77.0.1";
constexpr int kStreamingPort = 22800;

// Nothing that callbacks touch may be destroyed at exit.
std::atomic<bool> exiting{false};
std::atomic<int> devices{0};
std::atomic<int> actions{0};
std::atomic<int> events{0};
std::atomic<int> streamed{0};
std::atomic<int> timers{0};

// Leaves the library's threads at their work for a while when whatever is destroyed at exit has
// been.
void RunOn() {
  if (exiting) std::this_thread::sleep_for(std::chrono::milliseconds(500));
}
// Before any object of the library, so that it is called behind all of them.
__attribute__((constructor(101))) void RegisterRunOn() { std::atexit(RunOn); }

void NoteDevice(int, CPDeviceInfo*) { ++devices; }
void NoteAction(int, errorcodes, CPArgument*, const char*) { ++actions; }
void NoteEvent(const char*, errorcodes, CPArgument*) { ++events; }

void Answer(int server, int session, streaming::ReqHeaderInfo* header, void* body, unsigned int,
            bool) {
  streaming::FreeRequestHeader(header);
  streaming::Free(body);
  const streaming::ResHeaderInfo ok = vex_test::Response(200);
  streaming::SendHTTPResponse(server, session, &ok, true);
  ++streamed;
}

void Serve() {
  static const streaming::ServerAppCallbacks callbacks = {
      [](int, int, int) {}, [](int, int, int) {}, Answer,
      [](int, int, void* data, unsigned int, bool) { streaming::Free(data); },
      [](int, int, unsigned int) {}};
  streaming::stServer* servers = nullptr;
  int configuration = 0;
  ASSERT_EQ(0,
            streaming::StartServers(&callbacks, kLan0, kStreamingPort, &servers, &configuration));
  const int port = servers->port;
  streaming::FreeServerInfoList(servers);
  std::thread([port] {
    for (;;) {
      vex_test::TcpClient client(kLan0, port);
      client.Send("GET / HTTP/1.1\r\n\r\n");
      client.ReadToEnd();
    }
  }).detach();
}

// The calls of a host, and what its network does, without an end.
void KeepBusy(int handle, const char* name, ScriptedDevice* device) {
  std::thread([handle, name] {
    for (;;) {
      int id = 0;
      SendAction(handle, name, kService, "Play", nullptr, &id);
      RescanNetwork(handle, nullptr);
      CPDeviceInfo* list = nullptr;
      if (GetDeviceList(handle, "upnp:rootdevice", &list) == 0) FreeDeviceList(list);
      vex_upnp::utils::Timer::Start(
          0, [](int, void*) { ++timers; }, nullptr);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }).detach();
  std::thread([] {
    for (;;) {
      vex_upnp::network_layer::NotifyNICAdded("lan8", "10.98.0.1", "255.255.255.0");
      vex_upnp::network_layer::NotifyNICRemoved("lan8");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }).detach();
  std::thread([device] {
    for (;;) {
      device->SayAlive(kLan0, 5300);
      device->Notify(kService, 0, "<A>1</A>");
    }
  }).detach();
}

// Whatever is made here stays.
void ExitInTheMiddle() {
  ::alarm(120);
  new vex_test::FasterTime(20);
  static HostRig* const rig = new HostRig;
  static ScriptedDevice* const device = new ScriptedDevice("uuid:exit", {kService});
  static const std::string* const name = new std::string("uuid:exit+lan0");
  ASSERT_NE(nullptr, rig);
  char type[] = "upnp:rootdevice";
  CPDeviceTypeInfo types = {type, nullptr};
  ControlPointCalbacks callbacks = {NoteEvent, NoteAction, NoteDevice, nullptr};
  int handle = 0;
  ASSERT_EQ(0, RegisterCP(&types, &callbacks, &handle));
  device->SayAlive(kLan0, 5300);
  ASSERT_TRUE(vex_test::WaitUntil([] { return devices > 0; }));
  ASSERT_EQ(0, vex_upnp::cp_discovery::EnableAutoRescanFeature());
  ASSERT_EQ(0, SubscribeService(handle, name->c_str(), kService));
  Serve();
  KeepBusy(handle, name->c_str(), device);
  ASSERT_TRUE(
      vex_test::WaitUntil([] { return actions > 0 && events > 0 && streamed > 0 && timers > 0; },
                          std::chrono::milliseconds(60000)));
  exiting = true;
  std::exit(0);
}

// The end of the process destroyed locks and lists that the library's threads were working with.
TEST(FaultExitDeathTest, RegressionAProcessMayEndWithoutEndingTheLibrary) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(ExitInTheMiddle(), testing::ExitedWithCode(0), "");
}

}  // namespace

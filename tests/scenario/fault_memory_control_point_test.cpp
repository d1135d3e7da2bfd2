// The exported functions of framework, discovery, control and the plain control point, called with
// each of their allocations failing in turn while a device is there.

#include <gtest/gtest.h>

#include <cstdlib>
#include <list>
#include <string>
#include <utility>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/host_rig.h"
#include "tests/support/memory_table.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::FailEach;
using vex_test::HostLog;
using vex_test::HostRig;
using vex_test::MemoryRow;
using vex_test::ScriptedDevice;
using vex_test::WaitUntil;
namespace core = vex_upnp::framework_core;
namespace control = vex_upnp::cp_control;
namespace discovery = vex_upnp::cp_discovery;
namespace result = vex_upnp::result;

constexpr char kRootDevice[] = "upnp:rootdevice";
constexpr char kAgent[] = "an-agent/1.0 with a name that is long enough for a block";

MemoryRow Row(std::vector<int> failures, std::function<void(int)> after = {}) {
  return {0, std::move(failures), std::move(after), false};
}
MemoryRow HostRow(std::function<void(int)> after = {}) {
  return Row({CP_ERR_OUT_OF_MEMORY}, std::move(after));
}

// A host with one device whose service is "RenderingControl".
class FaultMemoryHost : public testing::Test {
 protected:
  void SetUp() override {
    handle_ = rig_.Register();
    name_ = rig_.Meet(device_);
  }
  // The control point does all it is for.
  void ExpectToWork() {
    const std::size_t before = HostLog::Actions().size();
    int id = 0;
    EXPECT_EQ(0, SendAction(handle_, name_.c_str(), "RenderingControl", "Play", nullptr, &id));
    EXPECT_TRUE(WaitUntil([&] { return HostLog::Actions().size() == before + 1; }));
    EXPECT_EQ(0, SubscribeService(handle_, name_.c_str(), "RenderingControl"));
    EXPECT_TRUE(WaitUntil([&] {
      return device_.Notify("RenderingControl", 0, "<A>1</A>").find("200") != std::string::npos;
    }));
    EXPECT_TRUE(WaitUntil([&] {
      return UnSubscribeService(handle_, name_.c_str(), "RenderingControl") == CP_ERR_NONE;
    }));
  }

  const vex_test::Watchdog watchdog_{120};
  const vex_test::FasterTime faster_{20};
  HostRig rig_;
  ScriptedDevice device_{"uuid:a-device-with-a-long-name", {"RenderingControl"}};
  int handle_ = 0;
  std::string name_;
};

TEST_F(FaultMemoryHost, LooksAtDevices) {
  CPDeviceInfo* list = nullptr;
  EXPECT_GT(FailEach(
                "GetDeviceList", [&] { return GetDeviceList(handle_, kRootDevice, &list); },
                HostRow([&](int code) {
                  EXPECT_EQ(code == 0, list != nullptr);
                  if (list != nullptr) FreeDeviceList(list);
                  list = nullptr;
                })),
            5);
  ASSERT_EQ(0, GetDeviceList(handle_, kRootDevice, &list));
  FailEach("FreeDeviceList", [&] { FreeDeviceList(list); });
  CPDetailedDeviceInfo* info = nullptr;
  const char* const udn = name_.c_str();
  EXPECT_GT(FailEach(
                "GetDetailedDeviceInfo", [&] { return GetDetailedDeviceInfo(handle_, udn, &info); },
                HostRow([&](int code) {
                  EXPECT_EQ(code == 0, info != nullptr);
                  FreeDetailedDeviceInfo(info);
                  info = nullptr;
                })),
            10);
  ASSERT_EQ(0, GetDetailedDeviceInfo(handle_, udn, &info));
  FailEach("FreeDetailedDeviceInfo", [&] { FreeDetailedDeviceInfo(info); });
  char* text = nullptr;
  EXPECT_GT(FailEach(
                "GetServiceDescription",
                [&] { return GetServiceDescription(handle_, udn, "RenderingControl", &text); },
                HostRow([&](int) {
                  std::free(text);
                  text = nullptr;
                })),
            0);
  EXPECT_GT(FailEach("GenericCPSetUserAgent", [] { GenericCPSetUserAgent(kAgent); }), 0);
  FailEach("GenericCPGetUserAgent",
           [&] { return (text = GenericCPGetUserAgent()) != nullptr ? 1 : 0; },
           {1, {0}, [&](int) { std::free(text); }, false});
  ExpectToWork();
}

TEST_F(FaultMemoryHost, Registers) {
  char type[] = "urn:schemas-upnp-org:device:MediaServer:1";
  CPDeviceTypeInfo types = {type, nullptr};
  ControlPointCalbacks callbacks = vex_test::RecordingCallbacks();
  int handle = 0;
  EXPECT_GT(FailEach(
                "RegisterCP", [&] { return RegisterCP(&types, &callbacks, &handle); },
                Row({CP_ERR_FAILURE, CP_ERR_OUT_OF_MEMORY},
                    [&](int code) {
                      if (code == 0) {
                        EXPECT_EQ(0, UnRegisterCP(handle));
                      }
                    })),
            2);
  const char* const udn = name_.c_str();
  const auto open = [&](int) {
    EXPECT_EQ(0, RegisterCP(&types, &callbacks, &handle));
    EXPECT_EQ(0, SubscribeService(handle, udn, "RenderingControl"));
    int id = 0;
    EXPECT_EQ(0, SendAction(handle, udn, "RenderingControl", "Play", nullptr, &id));
  };
  open(0);
  FailEach(
      "UnRegisterCP", [&] { return UnRegisterCP(handle); }, HostRow(open));
  EXPECT_EQ(0, UnRegisterCP(handle));
  EXPECT_GT(FailEach(
                "RescanNetwork", [&] { return RescanNetwork(handle_, type); }, HostRow()),
            0);
  FailEach(
      "RescanNetwork", [&] { return RescanNetwork(handle_, nullptr); }, HostRow());
  ExpectToWork();
}

TEST_F(FaultMemoryHost, ActsAndEveryActionEndsOnce) {
  char name[] = "AnArgumentWithALongName";
  char value[] = "and a value that is long as well";
  CPArgument arguments = {name, value, nullptr};
  const char* const udn = name_.c_str();
  int id = 0;
  std::size_t sent = 0;
  EXPECT_GT(
      FailEach(
          "SendAction",
          [&] { return SendAction(handle_, udn, "RenderingControl", "Play", &arguments, &id); },
          Row({CP_ERR_OPERATION_FAILED, CP_ERR_OUT_OF_MEMORY},
              [&](int code) {
                sent += code == 0 ? 1 : 0;
                EXPECT_TRUE(WaitUntil([&] { return HostLog::Actions().size() == sent; }));
              })),
      10);
  device_.OnAction([](const vex_test::PeerRequest&) { return vex_test::Silence(); });
  const auto send = [&](int) {
    EXPECT_EQ(0, SendAction(handle_, udn, "RenderingControl", "Play", &arguments, &id));
  };
  send(0);
  FailEach(
      "CancelAction",
      [&] {
        CancelAction(handle_, id);
        return 0;
      },
      Row({}, send));
  CancelAction(handle_, id);
  EXPECT_EQ(sent, HostLog::Actions().size());
}

TEST_F(FaultMemoryHost, Subscribes) {
  const char* const udn = name_.c_str();
  const char* const service = "RenderingControl";
  // Only a subscription that was answered can be ended with success.
  int answered = 0;
  const auto await_answer = [&] {
    EXPECT_TRUE(WaitUntil([&] { return device_.Subscribes("RenderingControl") > answered; }));
    answered = device_.Subscribes("RenderingControl");
    EXPECT_TRUE(WaitUntil([&] {
      return device_.Notify("RenderingControl", 0, "<A>1</A>").find("200") != std::string::npos;
    }));
  };
  // A request that was on its way when memory gave out may have reached the device or not.
  const auto undo = [&](int code) {
    if (code != 0) return;
    await_answer();
    EXPECT_EQ(0, UnSubscribeService(handle_, udn, service));
  };
  EXPECT_GT(FailEach(
                "SubscribeService", [&] { return SubscribeService(handle_, udn, service); },
                Row({CP_ERR_OUT_OF_MEMORY, CP_ERR_OPERATION_FAILED, result::kFailure,
                     result::kRequestFailed, result::kNoMemory},
                    [&](int code) {
                      undo(code);
                      answered = device_.Subscribes("RenderingControl");
                    })),
            10);
  FailEach(
      "SubscribeDevice", [&] { return SubscribeDevice(handle_, udn); },
      Row({CP_ERR_OUT_OF_MEMORY, CP_ERR_OPERATION_FAILED, result::kFailure, result::kRequestFailed,
           result::kNoMemory},
          [&](int code) {
            if (code == 0) {
              await_answer();
              EXPECT_EQ(0, UnSubscribeDevice(handle_, udn));
            }
            answered = device_.Subscribes("RenderingControl");
          }));
  const auto subscribe = [&](int code) {
    // What failed stays listed until the control point goes.
    if (code != 0) {
      EXPECT_EQ(0, UnRegisterCP(handle_));
      handle_ = rig_.Register();
    }
    EXPECT_EQ(0, SubscribeService(handle_, udn, service));
    await_answer();
  };
  subscribe(0);
  FailEach(
      "UnSubscribeService", [&] { return UnSubscribeService(handle_, udn, service); },
      Row({CP_ERR_OUT_OF_MEMORY, CP_ERR_OPERATION_FAILED, result::kRequestFailed,
           result::kNoUpperLayer},
          subscribe));
  FailEach(
      "UnSubscribeDevice",
      [&] {
        const int code = UnSubscribeDevice(handle_, udn);
        return code;
      },
      Row({CP_ERR_OUT_OF_MEMORY}, [&](int) { subscribe(1); }));
  EXPECT_EQ(0, UnRegisterCP(handle_));
  handle_ = rig_.Register();
  ExpectToWork();
}

TEST_F(FaultMemoryHost, Discovery) {
  const std::string type = "urn:schemas-upnp-org:device:MediaServer:1";
  const std::string root = kRootDevice;
  const std::string agent = kAgent;
  const std::string ip = "10.77.0.2";
  std::string text;
  const auto forget = [&](int) { std::string().swap(text); };
  const MemoryRow row = Row({result::kOutOfMemory, result::kFailure});
  int handle = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::cp_discovery::RegisterCP",
                [&] { return discovery::RegisterCP(type, agent, nullptr, &handle); },
                Row({result::kOutOfMemory, result::kFailure},
                    [&](int code) {
                      if (code == 0) discovery::UnRegisterCP(handle);
                    })),
            3);
  const auto again = [&](int) { discovery::RegisterCP(type, agent, nullptr, &handle); };
  again(0);
  EXPECT_EQ(0, FailEach(
                   "vex_upnp::cp_discovery::UnRegisterCP",
                   [&] { return discovery::UnRegisterCP(handle); }, Row({}, again)));
  FailEach("vex_upnp::cp_discovery::Rescan", [&] { discovery::Rescan(type); });
  FailEach("vex_upnp::cp_discovery::RescanForRegisteredCP",
           [] { discovery::RescanForRegisteredCP(); });
  FailEach("vex_upnp::cp_discovery::SetRescanConnectTimeout",
           [] { discovery::SetRescanConnectTimeout(3); });
  FailEach("vex_upnp::cp_discovery::SetDefaultUserAgent",
           [&] { discovery::SetDefaultUserAgent(agent); });
  FailEach("vex_upnp::cp_discovery::GetDefaultUserAgent",
           [&] { discovery::GetDefaultUserAgent(text); });
  FailEach("vex_upnp::cp_discovery::EnableAutoRescanFeature", discovery::EnableAutoRescanFeature,
           Row({result::kOutOfMemory}, [](int) { discovery::DisableAutoRescanFeature(); }));
  FailEach("vex_upnp::cp_discovery::DisableAutoRescanFeature", discovery::DisableAutoRescanFeature,
           row);
  FailEach(
      "vex_upnp::cp_discovery::GetDeviceList",
      [&] {
        std::list<discovery::DeviceInfo> list;
        return discovery::GetDeviceList(root, &list);
      },
      row);
  FailEach(
      "vex_upnp::cp_discovery::GetDeviceDetailInfo",
      [&] {
        discovery::DetailedDeviceInfo info;
        return discovery::GetDeviceDetailInfo(name_, &info);
      },
      row);
  FailEach(
      "vex_upnp::cp_discovery::GetDeviceDescription",
      [&] { return discovery::GetDeviceDescription(name_, text); },
      Row({result::kOutOfMemory}, forget));
  const std::string service = "RenderingControl";
  FailEach(
      "vex_upnp::cp_discovery::GetServiceDescription",
      [&] { return discovery::GetServiceDescription(name_, service, text); },
      Row({result::kOutOfMemory}, forget));
  FailEach("vex_upnp::cp_discovery::GetProductCap",
           [&] { return discovery::GetProductCap(name_, text); },
           {result::kFailure, {result::kOutOfMemory}, forget, false});
  int domain = 0;
  FailEach(
      "vex_upnp::cp_discovery::getDeviceDomain",
      [&] { return discovery::getDeviceDomain(ip, domain); }, row);
  FailEach(
      "vex_upnp::cp_discovery::getDeviceInterface",
      [&] { return discovery::getDeviceInterface(ip, text); }, row);
  ExpectToWork();
}

TEST_F(FaultMemoryHost, Framework) {
  core::NetworkInfo* list = nullptr;
  FailEach(
      "vex_upnp::framework_core::GetAvailableNetworkInterfaces",
      [&] { return core::GetAvailableNetworkInterfaces(&list); }, Row({1}, [&](int code) {
        if (code == 0) core::FreeInterfaceList(list);
        list = nullptr;
      }));
  FailEach("vex_upnp::framework_core::FreeInterfaceList", [&] { core::FreeInterfaceList(list); });
  const std::string agent = kAgent;
  std::string text;
  FailEach("vex_upnp::framework_core::SetDefaultUserAgent",
           [&] { core::SetDefaultUserAgent(agent); });
  FailEach("vex_upnp::framework_core::GetDefaultUserAgent",
           [&] { core::GetDefaultUserAgent(text); });
  const MemoryRow row = Row({result::kFailure});
  FailEach(
      "vex_upnp::framework_core::ConfigureMulticastSupport",
      [] { return core::ConfigureMulticastSupport(true); }, row);
  FailEach(
      "vex_upnp::framework_core::ConfigureAutoRescanFeature",
      [] { return core::ConfigureAutoRescanFeature(true); },
      Row({result::kFailure}, [](int) { core::ConfigureAutoRescanFeature(false); }));
  FailEach("vex_upnp::framework_core::ConfigureApplicationOnAllInterfaces",
           core::ConfigureApplicationOnAllInterfaces, row);
  FailEach(
      "vex_upnp::framework_core::ConfigureApplicationOnInterface",
      [] { return core::ConfigureApplicationOnInterface("an-interface-with-a-long-name"); }, row);
  const std::string added = "an-added-name0";
  const std::string ip = "192.168.100.100";
  const std::string mask = "255.255.255.0";
  FailEach(
      "vex_upnp::framework_core::NotifyNICAdded",
      [&] { return core::NotifyNICAdded(added, ip, mask); },
      Row({result::kFailure}, [&](int) { core::NotifyNICRemoved(added); }));
  FailEach(
      "vex_upnp::framework_core::NotifyNICRemoved", [&] { return core::NotifyNICRemoved(added); },
      row);
  ExpectToWork();
}

// From nothing to a whole control point and back, each step without memory first.
TEST(FaultMemoryLife, FrameworkAndControlPoint) {
  const vex_test::Watchdog watchdog(120);
  const vex_test::FasterTime faster(20);
  const std::string unused;
  const auto end = [](int) { core::TerminateFrameworkCore(); };
  EXPECT_GT(FailEach(
                "vex_upnp::framework_core::InitFrameworkCore",
                [&] { return core::InitFrameworkCore(unused); }, Row({result::kFailure}, end)),
            20);
  ASSERT_EQ(0, core::InitFrameworkCore(unused));
  FailEach(
      "vex_upnp::framework_core::ConfigureServers",
      [] { return core::ConfigureServers(5100, 1900, 5300, false); },
      Row({result::kFailure, result::kTcpStartFailed, result::kBindFailed}));
  FailEach("vex_upnp::framework_core::StartFrameworkCore", core::StartFrameworkCore,
           Row({}, [](int) { core::StopFrameworkCore(); }));
  ASSERT_EQ(0, core::StartFrameworkCore());
  FailEach("vex_upnp::framework_core::StopFrameworkCore", core::StopFrameworkCore,
           Row({}, [](int) { core::StartFrameworkCore(); }));
  FailEach("vex_upnp::framework_core::StartNetworkMonitor", core::StartNetworkMonitor,
           Row({result::kFailure}, [](int) { core::StopNetworkMonitor(); }));
  ASSERT_EQ(0, core::StartNetworkMonitor());
  const auto no_profile = [](int) { core::TerminateUPnP(); };
  EXPECT_GT(FailEach(
                "vex_upnp::framework_core::InitializeUPnP",
                [] { return core::InitializeUPnP(core::INIT_TYPE_CP); },
                Row({result::kFailure, result::kOutOfMemory}, no_profile)),
            5);
  EXPECT_GT(FailEach("InitializeGenericCP", InitializeGenericCP,
                     Row({CP_ERR_OUT_OF_MEMORY, CP_ERR_INIT_FAILED},
                         [&](int) {
                           if (TerminateGenericCP() != 0) core::TerminateUPnP();
                         })),
            10);
  ASSERT_EQ(0, InitializeGenericCP());
  FailEach("TerminateGenericCP", TerminateGenericCP, HostRow([](int) {
             TerminateGenericCP();
             EXPECT_EQ(0, InitializeGenericCP());
           }));
  ASSERT_EQ(0, TerminateGenericCP());
  ASSERT_EQ(0, core::InitializeUPnP(core::INIT_TYPE_CP));
  FailEach("vex_upnp::framework_core::TerminateUPnP", core::TerminateUPnP,
           Row({result::kFailure}, [](int) {
             core::TerminateUPnP();
             core::InitializeUPnP(core::INIT_TYPE_CP);
           }));
  FailEach("vex_upnp::framework_core::StopNetworkMonitor", core::StopNetworkMonitor,
           Row({result::kFailure}));
  FailEach("vex_upnp::framework_core::TerminateFrameworkCore", core::TerminateFrameworkCore,
           {0,
            {result::kFailure},
            [&](int) {
              core::TerminateFrameworkCore();
              core::InitFrameworkCore(unused);
            },
            false});
  core::TerminateFrameworkCore();
  HostRig rig;
  ScriptedDevice device("uuid:later", {"RenderingControl"});
  rig.Register();
  rig.Meet(device);
}

TEST(FaultMemoryLife, Discovery) {
  const std::string unused;
  ASSERT_EQ(0, core::InitFrameworkCore(unused));
  const auto end = [](int) { EXPECT_EQ(0, discovery::Terminate()); };
  EXPECT_GT(FailEach("vex_upnp::cp_discovery::Initialize", discovery::Initialize,
                     Row({result::kFailure, result::kOutOfMemory}, end)),
            3);
  FailEach("vex_upnp::cp_discovery::Terminate", discovery::Terminate,
           Row({result::kOutOfMemory}, [](int) {
             discovery::Terminate();
             EXPECT_EQ(0, discovery::Initialize());
           }));
  discovery::Terminate();
  core::TerminateFrameworkCore();
}

TEST(FaultMemoryLife, Control) {
  const vex_test::FasterTime faster(20);
  vex_test::ActionLog actions;
  vex_test::EventLog events;
  vex_test::ControlPeer peer(vex_test::kDeviceAddress, 0, [](const vex_test::PeerRequest&) {
    return vex_test::Text(
        "HTTP/1.1 200 OK\r\nSID: uuid:s1\r\nTIMEOUT: Second-1800\r\n"
        "CONTENT-LENGTH: 0\r\n\r\n");
  });
  vex_test::ControlPeer quick(vex_test::kDeviceAddress, 0, [](const vex_test::PeerRequest&) {
    return vex_test::Text(
        "HTTP/1.1 200 OK\r\nSID: uuid:s2\r\nTIMEOUT: Second-0\r\n"
        "CONTENT-LENGTH: 0\r\n\r\n");
  });
  vex_test::ControlStack stack;
  stack.TerminateControl();
  FailEach(
      "vex_upnp::cp_control::Initialize",
      [] {
        control::Initialize();
        return 0;
      },
      Row({}, [&](int) {
        // All the same it renews what is subscribed.
        const int before = quick.Count();
        int handler = 0;
        EXPECT_EQ(0, control::Subscribe("uuid:1", quick.HostLine(), kAgent, stack.CallbackUrl(),
                                        quick.Url("/event"), &events, handler));
        EXPECT_TRUE(WaitUntil([&] { return quick.Count() > before + 1; }));
        control::Terminate();
      }));
  vex_test::ControlPeer mute(vex_test::kDeviceAddress, 0,
                             [](const vex_test::PeerRequest&) { return vex_test::Silence(); });
  const auto begin = [&](int) {
    control::Terminate();
    control::Initialize();
    int action = 0;
    EXPECT_EQ(0, control::SendAction("uuid:1", mute.HostLine(), kAgent, mute.Url("/control"),
                                     kAgent, kAgent, &actions, nullptr, action));
  };
  begin(0);
  FailEach(
      "vex_upnp::cp_control::Terminate",
      [] {
        control::Terminate();
        return 0;
      },
      Row({}, begin));
  const std::string agent = kAgent;
  std::string text;
  FailEach("vex_upnp::cp_control::SetDefaultUserAgent",
           [&] { control::SetDefaultUserAgent(agent); });
  FailEach("vex_upnp::cp_control::GetDefaultUserAgent",
           [&] { control::GetDefaultUserAgent(text); });
  const std::string udn = "uuid:a-device-with-a-long-name";
  const std::string host = peer.HostLine();
  const std::string url = peer.Url("/control");
  const std::string line = "SOAPACTION: \"urn:schemas-upnp-org:service:X:1#Go\"";
  int id = 0;
  std::size_t sent = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::cp_control::SendAction",
                [&] {
                  return control::SendAction(udn, host, line, url, agent, agent, &actions, nullptr,
                                             id);
                },
                Row({result::kRequestFailed, result::kOutOfMemory},
                    [&](int code) {
                      sent += code == 0 ? 1 : 0;
                      EXPECT_TRUE(WaitUntil([&] { return actions.ResultCount() == sent; }));
                    })),
            5);
  FailEach(
      "vex_upnp::cp_control::CancelAction", [&] { return control::CancelAction(id); }, Row({}));
  const std::string callback = stack.CallbackUrl();
  int handler = 0;
  const auto end_subscription = [&](int) {
    if (handler != 0) control::Unsubscribe(handler, host);
    handler = 0;
  };
  FailEach(
      "vex_upnp::cp_control::Subscribe",
      [&] { return control::Subscribe(udn, host, agent, callback, url, &events, handler); },
      Row({result::kFailure, result::kRequestFailed}, end_subscription));
  std::size_t answered = events.Outcomes().size();
  const auto subscribe = [&](int) {
    answered = events.Outcomes().size();
    EXPECT_EQ(0, control::Subscribe(udn, host, agent, callback, url, &events, handler));
    EXPECT_TRUE(WaitUntil([&] { return events.Outcomes().size() > answered; }));
  };
  subscribe(0);
  FailEach(
      "vex_upnp::cp_control::Unsubscribe", [&] { return control::Unsubscribe(handler, host); },
      Row({result::kRequestFailed}, subscribe));
  control::Terminate();
}

}  // namespace

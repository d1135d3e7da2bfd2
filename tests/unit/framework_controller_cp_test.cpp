#include <vexupnpcp/framework_controller_cp.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"

namespace vex_upnp {
namespace framework_core {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_FRAMEWORK_CONTROLLER";
constexpr char kInvalidType[] = "Invalid framework type!";

// No interface is selected in any of these tests, so nothing is opened and nothing goes out.
class FrameworkControllerTest : public testing::Test {
 protected:
  ~FrameworkControllerTest() override { TerminateFrameworkCore(); }

  static std::vector<std::string> Lines(const LogCapture& log, int level) {
    std::vector<std::string> texts;
    for (const vex_test::LogLine& line : log.Lines()) {
      if (line.tag == kTag && line.level == level) texts.push_back(line.text);
    }
    return texts;
  }
};

eInitType Type(int value) { return static_cast<eInitType>(value); }

// The state words, row by row.

TEST_F(FrameworkControllerTest, InitLeadsToInitializedAndASecondOneChangesNothing) {
  EXPECT_EQ(0, InitFrameworkCore("unread"));
  const int threads = vex_test::ThreadCount();
  LogCapture log;
  EXPECT_EQ(100, InitFrameworkCore(""));
  EXPECT_EQ(1, log.Count(16, kTag, "Entering InitFrameworkCore "));
  EXPECT_EQ(1, log.Count(16, kTag, " Returning from InitFrameworkCore "));
  EXPECT_TRUE(vex_test::ThreadsBecome(threads));
  EXPECT_EQ(101, StopFrameworkCore());
}

TEST_F(FrameworkControllerTest, InitOfAStartedFrameworkLeavesItStarted) {
  InitFrameworkCore("");
  StartFrameworkCore();
  EXPECT_EQ(100, InitFrameworkCore(""));
  EXPECT_EQ(0, StopFrameworkCore());
}

TEST_F(FrameworkControllerTest, InitLogsItsWay) {
  LogCapture log;
  InitFrameworkCore("");
  EXPECT_THAT(Lines(log, 16), ElementsAre("Entering InitFrameworkCore "));
  EXPECT_THAT(Lines(log, 4), ElementsAre("Exiting InitFrameworkCore "));
}

TEST_F(FrameworkControllerTest, StartNeedsInit) {
  EXPECT_EQ(101, StartFrameworkCore());
  InitFrameworkCore("");
  EXPECT_EQ(0, StartFrameworkCore());
  EXPECT_EQ(0, StartFrameworkCore());
}

TEST_F(FrameworkControllerTest, StopNeedsStart) {
  EXPECT_EQ(101, StopFrameworkCore());
  InitFrameworkCore("");
  EXPECT_EQ(101, StopFrameworkCore());
  StartFrameworkCore();
  EXPECT_EQ(0, StopFrameworkCore());
  EXPECT_EQ(101, StopFrameworkCore());
}

TEST_F(FrameworkControllerTest, TerminateNeedsInit) {
  LogCapture log;
  EXPECT_EQ(101, TerminateFrameworkCore());
  EXPECT_THAT(Lines(log, 16), ElementsAre("Error: VX_FC_UNINITIALIZED"));
  EXPECT_THAT(Lines(log, 4), ElementsAre("Enter TerminateFrameworkCore "));
}

TEST_F(FrameworkControllerTest, TerminateEndsAFrameworkThatWasNeverStarted) {
  InitFrameworkCore("");
  LogCapture log;
  EXPECT_EQ(0, TerminateFrameworkCore());
  EXPECT_THAT(Lines(log, 16), ElementsAre("StopNetworkLayer finished", "StopFrameworkCore finished",
                                          "Calling TerminateUPnP", "TerminateUPnP finished",
                                          "Timer Terminate finished"));
  EXPECT_THAT(Lines(log, 4), ElementsAre("Enter TerminateFrameworkCore ", "Exit"));
  EXPECT_EQ(101, StartFrameworkCore());
}

TEST_F(FrameworkControllerTest, TerminateEndsAStartedFrameworkWithItsProfile) {
  InitFrameworkCore("");
  StartFrameworkCore();
  InitializeUPnP(INIT_TYPE_CP);
  LogCapture log;
  EXPECT_EQ(0, TerminateFrameworkCore());
  EXPECT_THAT(Lines(log, 4), ElementsAre("Enter TerminateFrameworkCore ", "cp_discovery Terminated",
                                         "cp_control Terminated", "Exit"));
  EXPECT_EQ(0, InitFrameworkCore(""));
  EXPECT_EQ(101, StopFrameworkCore());
  // The profile went with it.
  EXPECT_EQ(0, InitializeUPnP(INIT_TYPE_CP));
}

TEST_F(FrameworkControllerTest, TheProfileNeedsTheFramework) {
  LogCapture log;
  EXPECT_EQ(101, InitializeUPnP(INIT_TYPE_CP));
  EXPECT_EQ(1, log.Count(16, kTag, "Calling InitializeUPnP"));
  EXPECT_EQ(0, log.Count("INIT CP"));
}

struct TypeCase {
  int type;
  int result;
  // What a second InitializeUPnP says: 100 when the type was stored.
  int again;
  const char* log;
};

TEST_F(FrameworkControllerTest, EachTypeStartsWhatItStandsFor) {
  const TypeCase cases[] = {
      {-1, 1, 0, nullptr},        {0, 1, 0, nullptr},         {1, 1, 0, nullptr},
      {3, 0, 100, "INIT CP_D"},   {5, 0, 100, "INIT CP"},     {2, 0, 100, kInvalidType},
      {4, 0, 100, kInvalidType},  {6, 0, 100, kInvalidType},  {7, 0, 100, kInvalidType},
      {-2, 0, 100, kInvalidType}, {99, 0, 100, kInvalidType},
  };
  for (const TypeCase& row : cases) {
    InitFrameworkCore("");
    LogCapture log;
    EXPECT_EQ(row.result, InitializeUPnP(Type(row.type))) << row.type;
    for (const char* text : {"INIT CP_D", "INIT CP", kInvalidType}) {
      EXPECT_EQ(row.log != nullptr && std::string(text) == row.log ? 1 : 0, log.Count(text))
          << row.type << " " << text;
    }
    EXPECT_EQ(row.again, InitializeUPnP(INIT_TYPE_CP)) << row.type;
    EXPECT_EQ(0, TerminateUPnP());
    EXPECT_EQ(0, TerminateFrameworkCore());
  }
}

TEST_F(FrameworkControllerTest, TerminateUPnPNeverFails) {
  LogCapture log;
  EXPECT_EQ(0, TerminateUPnP());
  EXPECT_EQ(1, log.Count(16, kTag, "Calling TerminateUPnP"));
  InitFrameworkCore("");
  EXPECT_EQ(0, TerminateUPnP());
  log.Clear();
  InitializeUPnP(INIT_TYPE_CP_DISCOVERY);
  EXPECT_EQ(0, TerminateUPnP());
  EXPECT_EQ(0, log.Count("cp_discovery Terminated"));
  EXPECT_EQ(1, log.Count("CP Discovery Terminate Finish"));
  InitializeUPnP(INIT_TYPE_CP);
  EXPECT_EQ(0, TerminateUPnP());
  EXPECT_EQ(1, log.Count(4, kTag, "cp_discovery Terminated"));
  EXPECT_EQ(1, log.Count(4, kTag, "cp_control Terminated"));
  EXPECT_EQ(0, TerminateUPnP());
}

TEST_F(FrameworkControllerTest, KeptAnUnknownTypeIsStoredAndSpoilsTheUserAgent) {
  InitFrameworkCore("");
  EXPECT_EQ(0, InitializeUPnP(Type(2)));
  LogCapture log;
  SetDefaultUserAgent("Agent/1.0");
  SetDefaultUserAgent("Agent/1.0");
  EXPECT_EQ(2, log.Count(16, kTag, kInvalidType));
  std::string agent = "untouched";
  GetDefaultUserAgent(agent);
  EXPECT_EQ("untouched", agent);
  EXPECT_EQ(3, log.Count(16, kTag, kInvalidType));
  TerminateUPnP();
  EXPECT_EQ(4, log.Count(16, kTag, kInvalidType));
}

TEST_F(FrameworkControllerTest, TheUserAgentNeedsAProfile) {
  LogCapture log;
  std::string agent = "untouched";
  SetDefaultUserAgent("Agent/1.0");
  GetDefaultUserAgent(agent);
  EXPECT_EQ("untouched", agent);
  EXPECT_EQ(2, log.Count(4, kTag, "Framework core not started!"));
}

TEST_F(FrameworkControllerTest, TheUserAgentGoesToDiscoveryAndToControlOfTheFullProfileOnly) {
  InitFrameworkCore("");
  InitializeUPnP(INIT_TYPE_CP);
  SetDefaultUserAgent("Full/1.0");
  std::string agent;
  GetDefaultUserAgent(agent);
  EXPECT_EQ("Full/1.0", agent);
  cp_control::GetDefaultUserAgent(agent);
  EXPECT_EQ("Full/1.0", agent);
  TerminateUPnP();
  InitializeUPnP(INIT_TYPE_CP_DISCOVERY);
  SetDefaultUserAgent("Discovery/1.0");
  cp_discovery::GetDefaultUserAgent(agent);
  EXPECT_EQ("Discovery/1.0", agent);
  cp_control::GetDefaultUserAgent(agent);
  EXPECT_NE("Discovery/1.0", agent);
}

TEST_F(FrameworkControllerTest, ServersNeedInit) {
  EXPECT_EQ(101, ConfigureServers(5000, 1900, 5001, true));
}

TEST_F(FrameworkControllerTest, WithoutPortsNoServerIsConfigured) {
  InitFrameworkCore("");
  LogCapture log;
  EXPECT_EQ(0, ConfigureServers(0, 0, 0, false));
  EXPECT_EQ(0, ConfigureServers(0, 0, 0, true));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(FrameworkControllerTest, TheMonitorNeedsInitToStartButNotToStop) {
  LogCapture log;
  EXPECT_EQ(101, StartNetworkMonitor());
  EXPECT_EQ(1, log.Count(16, kTag, "StartNetworkMonitor"));
  // Without a network layer it is that layer's failure.
  EXPECT_EQ(1, StopNetworkMonitor());
  EXPECT_EQ(1, log.Count(16, kTag, "StopNetworkMonitor "));
  InitFrameworkCore("");
  EXPECT_EQ(0, StopNetworkMonitor());
  EXPECT_EQ(0, StartNetworkMonitor());
  EXPECT_EQ(0, StopNetworkMonitor());
  // A monitor that still runs ends with the framework.
  EXPECT_EQ(0, StartNetworkMonitor());
}

TEST_F(FrameworkControllerTest, SelectingInterfacesAsksForNoState) {
  EXPECT_EQ(0, ConfigureApplicationOnAllInterfaces());
  EXPECT_EQ(0, ConfigureApplicationOnInterface("nic-that-is-not-there"));
  EXPECT_EQ(0, ConfigureApplicationOnInterface(nullptr));
}

TEST_F(FrameworkControllerTest, MulticastSupportNeedsAStartedFramework) {
  EXPECT_EQ(101, ConfigureMulticastSupport(true));
  InitFrameworkCore("");
  EXPECT_EQ(101, ConfigureMulticastSupport(true));
  EXPECT_EQ(101, ConfigureMulticastSupport(false));
  StartFrameworkCore();
  EXPECT_EQ(0, ConfigureMulticastSupport(false));
  EXPECT_EQ(0, ConfigureMulticastSupport(true));
}

void IgnoreDevices(int, cp_discovery::DeviceEventType, cp_discovery::DeviceInfo*) {}

TEST_F(FrameworkControllerTest, OnlyEnablingMulticastSearchesAnew) {
  InitFrameworkCore("");
  StartFrameworkCore();
  InitializeUPnP(INIT_TYPE_CP_DISCOVERY);
  int handle = 0;
  ASSERT_EQ(0, cp_discovery::RegisterCP("urn:schemas-upnp-org:device:MediaServer:1", "",
                                        IgnoreDevices, &handle));
  const auto discovery_lines = [](const LogCapture& log) {
    const std::vector<vex_test::LogLine> all = log.Lines();
    return std::count_if(all.begin(), all.end(), [](const vex_test::LogLine& line) {
      return line.tag == "VEX_CORE_CPDISCOVERY";
    });
  };
  LogCapture log;
  EXPECT_EQ(0, ConfigureMulticastSupport(false));
  EXPECT_EQ(0, discovery_lines(log));
  EXPECT_EQ(0, ConfigureMulticastSupport(true));
  EXPECT_GT(discovery_lines(log), 0);
}

struct RescanCase {
  int type;
  int result;
};

TEST_F(FrameworkControllerTest, AutoRescanAsksForAProfile) {
  LogCapture log;
  EXPECT_EQ(101, ConfigureAutoRescanFeature(true));
  EXPECT_EQ(1, log.Count(16, kTag, "CP discovery not initialized"));
  const RescanCase cases[] = {{3, 0}, {5, 0}, {2, 101}, {4, 101}, {7, 101}, {-2, 101}};
  for (const RescanCase& row : cases) {
    InitFrameworkCore("");
    InitializeUPnP(Type(row.type));
    EXPECT_EQ(row.result, ConfigureAutoRescanFeature(true)) << row.type;
    EXPECT_EQ(row.result, ConfigureAutoRescanFeature(false)) << row.type;
    TerminateFrameworkCore();
  }
}

TEST_F(FrameworkControllerTest, KeptTheThirdTypeMayAutoRescanThoughNothingRuns) {
  InitFrameworkCore("");
  EXPECT_EQ(0, InitializeUPnP(INIT_TYPE_CP_EXTENDED));
  EXPECT_EQ(0, ConfigureAutoRescanFeature(false));
}

TEST_F(FrameworkControllerTest, AListWantsAPointerToANullPointer) {
  InitFrameworkCore("");
  EXPECT_EQ(1, GetAvailableNetworkInterfaces(nullptr));
  NetworkInfo own = {};
  NetworkInfo* list = &own;
  EXPECT_EQ(1, GetAvailableNetworkInterfaces(&list));
  EXPECT_EQ(&own, list);
}

TEST_F(FrameworkControllerTest, WithoutASelectedInterfaceThereIsNoList) {
  NetworkInfo* list = nullptr;
  EXPECT_EQ(1, GetAvailableNetworkInterfaces(&list));
  InitFrameworkCore("");
  EXPECT_EQ(1, GetAvailableNetworkInterfaces(&list));
  EXPECT_EQ(nullptr, list);
  FreeInterfaceList(nullptr);
}

TEST_F(FrameworkControllerTest, ReportsOfInterfacesAreForwarded) {
  EXPECT_EQ(network_layer::NotifyNICRemoved("nic-that-is-not-there"),
            NotifyNICRemoved("nic-that-is-not-there"));
  EXPECT_EQ(network_layer::NotifyNICAdded("", "", ""), NotifyNICAdded("", "", ""));
}

}  // namespace
}  // namespace framework_core
}  // namespace vex_upnp

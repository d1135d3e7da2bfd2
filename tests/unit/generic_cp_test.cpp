#include <vexupnpcp/generic_cp.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <vexupnpcp/framework_controller_cp.h>
#include "base/host_memory.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace {

using vex_test::LogCapture;
using vex_upnp::FreePtr;
namespace framework_core = vex_upnp::framework_core;

constexpr char kTag[] = "VEX_CORE_GENERIC_CP";
constexpr int kUnknownHandle = 99;

char root_device[] = "upnp:rootdevice";
CPDeviceTypeInfo root_type = {root_device, nullptr};

void OnAction(int, errorcodes, CPArgument*, const char*) {}

// One call of an exported function and the code it has to give.
struct CodeCase {
  const char* name;
  std::function<int()> call;
  int code;
};

void ExpectCodes(const std::vector<CodeCase>& cases) {
  for (const CodeCase& row : cases) EXPECT_EQ(row.code, row.call()) << row.name;
}

// What the calls below write to; none of them has anything to write.
CPDeviceInfo* device_list = nullptr;
CPDetailedDeviceInfo* details = nullptr;
char* description = nullptr;
int number = 0;

TEST(GenericCpBeforeItsStart, EveryFunctionSaysSoWhateverElseIsWrong) {
  ExpectCodes({
      {"TerminateGenericCP", [] { return TerminateGenericCP(); }, 15003},
      {"RegisterCP", [] { return RegisterCP(&root_type, nullptr, &number); }, 15003},
      {"RegisterCP, nulls", [] { return RegisterCP(nullptr, nullptr, nullptr); }, 15003},
      {"UnRegisterCP", [] { return UnRegisterCP(1); }, 15003},
      {"GetDeviceList", [] { return GetDeviceList(1, "upnp:rootdevice", &device_list); }, 15003},
      {"GetDeviceList, nulls", [] { return GetDeviceList(1, nullptr, nullptr); }, 15003},
      {"FreeDeviceList", [] { return FreeDeviceList(nullptr); }, 15003},
      {"GetDetailedDeviceInfo", [] { return GetDetailedDeviceInfo(1, "uuid:1", &details); }, 15003},
      {"GetDetailedDeviceInfo, nulls", [] { return GetDetailedDeviceInfo(1, nullptr, nullptr); },
       15003},
      {"FreeDetailedDeviceInfo", [] { return FreeDetailedDeviceInfo(nullptr); }, 15003},
      {"GetServiceDescription",
       [] { return GetServiceDescription(1, "uuid:1", "AVTransport", &description); }, 15003},
      {"GetServiceDescription, nulls",
       [] { return GetServiceDescription(1, nullptr, nullptr, nullptr); }, 15003},
      {"RescanNetwork", [] { return RescanNetwork(1, "upnp:rootdevice"); }, 15003},
      {"RescanNetwork, null", [] { return RescanNetwork(1, nullptr); }, 15003},
      {"SendAction",
       [] { return SendAction(1, "uuid:1", "AVTransport", "Play", nullptr, &number); }, 15003},
      {"SendAction, nulls",
       [] { return SendAction(1, nullptr, nullptr, nullptr, nullptr, nullptr); }, 15003},
      {"SubscribeDevice", [] { return SubscribeDevice(1, "uuid:1"); }, 15003},
      {"SubscribeDevice, null", [] { return SubscribeDevice(1, nullptr); }, 15003},
      {"UnSubscribeDevice", [] { return UnSubscribeDevice(1, "uuid:1"); }, 15003},
      {"UnSubscribeDevice, null", [] { return UnSubscribeDevice(1, nullptr); }, 15003},
      {"SubscribeService", [] { return SubscribeService(1, "uuid:1", "AVTransport"); }, 15003},
      {"SubscribeService, nulls", [] { return SubscribeService(1, nullptr, nullptr); }, 15003},
      {"UnSubscribeService", [] { return UnSubscribeService(1, "uuid:1", "AVTransport"); }, 15003},
      {"UnSubscribeService, nulls", [] { return UnSubscribeService(1, nullptr, nullptr); }, 15003},
  });
}

TEST(GenericCpBeforeItsStart, RegisteringAndRescanningAreLogged) {
  LogCapture log;
  RegisterCP(nullptr, nullptr, nullptr);
  EXPECT_EQ(1, log.Count(4, kTag, "Cannot register CP. Generic CP not started."));
  RescanNetwork(1, nullptr);
  EXPECT_EQ(1, log.Count(4, kTag, "Cannot rescan network. Generic CP not started."));
}

TEST(GenericCpBeforeItsStart, CancellingAndTheUserAgentWork) {
  LogCapture log;
  CancelAction(1, 5);
  EXPECT_EQ(1, log.Count(4, kTag, "Invalid cp handle"));
  EXPECT_EQ(nullptr, GenericCPGetUserAgent());
  GenericCPSetUserAgent("Agent/1.0");
  EXPECT_STREQ("Agent/1.0", FreePtr<char>(GenericCPGetUserAgent()).get());
  GenericCPSetUserAgent(nullptr);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid params."));
  EXPECT_STREQ("Agent/1.0", FreePtr<char>(GenericCPGetUserAgent()).get());
  GenericCPSetUserAgent("");
  EXPECT_EQ(nullptr, GenericCPGetUserAgent());
}

TEST(GenericCpBeforeItsStart, TheFrameworkComesFirst) {
  LogCapture log;
  EXPECT_EQ(15002, InitializeGenericCP());
  EXPECT_EQ(1, log.Count(16, kTag, "Generic CP initialization failed."));
  EXPECT_EQ(15003, UnRegisterCP(1));
}

TEST(GenericCpBeforeItsStart, CompilesAsPlainC) {
  const std::string compile =
      "printf '#include <vexupnpcp/generic_cp.h>\\nint main(void) { return "
      "InitializeGenericCP(); }\\n' | gcc -std=c11 -pedantic -Wall -Werror -fsyntax-only -x c -I " +
      std::string(VEX_SOURCE_DIR) + "/include -";
  EXPECT_EQ(0, std::system(compile.c_str()));
}

// The framework with a control point on top, on no interface at all: nothing goes out.
class GenericCpTest : public testing::Test {
 protected:
  GenericCpTest() {
    EXPECT_EQ(0, framework_core::InitFrameworkCore(""));
    EXPECT_EQ(0, InitializeGenericCP());
  }
  ~GenericCpTest() override {
    TerminateGenericCP();
    EXPECT_EQ(0, framework_core::TerminateFrameworkCore());
  }

  int Register(ControlPointCalbacks* callbacks) {
    int handle = 0;
    EXPECT_EQ(0, RegisterCP(&root_type, callbacks, &handle));
    return handle;
  }
};

TEST_F(GenericCpTest, NullArgumentsAreInvalid) {
  const int handle = Register(nullptr);
  const auto send = [handle](const char* udn, const char* type, const char* action, int* id) {
    return [=] { return SendAction(handle, udn, type, action, nullptr, id); };
  };
  const auto describe = [handle](const char* udn, const char* type, char** out) {
    return [=] { return GetServiceDescription(handle, udn, type, out); };
  };
  ExpectCodes({
      {"RegisterCP, types", [] { return RegisterCP(nullptr, nullptr, &number); }, 15000},
      {"RegisterCP, handle", [] { return RegisterCP(&root_type, nullptr, nullptr); }, 15000},
      {"GetDeviceList, type", [=] { return GetDeviceList(handle, nullptr, &device_list); }, 15000},
      {"GetDeviceList, list", [=] { return GetDeviceList(handle, root_device, nullptr); }, 15000},
      {"FreeDeviceList", [] { return FreeDeviceList(nullptr); }, 15000},
      {"GetDetailedDeviceInfo, udn",
       [=] { return GetDetailedDeviceInfo(handle, nullptr, &details); }, 15000},
      {"GetDetailedDeviceInfo, info",
       [=] { return GetDetailedDeviceInfo(handle, "uuid:1", nullptr); }, 15000},
      {"FreeDetailedDeviceInfo", [] { return FreeDetailedDeviceInfo(nullptr); }, 0},
      {"GetServiceDescription, udn", describe(nullptr, "AVTransport", &description), 15000},
      {"GetServiceDescription, type", describe("uuid:1", nullptr, &description), 15000},
      {"GetServiceDescription, out", describe("uuid:1", "AVTransport", nullptr), 15000},
      {"RescanNetwork, type", [=] { return RescanNetwork(handle, nullptr); }, 0},
      {"SendAction, udn", send(nullptr, "AVTransport", "Play", &number), 15000},
      {"SendAction, type", send("uuid:1", nullptr, "Play", &number), 15000},
      {"SendAction, action", send("uuid:1", "AVTransport", nullptr, &number), 15000},
      {"SendAction, id", send("uuid:1", "AVTransport", "Play", nullptr), 15000},
      {"SubscribeDevice", [=] { return SubscribeDevice(handle, nullptr); }, 15000},
      {"UnSubscribeDevice", [=] { return UnSubscribeDevice(handle, nullptr); }, 15000},
      {"SubscribeService, udn", [=] { return SubscribeService(handle, nullptr, "AVTransport"); },
       15000},
      {"SubscribeService, type", [=] { return SubscribeService(handle, "uuid:1", nullptr); },
       15000},
      {"UnSubscribeService, udn",
       [=] { return UnSubscribeService(handle, nullptr, "AVTransport"); }, 15000},
      {"UnSubscribeService, type", [=] { return UnSubscribeService(handle, "uuid:1", nullptr); },
       15000},
  });
}

TEST_F(GenericCpTest, ARefusedRegistrationIsLogged) {
  LogCapture log;
  RegisterCP(nullptr, nullptr, &number);
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid params."));
}

TEST_F(GenericCpTest, UnknownHandlesHaveTheirCodes) {
  ExpectCodes({
      {"UnRegisterCP", [] { return UnRegisterCP(kUnknownHandle); }, 15000},
      {"GetDeviceList", [] { return GetDeviceList(kUnknownHandle, root_device, &device_list); },
       15000},
      {"GetDetailedDeviceInfo",
       [] { return GetDetailedDeviceInfo(kUnknownHandle, "uuid:1", &details); }, 15000},
      {"GetServiceDescription",
       [] { return GetServiceDescription(kUnknownHandle, "uuid:1", "AVTransport", &description); },
       15000},
      {"RescanNetwork", [] { return RescanNetwork(kUnknownHandle, root_device); }, 1},
      {"SendAction",
       [] { return SendAction(kUnknownHandle, "uuid:1", "AVTransport", "Play", nullptr, &number); },
       15000},
      {"SubscribeDevice", [] { return SubscribeDevice(kUnknownHandle, "uuid:1"); }, 15000},
      {"UnSubscribeDevice", [] { return UnSubscribeDevice(kUnknownHandle, "uuid:1"); }, 15000},
      {"SubscribeService", [] { return SubscribeService(kUnknownHandle, "uuid:1", "AVTransport"); },
       15000},
      {"UnSubscribeService",
       [] { return UnSubscribeService(kUnknownHandle, "uuid:1", "AVTransport"); }, 15000},
  });
}

TEST_F(GenericCpTest, UnknownDevicesHaveTheirCodes) {
  ControlPointCalbacks callbacks = {nullptr, OnAction, nullptr, nullptr};
  const int handle = Register(&callbacks);
  device_list = reinterpret_cast<CPDeviceInfo*>(&root_type);
  ExpectCodes({
      {"GetDeviceList", [=] { return GetDeviceList(handle, root_device, &device_list); }, 1},
      {"GetDetailedDeviceInfo", [=] { return GetDetailedDeviceInfo(handle, "uuid:1", &details); },
       1},
      {"GetServiceDescription",
       [=] { return GetServiceDescription(handle, "uuid:1", "AVTransport", &description); }, 1},
      {"SendAction",
       [=] { return SendAction(handle, "uuid:1", "AVTransport", "Play", nullptr, &number); },
       15004},
      {"SubscribeDevice", [=] { return SubscribeDevice(handle, "uuid:1"); }, 15000},
      {"UnSubscribeDevice", [=] { return UnSubscribeDevice(handle, "uuid:1"); }, 15000},
      {"SubscribeService", [=] { return SubscribeService(handle, "uuid:1", "AVTransport"); },
       15000},
      {"UnSubscribeService", [=] { return UnSubscribeService(handle, "uuid:1", "AVTransport"); },
       15010},
  });
  EXPECT_EQ(reinterpret_cast<CPDeviceInfo*>(&root_type), device_list);
}

TEST_F(GenericCpTest, HandlesRunOneThreeFive) {
  EXPECT_EQ(1, Register(nullptr));
  EXPECT_EQ(3, Register(nullptr));
  EXPECT_EQ(0, UnRegisterCP(3));
  EXPECT_EQ(15000, UnRegisterCP(3));
  EXPECT_EQ(5, Register(nullptr));
}

TEST_F(GenericCpTest, HandlesBeginAnewWithTheControlPoint) {
  EXPECT_EQ(1, Register(nullptr));
  EXPECT_EQ(0, TerminateGenericCP());
  EXPECT_EQ(15003, UnRegisterCP(1));
  EXPECT_EQ(0, InitializeGenericCP());
  EXPECT_EQ(1, Register(nullptr));
}

TEST_F(GenericCpTest, WithoutAnActionCallbackNoActionIsSent) {
  const int handle = Register(nullptr);
  EXPECT_EQ(15005, SendAction(handle, "uuid:1", "AVTransport", "Play", nullptr, &number));
}

TEST_F(GenericCpTest, ASecondStartFailsAndTheFirstGoesOn) {
  LogCapture log;
  EXPECT_EQ(15002, InitializeGenericCP());
  EXPECT_EQ(1, log.Count(16, kTag, "Generic CP initialization failed."));
  EXPECT_EQ(1, Register(nullptr));
}

TEST_F(GenericCpTest, ASecondEndSaysThatItHasEnded) {
  EXPECT_EQ(0, TerminateGenericCP());
  EXPECT_EQ(15003, TerminateGenericCP());
}

TEST_F(GenericCpTest, KeptWithTheProfileEndedUnderItTheStartFindsItRegistered) {
  ASSERT_EQ(0, framework_core::TerminateUPnP());
  LogCapture log;
  EXPECT_EQ(15001, InitializeGenericCP());
  EXPECT_EQ(1, log.Count(4, kTag, "Generic CP already initialized."));
}

TEST_F(GenericCpTest, KeptListsAreNotFreedAfterTheEnd) {
  CPDeviceInfo* const list = static_cast<CPDeviceInfo*>(std::calloc(1, sizeof(CPDeviceInfo)));
  EXPECT_EQ(0, TerminateGenericCP());
  EXPECT_EQ(15003, FreeDeviceList(list));
  EXPECT_EQ(0, InitializeGenericCP());
  EXPECT_EQ(0, FreeDeviceList(list));
}

TEST_F(GenericCpTest, ANodeWithoutTextsDoesNotBringTheHostDown) {
  ControlPointCalbacks callbacks = {nullptr, OnAction, nullptr, nullptr};
  const int handle = Register(&callbacks);
  CPArgument arguments = {nullptr, nullptr, nullptr};
  EXPECT_EQ(15004, SendAction(handle, "uuid:1", "AVTransport", "Play", &arguments, &number));
}

// No exception passes the plain functions, whatever the memory.
TEST_F(GenericCpTest, EachFailedAllocationIsACode) {
  ControlPointCalbacks callbacks = {nullptr, OnAction, nullptr, nullptr};
  const int handle = Register(&callbacks);
  const std::string long_text(100, 'u');
  const char* const udn = long_text.c_str();
  char name[] = "Speed";
  char value[] = "a value that is too long for a text without an allocation";
  CPArgument arguments = {name, value, nullptr};
  const std::vector<CodeCase> cases = {
      {"GetDeviceList", [=] { return GetDeviceList(handle, udn, &device_list); }, 1},
      {"GetDetailedDeviceInfo", [=] { return GetDetailedDeviceInfo(handle, udn, &details); }, 1},
      {"GetServiceDescription",
       [=] { return GetServiceDescription(handle, udn, udn, &description); }, 1},
      {"RescanNetwork", [=] { return RescanNetwork(handle, udn); }, 0},
      {"SendAction", [&] { return SendAction(handle, udn, udn, udn, &arguments, &number); }, 15004},
      {"SubscribeDevice", [=] { return SubscribeDevice(handle, udn); }, 15000},
      {"SubscribeService", [=] { return SubscribeService(handle, udn, udn); }, 15000},
      {"UnSubscribeService", [=] { return UnSubscribeService(handle, udn, udn); }, 15010},
  };
  for (const CodeCase& row : cases) {
    int code = 0;
    const int failures = vex_test::EachAllocationFails(
        [&] { code = row.call(); },
        [&](bool failed) {
          EXPECT_TRUE(code == row.code || (failed && code == 15008)) << row.name << " " << code;
        });
    EXPECT_GT(failures, 0) << row.name;
  }
  GenericCPSetUserAgent(udn);
  vex_test::EachAllocationFails([&] { description = GenericCPGetUserAgent(); },
                                [&](bool failed) {
                                  EXPECT_EQ(failed, description == nullptr);
                                  std::free(description);
                                });
  description = nullptr;
}

}  // namespace

#include "src/generic_cp_manager.h"

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/generic_cp_utils.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

using cp_discovery::DEVICE_ADDED;
using cp_discovery::DEVICE_REMOVED;
using cp_discovery::DeviceEventType;
using cp_discovery::DeviceInfo;
using testing::ElementsAre;
using testing::IsEmpty;
using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_GENERIC_CP";
constexpr char kServer[] = "urn:schemas-upnp-org:device:MediaServer:";

// What a host was told, as texts; plain functions have nowhere else to put it. The tests call them
// on their own thread.
std::vector<std::string> told;

std::string TextOf(const char* text) {
  return text != nullptr ? "'" + std::string(text) + "'" : "null";
}

std::string ListOf(const CPArgument* list) {
  if (list == nullptr) return "none";
  std::string text;
  for (; list != nullptr; list = list->next) {
    text += (text.empty() ? "" : ",") + std::string(list->name) + "=" + list->value;
  }
  return text;
}

void OnAction(int action_id, errorcodes code, CPArgument* output, const char* description) {
  told.push_back("action " + std::to_string(action_id) + " " + std::to_string(code) + " " +
                 ListOf(output) + " " + TextOf(description));
}

void OnDevice(int event, CPDeviceInfo* device) {
  told.push_back("A " + std::to_string(event) + " " + device->udn);
}

void OnDeviceOfB(int event, CPDeviceInfo* device) {
  told.push_back("B " + std::to_string(event) + " " + device->udn);
}

void OnEvent(const char*, errorcodes, CPArgument*) {}

// A list of types as a host writes it.
class Types {
 public:
  Types(std::initializer_list<const char*> types) {
    for (const char* type : types) texts_.push_back(type != nullptr ? type : "");
    std::size_t i = 0;
    for (const char* type : types) {
      nodes_.push_back({type != nullptr ? &texts_[i][0] : nullptr, nullptr});
      ++i;
    }
    for (std::size_t n = 0; n + 1 < nodes_.size(); ++n) nodes_[n].next = &nodes_[n + 1];
  }
  const CPDeviceTypeInfo* head() const { return nodes_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<CPDeviceTypeInfo> nodes_;
};

class GenericCPManagerTest : public testing::Test {
 protected:
  GenericCPManagerTest() : manager_(GenericCPManager::GetInstance()) { told.clear(); }
  ~GenericCPManagerTest() override { GenericCPManager::DestroyInstance(); }

  int Register(const Types& types, const ControlPointCalbacks& callbacks) {
    int handle = 0;
    EXPECT_EQ(CP_ERR_NONE, manager_->RegisterCP(types.head(), &callbacks, &handle));
    return handle;
  }

  int RegisterForActions() {
    return Register({"upnp:rootdevice"}, {nullptr, OnAction, nullptr, nullptr});
  }
  int RegisterForDevices(const Types& types) {
    return Register(types, {nullptr, nullptr, OnDevice, nullptr});
  }

  void Notify(const std::string& device_type, DeviceEventType event = DEVICE_ADDED) {
    DeviceInfo info;
    info.udn = "uuid:1+lan0";
    info.device_type = device_type;
    manager_->DeviceNotifyCallback(1, event, &info);
  }

  boost::shared_ptr<GenericCPManager> manager_;
};

TEST_F(GenericCPManagerTest, HandlesAreOneThreeFive) {
  EXPECT_EQ(1, RegisterForActions());
  EXPECT_EQ(3, RegisterForActions());
  EXPECT_EQ(CP_ERR_NONE, manager_->UnRegisterCP(3));
  EXPECT_EQ(5, RegisterForActions());
}

TEST_F(GenericCPManagerTest, UnknownHandlesAreInvalid) {
  LogCapture log;
  std::list<DeviceInfo> list;
  cp_discovery::DetailedDeviceInfo details;
  std::string text;
  EXPECT_EQ(15000, manager_->UnRegisterCP(1));
  EXPECT_EQ(15000, manager_->GetDeviceList(1, "upnp:rootdevice", list));
  EXPECT_EQ(15000, manager_->GetDetailedDeviceInfo(1, "uuid:1", details));
  EXPECT_EQ(15000, manager_->GetServiceDescription(1, "uuid:1", "AVTransport", text));
  EXPECT_EQ(4, log.Count(16, kTag, "Invalid params."));
  EXPECT_EQ(15000, manager_->SubscribeDevice(1, "uuid:1"));
  EXPECT_EQ(15000, manager_->UnSubscribeDevice(1, "uuid:1"));
  log.Clear();
  int id = 0;
  std::list<cp_utils::CPUtilsArgument> arguments;
  EXPECT_EQ(15000, manager_->SendAction(1, "uuid:1", "AVTransport", "Play", arguments, &id));
  EXPECT_EQ(1, log.Count(4, kTag, "Invalid params."));
  EXPECT_EQ(15000, manager_->SubscribeService(1, "uuid:1", "AVTransport"));
  EXPECT_EQ(15000, manager_->UnSubscribeService(1, "uuid:1", "AVTransport"));
  EventCallback callback = nullptr;
  EXPECT_EQ(15000, manager_->GetEventListenerForCP(1, callback));
  EXPECT_EQ(3, log.Count(4, kTag, "Registered cp list for given handle is empty."));
  manager_->CancelAction(1, 77);
  EXPECT_EQ(1, log.Count(4, kTag, "Invalid cp handle"));
}

TEST_F(GenericCPManagerTest, KeptRescanOfAnUnknownHandleGivesThePlainFailure) {
  LogCapture log;
  EXPECT_EQ(1, manager_->Rescan(7, ""));
  EXPECT_EQ(1, log.Count(16, kTag, "Handle not valid"));
}

TEST_F(GenericCPManagerTest, NoActionWithoutItsCallback) {
  LogCapture log;
  const int handle = RegisterForDevices({"upnp:rootdevice"});
  int id = 0;
  std::list<cp_utils::CPUtilsArgument> arguments;
  EXPECT_EQ(15005, manager_->SendAction(handle, "uuid:1", "AVTransport", "Play", arguments, &id));
  EXPECT_EQ(1, log.Count(4, kTag, "Callback not registered for given handle."));
}

TEST_F(GenericCPManagerTest, NullCallbacksAreAccepted) {
  const Types types{"upnp:rootdevice"};
  int handle = 0;
  EXPECT_EQ(CP_ERR_NONE, manager_->RegisterCP(types.head(), nullptr, &handle));
  EXPECT_EQ(1, handle);
  Notify(std::string(kServer) + "1");
  EventCallback callback = OnEvent;
  EXPECT_EQ(CP_ERR_NONE, manager_->GetEventListenerForCP(handle, callback));
  EXPECT_EQ(nullptr, callback);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericCPManagerTest, UserAgentIsKeptAsGiven) {
  EXPECT_EQ("", manager_->GetUserAgent());
  manager_->SetUserAgent("Agent/1.0");
  EXPECT_EQ("Agent/1.0", manager_->GetUserAgent());
}

TEST_F(GenericCPManagerTest, RegistrationWithoutMemoryGivesThePlainFailure) {
  LogCapture log;
  const Types types{"urn:schemas-upnp-org:device:MediaRenderer:1", "upnp:rootdevice"};
  const ControlPointCalbacks callbacks = {OnEvent, OnAction, OnDevice, nullptr};
  std::vector<int> handles;
  int handle = 0;
  int code = 0;
  int failures = 0;
  vex_test::EachAllocationFails(
      [&] {
        handle = -7;
        code = manager_->RegisterCP(types.head(), &callbacks, &handle);
      },
      [&](bool failed) {
        failures += failed ? 1 : 0;
        EXPECT_EQ(failed ? 1 : 0, code);
        EXPECT_EQ(failed, handle == -7);
      });
  EXPECT_GT(failures, 3);
  EXPECT_EQ(CP_ERR_NONE, manager_->UnRegisterCP(handle));
}

// Which devices a control point is told of.

struct MatchCase {
  const char* registered;
  const char* device;
  bool told;
};

TEST_F(GenericCPManagerTest, TypesMatchByStemAndVersion) {
  const MatchCase cases[] = {
      {"urn:schemas-upnp-org:device:MediaServer:1", "urn:schemas-upnp-org:device:MediaServer:1",
       true},
      {"urn:schemas-upnp-org:device:MediaServer:1", "urn:schemas-upnp-org:device:MediaServer:2",
       true},
      {"urn:schemas-upnp-org:device:MediaServer:3", "urn:schemas-upnp-org:device:MediaServer:2",
       false},
      {"urn:schemas-upnp-org:device:MediaServer:3", "urn:schemas-upnp-org:device:MediaServer:x",
       true},
      {"urn:schemas-upnp-org:device:MediaServer:3",
       "urn:schemas-upnp-org:device:MediaServer:", true},
      {"urn:schemas-upnp-org:device:MediaServer:3", "urn:schemas-upnp-org:device:MediaServer:0",
       true},
      {"urn:schemas-upnp-org:device:MediaServer:x", "urn:schemas-upnp-org:device:MediaServer:1",
       true},
      {"urn:schemas-upnp-org:device:MediaServer:1", "urn:schemas-upnp-org:device:MediaRenderer:1",
       false},
      {"urn:schemas-upnp-org:device:MediaServer:1", "urn:schemas-upnp-org:device:Media:1", false},
      // Only as many characters as the registered stem has are compared.
      {"urn:schemas-upnp-org:device:Media:1", "urn:schemas-upnp-org:device:MediaServer:1", true},
      {"upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1", true},
      {"upnp:rootdevice", "", true},
      {"ssdp:all", "urn:schemas-upnp-org:device:MediaServer:1", false},
      {"urn:schemas-upnp-org:device:MediaServer:1", "", false},
      {"", "urn:schemas-upnp-org:device:MediaServer:1", true},
  };
  for (const MatchCase& row : cases) {
    told.clear();
    const int handle = RegisterForDevices({row.registered});
    Notify(row.device);
    EXPECT_EQ(row.told ? 1U : 0U, told.size()) << row.registered << " / " << row.device;
    EXPECT_EQ(CP_ERR_NONE, manager_->UnRegisterCP(handle));
  }
}

TEST_F(GenericCPManagerTest, ControlPointsAreToldInTheOrderOfTheirHandles) {
  Register({"upnp:rootdevice"}, {nullptr, nullptr, OnDeviceOfB, nullptr});
  RegisterForDevices({"upnp:rootdevice"});
  Notify("urn:x:device:Foo:1");
  EXPECT_THAT(told, ElementsAre("B 1 uuid:1+lan0", "A 1 uuid:1+lan0"));
}

TEST_F(GenericCPManagerTest, KeptTwoMatchingTypesTellTwice) {
  RegisterForDevices({"urn:x:device:Foo:1", "urn:x:device:Bar:1", "upnp:rootdevice"});
  Notify("urn:x:device:Foo:1");
  EXPECT_THAT(told, ElementsAre("A 1 uuid:1+lan0", "A 1 uuid:1+lan0"));
}

TEST_F(GenericCPManagerTest, NullTypesArePassedOver) {
  RegisterForDevices({nullptr, "urn:x:device:Foo:1"});
  Notify("urn:x:device:Bar:1");
  EXPECT_THAT(told, IsEmpty());
  Notify("urn:x:device:Foo:1");
  EXPECT_THAT(told, ElementsAre("A 1 uuid:1+lan0"));
}

TEST_F(GenericCPManagerTest, EverythingButAnAddedDeviceIsARemovedOne) {
  RegisterForDevices({"upnp:rootdevice"});
  Notify("urn:x:device:Foo:1", DEVICE_REMOVED);
  Notify("urn:x:device:Foo:1", static_cast<DeviceEventType>(7));
  EXPECT_THAT(told, ElementsAre("A 2 uuid:1+lan0", "A 2 uuid:1+lan0"));
}

TEST_F(GenericCPManagerTest, ANullDeviceIsOnlyLogged) {
  LogCapture log;
  RegisterForDevices({"upnp:rootdevice"});
  manager_->DeviceNotifyCallback(1, DEVICE_ADDED, nullptr);
  EXPECT_EQ(1, log.Count(4, kTag, "device info is null."));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericCPManagerTest, ADeviceWithoutMemoryForItsRecordIsOnlyLogged) {
  LogCapture log;
  RegisterForDevices({"upnp:rootdevice"});
  DeviceInfo info;
  {
    const vex_test::FailAlloc fail(1);
    manager_->DeviceNotifyCallback(1, DEVICE_ADDED, &info);
  }
  EXPECT_EQ(1, log.Count(16, kTag, "GetCPDeviceInfoFromDeviceInfo failed."));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericCPManagerTest, NotificationsDoNotBringAnEndedManagerBack) {
  RegisterForDevices({"upnp:rootdevice"});
  GenericCPManager::DestroyInstance();
  DeviceInfo info;
  device_notify_callback(1, DEVICE_ADDED, &info);
  EXPECT_EQ(nullptr, GenericCPManager::ExistingInstance().get());
  EXPECT_THAT(told, IsEmpty());
}

// What becomes of an answer.

std::string Soap(const std::string& content) {
  return "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">"
         "<s:Body>" +
         content + "</s:Body></s:Envelope>";
}

std::string Fault(const std::string& detail) {
  return Soap(
      "<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">" +
      detail + "</UPnPError></detail></s:Fault>");
}

const char kPlayResponse[] =
    "<u:PlayResponse xmlns:u=\"urn:schemas-upnp-org:service:AVTransport:1\">"
    "<One>1</One><Two>b c</Two></u:PlayResponse>";

struct AnswerCase {
  const char* name;
  int status;
  std::string body;
  const char* told;
};

TEST_F(GenericCPManagerTest, AnswersReachTheHost) {
  const AnswerCase cases[] = {
      {"output arguments", 200, Soap(kPlayResponse), "action 9 0 One=1,Two=b c null"},
      {"no SOAP at all", 200, "hello", "action 9 15006 none null"},
      {"empty body", 200, "", "action 9 15006 none null"},
      {"malformed content", 200, Soap("<a><b></a>"), "action 9 15006 none null"},
      {"fault", 500,
       Fault("<errorCode>714</errorCode><errorDescription>Illegal MIME</errorDescription>"),
       "action 9 15006 none 'Illegal MIME'"},
      {"fault without a description", 500, Fault("<errorCode>714</errorCode>"),
       "action 9 15006 none 'Action Failed'"},
      {"fault with an empty description", 500,
       Fault("<errorCode>714</errorCode><errorDescription></errorDescription>"),
       "action 9 15006 none 'Action Failed'"},
      {"fault whose code is no number", 500,
       Fault("<errorCode>abc</errorCode><errorDescription>Words</errorDescription>"),
       "action 9 15006 none null"},
      {"fault without a code or a description", 500, Fault("<other>1</other>"),
       "action 9 15006 none null"},
      {"failed without SOAP", 404, "<html>not found</html>", "action 9 15006 none null"},
      {"other status than 200", 202, Soap(kPlayResponse), "action 9 15006 none null"},
  };
  const int handle = RegisterForActions();
  for (const AnswerCase& row : cases) {
    told.clear();
    manager_->OnResponseReceived(9, row.status, row.body, new int(handle));
    EXPECT_THAT(told, ElementsAre(row.told)) << row.name;
  }
}

TEST_F(GenericCPManagerTest, KeptASuccessWithoutOutputArgumentsCountsAsFailed) {
  const int handle = RegisterForActions();
  manager_->OnResponseReceived(
      9, 200, Soap("<u:PlayResponse xmlns:u=\"urn:x:service:AVTransport:1\"></u:PlayResponse>"),
      new int(handle));
  EXPECT_THAT(told, ElementsAre("action 9 15006 none null"));
}

TEST_F(GenericCPManagerTest, KeptAFaultWithADescriptionButNoCodeIsReadLikeASuccess) {
  const int handle = RegisterForActions();
  manager_->OnResponseReceived(
      9, 500, Soap("<s:Fault><errorDescription>Words</errorDescription></s:Fault>"),
      new int(handle));
  EXPECT_THAT(told, ElementsAre("action 9 0 errorDescription=Words null"));
}

TEST_F(GenericCPManagerTest, TheMadeUpFaultOfATimeOutCarriesItsWords) {
  const int handle = RegisterForActions();
  manager_->OnResponseReceived(
      9, 500,
      "<?xml version=\"1.0\"?><s:Envelopexmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/"
      "\"s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault>"
      "<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
      "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>801</errorCode>"
      "<errorDescription>Action Timeout</errorDescription></UPnPError></detail></s:Fault></s:Body>"
      "</s:Envelope>",
      new int(handle));
  EXPECT_THAT(told, ElementsAre("action 9 15006 none 'Action Timeout'"));
}

TEST_F(GenericCPManagerTest, AnAnswerAfterUnregisteringIsDropped) {
  LogCapture log;
  const int handle = RegisterForActions();
  ASSERT_EQ(CP_ERR_NONE, manager_->UnRegisterCP(handle));
  manager_->OnResponseReceived(9, 200, Soap(kPlayResponse), new int(handle));
  EXPECT_THAT(told, IsEmpty());
  EXPECT_EQ(1, log.Count(4, kTag, "Registered cp list for given context is empty."));
}

TEST_F(GenericCPManagerTest, AnAnswerWithoutAContextIsADuplicate) {
  LogCapture log;
  RegisterForActions();
  manager_->OnResponseReceived(9, 200, Soap(kPlayResponse), nullptr);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_EQ(1, log.Count(4, kTag, "Invalid context!"));
}

TEST_F(GenericCPManagerTest, AnAnswerForWhomHasNoCallbackIsDropped) {
  const int handle = RegisterForDevices({"upnp:rootdevice"});
  manager_->OnResponseReceived(9, 200, Soap(kPlayResponse), new int(handle));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericCPManagerTest, ContextsAreFreedOnce) {
  manager_->DeleteContext(new int(1));
  manager_->DeleteContext(nullptr);
}

TEST_F(GenericCPManagerTest, AnAnswerWithoutMemoryIsToldOnceWithACode) {
  const int handle = RegisterForActions();
  const std::string body = Soap(kPlayResponse);
  int* context = nullptr;
  // The callback's own texts need memory too, so runs that fail there are recognised by silence.
  for (int nth = 1;; ++nth) {
    told.clear();
    told.reserve(4);
    context = new int(handle);
    bool failed = false;
    try {
      const vex_test::FailAlloc fail(nth);
      manager_->OnResponseReceived(9, 200, body, context);
      failed = fail.Failed();
    } catch (const std::bad_alloc&) {
      continue;
    }
    ASSERT_EQ(1U, told.size()) << nth;
    if (!failed) {
      EXPECT_EQ("action 9 0 One=1,Two=b c null", told[0]);
      break;
    }
    EXPECT_TRUE(told[0] == "action 9 15008 none null" || told[0] == "action 9 15006 none null" ||
                told[0] == "action 9 0 One=1,Two=b c null")
        << nth << ": " << told[0];
  }
}

}  // namespace
}  // namespace generic_cp
}  // namespace vex_upnp

#include "src/generic_subscribe_handle.h"

#include <gmock/gmock.h>

#include <new>
#include <string>
#include <vector>

#include "src/generic_cp_manager.h"
#include "src/generic_host_callback.h"
#include "tests/support/fail_alloc.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> told;
boost::weak_ptr<GenericSubscribeHandle> watched;
bool drop_inside = false;
GenericCPInfo::HandlePointer held;

void OnEvent(const char* udn, errorcodes code, CPArgument* variables) {
  std::string text = std::string(udn) + " " + std::to_string(code);
  for (const CPArgument* one = variables; one != nullptr; one = one->next) {
    text += std::string(" ") + one->name + "=" + one->value;
  }
  if (drop_inside) held.reset();
  text += watched.expired() ? " gone" : "";
  text += HostCallbackScope::Inside() ? "" : " unmarked";
  told.push_back(text);
}

std::string PropertySet(const std::string& properties) {
  return "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">" + properties +
         "</e:propertyset>";
}

class GenericSubscribeHandleTest : public testing::Test {
 protected:
  GenericSubscribeHandleTest() : manager_(GenericCPManager::GetInstance()) {
    told.clear();
    drop_inside = false;
  }
  ~GenericSubscribeHandleTest() override {
    held.reset();
    GenericCPManager::DestroyInstance();
  }

  GenericCPInfo::HandlePointer Make(void (*event_callback)(const char*, errorcodes, CPArgument*)) {
    const ControlPointCalbacks callbacks = {event_callback, nullptr, nullptr, nullptr};
    int handle = 0;
    manager_->RegisterCP(nullptr, &callbacks, &handle);
    GenericCPInfo::HandlePointer made(
        new GenericSubscribeHandle(handle, "uuid:1+lan0", "AVTransport"));
    watched = made;
    return made;
  }

  boost::shared_ptr<GenericCPManager> manager_;
};

TEST_F(GenericSubscribeHandleTest, KnowsWhatItWasMadeFor) {
  const GenericCPInfo::HandlePointer handle = Make(OnEvent);
  EXPECT_EQ("uuid:1+lan0", handle->GetSubscribedDeviceUdn());
  EXPECT_EQ("AVTransport", handle->GetSubscribedServiceType());
}

TEST_F(GenericSubscribeHandleTest, AnEventReachesTheHostWithItsVariables) {
  Make(OnEvent)->OnEventReceived(
      PropertySet("<e:property><A>1</A></e:property><e:property><B val=\"2\">x</B></e:property>"));
  EXPECT_THAT(told, ElementsAre("uuid:1+lan0 0 A=1 B=2"));
}

TEST_F(GenericSubscribeHandleTest, AMalformedEventIsToldWithoutVariables) {
  const GenericCPInfo::HandlePointer handle = Make(OnEvent);
  handle->OnEventReceived("<e:propertyset><broken");
  handle->OnEventReceived("no XML");
  handle->OnEventReceived(PropertySet(""));
  EXPECT_THAT(told, ElementsAre("uuid:1+lan0 15007", "uuid:1+lan0 15007", "uuid:1+lan0 15007"));
}

TEST_F(GenericSubscribeHandleTest, WithoutACallbackOrAControlPointTheEventIsDropped) {
  const std::string body = PropertySet("<e:property><A>1</A></e:property>");
  Make(nullptr)->OnEventReceived(body);
  const GenericCPInfo::HandlePointer handle = Make(OnEvent);
  manager_->UnRegisterCP(3);
  handle->OnEventReceived(body);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericSubscribeHandleTest, AnEventDoesNotBringAnEndedManagerBack) {
  const GenericCPInfo::HandlePointer handle = Make(OnEvent);
  GenericCPManager::DestroyInstance();
  handle->OnEventReceived(PropertySet("<e:property><A>1</A></e:property>"));
  EXPECT_EQ(nullptr, GenericCPManager::ExistingInstance().get());
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(GenericSubscribeHandleTest, LivesThroughACallbackThatLetsItGo) {
  held = Make(OnEvent);
  GenericSubscribeHandle* const listener = held.get();
  drop_inside = true;
  listener->OnEventReceived(PropertySet("<e:property><A>1</A></e:property>"));
  EXPECT_THAT(told, ElementsAre("uuid:1+lan0 0 A=1"));
  EXPECT_TRUE(watched.expired());
}

TEST_F(GenericSubscribeHandleTest, AnEventWithoutMemoryIsToldWithACode) {
  const GenericCPInfo::HandlePointer handle = Make(OnEvent);
  const std::string body = PropertySet("<e:property><A>1</A></e:property>");
  int failures = 0;
  for (int nth = 1;; ++nth) {
    told.clear();
    told.reserve(4);
    bool failed = false;
    try {
      const vex_test::FailAlloc fail(nth);
      handle->OnEventReceived(body);
      failed = fail.Failed();
    } catch (const std::bad_alloc&) {
      // The callback's own texts.
      continue;
    }
    ASSERT_EQ(1U, told.size()) << nth;
    if (!failed) break;
    ++failures;
    EXPECT_TRUE(told[0] == "uuid:1+lan0 15008" || told[0] == "uuid:1+lan0 15007" ||
                told[0] == "uuid:1+lan0 0 A=1")
        << nth << ": " << told[0];
  }
  EXPECT_GT(failures, 0);
}

TEST_F(GenericSubscribeHandleTest, AnUnknownDeviceIsInvalid) {
  EXPECT_EQ(15000, Make(OnEvent)->Prepare());
}

}  // namespace
}  // namespace generic_cp
}  // namespace vex_upnp

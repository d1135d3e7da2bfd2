#include "src/networkinterface.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <new>
#include <string>
#include <vector>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/interface_recorder.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {

inline bool operator==(const NetInfo& a, const NetInfo& b) {
  return a.name == b.name && a.ip_address == b.ip_address && a.subnet_mask == b.subnet_mask;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using vex_test::InterfaceRecorder;
using vex_test::LogCapture;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";

NetInfo Info(const std::string& name, const std::string& ip,
             const std::string& mask = "255.255.255.0") {
  NetInfo info;
  info.name = name;
  info.ip_address = ip;
  info.subnet_mask = mask;
  return info;
}

// A registry of its own for each test; what a scan "finds" is given to it as a list.
class NetworkInterfaceTest : public testing::Test {
 protected:
  void SetUp() override { registry_ = NetworkInterface::GetInstance(); }
  void TearDown() override {
    registry_.reset();
    NetworkInterface::DestroyInstance();
  }

  void Found(std::vector<NetInfo> list) {
    registry_->ScanAvailableNetworkInterface(list);
    EXPECT_THAT(list, IsEmpty());
  }
  std::vector<NetInfo> Available() {
    std::vector<NetInfo> all;
    GetNetworkInterfaces(&all);
    return all;
  }
  std::vector<NetInfo> Active() {
    std::vector<NetInfo> active;
    GetActiveSelectedNetworkInterfaces(&active);
    return active;
  }
  // Events are delivered on other threads: one more is raised and waited for, then what came
  // before it is all there is.
  std::vector<InterfaceRecorder::Event> EventsOf(InterfaceRecorder& recorder) {
    registry_->NotifyNICIfEvent(NIC_ADDED, "last");
    const InterfaceRecorder::Event last("last", NIC_ADDED);
    EXPECT_TRUE(WaitUntil([&] {
      const auto events = recorder.events();
      return !events.empty() && events.back() == last;
    }));
    auto events = recorder.events();
    if (!events.empty()) events.pop_back();
    return events;
  }

  boost::shared_ptr<NetworkInterface> registry_;
};

TEST_F(NetworkInterfaceTest, AnInterfaceSelectedBeforeItExistsIsAddedByTheFirstScanThatFindsIt) {
  InterfaceRecorder recorder;
  EXPECT_EQ(result::kNo, registry_->SelectNetworkInterface("eth0"));
  Found({Info("eth0", "10.0.0.1")});
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("eth0", NIC_ADDED)));
  EXPECT_THAT(Active(), ElementsAre(Info("eth0", "10.0.0.1")));
}

TEST_F(NetworkInterfaceTest, SelectingWhatIsUpRaisesOneEventHoweverOftenItIsSelected) {
  LogCapture log;
  InterfaceRecorder recorder;
  Found({Info("eth0", "10.0.0.1")});
  EXPECT_EQ(result::kYes, registry_->SelectNetworkInterface("eth0"));
  EXPECT_EQ(0, log.Count("NetworkInterface is already selected"));
  EXPECT_EQ(result::kYes, registry_->SelectNetworkInterface("eth0"));
  EXPECT_EQ(1, log.Count("NetworkInterface is already selected"));
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("eth0", NIC_ADDED)));
  EXPECT_THAT(registry_->GetSelectedNetworkInterfaces(), ElementsAre("eth0"));
}

TEST_F(NetworkInterfaceTest, AnEmptyNameIsNeitherSelectedNorFound) {
  LogCapture log;
  EXPECT_EQ(result::kNo, registry_->SelectNetworkInterface(""));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid param!!!"));
  EXPECT_THAT(registry_->GetSelectedNetworkInterfaces(), IsEmpty());
  Found({Info("eth0", "10.0.0.1")});
  NetInfo info;
  EXPECT_EQ(result::kFailure, registry_->GetNetworkInformationMA("", info));
  EXPECT_EQ(NetInfo(), info);
}

TEST_F(NetworkInterfaceTest, UnselectingWhatIsUpRaisesRemovedAndWhatIsDownNothing) {
  InterfaceRecorder recorder;
  EXPECT_EQ(result::kNo, registry_->UnselectNetworkInterface("eth0"));
  registry_->SelectNetworkInterface("eth0");
  EXPECT_EQ(result::kYes, registry_->UnselectNetworkInterface("eth0"));
  EXPECT_THAT(EventsOf(recorder), IsEmpty());

  Found({Info("eth0", "10.0.0.1")});
  registry_->SelectNetworkInterface("eth0");
  EXPECT_EQ(result::kYes, registry_->UnselectNetworkInterface("eth0"));
  EXPECT_EQ(result::kNo, registry_->UnselectNetworkInterface("eth0"));
  registry_->NotifyNICIfEvent(NIC_ADDED, "end");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 4; }));
  EXPECT_EQ(InterfaceRecorder::Event("eth0", NIC_ADDED), recorder.events()[1]);
  EXPECT_EQ(InterfaceRecorder::Event("eth0", NIC_REMOVED), recorder.events()[2]);
}

TEST_F(NetworkInterfaceTest, DownAndUpAgainStaysSelected) {
  InterfaceRecorder recorder;
  registry_->SelectNetworkInterface("eth0");
  Found({Info("eth0", "10.0.0.1")});
  Found({});
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(registry_->GetSelectedNetworkInterfaces(), ElementsAre("eth0"));
  Found({Info("eth0", "10.0.0.1")});
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("eth0", NIC_ADDED), Pair("eth0", NIC_REMOVED),
                                              Pair("eth0", NIC_ADDED)));
}

TEST_F(NetworkInterfaceTest, AnUnselectedInterfaceIsKnownButNotActiveAndRaisesNothing) {
  InterfaceRecorder recorder;
  Found({Info("eth0", "10.0.0.1")});
  EXPECT_THAT(Available(), ElementsAre(Info("eth0", "10.0.0.1")));
  EXPECT_THAT(Active(), IsEmpty());
  Found({Info("eth0", "10.0.0.2")});
  EXPECT_THAT(Available(), ElementsAre(Info("eth0", "10.0.0.2")));
  Found({});
  EXPECT_THAT(Available(), IsEmpty());
  EXPECT_THAT(EventsOf(recorder), IsEmpty());
}

TEST_F(NetworkInterfaceTest, ActiveInterfacesAreAppendedInTheOrderInWhichTheyWereFound) {
  registry_->SelectNetworkInterface("c");
  registry_->SelectNetworkInterface("a");
  Found({Info("a", "10.0.0.1"), Info("b", "10.0.1.1"), Info("c", "10.0.2.1")});
  std::vector<NetInfo> active = {Info("before", "1.2.3.4")};
  GetActiveSelectedNetworkInterfaces(&active);
  EXPECT_THAT(active,
              ElementsAre(Info("before", "1.2.3.4"), Info("a", "10.0.0.1"), Info("c", "10.0.2.1")));
  // The whole list replaces what was there.
  std::vector<NetInfo> all = active;
  GetNetworkInterfaces(&all);
  EXPECT_EQ(3U, all.size());
}

TEST_F(NetworkInterfaceTest, AnInterfaceIsFoundByItsExactNameOrAddress) {
  LogCapture log;
  NetInfo info;
  EXPECT_EQ(result::kFailure, GetNetworkInterface("eth0", info));
  EXPECT_EQ(result::kFailure, GetNetworkInterfaceByIP("10.0.0.1", info));
  EXPECT_EQ(1, log.Count("available_net_interfaces_ empty!"));

  Found({Info("eth0", "10.0.0.1"), Info("eth0:1", "10.0.0.2")});
  EXPECT_EQ(result::kOk, GetNetworkInterface("eth0:1", info));
  EXPECT_EQ(Info("eth0:1", "10.0.0.2"), info);
  EXPECT_EQ(result::kOk, GetNetworkInterfaceByIP("10.0.0.1", info));
  EXPECT_EQ(Info("eth0", "10.0.0.1"), info);

  EXPECT_EQ(result::kFailure, GetNetworkInterface("eth", info));
  EXPECT_EQ(result::kFailure, GetNetworkInterfaceByIP("", info));
  EXPECT_EQ(1, log.Count("local ip address empty!"));
  EXPECT_EQ(result::kFailure, GetNetworkInterfaceByIP("10.0.0", info));
  EXPECT_EQ(1, log.Count("No info for local ip 10.0.0!"));
  EXPECT_EQ(Info("eth0", "10.0.0.1"), info);
}

TEST_F(NetworkInterfaceTest, RemovingFromAListTakesTheFirstEntryOfTheName) {
  std::vector<NetInfo> list = {Info("a", "1"), Info("b", "2"), Info("b", "3")};
  EXPECT_EQ(result::kOk, registry_->RemoveNetworkInterfaceInfo(list, "b"));
  EXPECT_THAT(list, ElementsAre(Info("a", "1"), Info("b", "3")));
  EXPECT_EQ(result::kFailure, registry_->RemoveNetworkInterfaceInfo(list, "c"));
  EXPECT_EQ(2U, list.size());
}

TEST_F(NetworkInterfaceTest, WithAllConfiguredWhatIsFoundIsSelectedAndAdded) {
  InterfaceRecorder recorder;
  EXPECT_EQ(result::kYes, ConfigureOnAllNetworkInterfaces(true));
  Found({Info("a", "10.0.0.1"), Info("b", "10.0.1.1")});
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("a", NIC_ADDED), Pair("b", NIC_ADDED)));
  EXPECT_THAT(registry_->GetSelectedNetworkInterfaces(), ElementsAre("a", "b"));
}

TEST_F(NetworkInterfaceTest, TheFreeFunctionsGiveOneWhateverTheSelectionSays) {
  std::string name = "eth0";
  EXPECT_EQ(1, ConfigureNetworkInterface(name, true));
  EXPECT_EQ(1, ConfigureNetworkInterface(name, false));
  EXPECT_EQ(1, ConfigureNetworkInterface(name, false));
  std::string empty;
  EXPECT_EQ(1, ConfigureNetworkInterface(empty, true));
  EXPECT_EQ(1, ConfigureOnAllNetworkInterfaces(false));
}

TEST_F(NetworkInterfaceTest, AnotherAddressIsARemovalAndAChangeWithTheOldAddressStillOnRecord) {
  vex_test::FasterTime faster(10);
  registry_->SelectNetworkInterface("eth0");
  Found({Info("eth0", "10.0.0.1")});
  std::vector<std::string> addresses;
  std::vector<std::chrono::steady_clock::time_point> times;
  InterfaceRecorder recorder([&](const InterfaceRecorder::Event& event) {
    if (event.first != "eth0") return;
    NetInfo info;
    registry_->GetNetworkInformationMA("eth0", info);
    addresses.push_back(info.ip_address);
    times.push_back(std::chrono::steady_clock::now());
  });
  const auto begin = std::chrono::steady_clock::now();
  Found({Info("eth0", "10.0.0.2")});
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_THAT(EventsOf(recorder),
              ElementsAre(Pair("eth0", NIC_REMOVED), Pair("eth0", NIC_IPCHANGED)));
  EXPECT_EQ("10.0.0.2", addresses.at(1));
  // The first may be told late, the second never early.
  EXPECT_GE(times.at(1) - begin, std::chrono::milliseconds(50));
}

TEST_F(NetworkInterfaceTest, KeptAChangedMaskAloneIsNotNoticed) {
  InterfaceRecorder recorder;
  registry_->SelectNetworkInterface("eth0");
  Found({Info("eth0", "10.0.0.1", "255.255.255.0")});
  Found({Info("eth0", "10.0.0.1", "255.255.0.0")});
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("eth0", NIC_ADDED)));
  EXPECT_THAT(Available(), ElementsAre(Info("eth0", "10.0.0.1", "255.255.255.0")));
}

TEST_F(NetworkInterfaceTest, RemovalsComeBeforeAdditions) {
  InterfaceRecorder recorder;
  for (const char* name : {"a", "b", "c"}) registry_->SelectNetworkInterface(name);
  Found({Info("a", "10.0.0.1"), Info("b", "10.0.1.1")});
  Found({Info("c", "10.0.2.1")});
  EXPECT_THAT(EventsOf(recorder),
              ElementsAre(Pair("a", NIC_ADDED), Pair("b", NIC_ADDED), Pair("a", NIC_REMOVED),
                          Pair("b", NIC_REMOVED), Pair("c", NIC_ADDED)));
}

// All left the record before the first was told, and what threw there left the others untold for
// ever, with their servers running.
TEST_F(NetworkInterfaceTest, RegressionWithoutMemoryALossIsToldAtTheNextLook) {
  const std::vector<NetInfo> three = {Info("a", "10.0.0.1"), Info("b", "10.0.1.1"),
                                      Info("c", "10.0.2.1")};
  for (const NetInfo& info : three) registry_->SelectNetworkInterface(info.name);
  for (const bool reported : {false, true}) {
    SCOPED_TRACE(reported);
    bool failed = true;
    int nth = 0;
    while (failed) {
      Found(three);
      InterfaceRecorder recorder;
      {
        const vex_test::FailAlloc fail(++nth);
        try {
          std::vector<NetInfo> none;
          if (reported) {
            NotifyNICRemoved("a");
          } else {
            registry_->ScanAvailableNetworkInterface(none);
          }
        } catch (const std::bad_alloc&) {
        }
        failed = fail.Failed();
      }
      Found({});
      const auto events = EventsOf(recorder);
      for (const NetInfo& info : three) {
        EXPECT_THAT(events, testing::Contains(Pair(info.name, NIC_REMOVED))) << nth;
      }
      EXPECT_THAT(Available(), IsEmpty());
    }
    EXPECT_GT(nth, 2);
  }
}

TEST_F(NetworkInterfaceTest, EntriesWithoutNameOrAddressAreNotTakenOver) {
  ConfigureOnAllNetworkInterfaces(true);
  Found({Info("", "10.0.0.1"), Info("eth0", "")});
  EXPECT_THAT(Available(), IsEmpty());
}

TEST_F(NetworkInterfaceTest, SeveralAddressesUnderOneNameAreNoChangeWhileTheRecordedOneIsThere) {
  vex_test::FasterTime faster(50);
  InterfaceRecorder recorder;
  registry_->SelectNetworkInterface("eth0");
  for (int scan = 0; scan < 3; ++scan) {
    Found({Info("eth0", "10.0.0.1"), Info("eth0", "10.0.0.2")});
    EXPECT_THAT(Available(), ElementsAre(Info("eth0", "10.0.0.1")));
  }
  Found({Info("eth0", "10.0.0.2")});
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("eth0", NIC_ADDED), Pair("eth0", NIC_REMOVED),
                                              Pair("eth0", NIC_IPCHANGED)));
  EXPECT_THAT(Available(), ElementsAre(Info("eth0", "10.0.0.2")));
}

TEST_F(NetworkInterfaceTest, AReportOfTheHostSelectsTheInterface) {
  InterfaceRecorder recorder;
  EXPECT_EQ(result::kOk, NotifyNICAdded("wlan0", "10.0.0.1", "255.255.255.0"));
  EXPECT_THAT(Active(), ElementsAre(Info("wlan0", "10.0.0.1")));
  EXPECT_THAT(EventsOf(recorder), ElementsAre(Pair("wlan0", NIC_ADDED)));
}

TEST_F(NetworkInterfaceTest, KeptAReportOfAKnownNameSelectsItAndTakesOverNothing) {
  LogCapture log;
  InterfaceRecorder recorder;
  Found({Info("wlan0", "10.0.0.1")});
  EXPECT_EQ(result::kOk, NotifyNICAdded("wlan0", "10.0.0.9", "255.0.0.0"));
  EXPECT_EQ(1, log.Count("Interface [wlan0] is already added!!"));
  EXPECT_THAT(Active(), ElementsAre(Info("wlan0", "10.0.0.1")));
  EXPECT_THAT(EventsOf(recorder), IsEmpty());
}

TEST_F(NetworkInterfaceTest, AReportWithAnEmptyPartIsRefused) {
  LogCapture log;
  EXPECT_EQ(result::kFailure, NotifyNICAdded("", "10.0.0.1", "255.0.0.0"));
  EXPECT_EQ(result::kFailure, NotifyNICAdded("eth0", "", "255.0.0.0"));
  EXPECT_EQ(result::kFailure, NotifyNICAdded("eth0", "10.0.0.1", ""));
  EXPECT_EQ(result::kFailure, NotifyNICRemoved(""));
  EXPECT_EQ(4, log.Count(16, kTag, "Invalid Params!!!"));
  EXPECT_THAT(Available(), IsEmpty());
}

TEST_F(NetworkInterfaceTest, AReportedLossComesOnceAndTheNameStaysSelected) {
  LogCapture log;
  InterfaceRecorder recorder;
  NotifyNICAdded("wlan0", "10.0.0.1", "255.255.255.0");
  EXPECT_EQ(result::kOk, NotifyNICRemoved("wlan0"));
  EXPECT_EQ(0, log.Count("Interface [wlan0] is already removed!!"));
  EXPECT_EQ(result::kOk, NotifyNICRemoved("wlan0"));
  EXPECT_EQ(1, log.Count("Interface [wlan0] is already removed!!"));
  EXPECT_THAT(EventsOf(recorder),
              ElementsAre(Pair("wlan0", NIC_ADDED), Pair("wlan0", NIC_REMOVED)));
  EXPECT_THAT(registry_->GetSelectedNetworkInterfaces(), ElementsAre("wlan0"));
}

TEST_F(NetworkInterfaceTest, ALossOfWhatIsNotSelectedIsSilent) {
  InterfaceRecorder recorder;
  Found({Info("eth0", "10.0.0.1")});
  EXPECT_EQ(result::kOk, NotifyNICRemoved("eth0"));
  EXPECT_THAT(Available(), IsEmpty());
  EXPECT_THAT(EventsOf(recorder), IsEmpty());
}

TEST_F(NetworkInterfaceTest, ListenersAreNumberedFromZeroAndNullIsRefused) {
  int id = 7;
  EXPECT_EQ(result::kNullListener, RegisterNetworkEventListener(nullptr, id));
  EXPECT_EQ(-1, id);
  InterfaceRecorder first;
  InterfaceRecorder second;
  EXPECT_EQ(result::kOk, first.result());
  EXPECT_EQ(0, first.id());
  EXPECT_EQ(1, second.id());
  { InterfaceRecorder third; }
  InterfaceRecorder fourth;
  EXPECT_EQ(3, fourth.id());
}

TEST_F(NetworkInterfaceTest, AListenerHearsNothingOfWhatWasUpBeforeIt) {
  NotifyNICAdded("eth0", "10.0.0.1", "255.255.255.0");
  InterfaceRecorder late;
  EXPECT_THAT(EventsOf(late), IsEmpty());
}

TEST_F(NetworkInterfaceTest, WithoutListenersAnEventIsOnlyLogged) {
  LogCapture log;
  registry_->NotifyNICIfEvent(NIC_ADDED, "eth0");
  EXPECT_EQ(1, log.Count("event listener vector is empty!!"));
  InterfaceRecorder one;
  InterfaceRecorder two;
  registry_->NotifyNICIfEvent(NIC_REMOVED, "eth0");
  EXPECT_EQ(1, log.Count("2 event listeners are notified!!!"));
  EXPECT_TRUE(WaitUntil([&] { return one.count() == 1 && two.count() == 1; }));
  EXPECT_EQ(1, log.Count("Notifying NIC Change 1 for eth0 listener_id 0"));
  EXPECT_EQ(1, log.Count("Notifying NIC Change 1 for eth0 listener_id 1"));
}

TEST_F(NetworkInterfaceTest, UnregisteringWaitsForARunningCallAndDropsWhatIsQueued) {
  std::promise<void> entered;
  std::promise<void> release;
  std::atomic<int> heard{0};
  InterfaceRecorder recorder([&](const InterfaceRecorder::Event&) {
    if (heard++ > 0) return;
    entered.set_value();
    release.get_future().wait();
  });
  registry_->NotifyNICIfEvent(NIC_ADDED, "eth0");
  entered.get_future().wait();
  registry_->NotifyNICIfEvent(NIC_REMOVED, "eth0");

  std::future<void> gone =
      std::async(std::launch::async, [&] { UnRegisterEventListener(recorder.id()); });
  // It is off the list at once, and the caller waits.
  LogCapture log;
  EXPECT_TRUE(WaitUntil([&] {
    log.Clear();
    registry_->NotifyNICIfEvent(NIC_ADDED, "probe");
    return log.Count("event listener vector is empty!!") == 1;
  }));
  EXPECT_EQ(std::future_status::timeout, gone.wait_for(std::chrono::milliseconds(30)));
  release.set_value();
  gone.wait();
  EXPECT_EQ(1U, recorder.count());
  InterfaceRecorder other;
  registry_->NotifyNICIfEvent(NIC_ADDED, "end");
  EXPECT_TRUE(WaitUntil([&] { return other.count() == 1; }));
  EXPECT_EQ(1, heard);
}

TEST_F(NetworkInterfaceTest, UnregisteringAnUnknownIdDoesNothing) {
  InterfaceRecorder recorder;
  UnRegisterEventListener(99);
  UnRegisterEventListener(-1);
  registry_->NotifyNICIfEvent(NIC_ADDED, "eth0");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
}

TEST_F(NetworkInterfaceTest, AListenerHearsEventsInOrderAndASlowOneHoldsUpNoOther) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  InterfaceRecorder slow([&](const InterfaceRecorder::Event&) { released.wait(); });
  InterfaceRecorder quick;
  for (int i = 0; i < 50; ++i) {
    registry_->NotifyNICIfEvent(i % 2 == 0 ? NIC_ADDED : NIC_REMOVED, std::to_string(i));
  }
  EXPECT_TRUE(WaitUntil([&] { return quick.count() == 50; }));
  EXPECT_EQ(0U, slow.count());
  release.set_value();
  EXPECT_TRUE(WaitUntil([&] { return slow.count() == 50; }));
  for (std::size_t i = 0; i < 50; ++i) {
    EXPECT_EQ(std::to_string(i), quick.events()[i].first);
    EXPECT_EQ(std::to_string(i), slow.events()[i].first);
  }
}

TEST_F(NetworkInterfaceTest, AListenerThatThrowsEndsNoThread) {
  LogCapture log;
  InterfaceRecorder thrower(
      [](const InterfaceRecorder::Event&) { throw std::runtime_error("listener"); });
  InterfaceRecorder recorder;
  for (int i = 0; i < 4; ++i) registry_->NotifyNICIfEvent(NIC_ADDED, "eth0");
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 4; }));
  EXPECT_TRUE(WaitUntil([&] { return log.Count("Exception: listener") == 4; }));
}

TEST_F(NetworkInterfaceTest, AFailedScanChangesNothing) {
  Found({Info("eth0", "10.0.0.1")});
  registry_->SelectNetworkInterface("eth0");
  InterfaceRecorder recorder;
  {
    const vex_test::ScopedDescriptorLimit none_left(0);
    std::vector<NetInfo> found;
    EXPECT_EQ(result::kNo, registry_->ScanAndGetNetworkInterface(found));
    EXPECT_THAT(found, IsEmpty());
    registry_->Scan();
  }
  EXPECT_THAT(Active(), ElementsAre(Info("eth0", "10.0.0.1")));
  EXPECT_THAT(EventsOf(recorder), IsEmpty());
}

TEST_F(NetworkInterfaceTest, TheDeliveryThreadsBearTheirCreatorsPrefixAndEndWithTheObject) {
  EXPECT_THAT(vex_test::ThreadNames(), testing::IsSupersetOf({"tstVexNetiIo0", "tstVexNetiIo1"}));
  const int with = vex_test::ThreadCount();
  registry_.reset();
  NetworkInterface::DestroyInstance();
  EXPECT_TRUE(vex_test::ThreadsBecome(with - 2));
}

TEST_F(NetworkInterfaceTest, AListenerThatEndsTheRegistryFromInsideIsNotWaitedFor) {
  LogCapture log;
  const int with = vex_test::ThreadCount();
  InterfaceRecorder recorder(
      [](const InterfaceRecorder::Event&) { NetworkInterface::DestroyInstance(); });
  registry_->NotifyNICIfEvent(NIC_ADDED, "eth0");
  registry_.reset();
  EXPECT_TRUE(WaitUntil([&] { return recorder.count() == 1; }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() == with - 2; }));
  EXPECT_LE(1, log.Count("Delivery threads stopped by one of them, they are not waited for"));
  EXPECT_EQ(nullptr, NetworkInterface::ExistingInstance());
}

TEST(NetworkMonitorWithoutRegistry, EveryFunctionGivesItsFailureValueAndBuildsNothing) {
  LogCapture log;
  std::vector<NetInfo> list = {Info("a", "1")};
  GetNetworkInterfaces(&list);
  GetActiveSelectedNetworkInterfaces(&list);
  EXPECT_EQ(1U, list.size());
  NetInfo info;
  EXPECT_EQ(1, GetNetworkInterface("a", info));
  EXPECT_EQ(1, GetNetworkInterfaceByIP("1", info));
  EXPECT_EQ(2, log.Count(16, kTag, "Network Instance NULL!"));
  std::string name = "a";
  EXPECT_EQ(0, ConfigureNetworkInterface(name, true));
  EXPECT_EQ(0, ConfigureOnAllNetworkInterfaces(true));
  EXPECT_EQ(1, InitializeNetworkMonitor());
  EXPECT_EQ(1, TerminateNetworkMonitor());
  int id = 5;
  EXPECT_EQ(1, RegisterNetworkEventListener(nullptr, id));
  EXPECT_EQ(5, id);
  UnRegisterEventListener(0);
  EXPECT_EQ(1, NotifyNICAdded("a", "1", "2"));
  EXPECT_EQ(1, NotifyNICRemoved("a"));
  EXPECT_EQ(nullptr, NetworkInterface::ExistingInstance());
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

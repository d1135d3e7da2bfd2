// The check of the devices that did not answer a search, when it is stopped, and when the list
// changes meanwhile.

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "src/device.h"
#include "src/device_list.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";
constexpr char kType[] = "urn:x-y:device:Foo:1";

class RescanCheck : public testing::Test {
 protected:
  ~RescanCheck() override { DeviceList::Terminate(); }

  // Listed, ready, and not seen since the search.
  boost::shared_ptr<Device> AddUnseen(const std::string& udn) {
    boost::shared_ptr<Device> device(new Device);
    device->udn = udn;
    device->device_type = kType;
    // The discard service, where nobody listens.
    device->ip = "127.0.0.1";
    device->port = 9;
    boost::lock_guard<boost::recursive_mutex> lock(list_->device_list_mutex);
    EXPECT_TRUE(list_->Add(device));
    EXPECT_TRUE(list_->MarkReady(device));
    device->is_valid = false;
    return device;
  }
  std::vector<std::string> Check() {
    boost::unique_lock<boost::mutex> lock(mutex_);
    boost::unique_lock<boost::recursive_mutex> delivery(delivery_mutex_, boost::defer_lock);
    const auto gone =
        list_->RemoveAndGetInvalidDevicesByType(kType, 1, lock, condition_, stop_, delivery);
    EXPECT_FALSE(lock.owns_lock());
    std::vector<std::string> keys;
    EXPECT_TRUE(gone);
    if (!gone) return keys;
    for (const boost::shared_ptr<Device>& device : *gone) keys.push_back(device->udn);
    return keys;
  }
  bool IsListed(const boost::shared_ptr<Device>& device) {
    boost::lock_guard<boost::recursive_mutex> lock(list_->device_list_mutex);
    return list_->IsListed(device);
  }

  const vex_test::NetworkRun run_;
  const vex_test::FasterTime faster_{100};
  const boost::shared_ptr<DeviceList> list_ = DeviceList::GetInstance();
  const vex_test::LogCapture log_;
  boost::mutex mutex_;
  boost::recursive_mutex delivery_mutex_;
  boost::condition_variable condition_;
  bool stop_ = false;
};

TEST_F(RescanCheck, RemovesWhoDoesNotAnswer) {
  const boost::shared_ptr<Device> device = AddUnseen("uuid:a");
  EXPECT_THAT(Check(), ElementsAre("uuid:a"));
  EXPECT_FALSE(IsListed(device));
  EXPECT_EQ(1, log_.Count(4, kTag, "Invalid device found. adding to list!!"));
}

TEST_F(RescanCheck, ThatIsStoppedRemovesNobody) {
  const boost::shared_ptr<Device> device = AddUnseen("uuid:a");
  stop_ = true;
  EXPECT_THAT(Check(), IsEmpty());
  EXPECT_EQ(1, log_.Count(16, kTag, "IsReachable failed!!"));
  EXPECT_TRUE(IsListed(device));
  EXPECT_FALSE(device->is_valid);
}

TEST_F(RescanCheck, LeavesWhoHasBecomeUnseenMeanwhile) {
  const boost::shared_ptr<Device> probed = AddUnseen("uuid:a");
  // What is removed waits for the delivery of earlier events, which is held up here until a second
  // device is there that was not asked.
  boost::unique_lock<boost::recursive_mutex> delivering(delivery_mutex_);
  std::vector<std::string> gone;
  std::thread check([&] { gone = Check(); });
  EXPECT_TRUE(vex_test::WaitUntil([&] { return log_.Count("Sleeping for 1 sec") == 1; }));
  const boost::shared_ptr<Device> late = AddUnseen("uuid:late");
  delivering.unlock();
  check.join();
  EXPECT_THAT(gone, ElementsAre("uuid:a"));
  EXPECT_EQ(1, log_.Count(16, kTag, "invalid device info not found!!"));
  EXPECT_TRUE(IsListed(late));
  EXPECT_FALSE(late->is_valid);
  EXPECT_FALSE(IsListed(probed));
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

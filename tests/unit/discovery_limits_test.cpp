// Bounds of discovery and of what it reads, at the bound and one past it.

#include <gtest/gtest.h>

#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "base/limits.h"
#include "src/device.h"
#include "src/device_list.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_run.h"
#include "tests/support/timing_scaled.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace {

using cp_discovery::Device;
using cp_discovery::DeviceList;

TEST(HeldByDevices, IsGivenOutToTheLastByteAndNoFurther) {
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  boost::shared_ptr<Device> device(new Device);
  device->udn = "uuid:full";
  ASSERT_TRUE(list->Add(device));
  std::size_t given = 0;
  for (std::size_t step = limits::kHeldDeviceBytes; step > 0; step /= 2) {
    while (list->Reserve(device, step)) given += step;
  }
  // All but the record itself.
  EXPECT_LE(given, limits::kHeldDeviceBytes);
  EXPECT_GT(given, limits::kHeldDeviceBytes - 64 * 1024);
  EXPECT_FALSE(list->Reserve(device, 1));
  EXPECT_TRUE(list->Reserve(device, 0));
  boost::shared_ptr<Device> more(new Device);
  EXPECT_FALSE(list->Add(more));
  list->Remove(device);
  EXPECT_FALSE(list->Add(more));
  device.reset();
  EXPECT_TRUE(list->Add(more));
  DeviceList::Terminate();
}

// How often a check of this many devices waits for a batch of them.
int BatchesOf(std::size_t devices) {
  const vex_test::NetworkRun run;
  const vex_test::FasterTime faster(100);
  const boost::shared_ptr<DeviceList> list = DeviceList::GetInstance();
  for (std::size_t i = 0; i < devices; ++i) {
    boost::shared_ptr<Device> device(new Device);
    device->udn = "uuid:" + std::to_string(i);
    device->device_type = "urn:x-y:device:Foo:1";
    // The discard service, where nobody listens.
    device->ip = "127.0.0.1";
    device->port = 9;
    EXPECT_TRUE(list->Add(device));
    EXPECT_TRUE(list->MarkReady(device));
    device->is_valid = false;
  }
  const vex_test::LogCapture log;
  boost::mutex mutex;
  boost::recursive_mutex delivery_mutex;
  boost::condition_variable condition;
  bool stop = false;
  boost::unique_lock<boost::mutex> lock(mutex);
  boost::unique_lock<boost::recursive_mutex> delivery(delivery_mutex, boost::defer_lock);
  const auto gone = list->RemoveAndGetInvalidDevicesByType("urn:x-y:device:Foo:1", 1, lock,
                                                           condition, stop, delivery);
  EXPECT_EQ(devices, gone->size());
  DeviceList::Terminate();
  return log.Count("Sleeping for 1 sec");
}

TEST(ProbedAddresses, AreAsManyAtATimeAsTheBoundAndNoMore) {
  EXPECT_EQ(1, BatchesOf(limits::kReachabilityBatch));
  EXPECT_EQ(2, BatchesOf(limits::kReachabilityBatch + 1));
}

// Names are looked up one by one up to here, and through an index from here on.
TEST(AttributesOfAnElement, AreTheSameAroundTheBoundOfTheirIndex) {
  const int bound = static_cast<int>(limits::kAttributeIndexFrom);
  for (int count = bound - 1; count <= bound + 1; ++count) {
    std::string xml = "<a";
    for (int i = 0; i < count; ++i) xml += " n" + std::to_string(i) + "='old'";
    for (int i = 0; i < count; ++i)
      xml += " n" + std::to_string(i) + "='" + std::to_string(i) + "'";
    utils::ScopedXmlParser parser;
    ASSERT_TRUE(parser.Parse(xml + "/>"));
    const utils::NodePtr node = utils::FirstNode(parser.get());
    ASSERT_TRUE(node);
    ASSERT_EQ(static_cast<std::size_t>(2 * count), node->attributes.size());
    for (int i = 0; i < count; ++i) {
      const std::size_t at = static_cast<std::size_t>(2 * i);
      EXPECT_EQ("n" + std::to_string(i), node->attributes[at]);
      EXPECT_EQ(std::to_string(i), node->attributes[at + 1]);
    }
  }
}

}  // namespace
}  // namespace vex_upnp

#include "src/device.h"

#include <gmock/gmock.h>

#include <type_traits>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "tests/support/small_stack.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

TEST(Device, NewRecordIsValidAndNotReady) {
  const Device device;
  EXPECT_EQ(0, device.port);
  EXPECT_FALSE(device.services_ready);
  EXPECT_TRUE(device.is_valid);
  EXPECT_EQ("", device.udn);
  EXPECT_TRUE(device.icons.empty());
  EXPECT_TRUE(device.services.empty());
  EXPECT_TRUE(device.embedded_devices.empty());
  EXPECT_TRUE(device.additional_fields.empty());
}

TEST(Device, CannotBeCopiedAndHasAVirtualDestructor) {
  EXPECT_FALSE(std::is_copy_constructible<Device>::value);
  EXPECT_FALSE(std::is_copy_assignable<Device>::value);
  EXPECT_TRUE(std::has_virtual_destructor<Device>::value);
}

// One device below the other, `depth` of them.
boost::shared_ptr<Device> Chain(int depth, boost::weak_ptr<Device>& last) {
  const boost::shared_ptr<Device> root = boost::make_shared<Device>();
  boost::shared_ptr<Device> device = root;
  for (int i = 0; i < depth; ++i) {
    const boost::shared_ptr<Device> child = boost::make_shared<Device>();
    child->services.emplace_back(new ServiceInfo);
    device->embedded_devices.push_back(child);
    device = child;
  }
  last = device;
  return root;
}

TEST(Device, AnyDepthIsTakenApartOnASmallStack) {
  vex_test::OnSmallStack([] {
    boost::weak_ptr<Device> last;
    boost::shared_ptr<Device> root = Chain(50000, last);
    EXPECT_FALSE(last.expired());
    root.reset();
    EXPECT_TRUE(last.expired());
  });
}

TEST(Device, AnyDepthThatAListHoldsTooIsTakenApart) {
  vex_test::OnSmallStack([] {
    boost::weak_ptr<Device> last;
    boost::shared_ptr<Device> root = Chain(50000, last);
    std::vector<boost::shared_ptr<Device>> listed{root};
    for (std::size_t i = 0; !listed[i]->embedded_devices.empty(); ++i) {
      listed.push_back(listed[i]->embedded_devices.front());
    }
    EXPECT_EQ(50001U, listed.size());
    root.reset();
    listed.clear();
    EXPECT_TRUE(last.expired());
  });
}

TEST(Device, ChildHeldElsewhereOutlivesItsParent) {
  boost::shared_ptr<Device> root = boost::make_shared<Device>();
  const boost::shared_ptr<Device> held = boost::make_shared<Device>();
  const boost::shared_ptr<Device> below = boost::make_shared<Device>();
  held->embedded_devices.push_back(below);
  root->embedded_devices.push_back(held);
  root.reset();
  ASSERT_EQ(1U, held->embedded_devices.size());
  EXPECT_EQ(below, held->embedded_devices.front());
  EXPECT_EQ(1, held.use_count());
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

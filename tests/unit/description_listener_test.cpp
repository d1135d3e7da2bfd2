#include "src/description_listener.h"

#include <gtest/gtest.h>

#include <string>

#include <boost/thread/thread.hpp>

#include "tests/support/log_capture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_CPDISCOVERY";

TEST(ServiceUrl, IsMadeByTheTable) {
  const struct {
    const char* scpd_url;
    const char* url_base;
    const char* url;
  } cases[] = {
      {"/s.xml", "http://b:1/", "http://b:1/s.xml"},
      {"/s.xml", "http://b:1", "http://b:1/s.xml"},
      {"/s.xml", "", "http://10.0.0.7:80/s.xml"},
      {"http://o:2/s.xml", "http://b:1/", "http://o:2/s.xml"},
      {"http://o:2/s.xml", "", "http://o:2/s.xml"},
      {"HTTP://o:2/s.xml", "http://b:1/", "HTTP://o:2/s.xml"},
      {"hTtP://o:2/s.xml", "", "hTtP://o:2/s.xml"},
      {"s.xml", "http://b:1/", "http://b:1/s.xml"},
      {"s.xml", "http://b:1", "http://b:1/s.xml"},
      {"s.xml", "", "http://10.0.0.7:80/dir/s.xml"},
      {"https://o:2/s.xml", "", "http://10.0.0.7:80/dir/https://o:2/s.xml"},
      {"", "", "http://10.0.0.7:80/dir/"},
      {"", "http://b:1/", "http://b:1/"},
      {"/", "/", "/"},
  };
  Device device;
  device.ip = "10.0.0.7";
  device.port = 80;
  device.base_url = "http://10.0.0.7:80/dir";
  for (const auto& row : cases) {
    device.url_base = row.url_base;
    EXPECT_EQ(row.url, DescriptionListener::MakeServiceUrl(row.scpd_url, device))
        << row.scpd_url << " on " << row.url_base;
  }
}

TEST(InterfaceName, OfAnEmptyAddressIsLoggedAndLeftAlone) {
  LogCapture log;
  std::string name = "before";
  getInterfaceName("", name);
  EXPECT_EQ("before", name);
  EXPECT_EQ(1, log.Count(4, kTag, "ip empty!!!"));
  getInterfaceName("203.0.113.9", name);
  EXPECT_EQ("before", name);
}

TEST(DescriptionListener, EndsWithItsLines) {
  LogCapture log;
  {
    const boost::shared_ptr<DescriptionListener> listener = DescriptionListener::GetInstance();
    EXPECT_EQ(listener, DescriptionListener::ExistingInstance());
    DescriptionListener::DestroyInstance();
    EXPECT_FALSE(DescriptionListener::ExistingInstance());
    EXPECT_EQ(1, listener->IncrementUseCount());
    EXPECT_TRUE(log.Holds("before destroy instance ("));
    EXPECT_TRUE(log.Holds(")(-1)"));
    EXPECT_FALSE(log.Holds("deleted!"));
  }
  EXPECT_TRUE(log.Holds("DescriptionListener["));
  EXPECT_TRUE(log.Holds("] deleted!"));
  DescriptionListener::DestroyInstance();
}

TEST(DescriptionListener, ItsEndWaitsForTheCallsInside) {
  const boost::shared_ptr<DescriptionListener> listener = DescriptionListener::GetInstance();
  ASSERT_EQ(0, listener->IncrementUseCount());
  LogCapture log;
  boost::thread ending([] { DescriptionListener::DestroyInstance(); });
  ASSERT_TRUE(vex_test::WaitUntil([&] { return log.Holds("before destroy instance ("); }));
  EXPECT_EQ(0, listener->IncrementUseCount());
  listener->DecrementUseCount();
  EXPECT_FALSE(ending.try_join_for(boost::chrono::milliseconds(20)));
  listener->DecrementUseCount();
  ending.join();
  EXPECT_EQ(1, listener->IncrementUseCount());
}

TEST(DescriptionListener, AnAnswerToNoRequestIsLogged) {
  LogCapture log;
  const boost::shared_ptr<DescriptionListener> listener = DescriptionListener::GetInstance();
  // Without a manager there is nobody to ask.
  listener->OnResponseReceived(nullptr, 7);
  EXPECT_EQ(1, log.Count(2, kTag, "Enter 7"));
  DescriptionListener::DestroyInstance();
}

}  // namespace
}  // namespace cp_discovery
}  // namespace vex_upnp

#include "tests/support/hostile_rig.h"

#include <chrono>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/generic_cp.h>

#include "src/cp_discovery_manager.h"
#include "src/now_requesting.h"
#include "tests/support/wait_until.h"

namespace vex_test {

bool NothingInFlight(const std::string& key) {
  using vex_upnp::cp_discovery::CPDiscoveryManager;
  using vex_upnp::cp_discovery::NowRequesting;
  const boost::shared_ptr<NowRequesting> probe(new NowRequesting(key, "", "127.0.0.1", 1, "", ""));
  const auto manager = CPDiscoveryManager::GetInstance();
  if (manager->AddNowRequesting(probe) != 0) return false;
  manager->RemoveNowRequestingByUdn(key);
  return true;
}

bool HostileRig::WasTold(int event, const std::string& udn) {
  for (const ToldDevice& told : HostLog::Devices()) {
    if (told.event == event && told.udn == udn) return true;
  }
  return false;
}

std::string HostileRig::Meet(const std::string& udn, const std::string& location) {
  const std::string key = udn + "+lan0";
  EXPECT_TRUE(WaitUntil([&] {
    SayAlive(udn, location);
    return WaitUntil([&] { return WasTold(1, key); }, std::chrono::milliseconds(300));
  })) << udn;
  return key;
}

ToldAction HostileRig::Act(const std::string& key, const std::string& service_type) {
  int id = 0;
  EXPECT_EQ(0, SendAction(handle_, key.c_str(), service_type.c_str(), "Do", nullptr, &id));
  ToldAction outcome = {};
  const auto came = [&] {
    for (const ToldAction& told : HostLog::Actions()) {
      if (told.action_id != id) continue;
      outcome = told;
      return true;
    }
    return false;
  };
  EXPECT_TRUE(WaitUntil(came, std::chrono::minutes(2))) << key;
  return outcome;
}

}  // namespace vex_test

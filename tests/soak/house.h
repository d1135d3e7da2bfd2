#ifndef VEXUPNPCP_TESTS_SOAK_HOUSE_H_
#define VEXUPNPCP_TESTS_SOAK_HOUSE_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace soak {

enum class Kind { kLamp, kRenderer, kMediaServer, kGenerated };

// What there is of each kind: the device's type, and the service whose numbered changes are
// counted.
const char* DeviceType(Kind kind);
std::optional<Kind> KindOf(const std::string& device_type);
// The services that are subscribed; the first one tells numbered changes, unless it is a
// renderer's.
const std::vector<std::string>& Services(Kind kind);

using Texts = std::vector<std::pair<std::string, std::string>>;

// One action that is to be sent.
struct Plan {
  std::string key;
  Kind kind = Kind::kLamp;
  std::string service;
  std::string action;
  Texts arguments;
  // A value that is set, or that must be answered.
  int value = 0;
  // Nobody asks for the outcome of a cancelled one.
  bool may_be_cancelled = false;
};

// How it ended.
struct Outcome {
  int id = 0;
  int code = 0;
  Texts output;
  bool described = false;
  std::string description;
  std::int64_t time = 0;
};

// What the host knows of the devices, and what it may expect of them. Each call takes the lock.
class House {
 public:
  // Before the start. Devices that never die: their actions succeed, and no event of theirs is
  // missed. The slow ones are stopped for seconds now and then, so their times are not taken.
  void Promise(const std::string& udn, bool slow);

  void Added(const std::string& key, Kind kind);
  void Removed(const std::string& key);
  void Clear();
  std::optional<Kind> Find(const std::string& key) const;
  bool IsStable(const std::string& key) const;
  // Whether its times say something of the library.
  bool IsTimed(const std::string& key) const;
  // Any device for whose numbered changes a subscription has begun.
  std::string AnyWatched(std::mt19937& random) const;

  // Around SubscribeService and UnSubscribeService.
  void Opened(const std::string& key, const std::string& service);
  void Closed(const std::string& key, const std::string& service);
  void Event(const std::string& key, const Texts& variables, std::int64_t time);

  // An action for a device without one; none while all are busy.
  std::optional<Plan> NextAction(std::mt19937& random);
  // It was not sent, or was cancelled.
  void Abandoned(const Plan& plan);
  // Gives the URL of what was found by browsing, or an empty text.
  std::string Ended(const Plan& plan, const Outcome& outcome);

  // Waits, at most `limit`, until the last numbered change that was told is `number`.
  // "told", "not subscribed" or what was told last.
  std::string Expect(const std::string& udn, long long number, std::int64_t limit) const;
  // Whether all that was set on the stable devices by actions has been told by events. What is
  // missing after `limit` is a violation. Gives the number of devices looked at.
  int Settle(std::int64_t limit) const;

 private:
  struct Device {
    Kind kind = Kind::kLamp;
    bool stable = false;
    bool slow = false;
    bool busy = false;
    // Numbered changes, which the house makes.
    bool level_open = false;
    bool level_begun = false;
    long long level = 0;
    // Changes made by actions. -1: not known.
    bool power_begun = false;
    int power_set = -1;
    int power_told = -1;
    long long switched = 0;
    long long switches_told = 0;
    int volume_set = -1;
    int volume_told = -1;
  };

  static std::string UdnOf(const std::string& key);
  void Level(const std::string& key, Device& device, const std::string& value, std::int64_t time);
  static void Fill(Plan& plan, const Device& device, std::mt19937& random);
  static bool IsSettled(const Device& device);
  static void Judge(const Plan& plan, const Outcome& outcome, Device& device);

  mutable std::mutex mutex_;
  std::map<std::string, Device> devices_;
  // UDN, and whether it is slow.
  std::map<std::string, bool> promised_;
};

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_HOUSE_H_

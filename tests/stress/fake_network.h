#ifndef VEXUPNPCP_TESTS_STRESS_FAKE_NETWORK_H_
#define VEXUPNPCP_TESTS_STRESS_FAKE_NETWORK_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/control_peer.h"

namespace vex_stress {

constexpr int kSearchPort = 5300;
// What a device's media are made of.
constexpr char kMediaLetter = 'm';
constexpr unsigned kMediaBytes = 100000;
constexpr int kEventPort = 5100;

extern const std::vector<std::string> kServices;

// A device that answers as it likes: properly, with faults, late, with nonsense or not at all.
class MoodyDevice {
 public:
  MoodyDevice(int number, int network);

  // The library's name for it.
  std::string key() const;
  const std::string& ip() const { return peer_->ip(); }
  int port() const { return peer_->port(); }

  void SayAlive();
  void SayByebye();
  // An event to one of its subscribers, sometimes to one that is none any more.
  void Notify(std::mt19937& random);

 private:
  struct Subscription {
    std::string sid;
    std::string ip;
    int port = 0;
    std::string path;
  };

  vex_test::PeerAnswer Serve(const vex_test::PeerRequest& request);
  vex_test::PeerAnswer ServeAction();
  vex_test::PeerAnswer ServeSubscribe(const vex_test::PeerRequest& request);
  std::string NewSubscription(const std::string& callback);
  void SendEvent(const Subscription& subscription, const std::string& value);
  int Dice(int sides);
  std::string LibraryAddress() const;

  const int number_;
  const int network_;
  const std::string udn_;
  std::mutex mutex_;
  std::mt19937 random_;
  std::vector<Subscription> subscriptions_;
  int last_sid_ = 0;
  // Last, so that it is gone before what its script uses.
  std::unique_ptr<vex_test::ControlPeer> peer_;
};

// Six devices in two networks that come, go, tell events and send nonsense, and one of the two
// interfaces, which goes down now and then; from here to the end of the scope.
class FakeNetwork {
 public:
  explicit FakeNetwork(unsigned seed);
  ~FakeNetwork();
  FakeNetwork(const FakeNetwork&) = delete;
  FakeNetwork& operator=(const FakeNetwork&) = delete;

  const std::vector<std::unique_ptr<MoodyDevice>>& devices() const { return devices_; }

 private:
  void Talk(unsigned seed);
  void MoveInterfaces(unsigned seed);
  // Fetches from the library's servers of media, whole or not, and asks its event server.
  void FetchMedia(unsigned seed);

  std::vector<std::unique_ptr<MoodyDevice>> devices_;
  std::atomic<bool> ended_{false};
  std::vector<std::thread> threads_;
};

}  // namespace vex_stress

#endif  // VEXUPNPCP_TESTS_STRESS_FAKE_NETWORK_H_

#ifndef VEXUPNPCP_TESTS_STRESS_HOST_CALLS_H_
#define VEXUPNPCP_TESTS_STRESS_HOST_CALLS_H_

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/stress/fake_network.h"

namespace vex_stress {

constexpr int kHostThreads = 8;

class DirectSubscription;
struct NetworkRegistrations;

// The first port of the servers of media, one for each host thread.
constexpr int kMediaPort = 6100;
// What a server of ours sends and takes, against kMediaBytes of a device.
constexpr unsigned kServedBytes = 400000;

// One thread of the host, with a control point and some subscriptions of its own.
class HostThread {
 public:
  HostThread(int slot, unsigned seed, const FakeNetwork& network);
  ~HostThread();

  // One exported function, or a few that belong together, chosen at random.
  void CallAtRandom();

  // The library has ended, and all that it held for this thread.
  void Forget();

  unsigned Dice(unsigned sides) { return static_cast<unsigned>(random_()) % sides; }
  const MoodyDevice& AnyDevice();
  const std::string& AnyService();

  // The control point.
  void Register();
  void UnRegister();
  void Send();
  void Cancel();
  void SubscribeService();
  void UnSubscribeService();
  void SubscribeDevice();
  void Read();
  void Rescan();
  // The layers below.
  void SendDirect();
  void CancelDirect();
  void SubscribeDirect();
  void UnsubscribeDirect();
  void Exchange();
  void Discover();
  void RunTimer();
  void Listen();
  void WatchInterfaces();
  void SendDatagrams();
  void AskAddresses();
  void Probe();
  void Configure();
  void ConfigureServers();
  void ConfigureDiscovery();
  // Media.
  void Fetch();
  void Upload();
  void FetchSync();
  void Serve();
  void AskStreaming();
  void UseUtilities();

 private:
  int handle() const;
  std::pair<std::string, int> AnySource();
  void ForgetRegistrations();

  const int slot_;
  std::mt19937 random_;
  const FakeNetwork& network_;
  std::deque<int> actions_;
  std::deque<int> direct_actions_;
  std::vector<std::unique_ptr<DirectSubscription>> subscriptions_;
  // Those that have ended must not be called any more, which only an object can tell.
  std::deque<std::unique_ptr<DirectSubscription>> ended_;
  std::unique_ptr<NetworkRegistrations> registrations_;
  int media_configuration_ = 0;
  int media_server_ = 0;
};

// The library has ended, and all transfers with it.
void ForgetTransfers();

// Called when TerminateGenericCP has returned: no callback may come from now on.
void CloseAllSlots();

}  // namespace vex_stress

#endif  // VEXUPNPCP_TESTS_STRESS_HOST_CALLS_H_

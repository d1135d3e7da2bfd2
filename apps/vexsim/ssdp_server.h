#ifndef VEXSIM_SSDP_SERVER_H_
#define VEXSIM_SSDP_SERVER_H_

#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "fleet.h"
#include "interfaces.h"
#include "ssdp_messages.h"
#include "ssdp_socket.h"
#include "statistics.h"

namespace vexsim {

// When the answers to one search leave.
struct AnswerTiming {
  enum class Kind {
    // Evenly at random over the MX seconds of the search.
    kMx,
    // Evenly at random over `window`.
    kWindow,
    // All at once.
    kBurst,
    // Never.
    kOff
  };
  Kind kind = Kind::kMx;
  Milliseconds window{0};
};

struct SsdpOptions {
  std::vector<std::string> interface_names;
  AnswerTiming timing;
  // Seconds, of CACHE-CONTROL.
  unsigned max_age = 1800;
  // How often each announcement and each byebye is sent.
  unsigned copies = 1;
  // A search equal to the one before it, from the same socket, within this time goes unanswered.
  Milliseconds merge{0};
};

// Answers searches and announces, for all devices of a fleet.
class SsdpServer {
 public:
  SsdpServer(EventLoop& loop, Fleet& fleet, Statistics& statistics, const SsdpOptions& options);

  void Announce(const Device& device);
  void Byebye(const Device& device);
  void SetTiming(const AnswerTiming& timing) { options_.timing = timing; }
  // Looks at the machine's interfaces anew.
  void RefreshInterfaces();
  const std::vector<Interface>& interfaces() const { return interfaces_; }

 private:
  struct Pending {
    unsigned device;
    std::size_t target;
    // The ST of the search; null when the answer carries the target's own text.
    std::shared_ptr<const std::string> searched;
    sockaddr_in to;
    int interface_index;
  };

  void OnDatagram(std::string_view text, const sockaddr_in& from, int interface_index);
  bool SeenBefore(std::string_view text, const sockaddr_in& from);
  void Answer(const Search& search, const sockaddr_in& from, const Interface& interface);
  void AnswerUuid(const Search& search, const sockaddr_in& from, const Interface& interface);
  void Enqueue(const Search& search, Pending pending);
  TimePoint AnswerTime(unsigned mx);
  void ArmTimer();
  void SendDue();
  void SendToGroup(const Device& device, bool alive);
  const Interface* FindInterface(int index) const;

  EventLoop& loop_;
  Fleet& fleet_;
  Statistics& statistics_;
  SsdpOptions options_;
  std::vector<Interface> interfaces_;
  SsdpSocket socket_;
  std::mt19937 random_;
  std::multimap<TimePoint, Pending> pending_;
  EventLoop::TimerId timer_ = 0;
  TimePoint timer_time_{};
  std::string last_search_;
  sockaddr_in last_searcher_{};
  TimePoint last_search_time_{};
};

}  // namespace vexsim

#endif  // VEXSIM_SSDP_SERVER_H_

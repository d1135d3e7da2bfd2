#ifndef VEXSIM_EVENT_SERVER_H_
#define VEXSIM_EVENT_SERVER_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "event_loop.h"
#include "http_message.h"
#include "notification.h"
#include "statistics.h"

namespace vexsim {

// Device id and index of the service in its folder.
using ServiceKey = std::pair<unsigned, std::size_t>;

using Properties = std::vector<std::pair<std::string, std::string>>;

struct EventOptions {
  // When the first event of a subscription leaves, against the answer to SUBSCRIBE.
  enum class Initial { kAfter, kBefore, kLate, kNever };
  Initial initial = Initial::kAfter;
  Milliseconds late{0};
  // Longest time granted, in seconds.
  unsigned timeout_s = 1800;
  // All variables in one property, as some devices have them.
  bool merged = false;
};

// Subscriptions to the services of all devices, and their events (GENA).
class EventServer {
 public:
  EventServer(EventLoop& loop, Statistics& statistics);

  // SUBSCRIBE, renewal or UNSUBSCRIBE. `initial` is what a new subscriber is told.
  HttpResponse Handle(const ServiceKey& service, const HttpRequest& request,
                      const Properties& initial);
  void Publish(const ServiceKey& service, const Properties& properties);
  // Ends all subscriptions of a device without a word.
  void Forget(unsigned device);
  EventOptions& options() { return options_; }
  std::size_t Count() const { return subscriptions_.size(); }

 private:
  struct Subscription {
    ServiceKey service;
    std::string sid;
    std::vector<CallbackUrl> callbacks;
    TimePoint expires;
    std::uint32_t sequence = 0;
    // Messages behind the one that is under way.
    std::deque<std::string> queue;
    std::unique_ptr<Notification> sending;
    // Which of the callbacks is tried.
    std::size_t callback = 0;
    // Holds events back until the first one has gone.
    bool open = false;
  };

  HttpResponse Subscribe(const ServiceKey& service, const HttpRequest& request,
                         const Properties& initial);
  HttpResponse Renew(const ServiceKey& service, const HttpRequest& request);
  HttpResponse Unsubscribe(const ServiceKey& service, const HttpRequest& request);
  Subscription* Find(const ServiceKey& service, const HttpRequest& request);
  HttpResponse Granted(Subscription& subscription, const HttpRequest& request);
  void SendInitial(const std::string& sid, const Properties& initial);
  void Enqueue(Subscription& subscription, const Properties& properties);
  void SendNext(const std::string& sid);
  void OnAnswer(const std::string& sid, int status);

  EventLoop& loop_;
  Statistics& statistics_;
  EventOptions options_;
  std::uint64_t last_sid_ = 0;
  // By SID.
  std::map<std::string, Subscription> subscriptions_;
};

}  // namespace vexsim

#endif  // VEXSIM_EVENT_SERVER_H_

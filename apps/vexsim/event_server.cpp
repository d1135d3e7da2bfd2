#include "event_server.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "text.h"
#include "xml.h"

namespace vexsim {

namespace {

// By then an event sent before the answer has arrived.
constexpr Milliseconds kAnswerAfterEvent{300};
constexpr int kPreconditionFailed = 412;
constexpr int kBadRequest = 400;

HttpResponse Status(int status) {
  HttpResponse response;
  response.status = status;
  return response;
}

std::string PropertySet(const Properties& properties, bool merged) {
  std::string body =
      "<?xml version=\"1.0\"?>\n<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\n";
  const std::string begin = "<e:property>", end = "</e:property>\n";
  if (merged) body += begin;
  for (const auto& [name, value] : properties)
    body += (merged ? "" : begin) + "<" + name + ">" + EscapeXml(value) + "</" + name + ">" +
            (merged ? "" : end);
  return body + (merged ? end : "") + "</e:propertyset>\n";
}

// No two subscriptions share one, not those of two simulators either.
std::string NewSid(std::uint64_t number) {
  static const unsigned run = std::random_device{}();
  char text[64];
  std::snprintf(text, sizeof(text), "uuid:%08x-696d-4000-8000-%012llx", run,
                static_cast<unsigned long long>(number));
  return text;
}

// The message without its first two lines, which depend on the callback.
std::string NotifyRest(const std::string& sid, std::uint32_t sequence, const std::string& body) {
  return "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nCONTENT-LENGTH: " +
         std::to_string(body.size()) + "\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nSID: " + sid +
         "\r\nSEQ: " + std::to_string(sequence) + "\r\n\r\n" + body;
}

}  // namespace

EventServer::EventServer(EventLoop& loop, Statistics& statistics)
    : loop_(loop), statistics_(statistics) {}

HttpResponse EventServer::Handle(const ServiceKey& service, const HttpRequest& request,
                                 const Properties& initial) {
  const bool has_sid = request.HasHeader("SID");
  const bool has_new = request.HasHeader("NT") || request.HasHeader("CALLBACK");
  if (has_sid && has_new) return Status(kBadRequest);
  if (request.method == "UNSUBSCRIBE") return Unsubscribe(service, request);
  return has_sid ? Renew(service, request) : Subscribe(service, request, initial);
}

HttpResponse EventServer::Granted(Subscription& subscription, const HttpRequest& request) {
  constexpr std::string_view kSecond = "Second-";
  const std::string_view wish = request.Header("TIMEOUT");
  unsigned seconds = options_.timeout_s;
  if (EqualsNoCase(wish.substr(0, kSecond.size()), kSecond))
    seconds = std::min(seconds, ToNumber<unsigned>(wish.substr(kSecond.size())).value_or(seconds));
  subscription.expires = Clock::now() + std::chrono::seconds(seconds);
  HttpResponse response;
  response.headers = {{"SID", subscription.sid}, {"TIMEOUT", "Second-" + std::to_string(seconds)}};
  return response;
}

HttpResponse EventServer::Subscribe(const ServiceKey& service, const HttpRequest& request,
                                    const Properties& initial) {
  const std::vector<CallbackUrl> callbacks = ParseCallbacks(request.Header("CALLBACK"));
  if (request.Header("NT") != "upnp:event" || callbacks.empty()) return Status(kPreconditionFailed);
  const std::string sid = NewSid(++last_sid_);
  Subscription& subscription = subscriptions_[sid];
  subscription.service = service;
  subscription.sid = sid;
  subscription.callbacks = callbacks;
  ++statistics_.subscriptions;
  HttpResponse response = Granted(subscription, request);
  switch (options_.initial) {
    case EventOptions::Initial::kBefore:
      response.delay = kAnswerAfterEvent;
      SendInitial(sid, initial);
      break;
    case EventOptions::Initial::kAfter:
      loop_.After(Milliseconds(0), [this, sid, initial] { SendInitial(sid, initial); });
      break;
    case EventOptions::Initial::kLate:
      loop_.After(options_.late, [this, sid, initial] { SendInitial(sid, initial); });
      break;
    case EventOptions::Initial::kNever:
      subscription.open = true;
      break;
  }
  return response;
}

EventServer::Subscription* EventServer::Find(const ServiceKey& service,
                                             const HttpRequest& request) {
  const auto found = subscriptions_.find(std::string(request.Header("SID")));
  if (found == subscriptions_.end() || found->second.service != service) return nullptr;
  if (found->second.expires < Clock::now()) {
    subscriptions_.erase(found);
    return nullptr;
  }
  return &found->second;
}

HttpResponse EventServer::Renew(const ServiceKey& service, const HttpRequest& request) {
  Subscription* subscription = Find(service, request);
  if (subscription == nullptr) return Status(kPreconditionFailed);
  ++statistics_.renewals;
  return Granted(*subscription, request);
}

HttpResponse EventServer::Unsubscribe(const ServiceKey& service, const HttpRequest& request) {
  Subscription* subscription = Find(service, request);
  if (subscription == nullptr) return Status(kPreconditionFailed);
  subscriptions_.erase(subscription->sid);
  return HttpResponse();
}

void EventServer::SendInitial(const std::string& sid, const Properties& initial) {
  const auto found = subscriptions_.find(sid);
  if (found == subscriptions_.end()) return;
  found->second.open = true;
  Enqueue(found->second, initial);
}

void EventServer::Publish(const ServiceKey& service, const Properties& properties) {
  if (properties.empty()) return;
  const TimePoint now = Clock::now();
  for (auto entry = subscriptions_.begin(); entry != subscriptions_.end();) {
    Subscription& subscription = entry->second;
    if (subscription.expires < now) {
      entry = subscriptions_.erase(entry);
      continue;
    }
    if (subscription.service == service && subscription.open) Enqueue(subscription, properties);
    ++entry;
  }
}

void EventServer::Enqueue(Subscription& subscription, const Properties& properties) {
  subscription.queue.push_back(NotifyRest(subscription.sid, subscription.sequence,
                                          PropertySet(properties, options_.merged)));
  // 0 belongs to the first event only.
  if (++subscription.sequence == 0) subscription.sequence = 1;
  if (!subscription.sending) SendNext(subscription.sid);
}

void EventServer::SendNext(const std::string& sid) {
  const auto found = subscriptions_.find(sid);
  if (found == subscriptions_.end() || found->second.queue.empty()) return;
  Subscription& subscription = found->second;
  const CallbackUrl& url = subscription.callbacks[subscription.callback];
  subscription.sending =
      std::make_unique<Notification>(loop_, url,
                                     "NOTIFY " + url.path + " HTTP/1.1\r\nHOST: " + url.authority +
                                         "\r\n" + subscription.queue.front(),
                                     [this, sid](int status) { OnAnswer(sid, status); });
}

void EventServer::OnAnswer(const std::string& sid, int status) {
  const auto found = subscriptions_.find(sid);
  if (found == subscriptions_.end()) return;
  Subscription& subscription = found->second;
  subscription.sending.reset();
  // The subscriber does not know this subscription: it is over.
  if (status == kPreconditionFailed) {
    subscriptions_.erase(found);
    return;
  }
  if (status == 0 && ++subscription.callback < subscription.callbacks.size()) {
    SendNext(sid);
    return;
  }
  subscription.callback = 0;
  if (status != 0) ++statistics_.events;
  subscription.queue.pop_front();
  SendNext(sid);
}

void EventServer::Forget(unsigned device) {
  for (auto entry = subscriptions_.begin(); entry != subscriptions_.end();)
    entry = entry->second.service.first == device ? subscriptions_.erase(entry) : std::next(entry);
}

}  // namespace vexsim

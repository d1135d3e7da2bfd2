#include "tests/stress/fake_network.h"

#include <chrono>

#include "tests/stress/host_calls.h"
#include "tests/stress/stress_watch.h"
#include "tests/support/fake_device.h"
#include "tests/support/private_network.h"
#include "tests/support/scripted_device.h"
#include "tests/support/ssdp_peer.h"

namespace vex_stress {
namespace {

using std::chrono::milliseconds;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;

constexpr int kDevices = 6;
constexpr int kTalkers = 2;
constexpr std::size_t kSubscriptionsKept = 40;
constexpr char kScpd[] =
    "<?xml version=\"1.0\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"></scpd>";

std::string WithLength(const std::string& start_line, const std::string& headers,
                       const std::string& body) {
  return start_line + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string Nonsense(std::mt19937& random) {
  std::string text(random() % 300, '\0');
  for (char& c : text) c = static_cast<char>(random() & 0xFF);
  return text;
}

}  // namespace

const std::vector<std::string> kServices = {"AVTransport", "RenderingControl", "SwitchPower"};

MoodyDevice::MoodyDevice(int number, int network)
    : number_(number),
      network_(network),
      udn_("uuid:moody-" + std::to_string(number)),
      random_(static_cast<unsigned>(number)) {
  peer_ = std::make_unique<vex_test::ControlPeer>(
      "10.77." + std::to_string(network) + ".2", 0,
      [this](const PeerRequest& request) { return Serve(request); });
  peer_->KeepRequests(false);
}

std::string MoodyDevice::key() const { return udn_ + "+lan" + std::to_string(network_); }

std::string MoodyDevice::LibraryAddress() const {
  return "10.77." + std::to_string(network_) + ".1";
}

void MoodyDevice::SayAlive() {
  vex_test::SsdpPeer(ip()).Send(vex_test::AliveDatagram(udn_ + "::upnp:rootdevice",
                                                        "upnp:rootdevice", peer_->Url("/desc.xml")),
                                LibraryAddress(), kSearchPort);
}

void MoodyDevice::SayByebye() {
  vex_test::SsdpPeer(ip()).Send(
      vex_test::ByebyeDatagram(udn_ + "::upnp:rootdevice", "upnp:rootdevice"), LibraryAddress(),
      kSearchPort);
}

int MoodyDevice::Dice(int sides) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(random_() % static_cast<unsigned>(sides));
}

PeerAnswer MoodyDevice::Serve(const PeerRequest& request) {
  if (request.Begins("GET /desc.xml")) {
    vex_test::FakeDevice device;
    device.udn = udn_;
    device.friendly_name = "Moody";
    for (const std::string& name : kServices) {
      device.services.push_back({"urn:schemas-upnp-org:service:" + name + ":1",
                                 "urn:upnp-org:serviceId:" + name, "/scpd/" + name, "/ctl/" + name,
                                 "/evt/" + name});
    }
    // Now and then a description does not come.
    if (Dice(20) == 0) return vex_test::Silence();
    return vex_test::Text(WithLength("HTTP/1.1 200 OK", "", vex_test::DescriptionOf(device)));
  }
  if (request.Begins("GET /scpd/")) return vex_test::Text(WithLength("HTTP/1.1 200 OK", "", kScpd));
  if (request.Begins("GET /media")) {
    return vex_test::Text(
        WithLength("HTTP/1.1 200 OK", "", std::string(kMediaBytes, kMediaLetter)));
  }
  if (request.Begins("POST /media")) {
    Counts::Add("network: bodies taken");
    if (request.Body() != std::string(kMediaBytes, kMediaLetter)) Violation("a body is not whole");
    return vex_test::Text(WithLength("HTTP/1.1 200 OK", "", ""));
  }
  if (request.Begins("SUBSCRIBE ")) return ServeSubscribe(request);
  if (request.Begins("UNSUBSCRIBE ")) {
    Counts::Add("network: unsubscribes");
    return vex_test::Text(WithLength("HTTP/1.1 200 OK", "", ""));
  }
  if (request.Begins("POST /ctl/")) return ServeAction();
  return vex_test::Text(WithLength("HTTP/1.1 404 Not Found", "", ""));
}

PeerAnswer MoodyDevice::ServeAction() {
  Counts::Add("network: actions");
  constexpr int kMoods = 100;
  const int mood = Dice(kMoods);
  if (mood < 8) return vex_test::Silence();
  if (mood < 16) return vex_test::Reset();
  if (mood < 26) return ScriptedDevice::Fault(701, "Not now");
  if (mood < 29) return vex_test::Text("HTTP/9.9 no answer\r\n\r\n\r\n");
  if (mood < 32) return vex_test::Text(WithLength("HTTP/1.1 200 OK", "", "no envelope"));
  PeerAnswer answer = ScriptedDevice::Response("Any", "<Result>1</Result>");
  // Some come together with the time-out.
  if (mood < 42) answer.delay = milliseconds(Dice(900));
  return answer;
}

std::string MoodyDevice::NewSubscription(const std::string& callback) {
  const std::size_t host = std::string("<http://").size();
  const std::size_t colon = callback.find(':', host);
  const std::size_t path = callback.find('/', colon);
  const std::lock_guard<std::mutex> lock(mutex_);
  Subscription subscription;
  subscription.sid = "uuid:moody-" + std::to_string(number_) + "-" + std::to_string(++last_sid_);
  subscription.ip = callback.substr(host, colon - host);
  subscription.port = std::stoi(callback.substr(colon + 1, path - colon - 1));
  subscription.path = callback.substr(path, callback.find('>') - path);
  if (subscriptions_.size() >= kSubscriptionsKept) subscriptions_.erase(subscriptions_.begin());
  subscriptions_.push_back(subscription);
  return subscription.sid;
}

PeerAnswer MoodyDevice::ServeSubscribe(const PeerRequest& request) {
  const std::string callback = request.Header("CALLBACK");
  Counts::Add(callback.empty() ? "network: renewals" : "network: subscribes");
  constexpr int kMoods = 100;
  const int mood = Dice(kMoods);
  if (mood < 5) return vex_test::Silence();
  if (mood < 10) return vex_test::Reset();
  if (mood < 18) return vex_test::Text(WithLength("HTTP/1.1 503 Later", "", ""));
  const std::string sid = callback.empty() ? request.Header("SID") : NewSubscription(callback);
  const std::string granted = std::to_string(2 + Dice(60));
  PeerAnswer answer = vex_test::Text(
      WithLength("HTTP/1.1 200 OK", "SID: " + sid + "\r\nTIMEOUT: Second-" + granted + "\r\n", ""));
  if (mood < 24) answer.delay = milliseconds(Dice(700));
  return answer;
}

void MoodyDevice::Notify(std::mt19937& random) {
  Subscription subscription;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (subscriptions_.empty()) return;
    // The newest are the likeliest to be alive.
    const std::size_t back = random() % 8;
    subscription = subscriptions_[subscriptions_.size() - 1 - back % subscriptions_.size()];
  }
  SendEvent(subscription, std::to_string(random() % 1000));
}

void MoodyDevice::SendEvent(const Subscription& subscription, const std::string& value) {
  const std::string body =
      "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"><e:property><Value>" + value +
      "</Value></e:property></e:propertyset>";
  const std::string answer = vex_test::ExchangeWith(
      subscription.ip, subscription.port,
      WithLength("NOTIFY " + subscription.path + " HTTP/1.1",
                 "HOST: " + subscription.ip + ":" + std::to_string(subscription.port) +
                     "\r\nCONTENT-TYPE: text/xml\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\n"
                     "SID: " +
                     subscription.sid + "\r\nSEQ: 1\r\n",
                 body),
      ip());
  Counts::Add(answer.empty() ? "network: events without an answer"
                             : "network: events answered " + answer.substr(9, 3));
}

FakeNetwork::FakeNetwork(unsigned seed) {
  for (int i = 0; i < kDevices; ++i) devices_.push_back(std::make_unique<MoodyDevice>(i, i % 2));
  for (unsigned i = 0; i < kTalkers; ++i)
    threads_.emplace_back([this, seed, i] { Talk(seed + i); });
  threads_.emplace_back([this, seed] { MoveInterfaces(seed); });
  threads_.emplace_back([this, seed] { FetchMedia(seed); });
}

FakeNetwork::~FakeNetwork() {
  ended_ = true;
  for (std::thread& thread : threads_) thread.join();
}

void FakeNetwork::Talk(unsigned seed) {
  std::mt19937 random(seed);
  while (!ended_) {
    MoodyDevice& device = *devices_[random() % devices_.size()];
    const unsigned mood = static_cast<unsigned>(random() % 100);
    if (mood < 25) {
      device.SayAlive();
    } else if (mood < 30) {
      device.SayByebye();
    } else if (mood < 92) {
      device.Notify(random);
    } else if (mood < 96) {
      vex_test::SsdpPeer(device.ip()).Send(Nonsense(random), "10.77.0.1", kSearchPort);
    } else {
      vex_test::ExchangeWith("10.77.0.1", kEventPort, Nonsense(random) + "\r\n\r\n", device.ip());
    }
    // A pace that leaves the host threads their share of two cores.
    std::this_thread::sleep_for(milliseconds(1 + random() % 4));
  }
}

void FakeNetwork::FetchMedia(unsigned seed) {
  std::mt19937 random(seed);
  while (!ended_) {
    vex_test::SsdpPeer("10.77.0.2")
        .Send("NOTIFY * HTTP/1.1\r\nNTS: x-stress\r\n\r\n", "10.77.0.1", kSearchPort);
    vex_test::ExchangeWith("10.77.0.1", kEventPort, "GET /stress HTTP/1.1\r\nHOST: x\r\n\r\n",
                           "10.77.0.2");
    const int port = kMediaPort + static_cast<int>(random() % kHostThreads);
    const std::string answer = vex_test::ExchangeWith(
        "10.77.0.1", port, "GET /media HTTP/1.1\r\nHOST: x\r\nConnection: close\r\n\r\n",
        "10.77.0.2");
    const std::size_t body = answer.find("\r\n\r\n");
    if (body == std::string::npos) {
      Counts::Add("network: no media");
    } else if (answer.size() - body - 4 == kServedBytes) {
      Counts::Add("network: media fetched whole");
      if (answer.find_first_not_of(kMediaLetter, body + 4) != std::string::npos)
        Violation("the network got other bytes than were served");
    } else {
      Counts::Add("network: media cut off");
    }
    std::this_thread::sleep_for(milliseconds(random() % 20));
  }
}

void FakeNetwork::MoveInterfaces(unsigned seed) {
  std::mt19937 random(seed);
  for (;;) {
    const auto until = Clock::now() + milliseconds(500 + random() % 1500);
    while (Clock::now() < until) {
      if (ended_) return;
      std::this_thread::sleep_for(milliseconds(20));
    }
    const vex_test::ScopedLinkDown down("lan1");
    Counts::Add("network: interface taken down");
    std::this_thread::sleep_for(milliseconds(random() % 400));
  }
}

}  // namespace vex_stress

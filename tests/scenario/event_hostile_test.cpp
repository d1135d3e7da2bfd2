// What may be sent to the event server, and what a device may answer to a SUBSCRIBE, with the whole
// library behind it.

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "base/limits.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/hostile_xml.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/scripted_device.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::ExchangeWith;
using vex_test::HostLog;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::RepeatedText;
using vex_test::ScriptedDevice;
using vex_test::StillWorks;
using vex_test::TcpClient;
using vex_test::Text;
using vex_test::WaitUntil;

constexpr char kOk[] = "HTTP/1.1 200 OK";
constexpr char kBad[] = "HTTP/1.1 400 Bad Request";
// Where nobody listens, and for a request that is too long.
constexpr char kNobody[] = "HTTP/1.0 400 Bad Request ";
constexpr char kTooLong[] = "HTTP/1.0 400 Bad Request";
constexpr char kUnknown[] = "HTTP/1.1 412 Precondition Failed";
constexpr char kProperties[] = "<e:property><State>1</State></e:property>";
constexpr char kEvent[] =
    "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"><e:property><State>1</State>"
    "</e:property></e:propertyset>";

std::string FirstLine(const std::string& text) { return text.substr(0, text.find("\r\n")); }

class EventHostile : public vex_test::HostileRig {
 protected:
  void SetUp() override {
    HostileRig::SetUp();
    key_ = rig_.Meet(device_);
  }

  void Subscribe(const char* service) {
    ASSERT_EQ(0, SubscribeService(handle_, key_.c_str(), service));
    ASSERT_TRUE(WaitUntil([&] { return device_.Notify(service, 0, kProperties) == kOk; }));
    HostLog::Clear();
  }
  // What the event server answers to these bytes.
  static std::string Ask(const std::string& request, const std::string& from = "10.77.0.2") {
    return FirstLine(ExchangeWith(kLibrary, kEventPort, request, from));
  }
  static std::string Notify(
      const std::string& sid, const std::string& body = kEvent,
      const std::string& more = "NT: upnp:event\r\nNTS: upnp:propchange\r\nSEQ: 1\r\n") {
    return "NOTIFY /eventing_1/ HTTP/1.1\r\nHOST: 10.77.0.1:5100\r\n" + more + "SID: " + sid +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
  // A NOTIFY of exactly this size, header and body.
  static std::string NotifyOfSize(const std::string& sid, std::size_t size) {
    const std::size_t frame = Notify(sid, std::string(1000000, 'b')).size() - 1000000;
    return Notify(sid, std::string(size - frame, 'b'));
  }

  ScriptedDevice device_{"uuid:telling", {"First", "Second"}};
  std::string key_;
};

struct OddNotify {
  const char* name;
  std::string request;
  std::string answer;
};

TEST_F(EventHostile, OddNotificationsAreAnsweredAndTheNextOneIsHeard) {
  Subscribe("First");
  Subscribe("Second");
  const std::string first = "uuid:telling-sub-1";
  const std::string second = "uuid:telling-sub-2";
  const std::string usual = "NT: upnp:event\r\nNTS: upnp:propchange\r\n";
  const std::vector<OddNotify> odd = {
      {"empty SID", Notify(""), kBad},
      {"a prefix of a SID", Notify("uuid:telling-sub-"), kUnknown},
      {"one longer", Notify(first + "1"), kUnknown},
      {"in capitals", Notify("UUID:TELLING-SUB-1"), kUnknown},
      {"with NUL inside", Notify(std::string("uuid:telling\0-sub-1", 19)), kUnknown},
      {"with NUL behind", Notify(first + std::string(1, '\0')), kUnknown},
      {"SID of 100 KB", Notify(std::string(100000, 's')), kUnknown},
      {"of another subscription", Notify(second), kOk},
      {"no body", Notify(first, ""), kBad},
      {"body with a NUL", Notify(first, std::string("a\0b", 3)), kBad},
      {"no SEQ", Notify(first, kEvent, usual), kBad},
      {"SEQ of -1", Notify(first, kEvent, usual + "SEQ: -1\r\n"), kOk},
      {"SEQ that is no number", Notify(first, kEvent, usual + "SEQ: zz\r\n"), kOk},
      {"300,000 lines that are no headers",
       Notify(first, kEvent, usual + "SEQ: 1\r\nX: y\r\n" + RepeatedText("x\r\n", 300000)), kOk},
      {"no NT", Notify(first, kEvent, "NTS: upnp:propchange\r\nSEQ: 1\r\n"), kBad},
      {"another NT", Notify(first, kEvent, "NT: x\r\nNTS: upnp:propchange\r\nSEQ: 1\r\n"),
       kUnknown},
      {"another NTS", Notify(first, kEvent, "NT: upnp:event\r\nNTS: x\r\nSEQ: 1\r\n"), kUnknown},
      {"a path of nobody", "NOTIFY /elsewhere HTTP/1.1\r\nContent-Length: 1\r\n\r\nx", kNobody},
      {"another method", "GET /eventing_1 HTTP/1.1\r\n\r\n", kUnknown},
      {"1 MiB", NotifyOfSize(first, vex_upnp::limits::kEventRequestBytes), kOk},
      {"1 MiB and a byte", NotifyOfSize(first, vex_upnp::limits::kEventRequestBytes + 1), kTooLong},
      {"200,000 headers", "NOTIFY /eventing_1/ HTTP/1.1\r\n" + RepeatedText("a: b\r\n", 200000),
       kTooLong},
      {"chunks",
       Notify(first, "5\r\nhello\r\n0\r\n\r\n", usual + "SEQ: 1\r\nTransfer-Encoding: chunked\r\n"),
       kOk},
      {"chunk size of 16 digits",
       Notify(first, "FFFFFFFFFFFFFFFF\r\nhello\r\n0\r\n\r\n",
              usual + "SEQ: 1\r\nTransfer-Encoding: chunked\r\n"),
       ""},
      {"no request", "nothing of the kind\r\n\r\n", ""},
      {"an answer", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", kNobody},
      {"bytes", std::string(1000, '\xFF') + "\r\n\r\n", ""},
  };
  for (const OddNotify& one : odd) {
    SCOPED_TRACE(one.name);
    EXPECT_EQ(one.answer, Ask(one.request));
    EXPECT_EQ(kOk, device_.Notify("First", 2, kProperties));
    EXPECT_EQ("State=1", HostLog::Events().back().variables);
  }
}

TEST_F(EventHostile, AnEventOfAHostThatIsNotTheDeviceGoesByItsSid) {
  Subscribe("First");
  EXPECT_EQ(kOk, Ask(Notify("uuid:telling-sub-1"), "10.77.1.2"));
  EXPECT_EQ(kUnknown, Ask(Notify("uuid:telling-sub-7"), "10.77.1.2"));
  EXPECT_EQ(1U, HostLog::Events().size());
}

TEST_F(EventHostile, AThousandEventsOfEachOfTwoServicesAreAllToldInOrder) {
  Subscribe("First");
  Subscribe("Second");
  const auto tell = [&](const char* service) {
    for (int i = 1; i <= 1000; ++i) {
      EXPECT_EQ(kOk, device_.Notify(service, i,
                                    "<e:property><" + std::string(service) + ">" +
                                        std::to_string(i) + "</" + service + "></e:property>"));
    }
  };
  std::thread first([&] { tell("First"); });
  tell("Second");
  first.join();
  int next_first = 1;
  int next_second = 1;
  for (const auto& event : HostLog::Events()) {
    int& next = event.variables[0] == 'F' ? next_first : next_second;
    const std::string name = event.variables[0] == 'F' ? "First=" : "Second=";
    EXPECT_EQ(name + std::to_string(next), event.variables);
    ++next;
  }
  EXPECT_EQ(1001, next_first);
  EXPECT_EQ(1001, next_second);
}

TEST_F(EventHostile, AThousandNotificationsOfUnknownSubscriptions) {
  Subscribe("First");
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(kUnknown, Ask(Notify("uuid:nobody")));
}

TEST_F(EventHostile, ThreeHundredConnectionsThatSendTheirHeadersByteByByte) {
  Subscribe("First");
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < 300; ++i) {
    clients.push_back(std::make_unique<TcpClient>(kLibrary, kEventPort));
    ASSERT_TRUE(clients.back()->connected());
  }
  const std::string header = "NOTIFY /eventing_1/ HTTP/1.1\r\nX-Never: ";
  for (std::size_t i = 0; i < header.size(); ++i) {
    for (const auto& client : clients) client->Send(header.substr(i, 1));
    if (i % 10 != 0) continue;
    EXPECT_EQ(kOk, device_.Notify("First", 2, kProperties));
  }
  EXPECT_TRUE(StillWorks(handle_));
  for (const auto& client : clients) EXPECT_TRUE(client->OpenAndSilent());
}

TEST_F(EventHostile, ConnectionsThatComeAndGoInEveryWay) {
  Subscribe("First");
  const std::string request = Notify("uuid:telling-sub-1");
  for (int i = 0; i < 200; ++i) {
    TcpClient client(kLibrary, kEventPort);
    ASSERT_TRUE(client.connected());
    client.Send(request.substr(0, request.size() * static_cast<std::size_t>(i % 5) / 4));
    if (i % 3 == 0) client.Reset();
    if (i % 3 == 1) client.EndSending();
  }
  EXPECT_EQ(kOk, device_.Notify("First", 2, kProperties));
}

// Answers to a SUBSCRIBE.

enum class Fate {
  // Its events are told.
  kLives,
  // It is taken, under an identifier that the device won't use.
  kTaken,
  kGivenUp
};

struct OddGrant {
  const char* name;
  Fate fate;
  std::string headers;
};

void PrintTo(const OddGrant& grant, std::ostream* out) { *out << grant.name; }

PeerAnswer Grant(const std::string& headers) {
  return Text("HTTP/1.1 200 OK\r\n" + headers + "Content-Length: 0\r\n\r\n");
}

class OddGrants : public EventHostile, public testing::WithParamInterface<OddGrant> {};

TEST_P(OddGrants, AreTakenOrGivenUpAfterThreeTries) {
  const OddGrant& grant = GetParam();
  device_.OnSubscribe([&](const PeerRequest&) { return Grant(grant.headers); });
  vex_test::LogCapture log;
  {
    // What is no answer at all is waited for.
    const vex_test::FasterTime faster(60);
    ASSERT_EQ(0, SubscribeService(handle_, key_.c_str(), "First"));
    const char* const line = grant.fate == Fate::kGivenUp
                                 ? "Error: Subscription failed Three times!!"
                                 : "OnSubscribeResponseReceived Enter (OnSuccess)";
    EXPECT_TRUE(WaitUntil([&] { return log.Count(line) > 0; }));
  }
  if (grant.fate == Fate::kGivenUp) {
    EXPECT_EQ(3, device_.Subscribes("First"));
    // The line comes before the record goes.
    EXPECT_TRUE(WaitUntil([&] { return Ask(Notify("uuid:odd")) == kNobody; }));
  } else {
    EXPECT_EQ(grant.fate == Fate::kLives ? kOk : kUnknown, Ask(Notify("uuid:odd")));
  }
  ASSERT_TRUE(StillWorks(handle_));
  UnSubscribeService(handle_, key_.c_str(), "First");
  for (const PeerRequest& request : device_.peer().Requests()) {
    EXPECT_EQ(std::string::npos, request.text.find("\rInjected")) << request.text;
    EXPECT_EQ(std::string::npos, request.text.find("\nInjected")) << request.text;
  }
}

constexpr char kSid[] = "SID: uuid:odd\r\n";

INSTANTIATE_TEST_SUITE_P(
    EventHostile, OddGrants,
    testing::Values(
        OddGrant{"0", Fate::kLives, std::string(kSid) + "TIMEOUT: Second-0\r\n"},
        OddGrant{"1", Fate::kLives, std::string(kSid) + "TIMEOUT: Second-1\r\n"},
        OddGrant{"Minus5", Fate::kLives, std::string(kSid) + "TIMEOUT: Second--5\r\n"},
        OddGrant{"2863312", Fate::kLives, std::string(kSid) + "TIMEOUT: Second-2863312\r\n"},
        OddGrant{"2147483647", Fate::kLives, std::string(kSid) + "TIMEOUT: Second-2147483647\r\n"},
        OddGrant{"99999999999", Fate::kGivenUp,
                 std::string(kSid) + "TIMEOUT: Second-99999999999\r\n"},
        OddGrant{"Infinite", Fate::kGivenUp, std::string(kSid) + "TIMEOUT: Second-infinite\r\n"},
        OddGrant{"BareInfinite", Fate::kGivenUp, std::string(kSid) + "TIMEOUT: infinite\r\n"},
        OddGrant{"EmptyTimeout", Fate::kGivenUp, std::string(kSid) + "TIMEOUT: \r\n"},
        OddGrant{"NoTimeout", Fate::kGivenUp, kSid},
        OddGrant{"NoSid", Fate::kGivenUp, "TIMEOUT: Second-1800\r\n"},
        OddGrant{"EmptySid", Fate::kTaken, "SID:\r\nTIMEOUT: Second-1800\r\n"},
        OddGrant{"SidWithLineEnd", Fate::kGivenUp,
                 "SID: uuid:x\r\rInjected: y\r\nTIMEOUT: Second-1800\r\n"},
        OddGrant{"SidOverTwoLines", Fate::kTaken,
                 "SID: uuid:x\r\n Injected\r\nTIMEOUT: Second-1800\r\n"},
        OddGrant{"SidWithNul", Fate::kGivenUp,
                 std::string("SID: uuid:o\0dd\r\nTIMEOUT: Second-1800\r\n", 38)},
        OddGrant{"SidOf200Kb", Fate::kGivenUp,
                 "SID: " + std::string(300000, 's') + "\r\nTIMEOUT: Second-1800\r\n"}),
    [](const testing::TestParamInfo<OddGrant>& grant) { return std::string(grant.param.name); });

TEST_F(EventHostile, ASidLikeAnothersTakesNoEventsAway) {
  Subscribe("First");
  device_.OnSubscribe([&](const PeerRequest&) {
    return Grant("SID: uuid:telling-sub-1\r\nTIMEOUT: Second-1800\r\n");
  });
  const vex_test::LogCapture log;
  ASSERT_EQ(0, SubscribeService(handle_, key_.c_str(), "Second"));
  // Before it has been handled, the subscription could not be given up.
  ASSERT_TRUE(WaitUntil([&] { return log.Count("OnSubscribeResponseReceived  Exit") == 1; }));
  EXPECT_EQ(kOk, Ask(Notify("uuid:telling-sub-1")));
  EXPECT_EQ(1U, HostLog::Events().size());
  EXPECT_EQ(0, UnSubscribeService(handle_, key_.c_str(), "Second"));
  EXPECT_EQ(kOk, Ask(Notify("uuid:telling-sub-1")));
}

TEST_F(EventHostile, AFirstEventBeforeTheAnswerIsRefusedAndOneLongAfterItTold) {
  std::string early;
  device_.OnSubscribe([&](const PeerRequest&) {
    early = Ask(Notify("uuid:hasty"));
    return Grant("SID: uuid:hasty\r\nTIMEOUT: Second-1800\r\n");
  });
  ASSERT_EQ(0, SubscribeService(handle_, key_.c_str(), "First"));
  ASSERT_TRUE(WaitUntil([&] { return Ask(Notify("uuid:hasty")) == kOk; }));
  EXPECT_EQ(kUnknown, early);
  ASSERT_TRUE(StillWorks(handle_));
  const std::size_t before = HostLog::Events().size();
  EXPECT_EQ(kOk, Ask(Notify("uuid:hasty")));
  EXPECT_EQ(before + 1, HostLog::Events().size());
}

}  // namespace

#include "src/callbackhandler.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>

#include "base/limits.h"
#include "src/incoming_tcp_session.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using testing::ElementsAre;
using utils::HTTPInfo;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";

const char kAnnouncement[] =
    "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\n"
    "LOCATION: http://10.0.0.7:49152/description.xml\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n"
    "SERVER: Linux/5.10 UPnP/1.0 Box/1.0\r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n";
const char kAnswer[] =
    "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nEXT:\r\n"
    "LOCATION: http://10.0.0.7:49152/description.xml\r\nSERVER: Linux/5.10 UPnP/1.0 Box/1.0\r\n"
    "ST: upnp:rootdevice\r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n";
const char kAnnouncementPattern[] = "NOTIFY,HOST,NTS,NT,USN,1900";
const char kAnswerPattern[] = "HTTP/1.1,200,OK,LOCATION,SERVER,USN,ST";

boost::shared_ptr<HTTPInfo> Message(const std::string& text, const std::string& sender = "") {
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  EXPECT_EQ(0,
            utils::HTTPParser::Parse(text.c_str(), static_cast<unsigned int>(text.size()), info));
  info->SetClientIpAddress(sender);
  return info;
}

boost::shared_ptr<HTTPInfo> Event(const std::string& sid, const std::string& path = "/event") {
  return Message("NOTIFY " + path + " HTTP/1.1\r\nSID: " + sid + "\r\nCONTENT-LENGTH: 0\r\n\r\n");
}

// A door that callers of a listener have to pass.
class Door {
 public:
  void Pass(const std::string& who) {
    std::unique_lock<std::mutex> lock(mutex_);
    inside_.push_back(who);
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    inside_.erase(std::find(inside_.begin(), inside_.end(), who));
    passed_.push_back(who);
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  std::vector<std::string> Inside() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> sorted = inside_;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }
  std::vector<std::string> Passed() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return passed_;
  }
  std::size_t PassedCount() { return Passed().size(); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  std::vector<std::string> inside_;
  std::vector<std::string> passed_;
};

class UdpListener : public UDPRequestListener {
 public:
  using Action = std::function<void(const boost::shared_ptr<HTTPInfo>&)>;
  explicit UdpListener(Action action = [](const boost::shared_ptr<HTTPInfo>&) {})
      : action_(std::move(action)) {}
  void OnUDPRequestReceived(boost::shared_ptr<HTTPInfo> request) override {
    action_(request);
    ++calls;
  }
  std::atomic<int> calls{0};

 private:
  const Action action_;
};

class TcpListener : public TCPRequestListener {
 public:
  using Action = std::function<void(const boost::shared_ptr<HTTPInfo>&, void*)>;
  explicit TcpListener(Action action) : action_(std::move(action)) {}
  void OnTCPRequestReceived(boost::shared_ptr<HTTPInfo> request, void* session_context) override {
    action_(request, session_context);
  }

 private:
  const Action action_;
};

class AnswerListener : public ResponseListener {
 public:
  using Action = std::function<void(int session_id)>;
  explicit AnswerListener(Action action = [](int) {}) : action_(std::move(action)) {}
  void OnResponseReceived(boost::shared_ptr<HTTPInfo> response, const int& session_id) override {
    action_(session_id);
    const std::lock_guard<std::mutex> lock(mutex_);
    answers_.emplace_back(session_id, response->GetStatusCode());
  }
  std::vector<std::pair<int, unsigned int>> Answers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answers_;
  }

 private:
  const Action action_;
  std::mutex mutex_;
  std::vector<std::pair<int, unsigned int>> answers_;
};

std::string SenderOf(const boost::shared_ptr<HTTPInfo>& request) {
  std::string sender;
  request->GetClientIpAddress(sender);
  return sender;
}

std::string PathOf(const boost::shared_ptr<HTTPInfo>& request) {
  std::string path;
  request->GetURI(path);
  return path;
}

class CallBackHandlerTest : public testing::Test {
 protected:
  void SetUp() override {
    CallBackHandler::DestroyInstance();
    handler_ = CallBackHandler::GetInstance();
  }
  void TearDown() override {
    door_.Open();
    handler_->StopCallbackThreads();
    handler_.reset();
    CallBackHandler::DestroyInstance();
  }

  int Register(const boost::shared_ptr<UdpListener>& listener, std::vector<std::string> patterns) {
    int id = 0;
    boost::shared_ptr<UDPRequestListener> base = listener;
    EXPECT_EQ(0, handler_->RegisterUDPPattern(patterns, base, id));
    return id;
  }
  int Register(const boost::shared_ptr<TcpListener>& listener, std::vector<std::string> patterns) {
    int id = 0;
    boost::shared_ptr<TCPRequestListener> base = listener;
    EXPECT_EQ(0, handler_->RegisterTCPPattern(patterns, base, id));
    return id;
  }
  void Datagram(boost::shared_ptr<HTTPInfo> message, std::size_t bytes = 0) {
    EXPECT_EQ(0, handler_->InvokeUDPRequestHandler(message, bytes));
  }
  void Request(boost::shared_ptr<HTTPInfo> message, void* context = nullptr) {
    EXPECT_EQ(0, handler_->InvokeTCPRequestHandler(message, context));
  }
  // Returns once all that was queued for datagrams before has been looked at.
  void WaitForDatagrams() {
    const boost::shared_ptr<UdpListener> last = boost::make_shared<UdpListener>();
    const int id = Register(last, {"x-the-last-one"});
    for (int i = 0; i < 2; ++i) {
      Datagram(Message("M-SEARCH * HTTP/1.1\r\nX-The-Last-One: 1\r\n\r\n"));
    }
    EXPECT_TRUE(WaitUntil([&] { return last->calls == 2; }));
    handler_->UnRegisterPattern(id);
  }

  boost::shared_ptr<CallBackHandler> handler_;
  Door door_;
};

TEST_F(CallBackHandlerTest, IdsBeginAt202AndServeBothKinds) {
  const auto udp = boost::make_shared<UdpListener>();
  const auto tcp = boost::make_shared<TcpListener>([](const auto&, void*) {});
  EXPECT_EQ(202, Register(udp, {"a"}));
  EXPECT_EQ(204, Register(tcp, {"a"}));
  EXPECT_EQ(206, Register(udp, {"a"}));
}

TEST_F(CallBackHandlerTest, RegistrationWithoutPatternsOrListenerIsRefused) {
  std::vector<std::string> none;
  std::vector<std::string> some = {"a"};
  boost::shared_ptr<UDPRequestListener> udp = boost::make_shared<UdpListener>();
  boost::shared_ptr<TCPRequestListener> tcp =
      boost::make_shared<TcpListener>([](const auto&, void*) {});
  boost::shared_ptr<UDPRequestListener> no_udp;
  boost::shared_ptr<TCPRequestListener> no_tcp;
  int id = 7;
  EXPECT_EQ(1, handler_->RegisterUDPPattern(none, udp, id));
  EXPECT_EQ(-1, id);
  id = 7;
  EXPECT_EQ(1, handler_->RegisterUDPPattern(some, no_udp, id));
  EXPECT_EQ(-1, id);
  id = 7;
  EXPECT_EQ(1, handler_->RegisterTCPPattern(none, tcp, id));
  EXPECT_EQ(-1, id);
  id = 7;
  EXPECT_EQ(1, handler_->RegisterTCPPattern(some, no_tcp, id));
  EXPECT_EQ(-1, id);
  // A refused one uses up no id.
  EXPECT_EQ(0, handler_->RegisterUDPPattern(some, udp, id));
  EXPECT_EQ(202, id);
}

TEST_F(CallBackHandlerTest, SecondUnregistrationFails) {
  const int udp = Register(boost::make_shared<UdpListener>(), {"a"});
  const int tcp = Register(boost::make_shared<TcpListener>([](const auto&, void*) {}), {"a"});
  EXPECT_EQ(0, handler_->UnRegisterPattern(udp));
  EXPECT_NE(0, handler_->UnRegisterPattern(udp));
  EXPECT_EQ(0, handler_->UnRegisterPattern(tcp));
  EXPECT_NE(0, handler_->UnRegisterPattern(tcp));
  EXPECT_NE(0, handler_->UnRegisterPattern(4711));
}

TEST_F(CallBackHandlerTest, DiscoveryPatternsFindTheirPackets) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {kAnswerPattern, kAnnouncementPattern});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement));
  Datagram(Message(kAnswer));
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 2; }));
}

TEST_F(CallBackHandlerTest, PacketThatMatchesTwoListenersGoesToTheEarlierOneOnly) {
  const auto first = boost::make_shared<UdpListener>();
  const auto second = boost::make_shared<UdpListener>();
  Register(first, {"nobody", "NOTIFY,USN"});
  Register(second, {kAnnouncementPattern});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement));
  WaitForDatagrams();
  EXPECT_EQ(1, first->calls);
  EXPECT_EQ(0, second->calls);
}

TEST_F(CallBackHandlerTest, MatchIgnoresCase) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"notify,host"});
  handler_->StartCallbackThreads();
  Datagram(Message("NOTIFY * HTTP/1.1\r\nHoSt: x\r\nNTS: ssdp:alive\r\n\r\n"));
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 1; }));
}

TEST_F(CallBackHandlerTest, TokenMatchesInsideAnAddress) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"1900"});
  handler_->StartCallbackThreads();
  Datagram(Message("HTTP/1.1 200 OK\r\nLOCATION: http://10.0.0.1:19001/\r\nUSN: a\r\n\r\n"));
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 1; }));
}

TEST_F(CallBackHandlerTest, BodyIsNotLookedAt) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"needle"});
  handler_->StartCallbackThreads();
  Datagram(Message("POST / HTTP/1.1\r\nCONTENT-LENGTH: 6\r\n\r\nneedle"));
  WaitForDatagrams();
  EXPECT_EQ(0, listener->calls);
}

// The text that is matched is the header as it is written out again.
TEST_F(CallBackHandlerTest, KeptReasonPhraseIsTheTablesNotThePeers) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"200,OK"});
  handler_->StartCallbackThreads();
  Datagram(Message("HTTP/1.1 200 Fine\r\nUSN: a\r\n\r\n"));
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 1; }));
}

TEST_F(CallBackHandlerTest, UnmatchedDatagramVanishesWithoutALine) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"never"});
  handler_->StartCallbackThreads();
  WaitForDatagrams();
  vex_test::LogCapture log;
  Datagram(Message(kAnnouncement));
  WaitForDatagrams();
  EXPECT_EQ(0, listener->calls);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(CallBackHandlerTest, UnregisteredListenerIsNotCalled) {
  const auto listener = boost::make_shared<UdpListener>();
  const int id = Register(listener, {"NOTIFY"});
  Datagram(Message(kAnnouncement));
  handler_->UnRegisterPattern(id);
  handler_->StartCallbackThreads();
  WaitForDatagrams();
  EXPECT_EQ(0, listener->calls);
}

TEST_F(CallBackHandlerTest, PacketsThatCameBeforeTheThreadsAreServed) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"NOTIFY"});
  for (int i = 0; i < 5; ++i) Datagram(Message(kAnnouncement, "10.0.0.7"));
  handler_->StartCallbackThreads();
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 5; }));
}

TEST_F(CallBackHandlerTest, ListenerMayUnregisterItselfAndRegisterAnotherFromInside) {
  const auto second = boost::make_shared<UdpListener>();
  int id = 0;
  const auto first = boost::make_shared<UdpListener>([&](const boost::shared_ptr<HTTPInfo>&) {
    EXPECT_EQ(0, handler_->UnRegisterPattern(id));
    Register(second, {"NOTIFY"});
  });
  id = Register(first, {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement, "10.0.0.7"));
  Datagram(Message(kAnnouncement, "10.0.0.7"));
  EXPECT_TRUE(WaitUntil([&] { return second->calls == 1; }));
  EXPECT_EQ(1, first->calls);
}

TEST_F(CallBackHandlerTest, DatagramsOfOneSenderKeepTheirOrderAndOthersRunBeside) {
  const auto listener = boost::make_shared<UdpListener>(
      [&](const boost::shared_ptr<HTTPInfo>& request) { door_.Pass(SenderOf(request)); });
  Register(listener, {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement, "10.0.0.1"));
  Datagram(Message(kAnnouncement, "10.0.0.1"));
  Datagram(Message(kAnnouncement, "10.0.0.2"));
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 2; }));
  EXPECT_THAT(door_.Inside(), ElementsAre("10.0.0.1", "10.0.0.2"));
  door_.Open();
  ASSERT_TRUE(WaitUntil([&] { return door_.PassedCount() == 3; }));
}

TEST_F(CallBackHandlerTest, EachSendersDatagramsAreHandledInOrderOfArrival) {
  std::mutex mutex;
  std::map<std::string, std::vector<std::string>> seen;
  const auto listener =
      boost::make_shared<UdpListener>([&](const boost::shared_ptr<HTTPInfo>& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        seen[SenderOf(request)].push_back(PathOf(request));
      });
  Register(listener, {"NOTIFY"});
  handler_->StartCallbackThreads();
  constexpr int kEach = 500;
  for (int i = 0; i < kEach; ++i) {
    for (const char* sender : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
      Datagram(
          Message("NOTIFY " + std::to_string(i) + " HTTP/1.1\r\nNTS: ssdp:alive\r\n\r\n", sender));
    }
  }
  ASSERT_TRUE(WaitUntil([&] { return listener->calls == 3 * kEach; }));
  for (const auto& sender : seen) {
    for (int i = 0; i < kEach; ++i) {
      ASSERT_EQ(std::to_string(i), sender.second[static_cast<std::size_t>(i)]) << sender.first;
    }
  }
}

TEST_F(CallBackHandlerTest, EventsOfOneSidKeepTheirOrderAndOthersRunBeside) {
  const auto listener = boost::make_shared<TcpListener>(
      [&](const boost::shared_ptr<HTTPInfo>& request, void*) { door_.Pass(PathOf(request)); });
  Register(listener, {"NOTIFY"});
  handler_->StartCallbackThreads();
  Request(Event("uuid:a", "/1"));
  Request(Event("uuid:a", "/2"));
  Request(Event("uuid:a", "/3"));
  Request(Event("uuid:b", "/4"));
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 2; }));
  EXPECT_THAT(door_.Inside(), ElementsAre("/1", "/4"));
  door_.Open();
  ASSERT_TRUE(WaitUntil([&] { return door_.PassedCount() == 4; }));
  std::vector<std::string> of_a = door_.Passed();
  of_a.erase(std::find(of_a.begin(), of_a.end(), "/4"));
  EXPECT_THAT(of_a, ElementsAre("/1", "/2", "/3"));
}

TEST_F(CallBackHandlerTest, RequestsWithoutASidRunBesideEachOther) {
  const auto listener = boost::make_shared<TcpListener>(
      [&](const boost::shared_ptr<HTTPInfo>& request, void*) { door_.Pass(PathOf(request)); });
  Register(listener, {"GET"});
  handler_->StartCallbackThreads();
  Request(Message("GET /1 HTTP/1.1\r\n\r\n"));
  Request(Message("GET /2 HTTP/1.1\r\n\r\n"));
  EXPECT_TRUE(WaitUntil([&] { return door_.Inside().size() == 2; }));
}

TEST_F(CallBackHandlerTest, EachPoolHasItsOwnNamedThreads) {
  const std::vector<std::string> before = vex_test::ThreadNames("");
  handler_->StartCallbackThreads();
  std::vector<std::string> added;
  const std::vector<std::string> now = vex_test::ThreadNames("");
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(added));
  EXPECT_THAT(added, ElementsAre("tstVexTcpReq0", "tstVexTcpReq1", "tstVexTcpRes0", "tstVexTcpRes1",
                                 "tstVexTcpRes2", "tstVexTcpRes3", "tstVexTcpRes4", "tstVexUdpReq0",
                                 "tstVexUdpReq1"));
}

TEST_F(CallBackHandlerTest, BlockedDatagramListenersDoNotHoldUpAnswers) {
  Register(boost::make_shared<UdpListener>(
               [&](const boost::shared_ptr<HTTPInfo>& request) { door_.Pass(SenderOf(request)); }),
           {"NOTIFY"});
  const auto answers = boost::make_shared<AnswerListener>();
  handler_->StartCallbackThreads();
  for (const char* sender : {"1", "2", "3"}) Datagram(Message(kAnnouncement, sender));
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 2; }));
  EXPECT_EQ(0, handler_->RegisterResponseListener(1, answers));
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->InvokeResponseHandler(1, answer);
  EXPECT_TRUE(WaitUntil([&] { return answers->Answers().size() == 1; }));
}

TEST_F(CallBackHandlerTest, TenThousandDatagramsWaitAndTheNextIsDropped) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"NOTIFY"});
  const boost::shared_ptr<HTTPInfo> message = Message(kAnnouncement, "10.0.0.7");
  vex_test::LogCapture log;
  for (int i = 0; i < 10000; ++i) Datagram(message);
  EXPECT_EQ(0U, handler_->dropped_datagrams());
  Datagram(message);
  Datagram(Message(kAnnouncement, "10.0.0.8"));
  EXPECT_EQ(2U, handler_->dropped_datagrams());
  // One line a second, however many are dropped.
  EXPECT_EQ(1, log.Count(16, kTag, "Too many datagrams are waiting, 1 dropped so far"));
  EXPECT_EQ(1U, log.Lines().size());
  handler_->StartCallbackThreads();
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 10000; }));
  Datagram(message);
  EXPECT_TRUE(WaitUntil([&] { return listener->calls == 10001; }));
}

TEST_F(CallBackHandlerTest, SixteenMebibytesOfDatagramsWaitAndTheNextIsDropped) {
  const std::size_t quarter = limits::kQueuedDatagramBytes / 4;
  for (int i = 0; i < 4; ++i) Datagram(Message(kAnnouncement), quarter);
  EXPECT_EQ(0U, handler_->dropped_datagrams());
  Datagram(Message(kAnnouncement), 1);
  EXPECT_EQ(1U, handler_->dropped_datagrams());
}

TEST_F(CallBackHandlerTest, AnswerReachesItsListenerOnce) {
  const auto listener = boost::make_shared<AnswerListener>();
  EXPECT_EQ(0, handler_->RegisterResponseListener(5, listener));
  handler_->StartCallbackThreads();
  vex_test::LogCapture log;
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  EXPECT_EQ(0, handler_->InvokeResponseHandler(5, answer));
  ASSERT_TRUE(WaitUntil([&] { return listener->Answers().size() == 1; }));
  EXPECT_EQ(std::make_pair(5, 200U), listener->Answers()[0]);
  EXPECT_TRUE(log.Holds("call OnResponseReceived session_id : (5), use_count : ("));
  // The record has gone with the call.
  EXPECT_EQ(1, handler_->UnRegisterResponseListener(5));
  EXPECT_EQ(0, log.Count("list erased(5)"));
  EXPECT_EQ(0, handler_->InvokeResponseHandler(5, answer));
  EXPECT_EQ(1U, listener->Answers().size());
}

TEST_F(CallBackHandlerTest, AnswerForNobodyIsDropped) {
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  EXPECT_EQ(0, handler_->InvokeResponseHandler(77, answer));
}

TEST_F(CallBackHandlerTest, SessionIdMustBeAboveZero) {
  vex_test::LogCapture log;
  const auto listener = boost::make_shared<AnswerListener>();
  EXPECT_EQ(1, handler_->RegisterResponseListener(0, listener));
  EXPECT_EQ(1, handler_->RegisterResponseListener(-1, listener));
  EXPECT_EQ(1, log.Count(2, kTag, "Invalid Params for session 0!"));
  EXPECT_EQ(1, log.Count(2, kTag, "Invalid Params for session -1!"));
}

TEST_F(CallBackHandlerTest, AnswerQueuedForAnUnregisteredSessionIsLost) {
  const auto lost = boost::make_shared<AnswerListener>();
  const auto kept = boost::make_shared<AnswerListener>();
  handler_->RegisterResponseListener(5, lost);
  handler_->RegisterResponseListener(6, kept);
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->InvokeResponseHandler(5, answer);
  handler_->InvokeResponseHandler(6, answer);
  vex_test::LogCapture log;
  EXPECT_EQ(0, handler_->UnRegisterResponseListener(5));
  EXPECT_EQ(1, log.Count(16, kTag, "list erased(5)"));
  handler_->StartCallbackThreads();
  ASSERT_TRUE(WaitUntil([&] { return kept->Answers().size() == 1; }));
  handler_->StopCallbackThreads();
  EXPECT_TRUE(lost->Answers().empty());
}

TEST_F(CallBackHandlerTest, AnAnswerThatIsThereOutlivesItsSession) {
  const auto waiting = boost::make_shared<AnswerListener>();
  const auto answered = boost::make_shared<AnswerListener>();
  handler_->RegisterResponseListener(5, waiting);
  handler_->RegisterResponseListener(6, answered);
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->InvokeResponseHandler(6, answer);
  vex_test::LogCapture log;
  handler_->UnRegisterUnanswered(5);
  handler_->UnRegisterUnanswered(6);
  handler_->UnRegisterUnanswered(7);
  EXPECT_EQ(1, log.Count(16, kTag, "list erased(5)"));
  EXPECT_EQ(1, waiting.use_count());
  handler_->StartCallbackThreads();
  EXPECT_TRUE(WaitUntil([&] { return answered->Answers().size() == 1; }));
}

TEST_F(CallBackHandlerTest, AnAnswerThatHasBeenAnnouncedIsHandedOverWithoutMemoryToo) {
  const auto listener = boost::make_shared<AnswerListener>();
  handler_->StartCallbackThreads();
  int id = 0;
  boost::shared_ptr<HTTPInfo> answer;
  const auto expect = [&] {
    answer = Message(kAnswer);
    handler_->RegisterResponseListener(++id, listener);
  };
  expect();
  EXPECT_GT(vex_test::EachAllocationFails(
                [&] { EXPECT_EQ(0, handler_->InvokeResponseHandler(id, answer)); },
                [&](bool) {
                  EXPECT_TRUE(WaitUntil(
                      [&] { return listener->Answers().size() == static_cast<std::size_t>(id); }));
                  expect();
                }),
            0);
}

TEST_F(CallBackHandlerTest, OfTwoRegistrationsOfOneSessionTheFirstIsServedFirst) {
  const auto first = boost::make_shared<AnswerListener>();
  const auto second = boost::make_shared<AnswerListener>();
  handler_->RegisterResponseListener(5, first);
  handler_->RegisterResponseListener(5, second);
  handler_->StartCallbackThreads();
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->InvokeResponseHandler(5, answer);
  ASSERT_TRUE(WaitUntil([&] { return first->Answers().size() == 1; }));
  EXPECT_TRUE(second->Answers().empty());
  handler_->InvokeResponseHandler(5, answer);
  ASSERT_TRUE(WaitUntil([&] { return second->Answers().size() == 1; }));
}

TEST_F(CallBackHandlerTest, SessionWithoutAListenerIsJustForgotten) {
  handler_->RegisterResponseListener(5, boost::shared_ptr<ResponseListener>());
  handler_->StartCallbackThreads();
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->InvokeResponseHandler(5, answer);
  EXPECT_TRUE(WaitUntil([&] { return handler_->UnRegisterResponseListener(5) == 1; }));
}

TEST_F(CallBackHandlerTest, ThrowingListenerEndsNothing) {
  vex_test::LogCapture log;
  const auto listener = boost::make_shared<UdpListener>(
      [](const boost::shared_ptr<HTTPInfo>&) { throw std::runtime_error("boom"); });
  const int id = Register(listener, {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement, "10.0.0.7"));
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("Exception in UDP request listener: boom"); }));
  handler_->UnRegisterPattern(id);
  const auto next = boost::make_shared<UdpListener>();
  Register(next, {"NOTIFY"});
  // The sender is not held back for ever either.
  Datagram(Message(kAnnouncement, "10.0.0.7"));
  EXPECT_TRUE(WaitUntil([&] { return next->calls == 1; }));
}

TEST_F(CallBackHandlerTest, FiveAnswersAreHandledBesideEachOtherAndTheSixthWaits) {
  const auto listener =
      boost::make_shared<AnswerListener>([&](int id) { door_.Pass(std::to_string(id)); });
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  for (int id = 1; id <= 4; ++id) {
    handler_->RegisterResponseListener(id, listener);
    handler_->InvokeResponseHandler(id, answer);
  }
  handler_->StartCallbackThreads();
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 4; }));
  for (int id = 5; id <= 7; ++id) {
    handler_->RegisterResponseListener(id, listener);
    handler_->InvokeResponseHandler(id, answer);
  }
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 5; }));
  EXPECT_THAT(door_.Inside(), ElementsAre("1", "2", "3", "4", "5"));
  door_.Open();
  EXPECT_TRUE(WaitUntil([&] { return listener->Answers().size() == 7; }));
}

TEST_F(CallBackHandlerTest, AThrowingAnswerListenerKeepsNoneFromTheAnswersBehindIt) {
  const auto throwing =
      boost::make_shared<AnswerListener>([](int) { throw std::runtime_error("boom"); });
  const auto listener = boost::make_shared<AnswerListener>();
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  for (int id = 1; id <= 10; ++id) {
    handler_->RegisterResponseListener(id, id <= 9 ? throwing : listener);
    handler_->InvokeResponseHandler(id, answer);
  }
  vex_test::LogCapture log;
  handler_->StartCallbackThreads();
  EXPECT_TRUE(WaitUntil([&] { return listener->Answers().size() == 1; }));
  EXPECT_TRUE(WaitUntil([&] { return log.Count("Exception in callback thread: boom") == 9; }));
}

TEST_F(CallBackHandlerTest, AnswersThatWaitedAtAStopAreGoneAndLaterOnesAreHeard) {
  const auto listener = boost::make_shared<AnswerListener>();
  boost::shared_ptr<HTTPInfo> answer = Message(kAnswer);
  handler_->RegisterResponseListener(1, listener);
  handler_->InvokeResponseHandler(1, answer);
  handler_->StopCallbackThreads();
  handler_->StartCallbackThreads();
  handler_->RegisterResponseListener(2, listener);
  handler_->InvokeResponseHandler(2, answer);
  ASSERT_TRUE(WaitUntil([&] { return listener->Answers().size() == 1; }));
  EXPECT_EQ(2, listener->Answers()[0].first);
}

TEST_F(CallBackHandlerTest, StartAndStopAreLogged) {
  vex_test::LogCapture log;
  handler_->StartCallbackThreads();
  handler_->StopCallbackThreads();
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler StartCallbackThreads"));
  EXPECT_EQ(1, log.Count(16, kTag, "CallBackHandler StopCallbackThreads"));
  EXPECT_FALSE(log.Holds("not stopped"));
}

TEST_F(CallBackHandlerTest, StopWaitsForARunningListenerAndDropsWhatWaits) {
  const auto listener = boost::make_shared<UdpListener>(
      [&](const boost::shared_ptr<HTTPInfo>& request) { door_.Pass(SenderOf(request)); });
  Register(listener, {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement, "10.0.0.1"));
  Datagram(Message(kAnnouncement, "10.0.0.1"));
  ASSERT_TRUE(WaitUntil([&] { return door_.Inside().size() == 1; }));
  std::atomic<bool> stopped{false};
  boost::thread stopper([&] {
    pthread_setname_np(pthread_self(), "stopper");
    handler_->StopCallbackThreads();
    stopped = true;
  });
  ASSERT_TRUE(WaitUntil([] { return vex_test::IsAsleep("stopper"); }));
  EXPECT_FALSE(stopped);
  door_.Open();
  stopper.join();
  EXPECT_EQ(1, listener->calls);
  handler_->StartCallbackThreads();
  WaitForDatagrams();
  EXPECT_EQ(1, listener->calls);
}

TEST_F(CallBackHandlerTest, PoolsRunAgainAfterAStop) {
  const auto listener = boost::make_shared<UdpListener>();
  Register(listener, {"NOTIFY"});
  for (int i = 1; i <= 3; ++i) {
    handler_->StartCallbackThreads();
    Datagram(Message(kAnnouncement, "10.0.0.7"));
    ASSERT_TRUE(WaitUntil([&] { return listener->calls == i; }));
    handler_->StopCallbackThreads();
  }
}

TEST_F(CallBackHandlerTest, ListenerMayStopThePools) {
  vex_test::LogCapture log;
  const int before = vex_test::ThreadCount();
  std::atomic<bool> done{false};
  Register(boost::make_shared<UdpListener>([&](const boost::shared_ptr<HTTPInfo>&) {
             handler_->StopCallbackThreads();
             done = true;
           }),
           {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement));
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  EXPECT_TRUE(log.Holds("Callback threads stopped by one of them, they are not waited for"));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() <= before; }));
}

TEST_F(CallBackHandlerTest, ListenerMayEndTheHandlerItself) {
  const int before = vex_test::ThreadCount();
  std::atomic<bool> done{false};
  Register(boost::make_shared<UdpListener>([&](const boost::shared_ptr<HTTPInfo>&) {
             CallBackHandler::DestroyInstance();
             done = true;
           }),
           {"NOTIFY"});
  handler_->StartCallbackThreads();
  Datagram(Message(kAnnouncement));
  handler_.reset();
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  EXPECT_TRUE(WaitUntil([&] { return vex_test::ThreadCount() <= before; }));
  handler_ = CallBackHandler::GetInstance();
}

TEST_F(CallBackHandlerTest, CyclesLeaveNoThread) {
  handler_.reset();
  CallBackHandler::DestroyInstance();
  const int threads = vex_test::ThreadCount();
  const int descriptors = vex_test::DescriptorCount();
  for (int i = 0; i < 10; ++i) {
    CallBackHandler::GetInstance()->StartCallbackThreads();
    EXPECT_TRUE(vex_test::ThreadsBecome(threads + 9));
    CallBackHandler::GetInstance()->StopCallbackThreads();
    CallBackHandler::DestroyInstance();
    EXPECT_TRUE(vex_test::ThreadsBecome(threads));
    EXPECT_EQ(descriptors, vex_test::DescriptorCount());
  }
  handler_ = CallBackHandler::GetInstance();
}

TEST_F(CallBackHandlerTest, ExistingInstanceNeverMakesOne) {
  EXPECT_EQ(handler_, CallBackHandler::ExistingInstance());
  CallBackHandler::DestroyInstance();
  EXPECT_EQ(nullptr, CallBackHandler::ExistingInstance());
}

class NoOwner : public Notify {
 public:
  void SessionCompleted(const int&) override {}
  void HandleFailureCondition(const int&) override {}
};

TEST_F(CallBackHandlerTest, WaitingSessionsAreFreedWithTheHandler) {
  io_service io;
  boost::weak_ptr<IncomingTCPSession> watched;
  {
    const boost::shared_ptr<IncomingTCPSession> session(new IncomingTCPSession(
        tcp::socket(io), boost::make_shared<NoOwner>(), 1, boost::make_shared<ReadingSessions>()));
    watched = session;
    Request(Event("uuid:a"), MakeSessionContext(session));
    Request(Event("uuid:a"), MakeSessionContext(session));
    Request(Message("GET / HTTP/1.1\r\n\r\n"), MakeSessionContext(session));
  }
  EXPECT_FALSE(watched.expired());
  handler_.reset();
  CallBackHandler::DestroyInstance();
  EXPECT_TRUE(watched.expired());
  handler_ = CallBackHandler::GetInstance();
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

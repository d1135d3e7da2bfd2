#include "src/tcp_server.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/descriptors.h"
#include "src/incoming_tcp_session.h"
#include "src/servermanager.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/server_fixture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::MessagePointer;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_NETWORK";
const char kOk[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
constexpr int kLimit = 1048576;

int Answer(const std::string& text, void* context) {
  return ServerManager::SendResponsePacket(new std::string(text), static_cast<int>(text.size()),
                                           context);
}

// A NOTIFY of exactly `size` bytes, header and body.
std::string RequestOfSize(int size) {
  const std::string start = "NOTIFY /event HTTP/1.1\r\nCONTENT-LENGTH: ";
  for (int digits = 7; digits > 0; --digits) {
    const int body = size - static_cast<int>(start.size()) - digits - 4;
    const std::string number = std::to_string(body);
    if (static_cast<int>(number.size()) != digits) continue;
    return start + number + "\r\n\r\n" + std::string(static_cast<std::size_t>(body), 'b');
  }
  return std::string();
}

class TcpServerTest : public testing::Test {
 protected:
  TcpServerTest()
      : ip_(vex_test::OwnLoopbackAddress()),
        loop_(3),
        reading_(new ReadingSessions),
        server_(new TCPServer(ip_, "lo", loop_.io(), reading_)) {}

  void SetUp() override { ASSERT_EQ(0, server_->Start(port_)); }
  void TearDown() override {
    callbacks_.End();
    server_->Stop();
    loop_.Stop();
    for (void* const context : held_) TakeSession(context);
  }

  void AnswerAll(const std::string& text) {
    callbacks_.Listen("NOTIFY", [text](const MessagePointer&, void* context) {
      EXPECT_EQ(0, Answer(text, context));
    });
  }
  // Keeps the session context of every request, so that nobody answers.
  void HoldAll() {
    callbacks_.Listen("NOTIFY", [this](const MessagePointer&, void* context) {
      const std::lock_guard<std::mutex> lock(mutex_);
      held_.push_back(context);
    });
  }
  std::size_t Held() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return held_.size();
  }
  void* TakeHeld() {
    const std::lock_guard<std::mutex> lock(mutex_);
    void* const context = held_.back();
    held_.pop_back();
    return context;
  }
  std::string Exchange(const std::string& request) {
    TcpClient client(ip_, port_);
    EXPECT_TRUE(client.connected());
    client.Send(request);
    return client.ReadToEnd();
  }

  const std::string ip_;
  int port_ = 0;
  vex_test::RunningLoop loop_;
  vex_test::RunningCallbacks callbacks_;
  boost::shared_ptr<ReadingSessions> reading_;
  boost::shared_ptr<TCPServer> server_;
  std::mutex mutex_;
  std::vector<void*> held_;
};

TEST_F(TcpServerTest, RequestReachesItsListenerWithBothAddresses) {
  std::string my_ip;
  std::string client_ip;
  std::string body;
  int client_port = 0;
  callbacks_.Listen("NOTIFY", [&](const MessagePointer& request, void* context) {
    request->GetMyIpAddress(my_ip);
    request->GetClientIpAddress(client_ip);
    request->GetClientPort(client_port);
    request->ReadBody(body);
    Answer(kOk, context);
  });
  TcpClient client(ip_, port_);
  client.Send("NOTIFY /event HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\nhello");
  EXPECT_EQ(kOk, client.ReadToEnd());
  EXPECT_EQ(ip_, my_ip);
  EXPECT_EQ(client.local_ip(), client_ip);
  EXPECT_EQ(client.local_port(), client_port);
  EXPECT_EQ("hello", body);
}

TEST_F(TcpServerTest, RequestInSingleBytesIsServedLikeOneInOnePiece) {
  std::string body;
  callbacks_.Listen("NOTIFY", [&](const MessagePointer& request, void* context) {
    request->ReadBody(body);
    Answer(kOk, context);
  });
  TcpClient client(ip_, port_);
  for (const char byte : std::string("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\nhello")) {
    ASSERT_TRUE(client.Send(std::string(1, byte)));
  }
  EXPECT_EQ(kOk, client.ReadToEnd());
  EXPECT_EQ("hello", body);
}

TEST_F(TcpServerTest, ConnectionCarriesOneRequestOnly) {
  std::atomic<int> calls{0};
  callbacks_.Listen("NOTIFY", [&](const MessagePointer&, void* context) {
    ++calls;
    Answer(kOk, context);
  });
  const std::string request = "NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n";
  EXPECT_EQ(kOk, Exchange(request + request));
  EXPECT_EQ(1, calls);
}

TEST_F(TcpServerTest, AnswerIsTheShorterOfLengthAndText) {
  int length = 0;
  callbacks_.Listen("NOTIFY", [&](const MessagePointer&, void* context) {
    EXPECT_EQ(0, ServerManager::SendResponsePacket(new std::string("abcdef"), length, context));
  });
  const std::string request = "NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n";
  length = 3;
  EXPECT_EQ("abc", Exchange(request));
  length = 100;
  EXPECT_EQ("abcdef", Exchange(request));
  length = -1;
  EXPECT_EQ("", Exchange(request));
}

TEST_F(TcpServerTest, BlockingAnswerHasGoneOutWhenTheCallReturns) {
  std::atomic<int> result{-1};
  callbacks_.Listen("NOTIFY", [&](const MessagePointer&, void* context) {
    result = ServerManager::SendSyncResponsePacket("abcdef", 4, context);
  });
  EXPECT_EQ("abcd", Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
  EXPECT_TRUE(WaitUntil([&] { return result == 0; }));
}

TEST_F(TcpServerTest, BlockingAnswerMayBeLargerThanTheWindow) {
  const std::string large(8 * 1024 * 1024, 'x');
  callbacks_.Listen("NOTIFY", [&](const MessagePointer&, void* context) {
    EXPECT_EQ(
        0, ServerManager::SendSyncResponsePacket(large, static_cast<int>(large.size()), context));
  });
  EXPECT_EQ(large.size(), Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n").size());
}

TEST_F(TcpServerTest, BlockingAnswerToAPeerThatHasGoneFails) {
  vex_test::LogCapture log;
  HoldAll();
  TcpClient client(ip_, port_);
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  ASSERT_TRUE(WaitUntil([&] { return Held() == 1; }));
  client.Reset();
  const std::string large(1024 * 1024, 'x');
  EXPECT_EQ(2004, ServerManager::SendSyncResponsePacket(large, static_cast<int>(large.size()),
                                                        TakeHeld()));
  EXPECT_TRUE(log.Holds("Write to socket failed! Error: ["));
}

TEST_F(TcpServerTest, BinaryAnswerTakesOverAMallocBlock) {
  callbacks_.Listen("NOTIFY", [&](const MessagePointer&, void* context) {
    char* const block = static_cast<char*>(std::malloc(5));
    std::memcpy(block, "a\0b\r\n", 5);
    EXPECT_EQ(0, ServerManager::SendBinaryResponsePacket(block, 5, context));
  });
  EXPECT_EQ(std::string("a\0b\r\n", 5), Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
}

// The peer of the binary one waited until the server stopped.
TEST_F(TcpServerTest, RegressionAnAnswerThatIsNullEndsTheConnection) {
  for (const bool binary : {false, true}) {
    callbacks_.Listen("NOTIFY", [binary](const MessagePointer&, void* context) {
      EXPECT_EQ(1, binary ? ServerManager::SendBinaryResponsePacket(nullptr, 5, context)
                          : ServerManager::SendResponsePacket(nullptr, 5, context));
    });
    EXPECT_EQ("", Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n")) << binary;
  }
}

TEST_F(TcpServerTest, NullContextIsAFailureAndLeavesTheText) {
  vex_test::LogCapture log;
  std::string text = "x";
  char block[] = "x";
  EXPECT_EQ(1, ServerManager::SendResponsePacket(&text, 1, nullptr));
  EXPECT_EQ(1, ServerManager::SendSyncResponsePacket(text, 1, nullptr));
  EXPECT_EQ(1, ServerManager::SendBinaryResponsePacket(block, 1, nullptr));
  EXPECT_EQ(3, log.Count(16, kTag, "session_context is NULL"));
}

// The three answers 400, letter for letter.
const char kBody[] =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault>"
    "<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
    "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>402</errorCode>"
    "<errorDescription>Invalid Args</errorDescription></UPnPError></detail></s:Fault></s:Body>"
    "</s:Envelope>";
const char kNoListenerHeader[] =
    "HTTP/1.0 400 Bad Request \r\nCONTENT-TYPE: text/xml; charset=\"utf-8\" \r\n"
    "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0 \r\nCONTENT-LENGTH: 417 \r\n\r\n";
const char kShortHeader[] =
    "HTTP/1.0 400 Bad Request\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
    "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\nCONTENT-LENGTH: 417\r\n\r\n";
const char kLongText[] =
    "HTTP/1.0 400 Bad Request\r\n            CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
    "            SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\n"
    "            CONTENT-LENGTH: 417\r\n\r\n"
    "            <?xml version=\"1.0\"?>"
    "            <s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
    "            <s:Body><s:Fault>"
    "<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
    "            <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>402</errorCode>"
    "            <errorDescription>Invalid Args</errorDescription></UPnPError></detail></s:Fault>"
    "</s:Body></s:Envelope>";

TEST_F(TcpServerTest, RequestWithoutAListenerIsAnsweredAndTheConnectionCloses) {
  vex_test::LogCapture log;
  ASSERT_EQ(417U, std::strlen(kBody));
  EXPECT_EQ(std::string(kNoListenerHeader) + kBody,
            Exchange("NOTIFY /nobody HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
  EXPECT_EQ(1, log.Count(16, kTag, "ERROR, no valid listeners found!!"));
}

TEST_F(TcpServerTest, RequestThatCannotBeHandedOverIsAnswered) {
  callbacks_.End();
  EXPECT_EQ(std::string(kShortHeader) + kBody,
            Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
}

TEST_F(TcpServerTest, RequestOfOneMebibyteIsServed) {
  AnswerAll(kOk);
  ASSERT_EQ(static_cast<std::size_t>(kLimit), RequestOfSize(kLimit).size());
  EXPECT_EQ(kOk, Exchange(RequestOfSize(kLimit)));
}

TEST_F(TcpServerTest, KeptRequestOfOneByteMoreGetsTheIndentedText) {
  AnswerAll(kOk);
  vex_test::LogCapture log;
  EXPECT_EQ(kLongText, Exchange(RequestOfSize(kLimit + 1)));
  EXPECT_EQ(1, log.Count(16, kTag, "upperbound size exceeded."));
  // 60 blanks more than the header promises.
  EXPECT_EQ(477U, std::strlen(std::strstr(kLongText, "\r\n\r\n") + 4));
}

TEST_F(TcpServerTest, HeaderWithoutEndMeetsTheSameBound) {
  std::string request = "NOTIFY / HTTP/1.1\r\n";
  while (request.size() <= kLimit) request += "X-Header: of many\r\n";
  EXPECT_EQ(kLongText, Exchange(request.substr(0, kLimit + 1)));
}

TEST_F(TcpServerTest, BrokenRequestClosesWithoutAnAnswer) {
  vex_test::LogCapture log;
  EXPECT_EQ("", Exchange("no request at all\r\n\r\n"));
  EXPECT_EQ(1,
            log.Count(16, kTag, "PARSER FAILURE Status: 1 and Buffer : no request at all\r\n\r\n"));
}

// The parser waits for more behind a header line without a name, and there will never be enough.
TEST_F(TcpServerTest, HeaderThatCannotEndClosesWithoutAnAnswer) {
  vex_test::LogCapture log;
  EXPECT_EQ("", Exchange("NOTIFY / HTTP/1.1\r\n: x\r\n\r\n"));
  EXPECT_TRUE(log.Holds("PARSER FAILURE Status: 1 and Buffer : NOTIFY"));
}

TEST_F(TcpServerTest, PeerThatClosesEarlyReachesNoListener) {
  vex_test::LogCapture log;
  HoldAll();
  for (int i = 0; i < 3; ++i) {
    TcpClient client(ip_, port_);
    client.Send(i == 0 ? "" : "NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\nhell");
    ASSERT_TRUE(WaitUntil([&] { return reading_->size() == 1; }));
    if (i == 1) client.EndSending();
    if (i == 2) client.Reset();
    EXPECT_EQ(i == 1, i == 1 && client.PeerCloses());
  }
  EXPECT_TRUE(WaitUntil([&] { return reading_->size() == 0; }));
  EXPECT_EQ(0U, Held());
  EXPECT_EQ(2, log.Count(16, kTag, "CallbackRead] Socket Error: End of file"));
  EXPECT_EQ(1, log.Count(16, kTag, "CallbackRead] Socket Error: Connection reset by peer"));
}

TEST_F(TcpServerTest, PeerThatOnlySendsNoMoreGetsItsAnswer) {
  HoldAll();
  TcpClient client(ip_, port_);
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  client.EndSending();
  ASSERT_TRUE(WaitUntil([&] { return Held() == 1; }));
  EXPECT_EQ(0, Answer(kOk, TakeHeld()));
  EXPECT_EQ(kOk, client.ReadToEnd());
}

TEST_F(TcpServerTest, UnansweredConnectionStaysOpenUntilTheServerStops) {
  HoldAll();
  TcpClient client(ip_, port_);
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  ASSERT_TRUE(WaitUntil([&] { return Held() == 1; }));
  EXPECT_TRUE(client.OpenAndSilent());
  server_->Stop();
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(TcpServerTest, AnswerAfterTheConnectionHasEndedIsFreedWithALine) {
  HoldAll();
  TcpClient client(ip_, port_);
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  ASSERT_TRUE(WaitUntil([&] { return Held() == 1; }));
  server_->Stop();
  vex_test::LogCapture log;
  EXPECT_EQ(0, Answer(kOk, TakeHeld()));
  EXPECT_EQ(1, log.Count(16, kTag, "Socket Closed resetting self ref "));
}

TEST_F(TcpServerTest, ContextMayOutliveServerAndLoop) {
  void* context = nullptr;
  void* unanswered = nullptr;
  {
    vex_test::RunningLoop loop(2);
    const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop.io()));
    int port = 0;
    ASSERT_EQ(0, server->Start(port));
    HoldAll();
    TcpClient first(ip_, port);
    TcpClient second(ip_, port);
    first.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
    second.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
    ASSERT_TRUE(WaitUntil([&] { return Held() == 2; }));
    context = TakeHeld();
    unanswered = TakeHeld();
    server->Stop();
    loop.Stop();
  }
  EXPECT_EQ(0, Answer(kOk, context));
  TakeSession(unanswered);
}

TEST_F(TcpServerTest, ManyConnectionsAtOnceAreAllServed) {
  AnswerAll(kOk);
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < 200; ++i) {
    clients.emplace_back(new TcpClient(ip_, port_));
    ASSERT_TRUE(clients.back()->connected());
  }
  for (const auto& client : clients) {
    client->Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  }
  for (const auto& client : clients) EXPECT_EQ(kOk, client->ReadToEnd());
  EXPECT_TRUE(WaitUntil([&] { return reading_->size() == 0; }));
}

// All devices of a house tell their first events at once when they are subscribed, and what that
// moment takes of the heap stays with a process whose heap cannot shrink below one small block.
TEST_F(TcpServerTest, ConnectionThatWaitsForItsAnswerHoldsLittleMemory) {
  constexpr std::size_t kConnections = 200;
  constexpr std::size_t kBytesEach = 4096;
  HoldAll();
  std::vector<std::unique_ptr<TcpClient>> clients(kConnections);
  held_.reserve(kConnections);
  const std::size_t before = mallinfo2().uordblks;
  for (auto& client : clients) {
    client.reset(new TcpClient(ip_, port_));
    client->Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  }
  ASSERT_TRUE(WaitUntil([&] { return Held() == kConnections; }));
  EXPECT_LT(mallinfo2().uordblks, before + kConnections * kBytesEach);
}

TEST_F(TcpServerTest, FinishedConnectionsLeaveNoDescriptor) {
  AnswerAll(kOk);
  const int before = vex_test::DescriptorCount();
  for (int i = 0; i < 50; ++i) Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == before; }));
}

TEST_F(TcpServerTest, StopEndsSilentAndHalfReadConnections) {
  TcpClient silent(ip_, port_);
  TcpClient half(ip_, port_);
  half.Send("NOTIFY / HT");
  ASSERT_TRUE(WaitUntil([&] { return reading_->size() == 2; }));
  vex_test::LogCapture log;
  EXPECT_EQ(0, server_->Stop());
  EXPECT_TRUE(silent.PeerCloses());
  EXPECT_TRUE(half.PeerCloses());
  EXPECT_EQ(1, log.Count(16, kTag, "close TCP Server"));
  EXPECT_TRUE(WaitUntil([&] { return log.Count(2, kTag, "stop state") == 1; }));
  EXPECT_FALSE(TcpClient(ip_, port_).connected());
}

TEST_F(TcpServerTest, StoppedServerMayBeStartedAgain) {
  AnswerAll(kOk);
  for (int i = 0; i < 3; ++i) {
    server_->Stop();
    EXPECT_FALSE(TcpClient(ip_, port_).connected());
    ASSERT_EQ(0, server_->Start(port_));
    EXPECT_EQ(kOk, Exchange("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n"));
  }
}

TEST_F(TcpServerTest, SecondStartEndsTheFirst) {
  TcpClient client(ip_, port_);
  ASSERT_TRUE(WaitUntil([&] { return reading_->size() == 1; }));
  const int first_port = port_;
  ASSERT_EQ(0, server_->Start(port_));
  EXPECT_EQ(first_port, port_);
  EXPECT_TRUE(client.PeerCloses());
  EXPECT_TRUE(TcpClient(ip_, port_).connected());
}

TEST_F(TcpServerTest, AccessorsTellWhatWasGivenAndBound) {
  EXPECT_EQ(ip_, server_->GetIP());
  EXPECT_EQ("lo", server_->GetInterfaceName());
  EXPECT_EQ(port_, server_->GetPort());
  EXPECT_GT(port_, 0);
}

TEST_F(TcpServerTest, FailureConditionOnlyWritesALine) {
  vex_test::LogCapture log;
  server_->HandleFailureCondition(1);
  EXPECT_EQ(1, log.Count(16, kTag, "Error TCPServer::HandleFailureCondition called "));
}

TEST_F(TcpServerTest, TakenPortIsPassedOverForTheNextFreeOne) {
  const vex_test::HeldPorts held(SOCK_STREAM, ip_, 5000, 4);
  ASSERT_TRUE(held.all());
  vex_test::LogCapture log;
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io()));
  int port = 5000;
  EXPECT_EQ(0, server->Start(port));
  EXPECT_EQ(5004, port);
  EXPECT_EQ(5004, server->GetPort());
  EXPECT_TRUE(TcpClient(ip_, 5004).connected());
  EXPECT_EQ(4, log.Count(16, kTag, "Bind Error : Address already in use!"));
  EXPECT_EQ(
      1, log.Count(2, kTag, "Bind Error : Address already in use IP : " + ip_ + " and Port: 5003"));
  EXPECT_EQ(1, log.Count(2, kTag, "TCPServer Started: " + ip_ + ":5004"));
  server->Stop();
}

TEST_F(TcpServerTest, NinetyNinthTryMayStillSucceed) {
  const vex_test::HeldPorts held(SOCK_STREAM, ip_, 5000, 98);
  ASSERT_TRUE(held.all());
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io()));
  int port = 5000;
  EXPECT_EQ(0, server->Start(port));
  EXPECT_EQ(5098, port);
  server->Stop();
}

TEST_F(TcpServerTest, KeptHundredthTryCountsAsUsedUp) {
  const vex_test::HeldPorts held(SOCK_STREAM, ip_, 5000, 99);
  ASSERT_TRUE(held.all());
  vex_test::LogCapture log;
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io()));
  int port = 5000;
  EXPECT_EQ(2005, server->Start(port));
  EXPECT_EQ(1, log.Count(16, kTag, "Accept Failed!!!"));
  // The port that was bound for a moment is free again.
  EXPECT_TRUE(vex_test::HeldPorts(SOCK_STREAM, ip_, 5099, 1).all());
}

TEST_F(TcpServerTest, UnusableAddressFailsAfterAllTries) {
  vex_test::LogCapture log;
  const boost::shared_ptr<TCPServer> server(new TCPServer("nonsense", "lo", loop_.io()));
  int port = 5000;
  EXPECT_EQ(2005, server->Start(port));
  EXPECT_EQ(100, log.Count(16, kTag, "Accept Error : Host not found (authoritative)!"));
  EXPECT_EQ(1, log.Count(2, kTag, "IP : nonsense and Port: 5000"));
  EXPECT_EQ(1, log.Count(2, kTag, "IP : nonsense and Port: 5099"));
  EXPECT_EQ(1, log.Count(16, kTag, "Accept Failed!!!"));
}

TEST_F(TcpServerTest, ClimbingEndsAtTheLastPort) {
  const vex_test::HeldPorts held(SOCK_STREAM, ip_, 65530, 6);
  ASSERT_TRUE(held.all());
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io()));
  int port = 65530;
  EXPECT_EQ(2005, server->Start(port));
}

TEST_F(TcpServerTest, PortOutOfRangeIsRefusedAtOnce) {
  vex_test::LogCapture log;
  const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io()));
  for (int port : {-1, 65536}) EXPECT_EQ(2005, server->Start(port));
  EXPECT_EQ(2, log.Count(16, kTag, "port is invalid!"));
}

// Cuts the process's descriptors to what it has and some more, until the end of the scope.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t soft) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few = {soft, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;
  ~FewDescriptors() {
    setrlimit(RLIMIT_NOFILE, &before_);
    for (const int descriptor : used_up_) close(descriptor);
  }
  // Opens until nothing is left but `leave`.
  void UseUp(int leave) {
    for (int next = dup(0); next >= 0; next = dup(0)) used_up_.push_back(next);
    for (; leave > 0; --leave) CloseOne();
  }
  void CloseOne() {
    close(used_up_.back());
    used_up_.pop_back();
  }

 private:
  rlimit before_ = {};
  std::vector<int> used_up_;
};

// The number that the next descriptor will have.
int LowestFreeDescriptor() {
  const int descriptor = dup(0);
  close(descriptor);
  return descriptor;
}

TEST_F(TcpServerTest, MostSilentConnectionGoesWhenDescriptorsRunShort) {
  AnswerAll(kOk);
  const FewDescriptors few(100);
  std::vector<std::unique_ptr<TcpClient>> clients;
  // Each connection costs two descriptors here, one at either end.
  for (std::size_t i = 0; LowestFreeDescriptor() < 83; ++i) {
    clients.emplace_back(new TcpClient(ip_, port_));
    ASSERT_TRUE(WaitUntil([&] { return reading_->size() == i + 1; }));
  }
  // The oldest says something and is no longer the most silent one.
  ASSERT_GT(clients.size(), 3U);
  for (const auto& client : clients) EXPECT_TRUE(client->OpenAndSilent());
  vex_test::LogCapture log;
  clients[0]->Send("NOTIFY / HTTP/1.1\r\n");
  ASSERT_TRUE(WaitUntil([&] { return log.Count("CRLF not yet received !") == 1; }));
  // It is listed anew behind that line, and before more is read.
  clients[0]->Send("HOST: a\r\n");
  ASSERT_TRUE(WaitUntil([&] { return log.Count("CRLF not yet received !") == 2; }));
  TcpClient next(ip_, port_);
  EXPECT_TRUE(clients[1]->PeerCloses());
  EXPECT_TRUE(clients[0]->OpenAndSilent());
  EXPECT_TRUE(clients[2]->OpenAndSilent());
  next.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  EXPECT_EQ(kOk, next.ReadToEnd());
}

TEST_F(TcpServerTest, ConnectionThatWaitsForItsAnswerIsNotClosedForWantOfDescriptors) {
  HoldAll();
  TcpClient waiting(ip_, port_);
  waiting.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  ASSERT_TRUE(WaitUntil([&] { return Held() == 1; }));
  TcpClient silent(ip_, port_);
  ASSERT_TRUE(WaitUntil([&] { return reading_->size() == 1; }));
  FewDescriptors few(100);
  few.UseUp(2);
  TcpClient next(ip_, port_);
  EXPECT_TRUE(silent.PeerCloses());
  EXPECT_TRUE(waiting.OpenAndSilent());
  EXPECT_EQ(0, Answer(kOk, TakeHeld()));
  EXPECT_EQ(kOk, waiting.ReadToEnd());
}

TEST_F(TcpServerTest, AcceptWithoutADescriptorPausesAndGoesOn) {
  AnswerAll(kOk);
  FewDescriptors few(100);
  few.UseUp(1);
  vex_test::LogCapture log;
  const auto since = std::chrono::steady_clock::now();
  TcpClient client(ip_, port_);
  ASSERT_TRUE(client.connected());
  const std::string failed = "[TCPServer::handle_accept] Accept Error [Too many open files]";
  ASSERT_TRUE(WaitUntil([&] { return log.Count(failed) >= 3; }));
  // Two pauses of 100 ms have passed.
  EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(190));
  few.CloseOne();
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  EXPECT_EQ(kOk, client.ReadToEnd());
}

TEST_F(TcpServerTest, AcceptWithoutADescriptorTakesOneFromTheMostSilent) {
  AnswerAll(kOk);
  TcpClient silent(ip_, port_);
  ASSERT_TRUE(WaitUntil([&] { return reading_->size() == 1; }));
  FewDescriptors few(100);
  few.UseUp(1);
  vex_test::LogCapture log;
  TcpClient client(ip_, port_);
  EXPECT_TRUE(silent.PeerCloses());
  client.Send("NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 0\r\n\r\n");
  EXPECT_EQ(kOk, client.ReadToEnd());
  // Once nobody waits to be let in, nobody has to go.
  EXPECT_EQ(1,
            log.Count(16, kTag, "[TCPServer::handle_accept] Accept Error [Too many open files]"));
}

TEST_F(TcpServerTest, CyclesWithOpenConnectionsLeaveNoDescriptor) {
  const int before = vex_test::DescriptorCount();
  for (int i = 0; i < 10; ++i) {
    vex_test::RunningLoop loop(2);
    const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop.io()));
    int port = 0;
    ASSERT_EQ(0, server->Start(port));
    TcpClient silent(ip_, port);
    TcpClient half(ip_, port);
    half.Send("NOTIFY / HTTP/1.1\r\n");
    server->Stop();
  }
  EXPECT_EQ(before, vex_test::DescriptorCount());
}

TEST_F(TcpServerTest, DestructorIsLogged) {
  vex_test::LogCapture log;
  { const boost::shared_ptr<TCPServer> server(new TCPServer(ip_, "lo", loop_.io())); }
  EXPECT_EQ(1, log.Count(16, kTag, "TCPServer destructor is called"));
}

TEST_F(TcpServerTest, ResetIsLoggedAndEndsTheServer) {
  vex_test::LogCapture log;
  server_->Reset();
  EXPECT_EQ(1, log.Count(16, kTag, "[TCPServer::Reset] ref reset"));
  EXPECT_FALSE(TcpClient(ip_, port_).connected());
}

TEST(DescriptorsScarce, BeginsAtEightyFivePerCentOfTheSoftLimit) {
  const FewDescriptors few(200);
  // Number 168 means that 169 are in use, 84.5 per cent.
  EXPECT_FALSE(DescriptorsScarce(168));
  EXPECT_TRUE(DescriptorsScarce(169));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp

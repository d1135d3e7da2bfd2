// What hosts of streaming may do inside callbacks: stop the transfer, the servers, the whole.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "src/streaming_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/media_peer.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::Literal;
using vex_test::LogCapture;
using vex_test::MallocCopy;
using vex_test::MediaConnection;
using vex_test::MediaHost;
using vex_test::MediaPeer;
using vex_test::MediaRequest;
using vex_test::Response;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";
constexpr char kPost[] = "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n";
constexpr char kEnd[] = "\r\n\r\n";
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\n\r\n";

int PoolThreads() {
  const std::vector<std::string> names = vex_test::ThreadNames();
  return static_cast<int>(std::count_if(names.begin(), names.end(), [](const std::string& name) {
    return name.find("VexStrmIo") != std::string::npos;
  }));
}

bool NothingRuns() {
  stRunningSession* sessions = nullptr;
  EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
  const bool none = sessions == nullptr;
  FreeRunningSession(sessions);
  return none;
}

// Servers.

class StopsInServerCallbacks : public vex_test::ServingTest {
 protected:
  using Stop = std::function<void(int server, int session)>;

  void Answer(bool final) {
    host_.DoOnRequest([final](const MediaHost::Request& request) {
      const ResHeaderInfo ok = Response(200);
      EXPECT_EQ(result::kOk, SendHTTPResponse(request.server, request.session, &ok, final));
    });
  }
  // Runs an exchange that is stopped from inside one callback in both ways, by itself and with its
  // server, and sees that the peer's connection ends and nothing more is told.
  void StoppedIn(const std::function<void(const Stop&)>& set, const std::string& sent,
                 const std::string& answer, const std::vector<std::string>& told,
                 const std::string& sent_behind_the_request = "") {
    for (const bool whole_server : {false, true}) {
      SCOPED_TRACE(whole_server ? "StopServers" : "StopServerTransfer");
      FreeServerInfoList(servers_);
      servers_ = nullptr;
      Serve();
      const std::size_t before = host_.Events().size();
      const int configuration = configuration_;
      set([whole_server, configuration](int server, int session) {
        EXPECT_EQ(result::kOk,
                  whole_server ? StopServers(configuration) : StopServerTransfer(server, session));
      });
      {
        TcpClient peer(ip_, port_);
        ASSERT_TRUE(peer.connected());
        peer.Send(sent);
        if (!sent_behind_the_request.empty()) {
          ASSERT_TRUE(Await("request", "/ 0"));
          peer.Send(sent_behind_the_request);
        }
        EXPECT_EQ(answer, peer.ReadToEnd());
      }
      std::vector<std::string> expected;
      for (const std::string& event : told) {
        expected.push_back(event.substr(0, event.find(' ')) + " " + std::to_string(server_) + " " +
                           std::to_string(server_ + 1) + event.substr(event.find(' ')));
      }
      ASSERT_TRUE(WaitUntil([&] { return host_.Events().size() == before + expected.size(); }));
      set({});
      ExpectToServe(whole_server);
      const std::vector<std::string> events = host_.Events();
      EXPECT_EQ(expected, std::vector<std::string>(
                              events.begin() + static_cast<std::ptrdiff_t>(before),
                              events.begin() + static_cast<std::ptrdiff_t>(before + told.size())));
      EXPECT_EQ(0, Count("status", "4"));
      EXPECT_EQ(whole_server ? result::kStreamingNoServer : result::kOk,
                StopServers(configuration));
    }
  }
  // The pool has had its turn behind it.
  void ExpectToServe(bool is_stopped) {
    if (is_stopped) {
      EXPECT_FALSE(TcpClient(ip_, port_).connected());
      return;
    }
    Answer(true);
    host_.DoOnWritten({});
    TcpClient other(ip_, port_);
    ASSERT_TRUE(other.Send(kGet));
    EXPECT_EQ(kAnswer, other.ReadToEnd());
  }
};

TEST_F(StopsInServerCallbacks, OnConnectTakesEffectAtOnce) {
  StoppedIn([this](const Stop& stop) { host_.DoOnConnect(stop); }, kGet, "", {"connect 0"});
}

TEST_F(StopsInServerCallbacks, OnDataTakesEffectAtOnce) {
  StoppedIn(
      [this](const Stop& stop) {
        host_.DoOnRequest({});
        if (!stop) return host_.DoOnData({});
        host_.DoOnData([stop](const MediaHost::Data& data) { stop(data.server, data.session); });
      },
      kPost, "", {"connect 0", "request / 0", "data 3"}, "abc");
}

TEST_F(StopsInServerCallbacks, OnWriteCompleteOfTheHeaderTakesEffectAtOnce) {
  StoppedIn(
      [this](const Stop& stop) {
        Answer(false);
        if (!stop) return host_.DoOnWritten({});
        host_.DoOnWritten([stop](int server, int session, unsigned int) { stop(server, session); });
      },
      kGet, kAnswer, {"connect 0", "request / 0 final", "written 0"});
}

TEST_F(StopsInServerCallbacks, OnWriteCompleteOfAPayloadTakesEffectAtOnce) {
  static char payload[] = "abc";
  StoppedIn(
      [this](const Stop& stop) {
        Answer(false);
        if (!stop) return host_.DoOnWritten({});
        host_.DoOnWritten([stop](int server, int session, unsigned int length) {
          if (length > 0) return stop(server, session);
          EXPECT_EQ(result::kOk, SendHTTPPayload(server, session, payload, 3, false));
        });
      },
      kGet, std::string(kAnswer) + payload,
      {"connect 0", "request / 0 final", "written 0", "written 3"});
}

TEST_F(StopsInServerCallbacks, OnStatusIsHarmless) {
  host_.DoOnStatus([](int server, int session, int) {
    EXPECT_EQ(result::kOk, StopServerTransfer(server, session));
  });
  Serve();
  { TcpClient gone(ip_, port_); }
  ASSERT_TRUE(Await("status", "4", 1));
  host_.DoOnStatus([configuration = configuration_](int, int, int) {
    EXPECT_EQ(result::kOk, StopServers(configuration));
  });
  { TcpClient gone(ip_, port_); }
  ASSERT_TRUE(Await("status", "4", 2));
  EXPECT_TRUE(WaitUntil([&] { return !TcpClient(ip_, port_).connected(); }));
  EXPECT_EQ(result::kStreamingNoServer, StopServers(configuration_));
}

TEST_F(StopsInServerCallbacks, RegressionARequestWithoutATargetHasANullOne) {
  std::atomic<bool> is_null{false};
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    is_null = request.header.uri == nullptr;
    const ResHeaderInfo bad = Response(400);
    EXPECT_EQ(result::kOk, SendHTTPResponse(request.server, request.session, &bad, true));
  });
  Serve();
  const LogCapture log;
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send("GET  HTTP/1.1\r\n\r\n"));
  EXPECT_EQ("HTTP/1.1 400 Bad Request\r\n\r\n", peer.ReadToEnd());
  EXPECT_TRUE(is_null);
  EXPECT_EQ(1, Count("request", "(none) 0 final"));
  EXPECT_EQ(1, log.Count(16, kTag, "GetURI failed"));
}

// Clients. The callbacks are plain functions, so that what they do stands here.

enum class Place { kNowhere, kStatus, kResponse, kData, kHeaderWritten, kPayloadWritten };
std::atomic<Place> place{Place::kNowhere};
std::atomic<int> told{0};
std::atomic<int> stopped{0};
// What is called where a client is to be stopped.
std::function<void(int)>* act = nullptr;

void At(Place here, int client) {
  ++told;
  if (place != here) return;
  (*act)(client);
  ++stopped;
}

ClientAppCallbacks Callbacks() {
  ClientAppCallbacks table = {};
  table.on_status = [](int, int client, int) { At(Place::kStatus, client); };
  table.on_response = [](int, int client, ResHeaderInfo* response, void* body, unsigned int, bool) {
    FreeResponseHeader(response);
    Free(body);
    At(Place::kResponse, client);
  };
  table.on_data = [](int, int client, void* data, unsigned int, bool) {
    Free(data);
    At(Place::kData, client);
  };
  table.on_write_complete = [](int handler, int client, unsigned int length) {
    At(length == 0 ? Place::kHeaderWritten : Place::kPayloadWritten, client);
    static char payload[] = "abc";
    // Refused for one that was stopped.
    if (length == 0) SendHTTPPayload(handler, client, payload, 3, false);
  };
  return table;
}

class StopsInClientCallbacks : public vex_test::ServingTest {
 protected:
  void SetUp() override {
    told = 0;
    stopped = 0;
    act = &act_;
  }
  // Starts an exchange that is stopped at one place, and tells how many callbacks there were when
  // the peer has seen the end.
  int StoppedAt(Place where, utils::HTTPRequest type, const std::string& answer) {
    told = 0;
    stopped = 0;
    place = where;
    std::atomic<bool> ended{false};
    MediaPeer peer([&](MediaConnection& connection) {
      connection.ReadUntil(kEnd);
      connection.Send(answer);
      connection.AwaitClose();
      ended = true;
    });
    const ClientAppCallbacks table = Callbacks();
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(&table, "127.0.0.1", peer.port(), &id));
    ReqHeaderInfo request = MediaRequest(type, "/");
    if (type == utils::HTTP_POST) request.content_length = 1000;
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &request));
    EXPECT_TRUE(WaitUntil([&] { return ended.load(); }));
    EXPECT_TRUE(WaitUntil([&] { return stopped == 1; }));
    place = Place::kNowhere;
    return told;
  }

  std::function<void(int)> act_ = [](int client) {
    EXPECT_EQ(result::kOk, StopClientTransfer(client));
  };
};

// What comes with this goes on.
constexpr char kMore[] = "HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n";

TEST_F(StopsInClientCallbacks, OnResponseIsTheLastThatIsTold) {
  EXPECT_EQ(1, StoppedAt(Place::kResponse, utils::HTTP_GET, std::string(kMore) + "ab"));
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StopsInClientCallbacks, OnResponseOfAWholeAnswerIsTheLastThatIsTold) {
  EXPECT_EQ(1, StoppedAt(Place::kResponse, utils::HTTP_GET,
                         "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nab"));
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StopsInClientCallbacks, OnDataIsTheLastThatIsTold) {
  // The response, and the first of the body.
  EXPECT_EQ(2, StoppedAt(Place::kData, utils::HTTP_GET, kMore + std::string(2000000, 'd')));
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StopsInClientCallbacks, OnWriteCompleteIsTheLastThatIsTold) {
  EXPECT_EQ(1, StoppedAt(Place::kHeaderWritten, utils::HTTP_POST, ""));
  EXPECT_EQ(2, StoppedAt(Place::kPayloadWritten, utils::HTTP_POST, ""));
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StopsInClientCallbacks, OnStatusComesOnce) {
  place = Place::kStatus;
  int port = 0;
  {
    port = MediaPeer([](MediaConnection&) {}).port();
  }
  const ClientAppCallbacks table = Callbacks();
  int id = 0;
  ASSERT_EQ(result::kOk, StartClient(&table, "127.0.0.1", port, &id));
  ASSERT_TRUE(WaitUntil([&] { return stopped == 1; }));
  place = Place::kNowhere;
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(1, told);
}

// The end of all.

TEST_F(StopsInServerCallbacks, TheWholeMayEndInOnRequest) {
  std::atomic<bool> ended{false};
  Serve();
  const boost::weak_ptr<StreamingManager> manager = StreamingManager::GetExisting();
  host_.DoOnRequest([&](const MediaHost::Request&) {
    EXPECT_EQ(result::kOk, TerminateStreamingManager());
    ended = true;
  });
  const LogCapture log;
  TcpClient other(ip_, port_);
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  EXPECT_EQ("", peer.ReadToEnd());
  EXPECT_TRUE(other.PeerCloses());
  ASSERT_TRUE(WaitUntil([&] { return ended.load(); }));
  // Its own thread ends behind the callback.
  EXPECT_TRUE(WaitUntil([] { return PoolThreads() == 0; }));
  EXPECT_TRUE(manager.expired());
  EXPECT_EQ(1, log.Count(16, kTag, "streaming stopped from a streaming thread, not joined"));
  EXPECT_EQ(0, Count("status", "4", 1));
  EXPECT_EQ(0, Count("status", "4", 2));
  // All can begin again.
  EXPECT_EQ(result::kOk, InitializeStreamingManager());
  FreeServerInfoList(servers_);
  servers_ = nullptr;
  Serve();
  ExpectToServe(false);
}

TEST_F(StopsInClientCallbacks, TheWholeMayEndInEachOfThem) {
  struct Case {
    Place place;
    utils::HTTPRequest type;
    std::string answer;
  };
  const Case cases[] = {{Place::kResponse, utils::HTTP_GET, std::string(kMore) + "ab"},
                        {Place::kData, utils::HTTP_GET, kMore + std::string(2000000, 'd')},
                        {Place::kHeaderWritten, utils::HTTP_POST, ""},
                        {Place::kPayloadWritten, utils::HTTP_POST, ""},
                        {Place::kStatus, utils::HTTP_GET, "no HTTP\r\n\r\n"}};
  for (const Case& one : cases) {
    SCOPED_TRACE(static_cast<int>(one.place));
    act_ = [](int) { EXPECT_EQ(result::kOk, TerminateStreamingManager()); };
    StoppedAt(one.place, one.type, one.answer);
    const int before = told;
    EXPECT_TRUE(WaitUntil([] { return PoolThreads() == 0; }));
    EXPECT_EQ(before, told);
    EXPECT_EQ(result::kOk, InitializeStreamingManager());
  }
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

// What a broken or malicious HTTP server of a device may try with the whole library as its client:
// in the description of a device and in the answer of an action.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/fake_device.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/http_peer.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using vex_test::DescriptionServer;
using vex_test::FakeDevice;
using vex_test::FakeService;
using vex_test::FasterTime;
using vex_test::HostLog;
using vex_test::HttpPeer;
using vex_test::NothingInFlight;
using vex_test::OkAnswer;
using vex_test::PeerConnection;
using vex_test::ToldAction;
using vex_test::WaitUntil;

constexpr char kChunked[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
constexpr char kActionBody[] =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
    "<u:DoResponse xmlns:u=\"urn:schemas-upnp-org:service:Any:1\"><Result>1</Result>"
    "</u:DoResponse></s:Body></s:Envelope>";

std::string Hex(std::size_t number) {
  char text[32];
  std::snprintf(text, sizeof(text), "%zX", number);
  return text;
}

std::string Repeated(const std::string& piece, std::size_t size) {
  std::string text;
  while (text.size() < size) text += piece;
  return text;
}

// One way of a server to answer; whether what it sends counts as an answer in spite of all.
struct Answer {
  std::string name;
  bool counts;
  HttpPeer::Script script;
};

HttpPeer::Script Staying(const std::string& text) { return vex_test::AnswerWith(text); }
HttpPeer::Script Closing(const std::string& text) { return vex_test::AnswerAndClose(text); }

std::vector<Answer> AnswersOfOddLength(const std::string& body) {
  const std::string size = std::to_string(body.size());
  const auto with_length = [&](const std::string& length) {
    return Staying("HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n" + body);
  };
  return {
      {"length of -1", false, with_length("-1")},
      {"length with a plus", true, with_length("+" + size)},
      {"length of +5", false, with_length("+5")},
      {"length in hexadecimal", false, with_length("0x10")},
      {"length of 2^64-1", false, with_length("18446744073709551615")},
      {"length of 2^64", false, with_length("18446744073709551616")},
      {"no length's number", false, with_length("abc")},
      {"empty length", false, with_length("")},
      {"two lengths, the first right", true, with_length(size + "\r\nContent-Length: 1")},
      {"two lengths, the second right", false, with_length("99999\r\nContent-Length: " + size)},
      {"length and chunks", true,
       with_length("3\r\nTransfer-Encoding: chunked\r\n\r\n" + Hex(body.size()) + "\r\n" + body +
                   "\r\n0\r\n\r\n")},
      {"length, and chunks that are none", false,
       with_length(size + "\r\nTransfer-Encoding: chunked")},
      {"another encoding", false, with_length(size + "\r\nTransfer-Encoding: gzip, chunked")},
      {"no length, closed behind it", true, Closing("HTTP/1.1 200 OK\r\n\r\n" + body)},
      {"no length, never closed", false, Staying("HTTP/1.1 200 OK\r\n\r\n" + body)},
      {"closed too early", false,
       Closing("HTTP/1.1 200 OK\r\nContent-Length: 99999\r\n\r\n" + body.substr(0, 50))},
  };
}

std::vector<Answer> AnswersInOddChunks(const std::string& body) {
  const std::string size = Hex(body.size());
  const auto begun_with = [&](const std::string& line) {
    return Staying(kChunked + line + "\r\n" + body + "\r\n0\r\n\r\n");
  };
  std::vector<Answer> answers = {
      {"size in eight digits", true, begun_with(std::string(8 - size.size(), '0') + size)},
      {"size behind many zeros", true, begun_with(std::string(100, '0') + size)},
      {"size of FFFFFFFF", false, begun_with("FFFFFFFF")},
      {"size of nine digits", false, begun_with("100000000")},
      {"size of 16 digits", false, begun_with("FFFFFFFFFFFFFFFF")},
      {"size of 33 digits", false, begun_with("1" + std::string(32, '0'))},
      {"negative size", false, begun_with("-1")},
      {"empty size", false, begun_with("")},
      {"size zz", false, begun_with("zz")},
      {"short extension", true, begun_with(size + ";name=value")},
      {"extension of 1 MB", false, begun_with(size + ";" + std::string(1 << 20, 'e'))},
      {"no last chunk", false, Staying(kChunked + size + "\r\n" + body + "\r\n")},
  };
  // The size line reaches the library in two pieces, whatever the cut.
  const std::string line = size + ";e\r\n";
  for (std::size_t cut = 1; cut < line.size(); ++cut) {
    const std::string begin = kChunked + line.substr(0, cut);
    const std::string rest = line.substr(cut) + body + "\r\n0\r\n\r\n";
    answers.push_back({"size line cut at " + std::to_string(cut), true,
                       [begin, rest](PeerConnection& connection) {
                         connection.ReadRequest();
                         connection.Send(begin);
                         std::this_thread::sleep_for(milliseconds(20));
                         connection.Send(rest);
                         connection.AwaitEnd();
                       }});
  }
  return answers;
}

std::vector<Answer> AnswersOfOddStatus(const std::string& body) {
  const auto with_line = [&](const std::string& line) {
    return Staying(line + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  };
  return {
      {"no code", false, with_line("HTTP/1.1")},
      {"no code, but a blank", false, with_line("HTTP/1.1 ")},
      {"no reason", false, with_line("HTTP/1.1 200")},
      {"code 0", false, with_line("HTTP/1.1 0 OK")},
      {"code 1000", false, with_line("HTTP/1.1 1000 OK")},
      {"code -200", false, with_line("HTTP/1.1 -200 OK")},
      {"code 2^32+200", false, with_line("HTTP/1.1 4294967496 OK")},
      {"code abc", false, with_line("HTTP/1.1 abc OK")},
      {"version 9.9", true, with_line("HTTP/9.9 200 OK")},
      {"version without number", false, with_line("HTTP/x.y 200 OK")},
      {"a request for an answer", false, with_line("GET / HTTP/1.1")},
      {"304 with a body", false, with_line("HTTP/1.1 304 Not Modified")},
      {"100 with a body", false, with_line("HTTP/1.1 100 Continue")},
      {"nothing but line ends", false, Closing(Repeated("\r\n", 100000))},
      {"NULs", false, Closing(std::string(100000, '\0'))},
      {"every byte there is", false, Closing([] {
         std::string bytes;
         for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
         return Repeated(bytes, 100000);
       }())},
  };
}

std::vector<Answer> OddConnections(const std::string& body) {
  const std::string whole = OkAnswer(body);
  return {
      {"silent", false, vex_test::StaySilent()},
      {"closed at once", false, [](PeerConnection&) {}},
      {"closed behind the request", false, Closing("")},
      {"reset at once", false, [](PeerConnection& connection) { connection.Reset(); }},
      {"reset in the middle", false,
       [whole](PeerConnection& connection) {
         connection.ReadRequest();
         connection.Send(whole.substr(0, whole.size() / 2));
         std::this_thread::sleep_for(milliseconds(20));
         connection.Reset();
       }},
      {"half-closed behind its answer", true,
       [whole](PeerConnection& connection) {
         connection.ReadRequest();
         connection.Send(whole);
         connection.FinishSending();
         connection.AwaitEnd();
       }},
      {"half-closed before its answer", false,
       [](PeerConnection& connection) {
         connection.FinishSending();
         connection.AwaitEnd();
       }},
      {"answered before the request", true,
       [whole](PeerConnection& connection) {
         connection.Send(whole);
         connection.AwaitEnd();
       }},
      {"more behind the answer", true, Staying(whole + Repeated("more", 1 << 20))},
  };
}

// Sends `begin` and then `piece` again and again until nobody reads any more.
HttpPeer::Script Endless(const std::string& begin, const std::string& piece) {
  return [begin, block = Repeated(piece, 60000)](PeerConnection& connection) {
    connection.ReadRequest();
    if (!connection.Send(begin)) return;
    while (connection.Send(block)) {
    }
  };
}

// The same, a byte at a time.
HttpPeer::Script Trickling(const std::string& begin) {
  return [begin](PeerConnection& connection) {
    connection.ReadRequest();
    if (!connection.Send(begin)) return;
    while (connection.Send("x")) std::this_thread::sleep_for(milliseconds(10));
  };
}

std::vector<Answer> EndlessAnswers() {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  return {
      {"first line", false, Endless("", "x")},
      {"header lines", false, Endless(ok, "a: b\r\n")},
      {"header lines without colon", false, Endless(ok + "a: b\r\n", "line\r\n")},
      {"header value", false, Endless(ok + "X: ", "x")},
      {"header name", false, Endless(ok, "x")},
      {"body without length", false, Endless(ok + "\r\n", "body")},
      {"body of the largest length", false,
       Endless(ok + "Content-Length: 18446744073709551615\r\n\r\n", "body")},
      {"chunks", false, Endless(kChunked, "40\r\n" + std::string(64, 'x') + "\r\n")},
      {"one chunk", false, Endless(std::string(kChunked) + "FFFFFFFF\r\n", "x")},
      {"chunk size", false, Endless(kChunked, "0")},
      {"chunk extension", false, Endless(std::string(kChunked) + "5;", "x")},
      {"interim answers", false, Endless("", "HTTP/1.1 100 Continue\r\n\r\n")},
      {"trickling first line", false, Trickling("")},
      {"trickling header", false, Trickling(ok + "X: ")},
      {"trickling body", false, Trickling(ok + "\r\n")},
      {"trickling chunk", false, Trickling(std::string(kChunked) + "FFFFFFFF\r\n")},
  };
}

using Answers = std::function<std::vector<Answer>(const std::string& body)>;

class HttpHostile : public vex_test::HostileRig {
 protected:
  struct Device {
    std::string key;
    Answer answer;
    std::unique_ptr<HttpPeer> peer;
  };

  // Announces one device for each answer, all at once, and waits until each has appeared or has
  // been given up.
  void ExpectDescriptions(const Answers& answers) {
    const FasterTime faster(20);
    const std::size_t count = answers("").size();
    std::vector<Device> devices;
    for (std::size_t i = 0; i < count; ++i) {
      FakeDevice device;
      device.udn = "uuid:odd-" + std::to_string(i);
      const Answer answer = answers(DescriptionOf(device))[i];
      devices.push_back({device.udn + "+lan0", answer,
                         std::make_unique<HttpPeer>(answer.script, std::string(kPeer))});
      SayAlive(device.udn, "http://" + devices.back().peer->authority() + "/d.xml");
    }
    for (const Device& device : devices) {
      SCOPED_TRACE(device.answer.name);
      EXPECT_TRUE(WaitUntil([&] { return device.peer->connections() > 0; }));
      EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(device.key); }, std::chrono::minutes(2)));
      EXPECT_EQ(device.answer.counts, WasTold(1, device.key));
    }
  }

  // Sends an action to a service for each answer, all at once, and waits until the host has been
  // told of each, once.
  void ExpectActions(const std::vector<Answer>& answers) {
    FakeDevice device;
    device.udn = "uuid:acting";
    std::vector<std::unique_ptr<HttpPeer>> peers;
    for (const Answer& answer : answers) {
      const std::string name = "Odd" + std::to_string(peers.size());
      peers.push_back(std::make_unique<HttpPeer>(answer.script, std::string(kPeer)));
      FakeService service;
      service.type = "urn:schemas-upnp-org:service:" + name + ":1";
      service.id = "urn:upnp-org:serviceId:" + name;
      service.scpd_url = "/" + name + ".xml";
      service.control_url = "http://" + peers.back()->authority() + "/control";
      device.services.push_back(service);
    }
    DescriptionServer server(kPeer);
    const std::string key = Meet(device.udn, ServeDevice(server, "/d.xml", device));
    // The good ones are to come in time, though all come at once.
    const FasterTime faster(8);
    std::vector<int> ids(answers.size());
    for (std::size_t i = 0; i < answers.size(); ++i) {
      EXPECT_EQ(0, SendAction(handle_, key.c_str(), device.services[i].type.c_str(), "Do", nullptr,
                              &ids[i]));
    }
    ASSERT_TRUE(WaitUntil([&] { return HostLog::Actions().size() >= answers.size(); },
                          std::chrono::minutes(2)));
    for (const std::unique_ptr<HttpPeer>& peer : peers) {
      EXPECT_TRUE(WaitUntil([&] { return peer->finished() == peer->connections(); }));
    }
    EXPECT_EQ(answers.size(), HostLog::Actions().size());
    for (const ToldAction& told : HostLog::Actions()) {
      const auto found = std::find(ids.begin(), ids.end(), told.action_id);
      ASSERT_NE(ids.end(), found);
      const Answer& answer = answers[static_cast<std::size_t>(found - ids.begin())];
      EXPECT_EQ(answer.counts, told.code == CP_ERR_NONE) << answer.name << ": " << told.code;
      *found = 0;
    }
  }
};

TEST_F(HttpHostile, DescriptionsOfOddLength) { ExpectDescriptions(AnswersOfOddLength); }

TEST_F(HttpHostile, DescriptionsInOddChunks) { ExpectDescriptions(AnswersInOddChunks); }

TEST_F(HttpHostile, DescriptionsOfOddStatus) { ExpectDescriptions(AnswersOfOddStatus); }

// A 204 promises that nothing follows; what follows all the same is taken. An action has another
// idea of success.
TEST_F(HttpHostile, KeptABodyBehindAStatusWithoutOneIsRead) {
  const auto no_content = [](bool counts) {
    return [counts](const std::string& body) {
      return std::vector<Answer>{{"204 with a body", counts,
                                  Staying("HTTP/1.1 204 No Content\r\nContent-Length: " +
                                          std::to_string(body.size()) + "\r\n\r\n" + body)}};
    };
  };
  ExpectDescriptions(no_content(true));
  ExpectActions(no_content(false)(kActionBody));
}

TEST_F(HttpHostile, DescriptionsOverOddConnections) { ExpectDescriptions(OddConnections); }

TEST_F(HttpHostile, DescriptionsWithoutEnd) {
  ExpectDescriptions([](const std::string&) { return EndlessAnswers(); });
}

TEST_F(HttpHostile, ActionsAnsweredOddly) {
  std::vector<Answer> all;
  for (const auto answers :
       {AnswersOfOddLength, AnswersInOddChunks, AnswersOfOddStatus, OddConnections}) {
    for (Answer& answer : answers(kActionBody)) all.push_back(std::move(answer));
  }
  ExpectActions(all);
}

TEST_F(HttpHostile, ActionsAnsweredWithoutEnd) { ExpectActions(EndlessAnswers()); }

}  // namespace

// What a streaming server makes of requests, and what peers see of its host's answers.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/limits.h"
#include "base/scoped_fd.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/fail_calls.h"
#include "tests/support/http_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_client.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::Literal;
using vex_test::LogCapture;
using vex_test::MallocCopy;
using vex_test::MediaHost;
using vex_test::Response;
using vex_test::TcpClient;
using vex_test::WaitUntil;

constexpr char kTag[] = "VEX_CORE_STREAMING";
constexpr char kGet[] = "GET /film HTTP/1.1\r\nHost: here\r\n\r\n";
constexpr char kPost[] = "POST /up HTTP/1.1\r\nContent-Length: 10\r\n\r\n";

class StreamingServer : public vex_test::ServingTest {
 protected:
  // Every request gets this header; its body follows by payloads unless `final`.
  void AnswerWith(const ResHeaderInfo& response, bool final) {
    host_.DoOnRequest([response, final](const MediaHost::Request& request) {
      EXPECT_EQ(result::kOk, SendHTTPResponse(request.server, request.session, &response, final));
    });
  }
  // The header is followed by these payloads, each behind the other's completion, the last final.
  void AnswerWithPayloads(const ResHeaderInfo& response, const std::vector<std::string>& payloads) {
    AnswerWith(response, false);
    host_.DoOnWritten([this, payloads](int server, int session, unsigned int) {
      const std::size_t n = sent_++;
      if (n >= payloads.size()) return;
      const bool last = n + 1 == payloads.size();
      blocks_.push_back(MallocCopy(payloads[n]));
      EXPECT_EQ(result::kOk, SendHTTPPayload(server, session, blocks_.back(),
                                             static_cast<unsigned int>(payloads[n].size()), last));
      // The last one is the library's now.
      if (last) blocks_.pop_back();
    });
  }
  std::string Ask(const std::string& request) {
    TcpClient peer(ip_, port_);
    EXPECT_TRUE(peer.Send(request));
    return peer.ReadToEnd();
  }
  ~StreamingServer() override {
    for (void* block : blocks_) Free(block);
  }

  std::atomic<std::size_t> sent_{0};
  std::vector<void*> blocks_;
};

TEST_F(StreamingServer, ARequestComesWithAllItsHeaders) {
  std::string known;
  std::string additional;
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    const ReqHeaderInfo& h = request.header;
    known = std::to_string(h.request_type) + "|" + h.uri + "|" + std::to_string(h.http_version) +
            "|" + h.accept + "|" + h.connection + "|" + std::to_string(h.content_length) + "|" +
            h.content_type + "|" + h.date + "|" + h.from + "|" + h.host + "|" + h.last_modified +
            "|" + h.user_agent;
    EXPECT_EQ(nullptr, h.expect);
    EXPECT_EQ(nullptr, h.transfer_encoding);
    for (const stArgument* a = h.additional_headers; a != nullptr; a = a->next)
      additional += std::string(a->name) + "=" + (a->value == nullptr ? "(null)" : a->value) + ";";
    const ResHeaderInfo ok = Response(200);
    SendHTTPResponse(request.server, request.session, &ok, true);
  });
  Serve();
  Ask("GET /a%20b?c=d HTTP/1.0\r\nAccept: */*\r\nConnection: close\r\nContent-Type: text/plain\r\n"
      "Date: today\r\nFrom: me\r\nHost: here\r\nLast-Modified: then\r\nUser-Agent: it\r\n"
      "Range: bytes=0-\r\nEmpty:\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ("0|/a%20b?c=d|0|*/*|close|0|text/plain|today|me|here|then|it", known);
  EXPECT_EQ("Range=bytes=0-;Empty=(null);", additional);
}

TEST_F(StreamingServer, AnAnswerIsWrittenByteForByteInItsOrder) {
  ResHeaderInfo response = Response(206);
  response.server = Literal("srv");
  response.last_modified = Literal("then");
  response.date = Literal("today");
  response.content_type = Literal("video/mp4");
  response.content_length = 5;
  response.content_language = Literal("en");
  response.connection = Literal("close");
  response.accept_ranges = Literal("bytes");
  stArgument range = {Literal("Content-Range"), Literal("bytes 0-4/9"), nullptr};
  response.additional_headers = &range;
  AnswerWithPayloads(response, {"hel", "lo"});
  Serve();
  EXPECT_EQ(
      "HTTP/1.1 206 Partial Content\r\nAccept-Ranges: bytes\r\nConnection: close\r\n"
      "Content-Language: en\r\nContent-Length: 5\r\nContent-Type: video/mp4\r\nDate: today\r\n"
      "Last-Modified: then\r\nServer: srv\r\nContent-Range: bytes 0-4/9\r\n\r\nhello",
      Ask(kGet));
  const std::vector<std::string> expected = {Event("connect", "0"),
                                             Event("request", "/film 0 final"),
                                             Event("written", "0"), Event("written", "3")};
  EXPECT_EQ(expected, host_.Events());
}

TEST_F(StreamingServer, AFinalHeaderEndsTheConnection) {
  const LogCapture log;
  ResHeaderInfo response = Response(200);
  response.content_length = 123456;
  AnswerWith(response, true);
  Serve();
  EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 123456\r\n\r\n",
            Ask("HEAD /film HTTP/1.1\r\n\r\n"));
  // No write is told: the last word was said.
  EXPECT_EQ(0, Count("written", "0"));
  const std::string session = std::to_string(server_ + 1);
  EXPECT_EQ(1, log.Count("async_write 3 [" + std::to_string(server_) + "] [" + session + "]"));
  EXPECT_EQ(1, log.Count("Closing Socket for session_id = [" + session + "]"));
}

TEST_F(StreamingServer, SessionsCountUpFromTheServersId) {
  AnswerWith(Response(404), true);
  Serve();
  for (int n = 1; n <= 3; ++n) {
    EXPECT_EQ("HTTP/1.1 404 Not Found\r\n\r\n", Ask(kGet));
    EXPECT_EQ(1, Count("connect", "0", n));
    EXPECT_EQ(1, Count("request", "/film 0 final", n));
  }
}

TEST_F(StreamingServer, ARequestInSingleBytesIsParsedWhole) {
  AnswerWith(Response(200), true);
  Serve();
  TcpClient peer(ip_, port_);
  for (const char c : std::string(kGet)) ASSERT_TRUE(peer.Send(std::string(1, c)));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ(1, Count("request", "/film 0 final"));
}

TEST_F(StreamingServer, KeptAResponseGivenTooLateIsNeverSent) {
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  ASSERT_TRUE(Await("request", "/film 0 final"));
  // Behind the request's callback: another exchange has gone through the pool meanwhile.
  AnswerWith(Response(200), true);
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  const ResHeaderInfo late = Response(200);
  EXPECT_EQ(result::kOk, SendHTTPResponse(server_, server_ + 1, &late, true));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  EXPECT_TRUE(peer.OpenAndSilent());
  EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + 1));
  EXPECT_TRUE(peer.PeerCloses());
}

TEST_F(StreamingServer, KeptABadRequestGetsNoAnswerAndStaysOpen) {
  for (const char* const bad : {"nonsense\r\n\r\n", "GET /\r\n\r\n", "GET / HTTP/x.y\r\n\r\n"}) {
    SCOPED_TRACE(bad);
    const LogCapture log;
    if (servers_ == nullptr) {
      AnswerWith(Response(200), true);
      Serve();
    }
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send(bad));
    ASSERT_TRUE(WaitUntil([&] { return log.Count(16, kTag, "Parsing Failure!") == 1; }));
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
    EXPECT_TRUE(peer.OpenAndSilent());
  }
}

TEST_F(StreamingServer, RegressionRefusedPeersLeaveNothingBehindWhenTheyGo) {
  Serve();
  // A bad header; one that goes on; a body whose framing is broken.
  const std::string bad[] = {"nonsense\r\n\r\n",
                             "nonsense\r\n\r\n" + std::string(8 * 1024 * 1024, 'x'),
                             "POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"};
  const LogCapture log;
  const int before = vex_test::DescriptorCount();
  for (int n = 1; n <= 50; ++n) {
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send(bad[n % 3]));
    if (n % 3 == 2) {
      ASSERT_TRUE(Await("request", "/up 0", n));
      ASSERT_TRUE(peer.Send("\r\n"));
    }
    ASSERT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == n; }));
    EXPECT_TRUE(peer.OpenAndSilent());
    if (n % 2 == 0) peer.Reset();
  }
  EXPECT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == before; }));
  const char byte = 0;
  for (int n = 1; n <= 50; ++n) {
    EXPECT_EQ(result::kStreamingNoSession,
              SendHTTPPayload(server_, server_ + n, const_cast<char*>(&byte), 1, false));
    EXPECT_EQ(0, Count("status", "4", n));
  }
}

TEST_F(StreamingServer, ARefusedPeerIsStoppedLikeAnyOther) {
  Serve();
  const LogCapture log;
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send("nonsense\r\n\r\n"));
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == 1; }));
  EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + 1));
  EXPECT_TRUE(peer.PeerCloses());
  EXPECT_EQ(1U, host_.Events().size());
}

TEST_F(StreamingServer, AHeaderMayBeLongButNotWithoutEnd) {
  AnswerWith(Response(200), true);
  Serve();
  const std::string most(limits::kHttpHeaderBytes - 100, 'x');
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask("GET / HTTP/1.1\r\nX: " + most + "\r\n\r\n"));
  std::string lines;
  for (std::size_t i = 0; i < limits::kHttpHeaderLines - 1; ++i) lines += "A: b\r\n";
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask("GET / HTTP/1.1\r\n" + lines + "\r\n"));
  const LogCapture log;
  TcpClient peer(ip_, port_);
  // What the peer goes on sending is forgotten.
  peer.Send("GET / HTTP/1.1\r\nX: " + most + most);
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == 1; }));
  TcpClient many(ip_, port_);
  many.Send("GET / HTTP/1.1\r\n" + lines + lines + "\r\n");
  ASSERT_TRUE(WaitUntil([&] { return log.Count("Parsing Failure!") == 2; }));
}

// Bodies of requests.

TEST_F(StreamingServer, APostIsAnsweredFromItsLastData) {
  const LogCapture log;
  host_.DoOnData([](const MediaHost::Data& data) {
    const ResHeaderInfo created = Response(201);
    if (data.final) SendHTTPResponse(data.server, data.session, &created, true);
  });
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(std::string(kPost) + "abc"));
  ASSERT_TRUE(WaitUntil([&] { return host_.Body() == "abc"; }));
  ASSERT_TRUE(peer.Send("defg"));
  ASSERT_TRUE(WaitUntil([&] { return host_.Body() == "abcdefg"; }));
  ASSERT_TRUE(peer.Send("hij"));
  EXPECT_EQ("HTTP/1.1 201 Created\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ("abcdefghij", host_.Body());
  EXPECT_EQ(1, log.Count("async_write 4 [" + std::to_string(server_) + "] [" +
                         std::to_string(server_ + 1) + "]"));
}

TEST_F(StreamingServer, APostThatComesWholeIsFinalAtOnce) {
  AnswerWith(Response(200), true);
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(std::string(kPost) + "0123456789"));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ("0123456789", host_.Body());
  EXPECT_EQ(1, Count("request", "/up 10 final"));
}

TEST_F(StreamingServer, KeptAnAnswerFromDataThatIsNotFinalStaysUnwritten) {
  std::atomic<bool> given{false};
  host_.DoOnData([&](const MediaHost::Data& data) {
    if (!data.final) return;
    const ResHeaderInfo ok = Response(200);
    EXPECT_EQ(result::kOk, SendHTTPResponse(data.server, data.session, &ok, false));
    given = true;
  });
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kPost));
  ASSERT_TRUE(Await("request", "/up 0"));
  ASSERT_TRUE(peer.Send("0123456789"));
  ASSERT_TRUE(WaitUntil([&] { return given.load(); }));
  AnswerWith(Response(404), true);
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\n\r\n", Ask(kGet));
  EXPECT_TRUE(peer.OpenAndSilent());
}

TEST_F(StreamingServer, AnAnswerInTheRequestComesBeforeTheBodyWasRead) {
  ResHeaderInfo response = Response(413);
  response.connection = Literal("close");
  AnswerWith(response, true);
  Serve();
  EXPECT_EQ("HTTP/1.1 413 Request Entity Too Large\r\nConnection: close\r\n\r\n", Ask(kPost));
  EXPECT_EQ(1, Count("request", "/up 0"));
}

TEST_F(StreamingServer, AChunkedPostOfAnySizeArrivesWhole) {
  for (const std::size_t size : {std::size_t{524288}, std::size_t{524289}}) {
    SCOPED_TRACE(size);
    const std::string before = host_.Body();
    if (servers_ == nullptr) {
      host_.DoOnData([](const MediaHost::Data& data) {
        const ResHeaderInfo ok = Response(200);
        if (data.final) SendHTTPResponse(data.server, data.session, &ok, true);
      });
      Serve();
    }
    TcpClient peer(ip_, port_);
    const std::string body(size, 'q');
    ASSERT_TRUE(peer.Send("POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n80000\r\n" +
                          body.substr(0, 524288) + "\r\n" + (size > 524288 ? "1\r\nq\r\n" : "")));
    ASSERT_TRUE(WaitUntil([&] { return host_.Body().size() == before.size() + size; }));
    ASSERT_TRUE(peer.Send("0\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
    EXPECT_EQ(before + body, host_.Body());
  }
}

TEST_F(StreamingServer, ExpectReadsTheBodyOnlyBehindStatus100) {
  AnswerWith(Response(100), true);
  host_.DoOnData([](const MediaHost::Data& data) {
    const ResHeaderInfo ok = Response(200);
    if (data.final) SendHTTPResponse(data.server, data.session, &ok, true);
  });
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send("POST /up HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
  const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
  EXPECT_EQ(interim, peer.ReadBytes(interim.size()));
  EXPECT_EQ(1, Count("request", "/up 0"));
  ASSERT_TRUE(peer.Send("body"));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ("body", host_.Body());
  // The interim header is told to nobody.
  EXPECT_EQ(0, Count("written", "0"));
}

TEST_F(StreamingServer, KeptExpectWithoutAnAnswerReadsNothing) {
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send("POST /up HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
  ASSERT_TRUE(Await("request", "/up 0"));
  ASSERT_TRUE(peer.Send("body"));
  AnswerWith(Response(200), true);
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  EXPECT_EQ("", host_.Body());
  EXPECT_TRUE(peer.OpenAndSilent());
}

// Bodies of answers.

TEST_F(StreamingServer, ChunksHoldAtMostABlock) {
  ResHeaderInfo response = Response(200);
  response.transfer_encoding = Literal("Chunked");
  const std::string header = "HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n";
  const std::string block(524288, 'z');
  AnswerWithPayloads(response, {block});
  Serve();
  EXPECT_TRUE(header + "80000\r\n" + block + "\r\n0\r\n\r\n" == Ask(kGet));
  sent_ = 0;
  AnswerWithPayloads(response, {block + "y", "", "x"});
  EXPECT_TRUE(header + "80000\r\n" + block + "\r\n1\r\ny\r\n1\r\nx\r\n0\r\n\r\n" == Ask(kGet));
}

TEST_F(StreamingServer, AChunkedAnswerMayEndInAnEmptyPayload) {
  ResHeaderInfo response = Response(200);
  response.transfer_encoding = Literal("chunked");
  AnswerWithPayloads(response, {"abc", ""});
  Serve();
  EXPECT_EQ("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
            Ask(kGet));
}

TEST_F(StreamingServer, AnEmptyFinalPayloadEndsAnUnchunkedAnswer) {
  AnswerWithPayloads(Response(200), {"abc", ""});
  Serve();
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nabc", Ask(kGet));
}

TEST_F(StreamingServer, KeptNoChunksForVersion10OrForAPost) {
  ResHeaderInfo response = Response(200);
  response.http_version = HTTP_1_0;
  response.transfer_encoding = Literal("chunked");
  response.content_length = 3;
  AnswerWithPayloads(response, {"abc"});
  Serve();
  // The one check removes the length, the other the encoding.
  EXPECT_EQ("HTTP/1.0 200 OK\r\n\r\nabc", Ask("GET / HTTP/1.0\r\n\r\n"));
  sent_ = 0;
  response.http_version = HTTP_1_1;
  AnswerWithPayloads(response, {"abc"});
  EXPECT_EQ("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nabc",
            Ask(std::string(kPost) + "0123456789"));
}

TEST_F(StreamingServer, AnEmptyPayloadInBetweenIsToldAtOnce) {
  AnswerWith(Response(200), false);
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  ASSERT_TRUE(Await("written", "0"));
  EXPECT_EQ(result::kOk, SendHTTPPayload(server_, server_ + 1, nullptr, 0, false));
  EXPECT_EQ(2, Count("written", "0"));
  EXPECT_EQ(result::kOk, SendHTTPPayload(server_, server_ + 1, MallocCopy("end"), 3, true));
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nend", peer.ReadToEnd());
}

TEST_F(StreamingServer, AHeaderThatCannotBeFormedBecomesStatus500) {
  std::atomic<int> formed{-1};
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    const ResHeaderInfo odd = Response(299);
    formed = SendHTTPResponse(request.server, request.session, &odd, false);
  });
  Serve();
  EXPECT_EQ("HTTP/1.1 500 Internal Server Error\r\n\r\n", Ask(kGet));
  EXPECT_EQ(result::kStreamingInvalidParams, formed);
}

TEST_F(StreamingServer, AFrameThatCannotBeAllocatedEndsTheSession) {
  ResHeaderInfo response = Response(200);
  response.transfer_encoding = Literal("chunked");
  AnswerWith(response, false);
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(peer.Send(kGet));
  ASSERT_TRUE(Await("written", "0"));
  char byte = 0;
  EXPECT_EQ(result::kStreamingOutOfMemory,
            SendHTTPPayload(server_, server_ + 1, &byte, 0xFFFFFFFFU, false));
  EXPECT_EQ("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", peer.ReadToEnd());
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPPayload(server_, server_ + 1, &byte, 1, false));
}

// Ends.

TEST_F(StreamingServer, APeerThatGoesIsStatus4) {
  Serve();
  { TcpClient silent(ip_, port_); }
  EXPECT_TRUE(Await("status", "4", 1));
  {
    TcpClient half(ip_, port_);
    half.Send("GET / HT");
  }
  EXPECT_TRUE(Await("status", "4", 2));
  {
    TcpClient uploading(ip_, port_);
    uploading.Send(std::string(kPost) + "abc");
    ASSERT_TRUE(WaitUntil([&] { return host_.Body() == "abc"; }));
    uploading.Reset();
  }
  EXPECT_TRUE(Await("status", "4", 3));
  // It goes when its host has been told.
  EXPECT_TRUE(WaitUntil([&] {
    return SendHTTPPayload(server_, server_ + 3, nullptr, 0, true) == result::kStreamingNoSession;
  }));
}

TEST_F(StreamingServer, APeerThatGoesDuringAPayloadIsStatus4UnlessItWasTheLast) {
  AnswerWith(Response(200), false);
  Serve();
  const std::string much(64 * 1024 * 1024, 'm');
  void* const block = MallocCopy(much);
  for (const bool last : {false, true}) {
    const LogCapture log;
    TcpClient peer(ip_, port_);
    ASSERT_TRUE(peer.Send(kGet));
    const int nth = last ? 2 : 1;
    ASSERT_TRUE(Await("written", "0", nth));
    EXPECT_EQ(result::kOk, SendHTTPPayload(server_, server_ + nth, last ? MallocCopy(much) : block,
                                           static_cast<unsigned int>(much.size()), last));
    peer.Reset();
    ASSERT_TRUE(WaitUntil([&] {
      return log.Holds("Exception: Connection reset") || log.Holds("Exception: Broken pipe");
    }));
    if (!last) {
      EXPECT_TRUE(Await("status", "4", 1));
    }
    ASSERT_TRUE(WaitUntil([&] {
      return SendHTTPPayload(server_, server_ + nth, nullptr, 0, false) ==
             result::kStreamingNoSession;
    }));
  }
  EXPECT_EQ(0, Count("status", "4", 2));
  Free(block);
}

TEST_F(StreamingServer, ATransferIsStoppedInEveryState) {
  std::atomic<bool> answering{false};
  host_.DoOnRequest([&](const MediaHost::Request& request) {
    const ResHeaderInfo ok = Response(200);
    if (answering) SendHTTPResponse(request.server, request.session, &ok, false);
  });
  Serve();
  const auto stop = [&](TcpClient& peer, int nth) {
    EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + nth));
    peer.ReadToEnd();
    EXPECT_EQ(0, Count("status", "4", nth));
    EXPECT_EQ(result::kOk, StopServerTransfer(server_, server_ + nth));
  };
  TcpClient reading_header(ip_, port_);
  ASSERT_TRUE(Await("connect", "0", 1));
  stop(reading_header, 1);
  TcpClient waiting_for_host(ip_, port_);
  waiting_for_host.Send(kGet);
  ASSERT_TRUE(Await("request", "/film 0 final", 2));
  stop(waiting_for_host, 2);
  TcpClient reading_body(ip_, port_);
  reading_body.Send(std::string(kPost) + "abc");
  ASSERT_TRUE(WaitUntil([&] { return host_.Body() == "abc"; }));
  stop(reading_body, 3);
  answering = true;
  TcpClient writing(ip_, port_);
  writing.Send(kGet);
  ASSERT_TRUE(Await("written", "0", 4));
  EXPECT_EQ(result::kOk, SendHTTPPayload(server_, server_ + 4,
                                         MallocCopy(std::string(64000000, 'w')), 64000000, true));
  stop(writing, 4);
}

TEST_F(StreamingServer, AStopFromInsideTheCallbackIsTheEnd) {
  host_.DoOnRequest([](const MediaHost::Request& request) {
    EXPECT_EQ(result::kOk, StopServerTransfer(request.server, request.session));
    const ResHeaderInfo ok = Response(200);
    EXPECT_EQ(result::kStreamingNoSession,
              SendHTTPResponse(request.server, request.session, &ok, true));
  });
  Serve();
  EXPECT_EQ("", Ask(kGet));
}

TEST_F(StreamingServer, StoppingServersEndsTheirConnectionsWithoutACallback) {
  AnswerWith(Response(200), false);
  Serve();
  TcpClient silent(ip_, port_);
  TcpClient answered(ip_, port_);
  ASSERT_TRUE(Await("connect", "0", 2));
  answered.Send(kGet);
  ASSERT_TRUE(WaitUntil([&] { return Count("written", "0", 1) + Count("written", "0", 2) == 1; }));
  const std::size_t told = host_.Events().size();
  EXPECT_EQ(result::kOk, StopServers(configuration_));
  EXPECT_TRUE(silent.PeerCloses());
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", answered.ReadToEnd());
  EXPECT_FALSE(TcpClient(ip_, port_).connected());
  EXPECT_EQ(told, host_.Events().size());
  EXPECT_EQ(result::kStreamingNoServer, StopServers(configuration_));
}

TEST_F(StreamingServer, KeptAFailedAcceptLeavesTheServerDeaf) {
  AnswerWith(Response(200), true);
  Serve();
  {
    const vex_test::FailCalls no_descriptor(vex_test::SystemCall::kAccept, EMFILE, 1, 1);
    const TcpClient refused(ip_, port_);
    ASSERT_TRUE(WaitUntil([&] { return no_descriptor.Failed() == 1; }));
  }
  EXPECT_TRUE(host_.Events().empty());
  TcpClient unheard(ip_, port_);
  unheard.Send(kGet);
  // Another server proves that the pool had its turn.
  const int deaf = server_;
  Serve();
  FreeServerInfoList(servers_->next);
  servers_->next = nullptr;
  port_ = GetStreamingServerPort(configuration_, ip_.c_str(), &port_) == 0 ? port_ : 0;
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  EXPECT_TRUE(unheard.OpenAndSilent());
  EXPECT_EQ(0,
            host_.Count("connect " + std::to_string(deaf) + " " + std::to_string(deaf + 1) + " 0"));
}

TEST_F(StreamingServer, ConnectionsAreClosedWhenDescriptorsRunShortAndTheServerStaysOpen) {
  AnswerWith(Response(200), true);
  Serve();
  const int descriptors = vex_test::DescriptorCount();
  EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  // The peer sees the end a moment before the number is free again.
  ASSERT_TRUE(WaitUntil([&] { return vex_test::DescriptorCount() == descriptors; }));
  const LogCapture log;
  {
    const vex_test::ScopedDescriptorLimit few(100);
    std::vector<std::unique_ptr<ScopedFd>> used;
    // The peer's end takes number 83, which is not scarce, and the server's 84.
    do {
      used.push_back(std::make_unique<ScopedFd>(::dup(0)));
    } while (used.back()->get() < 82);
    const auto is_refused = [&] {
      TcpClient peer(ip_, port_);
      return peer.connected() && peer.PeerCloses();
    };
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(is_refused());
    // One line a second; the last one may have been another test's.
    EXPECT_TRUE(WaitUntil([&] {
      EXPECT_TRUE(is_refused());
      return log.Holds("Descriptors are scarce, a connection is closed");
    }));
    used.pop_back();
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\n", Ask(kGet));
  }
  // The host has heard of those that were let in.
  EXPECT_EQ(1, Count("connect", "0", 1));
  EXPECT_EQ(1, Count("connect", "0", 2));
  EXPECT_EQ(4U, host_.Events().size());
}

// Look-ups.

TEST_F(StreamingServer, RunningSessionsAreClientsFirstAndPeersOnceTheyHaveAsked) {
  AnswerWith(Response(200), false);
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(Await("connect", "0"));
  stRunningSession* sessions = nullptr;
  EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
  EXPECT_EQ(nullptr, sessions);
  peer.Send(kGet);
  ASSERT_TRUE(Await("written", "0"));
  // A client that comes later stands before it.
  const vex_test::MediaClient client;
  const vex_test::HttpPeer asked(vex_test::StaySilent(), ip_);
  int id = 0;
  ASSERT_EQ(result::kOk,
            StartClient(vex_test::MediaClient::callbacks(), ip_.c_str(), asked.port(), &id));
  EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
  ASSERT_NE(nullptr, sessions);
  EXPECT_EQ(1, sessions->type);
  EXPECT_EQ(ip_, sessions->ip);
  const stRunningSession* const served = sessions->next;
  ASSERT_NE(nullptr, served);
  EXPECT_EQ(0, served->type);
  EXPECT_EQ(peer.local_ip(), served->ip);
  EXPECT_EQ(nullptr, served->next);
  FreeRunningSession(sessions);
  EXPECT_EQ(result::kOk, StopClientTransfer(id));
}

TEST_F(StreamingServer, ArgumentsAndIdsAreChecked) {
  Serve();
  TcpClient peer(ip_, port_);
  ASSERT_TRUE(Await("connect", "0"));
  LogCapture log;
  const ResHeaderInfo ok = Response(200);
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPResponse(server_, server_ + 1, nullptr, true));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPResponse(-1, server_ + 1, &ok, true));
  EXPECT_EQ(result::kStreamingInvalidParams, SendHTTPResponse(server_, -1, &ok, true));
  EXPECT_EQ(3, log.Count(16, kTag, "Invalid params."));
  EXPECT_EQ(result::kStreamingNoServer, SendHTTPResponse(7, 8, &ok, true));
  EXPECT_EQ(1, log.Count(16, kTag, "Server 7 not found."));
  EXPECT_EQ(result::kStreamingNoServer, SendHTTPPayload(7, 8, nullptr, 0, false));
  EXPECT_EQ(2, log.Count(16, kTag, "Server 7 not found."));
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPResponse(server_, 8, &ok, true));
  EXPECT_EQ(1, log.Count(16, kTag, "session not found with id 8"));
  EXPECT_EQ(1, log.Count(16, kTag, "[TCPServer::FindSession] session not found with id 8"));
  EXPECT_EQ(result::kStreamingNoSession, SendHTTPPayload(server_, 8, nullptr, 0, true));
  EXPECT_EQ(result::kStreamingInvalidParams, StopServerTransfer(-1, 1));
  EXPECT_EQ(result::kStreamingInvalidParams, StopServerTransfer(1, -1));
  EXPECT_EQ(result::kStreamingNoServer, StopServerTransfer(7, 1));
  EXPECT_EQ(result::kOk, StopServerTransfer(server_, 8));
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

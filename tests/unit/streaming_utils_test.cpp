#include "src/streaming_utils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace streaming {
namespace {

using utils::HTTPInfo;
using utils::HTTPParser;

char* Text(const char* text) { return const_cast<char*>(text); }

ReqHeaderInfo FreshRequest() {
  ReqHeaderInfo request;
  std::memset(static_cast<void*>(&request), 0xAA, sizeof(request));
  InitializeRequestHeaderInfo(&request);
  return request;
}

ResHeaderInfo FreshResponse() {
  ResHeaderInfo response;
  std::memset(static_cast<void*>(&response), 0xAA, sizeof(response));
  InitializeResponseInfo(&response);
  return response;
}

std::string RequestText(const ReqHeaderInfo& request, int& code) {
  const ReqHeaderInfo* pointer = &request;
  std::string out;
  code = FormReqHeader(pointer, out);
  return out;
}

std::string ResponseText(const ResHeaderInfo& response, int& code) {
  const ResHeaderInfo* pointer = &response;
  std::string out = "replaced";
  code = FormResHeader(pointer, out);
  return out;
}

boost::shared_ptr<HTTPInfo> Parsed(const std::string& message) {
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  EXPECT_EQ(0, HTTPParser::Parse(message.c_str(), static_cast<unsigned>(message.size()), info));
  return info;
}

void Release(ReqHeaderInfo* request) {
  for (char* text : {request->uri, request->accept, request->connection, request->content_type,
                     request->date, request->expect, request->from, request->host,
                     request->last_modified, request->transfer_encoding, request->user_agent}) {
    std::free(text);
  }
  FreeAdditionalHeaders(request->additional_headers);
  std::free(request);
}

TEST(StreamingRequest, EveryHeaderInItsOrder) {
  stArgument second = {Text("X-Second"), Text("2"), nullptr};
  stArgument skipped = {Text("X-Empty"), nullptr, &second};
  stArgument first = {Text("X-First"), Text("1"), &skipped};
  ReqHeaderInfo request = FreshRequest();
  request.request_type = utils::HTTP_POST;
  request.uri = Text("/a?b");
  request.http_version = HTTP_1_1;
  request.accept = Text("*/*");
  request.connection = Text("close");
  request.content_length = 5000000000LL;
  request.content_type = Text("video/mp4");
  request.date = Text("D");
  request.expect = Text("100-continue");
  request.from = Text("F");
  request.host = Text("h:1");
  request.last_modified = Text("L");
  request.transfer_encoding = Text("identity");
  request.user_agent = Text("U");
  request.additional_headers = &first;
  int code = -1;
  EXPECT_EQ(
      "POST /a?b HTTP/1.1\r\nAccept: */*\r\nAccept-Language: en-us\r\nConnection: close\r\n"
      "Content-Length: 5000000000\r\nContent-Type: video/mp4\r\nDate: D\r\nExpect: 100-continue\r\n"
      "From: F\r\nHost: h:1\r\nLast-Modified: L\r\nTransfer-Encoding: identity\r\nUser-Agent: U\r\n"
      "X-First: 1\r\nX-Second: 2\r\n\r\n",
      RequestText(request, code));
  EXPECT_EQ(result::kOk, code);
}

TEST(StreamingRequest, MethodsAndVersions) {
  int code = -1;
  ReqHeaderInfo request = FreshRequest();
  request.uri = Text("/");
  request.request_type = utils::HTTP_GET;
  EXPECT_EQ("GET / HTTP/1.0\r\nAccept-Language: en-us\r\n\r\n", RequestText(request, code));
  request.request_type = utils::HTTP_HEAD;
  request.http_version = HTTP_1_1;
  EXPECT_EQ("HEAD / HTTP/1.1\r\nAccept-Language: en-us\r\n\r\n", RequestText(request, code));
}

TEST(StreamingRequest, AFreshRecordIsRefused) {
  vex_test::LogCapture log;
  int code = -1;
  EXPECT_EQ("", RequestText(FreshRequest(), code));
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ(1, log.Count("Invalid request type!"));
}

TEST(StreamingRequest, AnUnknownVersionIsRefused) {
  vex_test::LogCapture log;
  ReqHeaderInfo request = FreshRequest();
  request.request_type = utils::HTTP_GET;
  request.http_version = static_cast<HTTPVersion>(2);
  int code = -1;
  RequestText(request, code);
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ(1, log.Count("Invalid http version!"));
}

TEST(StreamingRequest, ZeroLengthWritesNoContentLength) {
  ReqHeaderInfo request = FreshRequest();
  request.request_type = utils::HTTP_POST;
  request.uri = Text("/");
  int code = -1;
  EXPECT_EQ(std::string::npos, RequestText(request, code).find("Content-Length"));
}

TEST(StreamingRequest, KeptChunkedWithVersion10WritesNeitherLengthNorEncoding) {
  ReqHeaderInfo request = FreshRequest();
  request.request_type = utils::HTTP_POST;
  request.uri = Text("/");
  request.content_length = 7;
  request.transfer_encoding = Text("CHUNKED");
  int code = -1;
  EXPECT_EQ("POST / HTTP/1.0\r\nAccept-Language: en-us\r\n\r\n", RequestText(request, code));
  request.http_version = HTTP_1_1;
  EXPECT_EQ("POST / HTTP/1.1\r\nAccept-Language: en-us\r\nTransfer-Encoding: CHUNKED\r\n\r\n",
            RequestText(request, code));
}

TEST(StreamingResponse, EveryHeaderInItsOrder) {
  stArgument extra = {Text("X-A"), Text("1"), nullptr};
  ResHeaderInfo response = FreshResponse();
  response.http_version = HTTP_1_1;
  response.status_code = 206;
  response.accept_ranges = Text("bytes");
  response.connection = Text("close");
  response.content_language = Text("en");
  response.content_length = 12;
  response.content_type = Text("audio/mpeg");
  response.date = Text("D");
  response.last_modified = Text("L");
  response.transfer_encoding = Text("identity");
  response.server = Text("S");
  response.additional_headers = &extra;
  int code = -1;
  EXPECT_EQ(
      "HTTP/1.1 206 Partial Content\r\nAccept-Ranges: bytes\r\nConnection: close\r\n"
      "Content-Language: en\r\nContent-Length: 12\r\nContent-Type: audio/mpeg\r\nDate: D\r\n"
      "Last-Modified: L\r\nTransfer-Encoding: identity\r\nServer: S\r\nX-A: 1\r\n\r\n",
      ResponseText(response, code));
  EXPECT_EQ(result::kOk, code);
}

TEST(StreamingResponse, AStatusOutsideTheTableCannotBeSent) {
  vex_test::LogCapture log;
  ResHeaderInfo response = FreshResponse();
  response.status_code = 299;
  int code = -1;
  ResponseText(response, code);
  EXPECT_EQ(result::kStreamingInvalidParams, code);
  EXPECT_EQ(1, log.Count("Status string is null."));
  response.status_code = 200;
  response.http_version = static_cast<HTTPVersion>(3);
  ResponseText(response, code);
  EXPECT_EQ(result::kStreamingInvalidParams, code);
  EXPECT_EQ(1, log.Count("Invalid params."));
}

TEST(StreamingStatus, EveryRowOfTheTable) {
  const std::vector<std::pair<unsigned int, const char*>> rows = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {102, "Processing"},
      {103, "Checkpoint"},
      {122, "Request-URI too long"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {203, "Non-Authoritative Information"},
      {204, "No Content"},
      {205, "Reset Content"},
      {206, "Partial Content"},
      {207, "Multi-Status"},
      {226, "IM Used"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {305, "Use Proxy"},
      {306, "Switch Proxy"},
      {307, "Temporary Redirect"},
      {308, "Resume Incomplete"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Time-out"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Request Entity Too Large"},
      {414, "Request URI Too Large"},
      {415, "Unsupported Media Type"},
      {416, "Requested Range Not Satisfiable"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Time-out"},
      {505, "HTTP Version not supported"}};
  EXPECT_EQ(46U, rows.size());
  for (const auto& row : rows) EXPECT_STREQ(row.second, GetStatusString(row.first)) << row.first;
  for (const unsigned int status : {0U, 99U, 154U, 284U, 299U, 506U, 600U}) {
    EXPECT_EQ(nullptr, GetStatusString(status)) << status;
  }
}

TEST(StreamingRecord, RequestFromTheWire) {
  const boost::shared_ptr<HTTPInfo> info = Parsed(
      "POST /p HTTP/1.0\r\nhost: first\r\nX-Other: o\r\nHOST: last\r\nX-Empty:\r\nAccept: a\r\n"
      "Connection: c\r\nContent-Type: t\r\nDate: d\r\nExpect: e\r\nFrom: f\r\nLast-Modified: m\r\n"
      "User-Agent: u\r\nContent-Length: 3\r\n\r\nabc");
  ReqHeaderInfo* request = FormRequestHeaderInfo(info).release();
  ASSERT_NE(nullptr, request);
  EXPECT_EQ(utils::HTTP_POST, request->request_type);
  EXPECT_STREQ("/p", request->uri);
  EXPECT_EQ(HTTP_1_0, request->http_version);
  EXPECT_STREQ("last", request->host);
  EXPECT_STREQ("a", request->accept);
  EXPECT_STREQ("c", request->connection);
  EXPECT_STREQ("t", request->content_type);
  EXPECT_STREQ("d", request->date);
  EXPECT_STREQ("e", request->expect);
  EXPECT_STREQ("f", request->from);
  EXPECT_STREQ("m", request->last_modified);
  EXPECT_STREQ("u", request->user_agent);
  EXPECT_EQ(nullptr, request->transfer_encoding);
  EXPECT_EQ(3, request->content_length);
  ASSERT_NE(nullptr, request->additional_headers);
  EXPECT_STREQ("X-Other", request->additional_headers->name);
  EXPECT_STREQ("o", request->additional_headers->value);
  const stArgument* empty = request->additional_headers->next;
  ASSERT_NE(nullptr, empty);
  EXPECT_STREQ("X-Empty", empty->name);
  EXPECT_EQ(nullptr, empty->value);
  EXPECT_EQ(nullptr, empty->next);
  std::string out;
  AppendHeader(request->additional_headers, out);
  EXPECT_EQ("X-Other: o\r\n", out);
  Release(request);
}

// An empty Transfer-Encoding is refused with the message.
TEST(StreamingRecord, AKnownHeaderWithAnEmptyValueIsNull) {
  const vex_test::LogCapture log;
  ReqHeaderInfo* request =
      FormRequestHeaderInfo(Parsed("GET /p HTTP/1.1\r\nAccept:\r\nConnection: \r\nContent-Type:\r\n"
                                   "Date:\r\nExpect:\r\nFrom:\r\nHost:\r\nLast-Modified:\r\n"
                                   "User-Agent:\r\nContent-Length:\r\n\r\n"))
          .release();
  ASSERT_NE(nullptr, request);
  EXPECT_STREQ("/p", request->uri);
  for (const char* const text :
       {request->accept, request->connection, request->content_type, request->date, request->expect,
        request->from, request->host, request->last_modified, request->user_agent}) {
    EXPECT_EQ(nullptr, text);
  }
  EXPECT_EQ(0, request->content_length);
  EXPECT_EQ(1, log.Count("bad conversion.. making length 0!"));
  EXPECT_EQ(nullptr, request->additional_headers);
  FreeRequestHeader(request);
  ResHeaderInfo* response =
      FormResponseHeaderInfo(Parsed("HTTP/1.1 200 OK\r\nAccept-Ranges:\r\nConnection:\r\n"
                                    "Content-Language:\r\nContent-Type:\r\nDate: \r\n"
                                    "Last-Modified:\r\nServer:\r\n\r\n"))
          .release();
  ASSERT_NE(nullptr, response);
  for (const char* const text :
       {response->accept_ranges, response->connection, response->content_language,
        response->content_type, response->date, response->last_modified, response->server}) {
    EXPECT_EQ(nullptr, text);
  }
  EXPECT_EQ(nullptr, response->additional_headers);
  FreeResponseHeader(response);
}

TEST(StreamingRecord, KeptUnknownVersionsCountOppositely) {
  ReqHeaderInfo* request = FormRequestHeaderInfo(Parsed("GET / HTTP/1.2\r\n\r\n")).release();
  EXPECT_EQ(HTTP_1_1, request->http_version);
  FreeRequestHeader(request);
  ResHeaderInfo* response =
      FormResponseHeaderInfo(Parsed("HTTP/1.2 200 OK\r\nContent-Length: 0\r\n\r\n")).release();
  EXPECT_EQ(HTTP_1_0, response->http_version);
  FreeResponseHeader(response);
}

TEST(StreamingRecord, ResponseFromTheWire) {
  vex_test::LogCapture log;
  const boost::shared_ptr<HTTPInfo> info = Parsed(
      "HTTP/1.1 206 Some\r\nConnection: c\r\nContent-Language: l\r\nContent-Length: 2\r\n"
      "content-type: t\r\nDate: d\r\nAccept-Ranges: r\r\nLast-Modified: m\r\nServer: s\r\n"
      "Content-Range: bytes 0-1/9\r\n\r\nab");
  ResHeaderInfo* response = FormResponseHeaderInfo(info).release();
  ASSERT_NE(nullptr, response);
  EXPECT_EQ(HTTP_1_1, response->http_version);
  EXPECT_EQ(206U, response->status_code);
  EXPECT_STREQ("c", response->connection);
  EXPECT_STREQ("l", response->content_language);
  EXPECT_EQ(2, response->content_length);
  EXPECT_STREQ("t", response->content_type);
  EXPECT_STREQ("d", response->date);
  EXPECT_STREQ("r", response->accept_ranges);
  EXPECT_STREQ("m", response->last_modified);
  EXPECT_STREQ("s", response->server);
  EXPECT_STREQ("Content-Range", response->additional_headers->name);
  std::string value;
  EXPECT_EQ(1, GetResponseAdditionalHeaders(response->additional_headers, "content-RANGE", value));
  EXPECT_EQ("bytes 0-1/9", value);
  EXPECT_EQ(0, GetResponseAdditionalHeaders(response->additional_headers, "absent", value));
  EXPECT_EQ(0, GetResponseAdditionalHeaders(response->additional_headers, "", value));
  EXPECT_EQ(0, GetResponseAdditionalHeaders(nullptr, "a", value));
  FreeResponseHeader(response);
}

TEST(StreamingRecord, ALengthThatIsNoNumberCountsAsZero) {
  vex_test::LogCapture log;
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  info->SetHeader("Content-Length", "12abc");
  ResHeaderInfo* response = FormResponseHeaderInfo(info).release();
  EXPECT_EQ(0, response->content_length);
  EXPECT_EQ(1, log.Count("bad conversion.. making length 0!"));
  FreeResponseHeader(response);
}

TEST(StreamingChunks, BufferLengthIsFiveDigitsAndTwoLineEndsAChunk) {
  EXPECT_EQ(0U, CalculateChunkedBufferLength(0, false));
  EXPECT_EQ(5U, CalculateChunkedBufferLength(0, true));
  EXPECT_EQ(1U + 9U, CalculateChunkedBufferLength(1, false));
  EXPECT_EQ(524288U + 9U, CalculateChunkedBufferLength(524288, false));
  EXPECT_EQ(524289U + 18U + 5U, CalculateChunkedBufferLength(524289, true));
}

TEST(StreamingChunks, OnePacketIsUpperCaseHexAndItsLength) {
  char out[64] = {};
  unsigned int total = 3;
  FormChunkedPacket(out, "0123456789", 10, total);
  EXPECT_STREQ("A\r\n0123456789\r\n", out);
  EXPECT_EQ(3U + 15U, total);
}

TEST(StreamingChunks, AWholeBlockIsOneChunkAndAByteMoreMakesTwo) {
  const std::string data(524289, 'x');
  unsigned int length = 0;
  char* framed = FrameChunked(data.data(), 524288, false, length);
  EXPECT_EQ("80000\r\n" + data.substr(1) + "\r\n", std::string(framed, length));
  std::free(framed);
  framed = FrameChunked(data.data(), 524289, true, length);
  EXPECT_EQ("80000\r\n" + data.substr(1) + "\r\n1\r\nx\r\n0\r\n\r\n", std::string(framed, length));
  std::free(framed);
}

TEST(StreamingChunks, NothingAndTheEnd) {
  unsigned int length = 77;
  char* framed = FrameChunked(nullptr, 0, true, length);
  EXPECT_EQ("0\r\n\r\n", std::string(framed, length));
  std::free(framed);
  framed = FrameChunked(nullptr, 0, false, length);
  EXPECT_EQ(0U, length);
  std::free(framed);
}

TEST(StreamingChunks, APayloadWhoseFrameDoesNotFitIsRefused) {
  unsigned int length = 0;
  EXPECT_EQ(nullptr, FrameChunked("", 0xFFFFFFFFU, true, length));
}

TEST(StreamingText, UnescapesInPlace) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a%20b%2Fc", "a b/c"}, {"%4a%4A", "JJ"},   {"100%", "100%"},
      {"%4", "%4"},           {"%zz%41", "%zzA"}, {"%4z%41", "%4zA"},
      {"%%41", "%A"},         {"plain", "plain"}, {"", ""}};
  for (const auto& row : rows) {
    std::vector<char> text(row.first.begin(), row.first.end());
    text.push_back('\0');
    UnEscapeURI(text.data());
    EXPECT_EQ(row.second, text.data()) << row.first;
  }
  UnEscapeURI(nullptr);
}

TEST(StreamingTables, CopiesAreWholeAndChecked) {
  ServerAppCallbacks server = {};
  EXPECT_FALSE(ValidateServerCallbacks(nullptr));
  EXPECT_FALSE(ValidateServerCallbacks(&server));
  ClientAppCallbacks client = {};
  EXPECT_FALSE(ValidateClientCallbacks(&client));
  client.on_status = [](int, int, int) {};
  client.on_response = [](int, int, ResHeaderInfo*, void*, unsigned int, bool) {};
  client.on_data = [](int, int, void*, unsigned int, bool) {};
  EXPECT_FALSE(ValidateClientCallbacks(&client));
  client.on_write_complete = [](int, int, unsigned int) {};
  EXPECT_TRUE(ValidateClientCallbacks(&client));
  ClientAppCallbacks* copy = DupClientCallbacks(&client);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(0, std::memcmp(copy, &client, sizeof(client)));
  std::free(copy);
  EXPECT_EQ(nullptr, DupServerCallbacks(nullptr));
}

// A host that was told five bytes and given none read from null.
TEST(StreamingBody, RegressionWithoutMemoryThereIsNoLengthWithoutBytes) {
  utils::HTTPInfo info;
  ASSERT_EQ(result::kOk, info.StoreData("one", 3));
  ASSERT_EQ(result::kOk, info.StoreData("23", 2));
  unsigned int length = 0;
  {
    const vex_test::FailAlloc fail(1);
    EXPECT_THROW(TakeBody(info, length), std::bad_alloc);
  }
  const FreePtr<char> body = TakeBody(info, length);
  ASSERT_EQ(5U, length);
  EXPECT_EQ(0, std::memcmp("one23", body.get(), 5));
  EXPECT_EQ(nullptr, TakeBody(info, length));
  EXPECT_EQ(0U, length);
}

// What has no owner any more is told by the leak detector.
TEST(StreamingRecords, WithoutMemoryNothingOfARecordIsLeft) {
  const boost::shared_ptr<HTTPInfo> request =
      Parsed("POST /a/path HTTP/1.1\r\nHost: a.host\r\nContent-Length: 0\r\nOne: two\r\n\r\n");
  const boost::shared_ptr<HTTPInfo> response =
      Parsed("HTTP/1.1 200 OK\r\nServer: a server\r\nContent-Length: 0\r\nOne: two\r\n\r\n");
  const auto form = [&] {
    try {
      FormRequestHeaderInfo(request);
      FormResponseHeaderInfo(response);
    } catch (const std::bad_alloc&) {
    }
  };
  EXPECT_GT(vex_test::EachAllocationFails(form, [](bool) {}), 8);
}

// A record without any header would be taken for that of a message without any.
TEST(StreamingRecords, RegressionWithoutMemoryForTheHeadersThereIsNoRecord) {
  bool failed = true;
  int records = 0;
  for (int nth = 1; failed; ++nth) {
    const boost::shared_ptr<HTTPInfo> request =
        Parsed("GET /a/path HTTP/1.1\r\nHost: a.host\r\nOne: two\r\n\r\n");
    const boost::shared_ptr<HTTPInfo> response =
        Parsed("HTTP/1.1 200 OK\r\nServer: a server\r\nContent-Length: 0\r\nOne: two\r\n\r\n");
    RequestRecord asked;
    ResponseRecord answered;
    {
      const vex_test::FailAlloc fail(nth);
      try {
        asked = FormRequestHeaderInfo(request);
        answered = FormResponseHeaderInfo(response);
      } catch (const std::bad_alloc&) {
      }
      failed = fail.Failed();
    }
    EXPECT_TRUE(!asked || asked->host != nullptr || asked->additional_headers != nullptr) << nth;
    EXPECT_TRUE(!answered || answered->server != nullptr || answered->additional_headers != nullptr)
        << nth;
    records += asked && answered ? 1 : 0;
  }
  EXPECT_GT(records, 0);
}

TEST(StreamingServers, TheChainGrowsAtItsEnd) {
  stServer* chain = nullptr;
  EXPECT_TRUE(AddServerInfo(1000, "10.0.0.1", "eth0", 5000, &chain));
  EXPECT_TRUE(AddServerInfo(1001, "10.0.1.1", "eth1", 5001, &chain));
  EXPECT_EQ(1000, chain->server_id);
  EXPECT_STREQ("10.0.1.1", chain->next->ip);
  EXPECT_STREQ("eth1", chain->next->interface_name);
  EXPECT_EQ(5001, chain->next->port);
  EXPECT_EQ(nullptr, chain->next->next);
  FreeServerInfoList(chain);
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp

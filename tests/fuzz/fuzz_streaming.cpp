// Feeds messages to the functions between the streaming records and the wire: a record made of a
// message, written and read again, must say the same; a payload framed in chunks and parsed must be
// itself again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <boost/make_shared.hpp>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/host_memory.h"
#include "src/http_feed.h"
#include "src/streaming_utils.h"
#include "tests/support/heap_edge.h"

namespace {

using vex_test::HeapEdge;
using vex_upnp::FreePtr;
using vex_upnp::utils::FeedParser;
using vex_upnp::utils::HTTPInfo;
namespace st = vex_upnp::streaming;
namespace result = vex_upnp::result;

void Demand(bool holds) {
  if (!holds) std::abort();
}

boost::shared_ptr<HTTPInfo> Parse(std::string_view message) {
  boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
  const HeapEdge edge(message);
  if (FeedParser(edge.data(), edge.size(), info) != result::kOk) return nullptr;
  return info->GetStatus() == vex_upnp::utils::HEADER_COMPLETE ? info : nullptr;
}

bool Same(const char* one, const char* other) {
  return one == nullptr || other == nullptr ? one == other : std::strcmp(one, other) == 0;
}

// Whether a header line can carry the text as it is: a line's end inside would end the line, and
// blanks around are not part of a value.
bool FitsIntoALine(const char* text) {
  if (text == nullptr) return true;
  const std::string_view view(text);
  const auto is_control = [](char letter) { return static_cast<unsigned char>(letter) < ' '; };
  return std::none_of(view.begin(), view.end(), is_control) &&
         (view.empty() || (view.front() != ' ' && view.back() != ' '));
}

// A name or value that breaks its line may come back as any other header.
bool FitIntoLines(const st::stArgument* headers) {
  for (; headers != nullptr; headers = headers->next) {
    if (!FitsIntoALine(headers->name) || !FitsIntoALine(headers->value)) return false;
  }
  return true;
}

// What is empty need not be written at all.
bool Survives(const char* written, const char* read) {
  if (written != nullptr && *written == '\0') return read == nullptr || *read == '\0';
  return !FitsIntoALine(written) || Same(read, written);
}

// A request that can be sent at all comes back as it was.
void RoundTripRequest(const boost::shared_ptr<HTTPInfo>& info) {
  st::ReqHeaderInfo* const request = st::FormRequestHeaderInfo(info).release();
  Demand(request != nullptr);
  const st::ReqHeaderInfo* record = request;
  std::string text;
  if (st::FormReqHeader(record, text) == result::kOk) {
    if (const boost::shared_ptr<HTTPInfo> again = Parse(text)) {
      st::ReqHeaderInfo* const copy = st::FormRequestHeaderInfo(again).release();
      Demand(copy->request_type == request->request_type);
      Demand(!FitIntoLines(request->additional_headers) ||
             (Survives(request->host, copy->host) &&
              Survives(request->user_agent, copy->user_agent) &&
              Survives(request->expect, copy->expect)));
      st::FreeRequestHeader(copy);
    }
  }
  if (request->uri != nullptr) {
    const std::size_t before = std::strlen(request->uri);
    st::UnEscapeURI(request->uri);
    Demand(std::strlen(request->uri) <= before);
  }
  st::FreeRequestHeader(request);
}

void RoundTripResponse(const boost::shared_ptr<HTTPInfo>& info) {
  st::ResHeaderInfo* const response = st::FormResponseHeaderInfo(info).release();
  Demand(response != nullptr);
  const st::ResHeaderInfo* record = response;
  std::string text;
  if (st::FormResHeader(record, text) == result::kOk) {
    if (const boost::shared_ptr<HTTPInfo> again = Parse(text)) {
      st::ResHeaderInfo* const copy = st::FormResponseHeaderInfo(again).release();
      Demand(copy->status_code == response->status_code);
      Demand(!FitIntoLines(response->additional_headers) ||
             (Survives(response->server, copy->server) &&
              Survives(response->content_type, copy->content_type)));
      st::FreeResponseHeader(copy);
    }
  }
  std::string value;
  st::GetResponseAdditionalHeaders(response->additional_headers, "content-range", value);
  st::FreeResponseHeader(response);
}

// The first two bytes say where the payload is cut in two.
void RoundTripChunks(std::string_view payload) {
  if (payload.size() < 3) return;
  const std::size_t at =
      (static_cast<unsigned char>(payload[0]) * 256U + static_cast<unsigned char>(payload[1])) %
      payload.size();
  const std::string_view pieces[] = {payload.substr(0, at), payload.substr(at)};
  boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
  const std::string header = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  Demand(FeedParser(header.data(), header.size(), info) == result::kOk);
  for (const std::string_view& piece : pieces) {
    const unsigned int length = static_cast<unsigned int>(piece.size());
    const bool final = &piece == &pieces[1];
    unsigned int framed_length = 0;
    const FreePtr<char> framed(st::FrameChunked(piece.data(), length, final, framed_length));
    Demand(framed && framed_length <= st::CalculateChunkedBufferLength(length, final));
    // As the wire may cut it.
    for (unsigned int done = 0; done < framed_length;) {
      const unsigned int step = std::min(framed_length - done, 1 + (done * 7 + length) % 1000);
      Demand(FeedParser(framed.get() + done, step, info) == result::kOk);
      done += step;
    }
  }
  Demand(info->GetState() == vex_upnp::utils::MESSAGE_COMPLETE);
  unsigned int size = 0;
  const FreePtr<char> body(info->GetBody(size));
  Demand(size == payload.size() && std::memcmp(body.get(), payload.data(), size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (const boost::shared_ptr<HTTPInfo> info = Parse(input)) {
    RoundTripRequest(info);
    RoundTripResponse(info);
  }
  RoundTripChunks(input);
  return 0;
}

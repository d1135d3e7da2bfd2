// Parsing into our message, side by side with Boost.Beast parsing into its own, in one process.
//
// Each pair does the same work: make the message, parse a buffer into it, look at what a listener
// of the library looks at (the "Read" pairs), destroy it.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/make_shared.hpp>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>

#include "src/http_feed.h"

namespace {

namespace http = boost::beast::http;
using vex_upnp::result::kOk;
using vex_upnp::utils::FeedParser;
using vex_upnp::utils::HTTPInfo;
using vex_upnp::utils::HTTPParser;

constexpr std::size_t kReadSize = 8192;
constexpr std::size_t kBodySize = 64 * 1024;

const char kAlive[] =
    "NOTIFY * HTTP/1.1\r\n"
    "HOST: 239.255.255.250:1900\r\n"
    "CACHE-CONTROL: max-age=1800\r\n"
    "LOCATION: http://10.90.1.12:49700/4318511d-fd91-4513-a02f-a541c5e6c1a3.xml\r\n"
    "SERVER: Linux/6.1 UPnP/1.0 Device/1.6.3\r\n"
    "NTS: ssdp:alive\r\n"
    "NT: upnp:rootdevice\r\n"
    "USN: uuid:4318511d-fd91-4513-a02f-a541c5e6c1a3::upnp:rootdevice\r\n"
    "\r\n";

const char kSearchAnswer[] =
    "HTTP/1.1 200 OK\r\n"
    "LOCATION: http://10.90.1.12:49700/4318511d-fd91-4513-a02f-a541c5e6c1a3.xml\r\n"
    "EXT:\r\n"
    "USN: uuid:4318511d-fd91-4513-a02f-a541c5e6c1a3::upnp:rootdevice\r\n"
    "SERVER: Linux/6.1 UPnP/1.0 Device/1.6.3\r\n"
    "CACHE-CONTROL: max-age=1800\r\n"
    "ST: upnp:rootdevice\r\n"
    "DATE: Thu, 01 Jan 2015 00:00:00 GMT\r\n"
    "CONTENT-LENGTH: 0\r\n"
    "\r\n";

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// A response whose header is just above 4 KB.
std::string LongHeader() {
  std::string text = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; text.size() < 4096; ++i) {
    text += "X-Header-" + std::to_string(i) + ": some value of a usual length, " +
            std::to_string(i * 7919) + "\r\n";
  }
  return text + "Content-Length: 0\r\n\r\n";
}

std::string ChunkedAnswer(std::size_t chunk) {
  std::string text =
      "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (std::size_t sent = 0; sent < kBodySize; sent += chunk) {
    char line[16];
    std::snprintf(line, sizeof(line), "%zx\r\n", chunk);
    text += line + std::string(chunk, 'x') + "\r\n";
  }
  return text + "0\r\n\r\n";
}

boost::shared_ptr<HTTPInfo> ParseOurs(const char* data, std::size_t size) {
  boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
  if (HTTPParser::Parse(data, static_cast<unsigned int>(size), info) != kOk) Die("our parser");
  return info;
}

template <bool kRequest>
http::message<kRequest, http::string_body> ParseBeast(const char* data, std::size_t size) {
  http::parser<kRequest, http::string_body> parser;
  boost::beast::error_code error;
  parser.eager(true);
  parser.put(boost::asio::const_buffer(data, size), error);
  if (error || !parser.is_header_done()) Die("Beast");
  return parser.release();
}

void Ours(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    const boost::shared_ptr<HTTPInfo> info = ParseOurs(text.data(), text.size());
    benchmark::DoNotOptimize(info.get());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

template <bool kRequest>
void Beast(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    auto message = ParseBeast<kRequest>(text.data(), text.size());
    benchmark::DoNotOptimize(message);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BeastRequest(benchmark::State& state, const std::string& text) { Beast<true>(state, text); }
void BeastResponse(benchmark::State& state, const std::string& text) { Beast<false>(state, text); }

// What discovery reads of an announcement.
const char* const kReadNames[] = {"NTS", "USN", "NT", "LOCATION", "ST"};

void OursReadAlive(benchmark::State& state) {
  for (auto _ : state) {
    const boost::shared_ptr<HTTPInfo> info = ParseOurs(kAlive, sizeof(kAlive) - 1);
    for (const char* name : kReadNames) {
      std::string value;
      benchmark::DoNotOptimize(info->GetHeaderValue(name, value));
      benchmark::DoNotOptimize(value.data());
    }
  }
}

void BeastReadAlive(benchmark::State& state) {
  for (auto _ : state) {
    auto message = ParseBeast<true>(kAlive, sizeof(kAlive) - 1);
    for (const char* name : kReadNames) {
      const auto found = message.find(name);
      std::string value;
      if (found != message.end()) value = std::string(found->value());
      benchmark::DoNotOptimize(value.data());
    }
  }
}

// The text that listeners' patterns are searched in.
void OursHeaderText(benchmark::State& state) {
  const boost::shared_ptr<HTTPInfo> info = ParseOurs(kAlive, sizeof(kAlive) - 1);
  for (auto _ : state) {
    std::string text;
    benchmark::DoNotOptimize(info->GetHeader(text));
    benchmark::DoNotOptimize(text.data());
  }
}

// The body comes in reads of the sessions' size and ends as one block.
void OursChunked(benchmark::State& state) {
  const std::string text = ChunkedAnswer(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
    for (std::size_t at = 0; at < text.size(); at += kReadSize) {
      FeedParser(text.data() + at, std::min(kReadSize, text.size() - at), info);
    }
    unsigned int size = 0;
    char* const body = info->GetBody(size);
    if (info->GetState() != 1 || size != kBodySize) Die("our body");
    benchmark::DoNotOptimize(body);
    std::free(body);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// Beast wants bytes that it did not take offered again with more behind them, as its own reading
// functions do it with a buffer.
void BeastChunked(benchmark::State& state) {
  const std::string text = ChunkedAnswer(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    http::parser<false, http::string_body> parser;
    parser.eager(true);
    boost::beast::error_code error;
    std::size_t taken = 0;
    for (std::size_t end = kReadSize; !parser.is_done(); end += kReadSize) {
      const std::size_t available = std::min(end, text.size());
      while (taken < available && !parser.is_done()) {
        const std::size_t count =
            parser.put(boost::asio::const_buffer(text.data() + taken, available - taken), error);
        taken += count;
        if (error == http::error::need_more || count == 0) break;
        if (error) Die("Beast body");
      }
    }
    auto message = parser.release();
    if (message.body().size() != kBodySize) Die("Beast body");
    benchmark::DoNotOptimize(message);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// What a hostile header costs: linear, whatever it is cut into.
void OursByteByByte(benchmark::State& state) {
  const std::string text = LongHeader();
  for (auto _ : state) {
    boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
    for (const char& byte : text) FeedParser(&byte, 1, info);
    if (info->GetState() != 1) Die("our parser, byte by byte");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

BENCHMARK_CAPTURE(Ours, alive, kAlive);
BENCHMARK_CAPTURE(BeastRequest, alive, kAlive);
BENCHMARK_CAPTURE(Ours, search_answer, kSearchAnswer);
BENCHMARK_CAPTURE(BeastResponse, search_answer, kSearchAnswer);
BENCHMARK_CAPTURE(Ours, long_header, LongHeader());
BENCHMARK_CAPTURE(BeastResponse, long_header, LongHeader());
BENCHMARK(OursReadAlive);
BENCHMARK(BeastReadAlive);
BENCHMARK(OursHeaderText);
BENCHMARK(OursChunked)->Arg(256)->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(BeastChunked)->Arg(256)->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(OursByteByByte);

}  // namespace

BENCHMARK_MAIN();

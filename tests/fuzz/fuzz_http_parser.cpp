// Feeds bytes to the HTTP parser in one piece, byte by byte and in pieces that follow from the
// bytes themselves; every way must give the same message. The same pieces without the parsing
// status cleared between them, as the blocking request reads, may lose bytes but make none up.
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <vexupnpcp/httpparser.h>
#include <boost/make_shared.hpp>

#include "tests/support/cut_feeder.h"
#include "tests/support/heap_edge.h"

namespace {

using vex_test::CutFeeder;
using vex_test::HeapEdge;
using vex_test::ParsedMessage;
using vex_upnp::utils::HTTPInfo;
using vex_upnp::utils::HTTPParser;

// Byte by byte costs a call for each; longer inputs are cut in other ways only.
constexpr std::size_t kByteByByteUpTo = 256;

void Demand(bool holds) {
  if (!holds) std::abort();
}

// Cuts at distances that a small generator gives, seeded by the input, so that a crash repeats.
std::vector<std::size_t> CutsFrom(std::string_view message, std::uint32_t longest) {
  std::uint32_t seed = longest;
  for (const char c : message) seed = seed * 33U ^ static_cast<unsigned char>(c);
  std::vector<std::size_t> cuts;
  for (std::size_t at = 0;;) {
    seed = seed * 1664525U + 1013904223U;
    at += 1 + (seed >> 8) % longest;
    if (at >= message.size()) return cuts;
    cuts.push_back(at);
  }
}

void TheSameHoweverCut(std::string_view message) {
  const CutFeeder feeder(message);
  const ParsedMessage whole = feeder.Whole();
  const bool comparable = !vex_test::CutMatters(whole);
  for (const std::uint32_t longest : {24U, 200U, 1500U}) {
    const ParsedMessage cut = feeder.Cut(CutsFrom(message, longest));
    Demand(!comparable || cut == whole);
  }
  if (message.size() <= kByteByByteUpTo) {
    const ParsedMessage cut = feeder.ByteByByte();
    Demand(!comparable || cut == whole);
  }
}

bool IsChunked(const ParsedMessage& parsed) {
  return std::any_of(parsed.headers.begin(), parsed.headers.end(), [](const auto& header) {
    return strcasecmp(header.first.c_str(), "Transfer-Encoding") == 0;
  });
}

void NothingIsMadeUpWhenTheStatusIsKept(std::string_view message) {
  const CutFeeder feeder(message, CutFeeder::Between::kKept);
  const auto check = [&](const ParsedMessage& parsed) {
    Demand(parsed.body.size() <= message.size());
    Demand(IsChunked(parsed) || message.find(parsed.body) != std::string_view::npos);
  };
  const std::uint32_t half = static_cast<std::uint32_t>(message.size() / 2 + 1);
  for (const std::uint32_t longest : {24U, 200U, 1500U, half}) {
    check(feeder.Cut(CutsFrom(message, longest)));
  }
  if (message.size() <= kByteByByteUpTo) check(feeder.ByteByByte());
}

// What listeners do with a message, and what the sizes for budgets promise.
void UseIt(std::string_view message) {
  boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
  const HeapEdge edge(message);
  HTTPParser::Parse(edge.data(), edge.size(), info);
  Demand(info->GetRawHeaderSize() <= message.size());
  Demand(info->GetProcessedBodySize() <= message.size());
  Demand(info->GetHeldSize() >= info->GetRawHeaderSize() + info->GetProcessedBodySize());

  std::string value;
  for (const char* name : {"NTS", "USN", "Content-Length", "SID"})
    info->GetHeaderValue(name, value);
  std::string text;
  info->GetHeader(text);
  std::string body;
  info->ReadBody(body);
  Demand(body.find('\0') == std::string::npos);
  unsigned int consumed = 0;
  info->GetHex(edge.data(), edge.size(), consumed);
  info->SetHeader("Added", "1");
  Demand(info->GetHeaderValue("added", value) == 0);
  info->CleanInfo();
  HTTPParser::Parse(edge.data(), edge.size(), info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view message(reinterpret_cast<const char*>(data), size);
  if (message.empty()) return 0;
  TheSameHoweverCut(message);
  NothingIsMadeUpWhenTheStatusIsKept(message);
  UseIt(message);
  return 0;
}

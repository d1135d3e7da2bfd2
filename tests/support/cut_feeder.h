#ifndef VEXUPNPCP_TESTS_SUPPORT_CUT_FEEDER_H_
#define VEXUPNPCP_TESTS_SUPPORT_CUT_FEEDER_H_

#include <cstddef>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/heap_edge.h"

// Header-only, since the fuzzing programs use it too.

namespace vex_test {

using vex_upnp::utils::HTTPInfo;
using vex_upnp::utils::HTTPParser;

// All that can be seen of a message, and the result of the last call of the parser.
struct ParsedMessage {
  int result = 0;
  int status = 0;
  int state = 0;
  int parsing_status = 0;
  bool is_request = false;
  int type = 0;
  unsigned int code = 0;
  int major = 0;
  int minor = 0;
  unsigned long long content_length = 0;
  std::string start_line;
  std::string uri;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  bool operator==(const ParsedMessage& other) const {
    return result == other.result && status == other.status && state == other.state &&
           parsing_status == other.parsing_status && is_request == other.is_request &&
           type == other.type && code == other.code && major == other.major &&
           minor == other.minor && content_length == other.content_length &&
           start_line == other.start_line && uri == other.uri && headers == other.headers &&
           body == other.body;
  }

  // Value of the first header of exactly this name, or "(none)".
  std::string Header(std::string_view name) const {
    for (const auto& header : headers) {
      if (header.first == name) return header.second;
    }
    return "(none)";
  }
};

inline void PrintTo(const ParsedMessage& message, std::ostream* out) {
  *out << "result " << message.result << ", status " << message.status << ", state "
       << message.state << ", parsing status " << message.parsing_status << ", "
       << (message.is_request ? "request " : "response ") << message.type << ' ' << message.code
       << ' ' << message.major << '.' << message.minor << ", length " << message.content_length
       << ", start line [" << message.start_line << "], uri [" << message.uri << "], headers";
  for (const auto& header : message.headers) {
    *out << " [" << header.first << "|" << header.second << "]";
  }
  *out << ", body [" << message.body << "]";
}

inline std::string TakeBody(HTTPInfo& info) {
  unsigned int size = 0;
  char* const block = info.GetBody(size);
  std::string body(block == nullptr ? "" : block, size);
  std::free(block);
  return body;
}

inline ParsedMessage Look(HTTPInfo& info, int result) {
  ParsedMessage seen;
  seen.result = result;
  seen.status = info.GetStatus();
  seen.state = info.GetState();
  seen.parsing_status = info.GetParsingStatus();
  seen.is_request = info.IsRequest();
  seen.type = info.GetRequestType();
  seen.code = info.GetStatusCode();
  info.GetHTTPVersion(seen.major, seen.minor);
  seen.content_length = info.GetContentLength();
  info.GetStartLine(seen.start_line);
  info.GetURI(seen.uri);
  std::vector<vex_upnp::utils::NameValue*> headers;
  info.GetHeader(headers);
  for (const auto* header : headers) seen.headers.emplace_back(header->name, header->value);
  seen.body = TakeBody(info);
  return seen;
}

// Two kinds of broken message are not the same however they are cut, and never complete: a NUL byte
// in the first line hides its end from what is in the same buffer, and a header line with an empty
// name leaves the flags as they were, so that whole buffers pass for body.
inline bool CutMatters(const ParsedMessage& whole) {
  return whole.parsing_status == vex_upnp::utils::PARSING_CONTINUE ||
         whole.start_line.find('\0') != std::string::npos;
}

// Feeds a message as a session does it: piece by piece, each at the edge of a heap block, until it
// is complete or has failed. `cuts` are ascending positions.
class CutFeeder {
 public:
  // Between two pieces a session clears the parsing status; the request that blocks its caller
  // keeps it.
  enum class Between { kCleared, kKept };

  explicit CutFeeder(std::string_view message, Between between = Between::kCleared)
      : message_(message), between_(between) {}

  ParsedMessage Whole() const { return Cut({}); }

  ParsedMessage Cut(const std::vector<std::size_t>& cuts) const {
    boost::shared_ptr<HTTPInfo> info = boost::make_shared<HTTPInfo>();
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= cuts.size(); ++i) {
      const std::size_t end = i < cuts.size() ? cuts[i] : message_.size();
      const int result = Feed(message_.substr(begin, end - begin), info);
      begin = end;
      if (end == message_.size() || !WantsMore(result, *info)) return Look(*info, result);
      if (between_ == Between::kCleared) {
        info->SetParsingStatus(vex_upnp::utils::PARSING_CONTINUE);
      }
    }
    return ParsedMessage();
  }

  ParsedMessage ByteByByte() const {
    std::vector<std::size_t> cuts;
    for (std::size_t at = 1; at < message_.size(); ++at) cuts.push_back(at);
    return Cut(cuts);
  }

  // Calls `check(cuts, parsed)` for one cut at every byte, for byte by byte, and for a short
  // message for two cuts at every pair of bytes.
  template <typename Check>
  void EveryCut(Check check) const {
    constexpr std::size_t kPairsUpTo = 90;
    for (std::size_t first = 1; first < message_.size(); ++first) {
      check(std::vector<std::size_t>{first}, Cut({first}));
      if (message_.size() > kPairsUpTo) continue;
      for (std::size_t second = first + 1; second < message_.size(); ++second) {
        check(std::vector<std::size_t>{first, second}, Cut({first, second}));
      }
    }
    check(std::vector<std::size_t>{}, ByteByByte());
  }

 private:
  static int Feed(std::string_view piece, boost::shared_ptr<HTTPInfo>& info) {
    const HeapEdge edge(piece);
    return HTTPParser::Parse(edge.data(), edge.size(), info);
  }

  static bool WantsMore(int result, const HTTPInfo& info) {
    return result == vex_upnp::result::kOk &&
           info.GetState() == vex_upnp::utils::MESSAGE_INCOMPLETE;
  }

  std::string_view message_;
  const Between between_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_CUT_FEEDER_H_

#ifndef VEXSIM_HTTP_MESSAGE_H_
#define VEXSIM_HTTP_MESSAGE_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexsim {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;
  std::string path;
  bool http11 = false;
  Headers headers;
  std::string body;
  // Where it came in.
  std::string local_address;
  unsigned short local_port = 0;

  // Case of the name is ignored; empty without the header.
  std::string_view Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;
  // "ADDRESS:PORT" under which the client reached us.
  std::string Authority() const { return local_address + ":" + std::to_string(local_port); }
};

struct HttpResponse {
  // Leaves so much later.
  std::chrono::milliseconds delay{0};
  int status = 200;
  std::string content_type;
  Headers headers;
  std::string body;
};

enum class ParseState { kIncomplete, kComplete, kBad };

// Reads one request from the front of `buffer`; `used` is its length when it is complete.
ParseState ParseRequest(std::string_view buffer, HttpRequest& request, std::size_t& used);

enum class Framing { kLength, kChunked, kUntilClose };

// The bytes of an answer. `chunk` is the size of the chunks, for kChunked.
std::string FormatResponse(const HttpResponse& response, Framing framing, std::size_t chunk,
                           bool keep_alive);

std::string_view ReasonPhrase(int status);

}  // namespace vexsim

#endif  // VEXSIM_HTTP_MESSAGE_H_

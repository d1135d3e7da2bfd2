#include "http_message.h"

#include <algorithm>
#include <cstdio>

#include "ssdp_messages.h"
#include "text.h"

namespace vexsim {

namespace {

constexpr std::size_t kLongestHeader = 64 * 1024;
constexpr std::size_t kLongestBody = 1024 * 1024;

bool ParseStartLine(std::string_view line, HttpRequest& request) {
  const std::size_t first = line.find(' '), last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return false;
  request.method = line.substr(0, first);
  std::string_view target = line.substr(first + 1, last - first - 1);
  // A client that asks with the whole address means the path.
  if (const std::size_t scheme = target.find("://"); scheme != std::string_view::npos) {
    const std::size_t slash = target.find('/', scheme + 3);
    target = slash == std::string_view::npos ? "/" : target.substr(slash);
  }
  request.path = target.substr(0, target.find('?'));
  const std::string_view version = line.substr(last + 1);
  request.http11 = version == "HTTP/1.1";
  return version.substr(0, 5) == "HTTP/";
}

bool ParseHeaderLines(std::string_view lines, HttpRequest& request) {
  while (!lines.empty()) {
    const std::size_t end = lines.find("\r\n");
    const std::string_view line = lines.substr(0, end);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    request.headers.emplace_back(Trim(line.substr(0, colon)), Trim(line.substr(colon + 1)));
    if (end == std::string_view::npos) break;
    lines.remove_prefix(end + 2);
  }
  return true;
}

bool BodyLength(const HttpRequest& request, std::size_t& length) {
  const std::string_view text = request.Header("Content-Length");
  length = 0;
  if (text.empty()) return true;
  const std::optional<std::size_t> number = ToNumber<std::size_t>(text);
  length = number.value_or(0);
  return number && length <= kLongestBody;
}

void AppendChunked(std::string& out, std::string_view body, std::size_t chunk) {
  char size[24];
  while (!body.empty()) {
    const std::string_view piece = body.substr(0, chunk);
    std::snprintf(size, sizeof(size), "%zx\r\n", piece.size());
    out.append(size).append(piece).append("\r\n");
    body.remove_prefix(piece.size());
  }
  out += "0\r\n\r\n";
}

}  // namespace

std::string_view HttpRequest::Header(std::string_view name) const {
  for (const auto& [header, value] : headers)
    if (EqualsNoCase(header, name)) return value;
  return std::string_view();
}

bool HttpRequest::HasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& header) { return EqualsNoCase(header.first, name); });
}

ParseState ParseRequest(std::string_view buffer, HttpRequest& request, std::size_t& used) {
  const std::size_t end = buffer.find("\r\n\r\n");
  if (end == std::string_view::npos)
    return buffer.size() > kLongestHeader ? ParseState::kBad : ParseState::kIncomplete;
  const std::size_t line = buffer.find("\r\n");
  request.headers.clear();
  if (!ParseStartLine(buffer.substr(0, line), request)) return ParseState::kBad;
  if (line < end && !ParseHeaderLines(buffer.substr(line + 2, end - line - 2), request))
    return ParseState::kBad;
  std::size_t length = 0;
  if (!BodyLength(request, length)) return ParseState::kBad;
  used = end + 4 + length;
  if (buffer.size() < used) return ParseState::kIncomplete;
  request.body = buffer.substr(end + 4, length);
  return ParseState::kComplete;
}

std::string FormatResponse(const HttpResponse& response, Framing framing, std::size_t chunk,
                           bool keep_alive) {
  std::string out = "HTTP/1.1 " + std::to_string(response.status) + " ";
  out.append(ReasonPhrase(response.status)).append("\r\n");
  if (!response.content_type.empty()) out += "CONTENT-TYPE: " + response.content_type + "\r\n";
  out += "DATE: " + HttpDate() + "\r\nEXT:\r\nSERVER: " + kServerHeader + "\r\n";
  for (const auto& [name, value] : response.headers) out += name + ": " + value + "\r\n";
  if (framing == Framing::kLength)
    out += "CONTENT-LENGTH: " + std::to_string(response.body.size()) + "\r\n";
  if (framing == Framing::kChunked) out += "TRANSFER-ENCODING: chunked\r\n";
  if (!keep_alive) out += "CONNECTION: close\r\n";
  out += "\r\n";
  if (framing == Framing::kChunked) {
    AppendChunked(out, response.body, chunk);
  } else {
    out += response.body;
  }
  return out;
}

std::string_view ReasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 206:
      return "Partial Content";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 412:
      return "Precondition Failed";
    case 416:
      return "Range Not Satisfiable";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

}  // namespace vexsim

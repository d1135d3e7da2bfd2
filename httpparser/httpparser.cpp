#include <vexupnpcp/httpparser.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <string_view>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>

#include "base/ascii_text.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/log_limit.h"
#include "base/number_text.h"
#include "httpparser/header_view.h"

namespace vex_upnp {
namespace utils {

// What is left of a received buffer.
struct HTTPParser::Bytes {
  const char* data;
  unsigned int size;

  void Skip(unsigned int count) {
    data += count;
    size -= count;
  }
};

namespace {

constexpr const char* kTag = log::kTagUtils;
constexpr std::string_view kCrlf = "\r\n";
constexpr unsigned int kCrlfLength = 2;
constexpr std::string_view kResponseStart = "HTTP/";
// Of a first line that does not end, this much is logged.
constexpr unsigned int kLoggedBytes = 1024;
// Of a message's lines without a colon, so many are logged whatever came before.
constexpr unsigned int kLoggedStrayLines = 8;
// Room for the headers of a usual message, so that their list is allocated once.
constexpr std::size_t kUsualHeaders = 16;

bool HasNeverABody(HTTPRequest method) {
  return method == HTTP_GET || method == HTTP_HEAD || method == HTTP_SUBSCRIBE ||
         method == HTTP_UNSUBSCRIBE || method == HTTP_MSEARCH;
}

// The first CRLF from `from` on.
std::size_t FindCrlf(std::string_view text, std::size_t from) {
  for (std::size_t cr = text.find('\r', from); cr != std::string_view::npos;
       cr = text.find('\r', cr + 1)) {
    if (cr + 1 < text.size() && text[cr + 1] == '\n') return cr;
  }
  return std::string_view::npos;
}

// Bytes up to the end of the first blank line, 0 without one. Goes from line to line, since that is
// what memchr skips fastest.
std::size_t EndOfBlankLine(std::string_view text) {
  for (std::size_t lf = text.find('\n'); lf != std::string_view::npos && lf + 2 < text.size();
       lf = text.find('\n', lf + 1)) {
    if (text[lf + 1] == '\r' && text[lf + 2] == '\n' && lf > 0 && text[lf - 1] == '\r')
      return lf + 3;
  }
  return 0;
}

// How many bytes of the buffer belong to the header that begins with `raw_header`; 0 when it goes
// on behind the buffer. Only the last three bytes of what came before are looked at again.
std::size_t BytesOfHeader(std::string_view raw_header, std::string_view buffer) {
  constexpr std::size_t kOverlap = 3;
  char seam[2 * kOverlap];
  const std::size_t held = std::min(raw_header.size(), kOverlap);
  const std::size_t fresh = std::min(buffer.size(), kOverlap);
  if (held > 0) {
    raw_header.copy(seam, held, raw_header.size() - held);
    buffer.copy(seam + held, fresh);
    const std::size_t end = EndOfBlankLine(std::string_view(seam, held + fresh));
    if (end > held) return end - held;
  }
  return EndOfBlankLine(buffer);
}

// Whether what is held of a chunk-size line ends inside a match of CRLF. Of two CRs in a row the
// second one has failed the match that the first one began.
bool EndsInOpenMatch(std::string_view held) {
  if (held.empty() || held.back() != '\r') return false;
  const std::size_t last = held.find_last_not_of('\r');
  const std::size_t trailing = held.size() - (last == std::string_view::npos ? 0 : last + 1);
  return trailing % 2 == 1;
}

// Bytes up to the end of a chunk-size line, 0 when it goes on behind the buffer. The search is the
// one that never steps back, continued from what earlier buffers gave of the line.
unsigned int EndOfSizeLine(std::string_view held, const char* data, unsigned int size) {
  const bool match_open = EndsInOpenMatch(held);
  if (match_open && *data == '\n') return 1;
  const unsigned int begin = match_open ? 1 : 0;
  const char* const crlf = StringUtils::StrNStr(data + begin, size - begin, kCrlf.data());
  return crlf == nullptr ? 0 : static_cast<unsigned int>(crlf - data) + kCrlfLength;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// As lenient as the C library: white space, a sign, "0x", then digits up to the first other byte;
// no digit reads as 0. The same on 32 and 64 bits: a minus negates modulo 2^32, and a size of more
// digits than that has is refused rather than cut.
bool ReadChunkSize(std::string_view line, unsigned int& size) {
  std::size_t at = 0;
  while (at < line.size() && IsWhiteSpace(line[at])) ++at;
  const bool negative = at < line.size() && line[at] == '-';
  if (at < line.size() && (line[at] == '-' || line[at] == '+')) ++at;
  if (at + 2 < line.size() && line[at] == '0' && (line[at + 1] | 0x20) == 'x' &&
      HexDigit(line[at + 2]) >= 0) {
    at += 2;
  }
  while (at < line.size() && line[at] == '0') ++at;

  unsigned int value = 0;
  for (std::size_t digits = 0; at < line.size() && HexDigit(line[at]) >= 0; ++at) {
    if (++digits > limits::kChunkSizeDigits) return false;
    value = value * 16 + static_cast<unsigned int>(HexDigit(line[at]));
  }
  size = negative ? 0U - value : value;
  return true;
}

}  // namespace

int HTTPParser::Fail(HTTPInfo& info) {
  info.parsing_status_ = PARSING_RETURN;
  info.state_ = MESSAGE_FAILED;
  return result::kFailure;
}

int HTTPParser::Parse(const void* data, const unsigned int& length,
                      boost::shared_ptr<HTTPInfo>& info) {
  if (!info) {
    VEX_LOG(kLogMajor, kTag, "Invalid params!!!");
    return result::kFailure;
  }
  if (data == nullptr || length == 0) {
    VEX_LOG(kLogStep, kTag, "Has nothing to be parsed!!!");
    info->parsing_status_ = PARSING_RETURN;
    return result::kOk;
  }
  try {
    return ParseBuffer(Bytes{static_cast<const char*>(data), length}, *info);
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return Fail(*info);
  }
}

int HTTPParser::ParseBuffer(const Bytes& buffer, HTTPInfo& info) {
  // A state is never left again: what comes behind the end is dropped, also when it comes late.
  if (info.state_ == MESSAGE_FAILED) return Fail(info);
  if (info.state_ == MESSAGE_COMPLETE) {
    info.parsing_status_ = PARSING_RETURN;
    return result::kOk;
  }
  if (info.status_ < HEADER_COMPLETE) {
    const int header_result = HandleHeader(buffer, info);
    if (info.parsing_status_ == PARSING_RETURN) {
      // Where the body begins is a place in this buffer. Who has not cleared the parsing status
      // gets nothing stored of it, and the next buffer is body from its first byte.
      info.body_offset_ = 0;
      return header_result;
    }
  }
  return HandleBody(buffer, info);
}

// Adds what the buffer has of the header; `header_part` is 0 when the header ended before it.
bool HTTPParser::TakeUpHeader(const Bytes& buffer, HTTPInfo& info, unsigned int& header_part) {
  header_part = 0;
  if (info.header_ended_) return true;
  const std::size_t end =
      BytesOfHeader(info.raw_header_, std::string_view(buffer.data, buffer.size));
  header_part = end > 0 ? static_cast<unsigned int>(end) : buffer.size;
  // Positions in the header are 32 bits wide.
  if (info.raw_header_.size() > UINT_MAX - header_part) return false;
  info.raw_header_.append(buffer.data, header_part);
  info.header_ended_ = end > 0;
  return true;
}

int HTTPParser::HandleHeader(const Bytes& buffer, HTTPInfo& info) {
  unsigned int header_part = 0;
  if (!TakeUpHeader(buffer, info, header_part)) return Fail(info);
  if (info.status_ < HEADER_START_LINE) {
    const int first_line_result = HandleFirstLine(buffer, header_part, info);
    if (info.parsing_status_ == PARSING_RETURN) {
      VEX_LOG(kLogStep, kTag, "parsing completed!");
      return first_line_result;
    }
  }
  return ParseHTTPHeader(buffer, header_part, info);
}

int HTTPParser::HandleFirstLine(const Bytes& buffer, unsigned int header_part, HTTPInfo& info) {
  if (header_part == 0) {
    // The blank line came before the first line had an end: there is no header to be had.
    VEX_LOG(kLogMajor, kTag, "String cant find CRLF !");
    return Fail(info);
  }
  const std::string_view fresh(buffer.data, header_part);
  std::size_t cr = fresh.find('\r');
  // A NUL byte in front of the CR hides it, in this buffer and in all that follow.
  if (fresh.substr(0, cr).find('\0') != std::string_view::npos) info.first_line_has_nul_ = true;
  if (info.first_line_has_nul_) cr = std::string_view::npos;

  const std::size_t earlier = info.raw_header_.size() - header_part;
  if (cr == std::string_view::npos) {
    VEX_LOG(kLogStep, kTag, "parsing completed for data %.*s!",
            static_cast<int>(std::min(buffer.size, kLoggedBytes)), buffer.data);
    info.parsing_status_ = PARSING_RETURN;
    info.start_line_ = {0, static_cast<unsigned int>(info.raw_header_.size())};
    return result::kOk;
  }
  info.status_ = HEADER_START_LINE;
  info.start_line_ = HTTPInfo::HeaderView::Trimmed(info, 0, earlier + cr);
  const std::string_view line = HTTPInfo::HeaderView::StartLine(info);
  if (line.substr(0, kResponseStart.size()) == kResponseStart) return ParseHTTPStatusLine(info);
  info.is_request_ = true;
  return ParseHTTPRequestLine(info);
}

int HTTPParser::ParseHTTPRequestLine(HTTPInfo& info) {
  const std::string_view line = HTTPInfo::HeaderView::StartLine(info);
  const std::size_t method_end = line.find(' ');
  if (method_end == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Space not found : 1!");
    return Fail(info);
  }
  info.request_type_ = utils::GetRequestType(std::string(line.substr(0, method_end)));

  const std::size_t uri_end = line.find(' ', method_end + 1);
  if (uri_end == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Space not found : 2!");
    return Fail(info);
  }
  info.uri_ = line.substr(method_end + 1, uri_end - method_end - 1);

  // KEPT: what stands in front of the slash is not looked at, so "FOO/1.1" is version 1.1.
  const std::size_t slash = line.find('/', uri_end + 1);
  if (slash == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Slash not found!");
    return Fail(info);
  }
  const std::size_t dot = line.find('.', slash + 1);
  if (dot == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Dot not found!");
    return Fail(info);
  }
  if (!ToNumber(line.data() + slash + 1, dot - slash - 1, info.http_major_) ||
      !ToNumber(line.data() + dot + 1, line.size() - dot - 1, info.http_minor_)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to int");
    return Fail(info);
  }
  return result::kOk;
}

int HTTPParser::ParseHTTPStatusLine(HTTPInfo& info) {
  const std::string_view line = HTTPInfo::HeaderView::StartLine(info);
  const std::size_t slash = line.find('/');
  const std::size_t dot = line.find('.', slash + 1);
  if (dot == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Dot not found!");
    return Fail(info);
  }
  if (!ToNumber(line.data() + slash + 1, dot - slash - 1, info.http_major_)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to int");
    return Fail(info);
  }
  const std::size_t version_end = line.find(' ', dot + 1);
  if (version_end == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Space not found!");
    return Fail(info);
  }
  if (!ToNumber(line.data() + dot + 1, version_end - dot - 1, info.http_minor_)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to int");
    return Fail(info);
  }
  // KEPT: a status line without a reason phrase fails; the words of the line speak of a dot though
  // it is a blank that is missing.
  const std::size_t code_begin = line.find_first_not_of(' ', version_end);
  const std::size_t code_end = line.find(' ', code_begin);
  if (code_begin == std::string_view::npos || code_end == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "Dot not found!");
    return Fail(info);
  }
  if (!ToNumber(line.data() + code_begin, code_end - code_begin, info.status_code_)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to unsigned");
    return Fail(info);
  }
  return result::kOk;
}

int HTTPParser::ParseHTTPHeader(const Bytes& buffer, unsigned int header_part, HTTPInfo& info) {
  if (!info.header_ended_) {
    VEX_LOG(kLogStep, kTag, "CRLF not yet received !");
    info.parsing_status_ = PARSING_RETURN;
    return result::kOk;
  }
  const int store_result = StoreHeaders(info);
  if (store_result != result::kOk) return store_result;

  GetEncodingType(info);
  if (info.encoding_ == ENC_UNIDENTIFIED) {
    VEX_LOG(kLogMajor, kTag, "UNIDENTIFIED encoding type!");
    return result::kFailure;
  }
  info.status_ = HEADER_COMPLETE;
  if (info.encoding_ == ENC_NO_BODY) {
    // What else the buffer holds is lost: one buffer finishes one message at most.
    info.parsing_status_ = PARSING_RETURN;
    info.state_ = MESSAGE_COMPLETE;
    return result::kOk;
  }
  // Without a part in this buffer the header ended in an earlier one, whose reader kept the parsing
  // status behind the first line: as above, nothing is stored of the buffer that it is done in.
  if (header_part == 0 || header_part == buffer.size) {
    info.parsing_status_ = PARSING_RETURN;
  } else {
    info.body_offset_ = header_part;
  }
  return result::kOk;
}

int HTTPParser::StoreHeaders(HTTPInfo& info) {
  const std::string_view text = info.raw_header_;
  const std::size_t start_line_end = FindCrlf(text, 0);
  if (start_line_end == std::string_view::npos) {
    VEX_LOG(kLogMajor, kTag, "String cant find CRLF !");
    return Fail(info);
  }
  info.header_spans_.reserve(kUsualHeaders);
  // A line that begins with CR is the end, whatever follows the CR.
  std::size_t begin = start_line_end + kCrlf.size();
  std::size_t lines = 0;
  unsigned int stray_lines = 0;
  while (begin < text.size() && text[begin] != '\r') {
    const std::size_t end = FindCrlf(text, begin);
    if (end == std::string_view::npos) {
      VEX_LOG(kLogMajor, kTag, "Invalid Header!");
      return Fail(info);
    }
    if (++lines > limits::kHttpHeaderLines) info.has_too_many_lines_ = true;
    const int store_result =
        StoreHeader({static_cast<unsigned int>(begin), static_cast<unsigned int>(end - begin)},
                    info, stray_lines);
    if (store_result != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "StoreHeader failed!");
      return store_result;
    }
    begin = end + kCrlf.size();
  }
  return result::kOk;
}

int HTTPParser::StoreHeader(const HTTPInfo::Span& line, HTTPInfo& info, unsigned int& stray_lines) {
  const std::string_view text = HTTPInfo::HeaderView::Text(info, line);
  const std::size_t colon = text.find(':');
  if (colon != std::string_view::npos) {
    const HTTPInfo::HeaderSpan header = {
        HTTPInfo::HeaderView::Trimmed(info, line.begin, line.begin + colon),
        HTTPInfo::HeaderView::Trimmed(info, line.begin + colon + 1, line.begin + line.length)};
    if (header.name.length == 0) {
      // KEPT: the flags stay as they are, so the header is gone through again with every further
      // buffer and never ends.
      VEX_LOG(kLogMajor, kTag, "Invalid input");
      return result::kFailure;
    }
    info.header_spans_.push_back(header);
    return result::kOk;
  }
  // A message of nothing but such lines tells the log no more than its first ones.
  static LogLimit once_a_second;
  if (++stray_lines <= kLoggedStrayLines || once_a_second.Due()) {
    VEX_LOG(kLogMajor, kTag, "colon not found in header");
  }
  if (info.GetHeaderCount() == 0) return Fail(info);
  // KEPT: a continuation line, or any stray one, goes behind the last value as it stands.
  info.MakeRecords();
  info.headers_.back()->value.append(text);
  return result::kOk;
}

void HTTPParser::GetEncodingType(HTTPInfo& info) {
  using View = HTTPInfo::HeaderView;
  std::string_view value;
  info.encoding_ = ENC_NO_BODY;
  if (info.is_request_) {
    if (HasNeverABody(info.request_type_)) return;
    if (info.request_type_ == HTTP_NOTIFY && View::Find(info, "NTS", value) &&
        (EqualsIgnoringCase(value, "ssdp:alive") || EqualsIgnoringCase(value, "ssdp:byebye"))) {
      return;
    }
  } else if (View::Find(info, "USN", value)) {
    return;
  }
  if (View::Find(info, "Transfer-Encoding", value)) {
    if (EqualsIgnoringCase(value, "chunked")) {
      info.encoding_ = ENC_CHUNKED;
      return;
    }
    VEX_LOG(kLogMajor, kTag, "Un-supported Transfer-Encoding value [%s]!",
            std::string(value).c_str());
    info.encoding_ = ENC_UNIDENTIFIED;
    info.parsing_status_ = PARSING_RETURN;
    return;
  }
  if (!View::Find(info, "Content-Length", value)) {
    info.encoding_ = ENC_UNTIL_CLOSE;
    return;
  }
  if (value.empty()) return;
  unsigned long long content_length = 0;
  if (!ToNumber(value.data(), value.size(), content_length)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to int");
    info.encoding_ = ENC_UNIDENTIFIED;
    info.parsing_status_ = PARSING_RETURN;
    return;
  }
  if (content_length == 0) return;
  info.content_length_ = content_length;
  info.encoding_ = ENC_CONTENT_LENGTH;
}

int HTTPParser::HandleBody(const Bytes& buffer, HTTPInfo& info) {
  if (info.body_offset_ > buffer.size) return Fail(info);
  Bytes rest = buffer;
  rest.Skip(info.body_offset_);
  info.body_offset_ = 0;
  if (info.encoding_ != ENC_CHUNKED) return info.StoreData(rest.data, rest.size);
  const int chunk_result = ParseChunkedHTTPBody(rest, info);
  info.ClosePiece();
  return chunk_result;
}

int HTTPParser::ParseChunkedHTTPBody(const Bytes& buffer, HTTPInfo& info) {
  Bytes rest = buffer;
  const unsigned int pending = info.chunk_crlf_pending_;
  info.chunk_crlf_pending_ = 0;
  if (pending >= rest.size) {
    info.chunk_crlf_pending_ = pending - rest.size;
    info.parsing_status_ = PARSING_RETURN;
    return result::kOk;
  }
  rest.Skip(pending);
  const unsigned int remaining = info.chunk_remaining_;
  if (remaining > 0) {
    const int copy_result = CopyRemainingData(rest, info);
    if (info.parsing_status_ == PARSING_RETURN) return copy_result;
    rest.Skip(remaining);
    rest.Skip(kCrlfLength);
  }
  return StoreChunkedData(rest, info);
}

// Finishes a chunk that was begun in an earlier buffer.
int HTTPParser::CopyRemainingData(const Bytes& rest, HTTPInfo& info) {
  const unsigned int remaining = info.chunk_remaining_;
  if (remaining > rest.size) {
    info.chunk_remaining_ = remaining - rest.size;
    info.parsing_status_ = PARSING_RETURN;
    return info.StoreChunk(rest.data, rest.size, rest.size);
  }
  info.chunk_remaining_ = 0;
  const unsigned int behind = rest.size - remaining;
  if (behind <= kCrlfLength) {
    info.parsing_status_ = PARSING_RETURN;
    info.chunk_crlf_pending_ = kCrlfLength - behind;
  }
  return info.StoreChunk(rest.data, remaining, rest.size);
}

int HTTPParser::StoreChunkedData(Bytes rest, HTTPInfo& info) {
  while (rest.size > 0) {
    unsigned int consumed = 0;
    unsigned int chunk_length = 0;
    const int line_result = FindChunkLength(rest, info, consumed, chunk_length);
    if (info.parsing_status_ == PARSING_RETURN) {
      VEX_LOG(kLogStep, kTag, "Did not receive enough data!");
      return line_result;
    }
    if (chunk_length == 0) {
      VEX_LOG(kLogStep, kTag, "End of chunked encoded data!");
      info.parsing_status_ = PARSING_RETURN;
      info.state_ = MESSAGE_COMPLETE;
      return result::kOk;
    }
    rest.Skip(consumed);
    const int end_result = CheckEndOfData(rest, chunk_length, info);
    if (info.parsing_status_ == PARSING_RETURN) {
      VEX_LOG(kLogStep, kTag, "End of current packet!");
      return end_result;
    }
    const int store_result = info.StoreChunk(rest.data, chunk_length, rest.size);
    if (store_result != result::kOk) return store_result;
    rest.Skip(chunk_length);
    rest.Skip(kCrlfLength);
  }
  info.parsing_status_ = PARSING_RETURN;
  return result::kOk;
}

int HTTPParser::FindChunkLength(const Bytes& rest, HTTPInfo& info, unsigned int& consumed,
                                unsigned int& chunk_length) {
  const unsigned int end = EndOfSizeLine(info.chunk_hex_, rest.data, rest.size);
  const std::size_t longest = limits::kChunkSizeLine + (end > 0 ? kCrlfLength : 1);
  if (info.chunk_hex_.size() + (end > 0 ? end : rest.size) > longest) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to unsigned");
    return Fail(info);
  }
  if (end == 0) {
    info.parsing_status_ = PARSING_RETURN;
    return HoldSizeLine(rest, info);
  }
  std::string_view line(rest.data, end);
  if (!info.chunk_hex_.empty()) {
    const int hold_result = HoldSizeLine(Bytes{rest.data, end}, info);
    if (hold_result != result::kOk) return hold_result;
    line = info.chunk_hex_;
  }
  line.remove_suffix(kCrlfLength);
  if (line.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid CRLF!");
    return Fail(info);
  }
  if (!ReadChunkSize(line, chunk_length)) {
    VEX_LOG(kLogMajor, kTag, "Invalid Val, can not convert to unsigned");
    return Fail(info);
  }
  info.chunk_hex_.clear();
  consumed = end;
  return result::kOk;
}

// Keeps what a buffer has of a chunk-size line.
int HTTPParser::HoldSizeLine(const Bytes& part, HTTPInfo& info) {
  try {
    info.chunk_hex_.append(part.data, part.size);
    return result::kOk;
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    info.parsing_status_ = PARSING_RETURN;
    return result::kNoMemory;
  }
}

// Stores a chunk that does not lie in this buffer whole, its CRLF included, as far as it is there.
int HTTPParser::CheckEndOfData(const Bytes& rest, unsigned int chunk_length, HTTPInfo& info) {
  if (rest.size >= chunk_length && rest.size - chunk_length >= kCrlfLength) return result::kOk;
  info.parsing_status_ = PARSING_RETURN;
  if (rest.size < chunk_length) {
    info.chunk_remaining_ = chunk_length - rest.size;
    return info.StoreChunk(rest.data, rest.size, rest.size);
  }
  info.chunk_crlf_pending_ = kCrlfLength - (rest.size - chunk_length);
  return info.StoreChunk(rest.data, chunk_length, rest.size);
}

}  // namespace utils
}  // namespace vex_upnp

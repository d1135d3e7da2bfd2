#include <vexupnpcp/httpinfo.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include <vexupnpcp/result_codes.h>

#include "base/host_memory.h"
#include "base/log.h"
#include "httpparser/header_view.h"

namespace vex_upnp {
namespace utils {
namespace {

constexpr const char* kTag = log::kTagUtils;
constexpr char kUnknown[] = "UNKNOWN";
constexpr std::string_view kNameEnd = ": ";
constexpr std::string_view kLineEnd = "\r\n";
// What a piece of body is counted as at least: block and record of the smallest one.
constexpr unsigned long long kPieceCost = 64;
// A block with less room to spare is not worth being cut.
constexpr unsigned int kKeptRoom = 64;
// Texts and lists that grew beyond this are given back when the object is cleaned for reuse.
constexpr std::size_t kKeptCapacity = 8192;

struct RequestText {
  HTTPRequest value;
  const char* text;
};

constexpr RequestText request[] = {
    {HTTP_GET, "GET"},          {HTTP_HEAD, "HEAD"},           {HTTP_POST, "POST"},
    {HTTP_NOTIFY, "NOTIFY"},    {HTTP_SUBSCRIBE, "SUBSCRIBE"}, {HTTP_UNSUBSCRIBE, "UNSUBSCRIBE"},
    {HTTP_MSEARCH, "M-SEARCH"},
};

struct StatusText {
  unsigned int code;
  const char* text;
};

// KEPT: codes and phrases that no standard gives stay in; peers see them in what is written out.
// Streaming has a table of its own, which is another one on purpose.
constexpr StatusText status[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {102, "Processing"},
    {103, "Checkpoint"},
    {122, "Request-URI too long"},
    {154, "Continue"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {207, "Multi-Status"},
    {226, "IM Used"},
    {284, "OK"},
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
    {505, "HTTP Version not supported"},
};

const char* HundredText(unsigned int code) {
  switch (code / 100) {
    case 1:
      return "Continue";
    case 2:
      return "OK";
    case 3:
      return "Multiple Choices";
    case 4:
      return "Bad Request";
    case 5:
      return "Internal Server Error";
    default:
      return kUnknown;
  }
}

// Copies a text without throwing; false without memory, and then `to` is as it was.
bool Assign(std::string& to, std::string_view from) {
  try {
    to = from;
    return true;
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return false;
  }
}

template <typename Container>
void ClearForReuse(Container& container) {
  if (container.capacity() * sizeof(container[0]) > kKeptCapacity) {
    Container().swap(container);
  } else {
    container.clear();
  }
}

}  // namespace

const char* GetStatusString(unsigned int code) {
  for (const StatusText& row : status) {
    if (row.code == code) return row.text;
  }
  return HundredText(code);
}

const char* GetRequestString(HTTPRequest method) {
  for (const RequestText& row : request) {
    if (row.value == method) return row.text;
  }
  return kUnknown;
}

HTTPRequest GetRequestType(const std::string& method) {
  for (const RequestText& row : request) {
    if (method == row.text) return row.value;
  }
  return HTTP_UNKNOWN_REQUEST;
}

void HTTPInfo::FreeBlock::operator()(char* block) const { std::free(block); }

HTTPInfo::HTTPInfo() = default;

HTTPInfo::~HTTPInfo() = default;

int HTTPInfo::GetStartLine(std::string& start_line) {
  const std::string_view line = HeaderView::StartLine(*this);
  if (line.empty()) {
    VEX_LOG(kLogMajor, kTag, "Empty start line");
    return result::kFailure;
  }
  return Assign(start_line, line) ? result::kOk : result::kFailure;
}

int HTTPInfo::GetHeaderValue(const char* name, std::string& value) {
  if (name == nullptr || *name == '\0') {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return result::kFailure;
  }
  std::string_view found;
  if (!HeaderView::Find(*this, name, found)) return result::kFailure;
  return Assign(value, found) ? result::kOk : result::kFailure;
}

bool HTTPInfo::CheckStringValidity(const std::string& text) const {
  const std::size_t visible = std::strlen(text.c_str());
  if (visible == text.size()) return true;
  VEX_LOG(kLogMajor, kTag, "abnormally null-inserted in the string [%d, %d]",
          static_cast<int>(visible), static_cast<int>(text.size()));
  return false;
}

unsigned long long HTTPInfo::GetContentLength() const { return content_length_; }

int HTTPInfo::GetStatus() const { return status_; }

int HTTPInfo::GetState() const { return state_; }

void HTTPInfo::SetParsingStatus(const ParsingStatus& parsing_status) {
  parsing_status_ = parsing_status;
}

ParsingStatus HTTPInfo::GetParsingStatus() const { return parsing_status_; }

void HTTPInfo::GetHTTPVersion(int& major, int& minor) const {
  major = http_major_;
  minor = http_minor_;
}

int HTTPInfo::GetURI(std::string& uri) const {
  if (uri_.empty()) {
    VEX_LOG(kLogMajor, kTag, "Uri value empty");
    return result::kEmptyText;
  }
  return Assign(uri, uri_) ? result::kOk : result::kNoMemory;
}

const char* HTTPInfo::GetHex(const char* data, const unsigned int& length, unsigned int& consumed) {
  if (chunk_hex_.empty()) {
    VEX_LOG(kLogMajor, kTag, "No Hex value ");
    return nullptr;
  }
  const std::size_t held_cr = chunk_hex_.find('\r');
  if (held_cr != std::string::npos) {
    chunk_hex_.erase(held_cr);
    consumed = 1;
    return chunk_hex_.c_str();
  }
  const std::string_view buffer(data, data == nullptr ? 0 : length);
  const std::string_view digits = buffer.substr(0, buffer.find('\r'));
  try {
    chunk_hex_.append(digits);
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return nullptr;
  }
  consumed = static_cast<unsigned int>(digits.size()) + 2;
  return chunk_hex_.c_str();
}

void HTTPInfo::SetClientIpAddress(const std::string& ip) { Assign(client_ip_, ip); }

void HTTPInfo::GetClientIpAddress(std::string& ip) const { Assign(ip, client_ip_); }

void HTTPInfo::SetMyIpAddress(const std::string& ip) { Assign(my_ip_, ip); }

void HTTPInfo::GetMyIpAddress(std::string& ip) const { Assign(ip, my_ip_); }

void HTTPInfo::SetClientPort(const int& port) { client_port_ = port; }

void HTTPInfo::GetClientPort(int& port) const { port = client_port_; }

HTTPRequest HTTPInfo::GetRequestType() const { return request_type_; }

unsigned int HTTPInfo::GetStatusCode() const { return status_code_; }

bool HTTPInfo::IsRequest() const { return is_request_; }

void HTTPInfo::CleanInfo() {
  ClearForReuse(raw_header_);
  start_line_ = Span();
  formatted_start_line_.clear();
  uri_.clear();
  headers_.clear();
  ClearForReuse(header_spans_);
  DropBody();
  chunk_hex_.clear();
  processed_length_ = 0;
  content_length_ = 0;
  request_type_ = HTTP_UNKNOWN_REQUEST;
  status_code_ = 0;
  http_major_ = 0;
  http_minor_ = 0;
  encoding_ = ENC_UNIDENTIFIED;
  body_offset_ = 0;
  chunk_crlf_pending_ = 0;
  chunk_remaining_ = 0;
  status_ = HEADER_NOTHING;
  state_ = MESSAGE_INCOMPLETE;
  parsing_status_ = PARSING_CONTINUE;
  // KEPT: the port goes, the two addresses stay; a receiver sets what it needs again.
  client_port_ = 0;
  is_request_ = false;
  header_ended_ = false;
  first_line_has_nul_ = false;
  has_too_many_lines_ = false;
}

int HTTPInfo::ReadBody(std::string& body) {
  try {
    body.reserve(body.size() + static_cast<std::size_t>(body_size_));
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return result::kFailure;
  }
  for (const DataLengthPair& piece : body_pieces_) body.append(piece.data.get(), piece.length);
  DropBody();
  // KEPT: a NUL byte anywhere empties the text; readers of XML get no body rather than a cut one.
  if (!CheckStringValidity(body)) body.clear();
  return result::kOk;
}

// Turns the headers that are mere positions into records of their own.
void HTTPInfo::MakeRecords() {
  // A failure on the way leaves every header in one list or the other.
  std::size_t done = 0;
  try {
    for (; done < header_spans_.size(); ++done) {
      std::unique_ptr<NameValue> record(new NameValue);
      record->name = HeaderView::Text(*this, header_spans_[done].name);
      record->value = HeaderView::Text(*this, header_spans_[done].value);
      headers_.push_back(std::move(record));
    }
  } catch (...) {
    header_spans_.erase(header_spans_.begin(),
                        header_spans_.begin() + static_cast<std::ptrdiff_t>(done));
    throw;
  }
  header_spans_.clear();
}

int HTTPInfo::GetHeader(std::vector<NameValue*>& headers) {
  try {
    MakeRecords();
    std::vector<NameValue*> pointers;
    pointers.reserve(headers_.size());
    for (const auto& record : headers_) pointers.push_back(record.get());
    headers.swap(pointers);
    return result::kOk;
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return result::kFailure;
  }
}

int HTTPInfo::GetHeader(std::string& header) {
  try {
    formatted_start_line_ = FormattedStartLine();
    std::size_t size = formatted_start_line_.size() + kLineEnd.size();
    HeaderView::AnyHeader(*this, [&](std::string_view name, std::string_view value) {
      size += name.size() + kNameEnd.size() + value.size() + kLineEnd.size();
      return false;
    });
    std::string text;
    text.reserve(size);
    text.append(formatted_start_line_);
    HeaderView::AnyHeader(*this, [&](std::string_view name, std::string_view value) {
      text.append(name).append(kNameEnd).append(value).append(kLineEnd);
      return false;
    });
    text.append(kLineEnd);
    header.swap(text);
    return result::kOk;
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return result::kFailure;
  }
}

// How much of a piece belongs to the body; notes when that completes it.
unsigned int HTTPInfo::LimitToEncoding(unsigned int length) {
  switch (encoding_) {
    case ENC_CONTENT_LENGTH: {
      parsing_status_ = PARSING_RETURN;
      const unsigned long long missing = content_length_ - processed_length_;
      const unsigned int size = missing < length ? static_cast<unsigned int>(missing) : length;
      processed_length_ += size;
      if (processed_length_ == content_length_) state_ = MESSAGE_COMPLETE;
      return size;
    }
    case ENC_UNTIL_CLOSE:
      parsing_status_ = PARSING_RETURN;
      return length;
    case ENC_NO_BODY:
      return 0;
    default:
      return length;
  }
}

// Adds a piece whose block has room for `capacity` bytes.
bool HTTPInfo::AppendPiece(const char* data, unsigned int length, unsigned int capacity) {
  try {
    body_pieces_.emplace_back();
  } catch (const std::exception&) {
    return false;
  }
  DataLengthPair& piece = body_pieces_.back();
  piece.data.reset(static_cast<char*>(std::malloc(capacity)));
  if (!piece.data) {
    body_pieces_.pop_back();
    return false;
  }
  std::memcpy(piece.data.get(), data, length);
  piece.length = length;
  piece_room_ = capacity - length;
  body_size_ += length;
  return true;
}

int HTTPInfo::FailForMemory() {
  VEX_LOG(kLogMajor, kTag, "malloc failed!");
  parsing_status_ = PARSING_RETURN;
  state_ = MESSAGE_FAILED;
  return result::kFailure;
}

int HTTPInfo::StoreData(const char* data, const unsigned int& length) {
  if (data == nullptr && length > 0) {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return result::kFailure;
  }
  const unsigned int size = LimitToEncoding(length);
  if (size == 0) return result::kOk;
  return AppendPiece(data, size, size) ? result::kOk : FailForMemory();
}

// Takes a block over instead of copying it. False, with nothing changed, where its bytes would not
// be all that there is of them: behind a header, between chunks, at the end of a message.
bool HTTPInfo::AdoptData(char* block, unsigned int length) {
  const bool plain = encoding_ == ENC_CONTENT_LENGTH || encoding_ == ENC_UNTIL_CLOSE;
  if (!plain || status_ != HEADER_COMPLETE || state_ != MESSAGE_INCOMPLETE || body_offset_ != 0) {
    return false;
  }
  if (encoding_ == ENC_CONTENT_LENGTH && content_length_ - processed_length_ < length) return false;
  try {
    body_pieces_.emplace_back();
  } catch (const std::exception&) {
    return false;
  }
  body_pieces_.back().data.reset(block);
  body_pieces_.back().length = length;
  piece_room_ = 0;
  body_size_ += length;
  LimitToEncoding(length);
  parsing_status_ = PARSING_CONTINUE;
  return true;
}

// The chunks of one buffer share a block, which has room for all that the buffer can still hold: a
// buffer becomes one piece, however small its chunks are.
int HTTPInfo::StoreChunk(const char* data, unsigned int length, unsigned int left_in_buffer) {
  if (length == 0) return result::kOk;
  if (piece_room_ < length) {
    return AppendPiece(data, length, left_in_buffer) ? result::kOk : FailForMemory();
  }
  DataLengthPair& piece = body_pieces_.back();
  std::memcpy(piece.data.get() + piece.length, data, length);
  piece.length += length;
  piece_room_ -= length;
  body_size_ += length;
  return result::kOk;
}

// Ends the piece of a buffer and gives back the room that its framing took.
void HTTPInfo::ClosePiece() {
  if (piece_room_ > kKeptRoom) {
    DataLengthPair& piece = body_pieces_.back();
    void* const exact = std::realloc(piece.data.get(), piece.length);
    if (exact != nullptr) {
      static_cast<void>(piece.data.release());
      piece.data.reset(static_cast<char*>(exact));
    }
  }
  piece_room_ = 0;
}

int HTTPInfo::SetHeader(const std::string& name, const std::string& value) {
  if (name.empty()) {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return result::kFailure;
  }
  try {
    MakeRecords();
    std::unique_ptr<NameValue> record(new NameValue{name, value});
    headers_.push_back(std::move(record));
  } catch (const std::exception&) {
    // KEPT: a lost header is only logged.
    VEX_LOG(kLogMajor, kTag, "Push back failed!");
  }
  return result::kOk;
}

unsigned long long HTTPInfo::GetProcessedBodySize() const { return body_size_; }

// One block of all pieces; each is released as soon as it is copied.
char* HTTPInfo::JoinPieces(unsigned int size) {
  FreePtr<char> block(static_cast<char*>(std::malloc(size)));
  if (!block) return nullptr;
  char* end = block.get();
  for (DataLengthPair& piece : body_pieces_) {
    std::memcpy(end, piece.data.get(), piece.length);
    end += piece.length;
    piece.data.reset();
  }
  return block.release();
}

char* HTTPInfo::GetBody(unsigned int& size) {
  if (body_size_ > UINT_MAX) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    size = UINT_MAX;
    return nullptr;
  }
  size = static_cast<unsigned int>(body_size_);
  if (size == 0) return nullptr;

  char* const block =
      body_pieces_.size() == 1 ? body_pieces_.front().data.release() : JoinPieces(size);
  if (block == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
    return nullptr;
  }
  DropBody();
  return block;
}

void HTTPInfo::DropBody() {
  ClearForReuse(body_pieces_);
  body_size_ = 0;
  piece_room_ = 0;
}

std::string HTTPInfo::FormattedStartLine() const {
  const std::string version =
      "HTTP/" + std::to_string(http_major_) + '.' + std::to_string(http_minor_);
  std::string line;
  if (is_request_) {
    line.append(GetRequestString(request_type_)).append(1, ' ').append(uri_).append(1, ' ');
    line.append(version);
  } else {
    line.append(version).append(1, ' ').append(std::to_string(status_code_)).append(1, ' ');
    line.append(GetStatusString(status_code_));
  }
  return line.append(kLineEnd);
}

void HTTPInfo::FormatStartLine() {
  try {
    formatted_start_line_ = FormattedStartLine();
  } catch (const std::exception&) {
    VEX_LOG(kLogMajor, kTag, "Memory allocation failed");
  }
}

unsigned long long HTTPInfo::GetRawHeaderSize() const { return raw_header_.size(); }

unsigned int HTTPInfo::GetHeaderCount() const {
  return static_cast<unsigned int>(headers_.size() + header_spans_.size());
}

unsigned long long HTTPInfo::GetBodyCost() const {
  const unsigned long long records = body_pieces_.size();
  return std::max(body_size_, records * kPieceCost);
}

unsigned long long HTTPInfo::GetHeldSize() const {
  // The texts of the records are copies of what was received. They are not counted one by one: this
  // is asked with every read.
  const unsigned long long copies = headers_.empty() ? 0 : raw_header_.size();
  return sizeof(HTTPInfo) + raw_header_.size() + copies +
         header_spans_.size() * sizeof(HeaderSpan) +
         // NOLINTNEXTLINE(bugprone-sizeof-expression): the list holds pointers.
         headers_.size() * (sizeof(NameValue) + sizeof(NameValue*)) + GetBodyCost();
}

}  // namespace utils
}  // namespace vex_upnp

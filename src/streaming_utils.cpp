#include "src/streaming_utils.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/string_utils.h>

#include "base/ascii_text.h"
#include "base/host_memory.h"
#include "base/log.h"
#include "base/number_text.h"
#include "src/http_feed.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;
using utils::HTTPInfo;
using utils::NameValue;

namespace {

constexpr char kLineEnd[] = "\r\n";
constexpr char kChunked[] = "chunked";
constexpr char kLastChunk[] = "0\r\n\r\n";
constexpr std::size_t kLastChunkLength = sizeof(kLastChunk) - 1;
// The hexadecimal text of a whole block, and the two line ends.
constexpr unsigned int kChunkOverhead = 5 + 4;

struct StatusRow {
  unsigned int status;
  const char* text;
};

constexpr StatusRow kStatusTable[] = {
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
    {505, "HTTP Version not supported"},
};

bool SameName(const std::string& name, const char* other) {
  return EqualsIgnoringCase(name.c_str(), other);
}

// One known header: its name, and the field of the record that takes its text.
template <typename Record>
struct TextHeader {
  const char* name;
  char* Record::*field;
};

constexpr TextHeader<ReqHeaderInfo> kRequestHeaders[] = {
    {"Accept", &ReqHeaderInfo::accept},
    {"Connection", &ReqHeaderInfo::connection},
    {"Content-Type", &ReqHeaderInfo::content_type},
    {"Date", &ReqHeaderInfo::date},
    {"Host", &ReqHeaderInfo::host},
    {"Transfer-Encoding", &ReqHeaderInfo::transfer_encoding},
    {"Expect", &ReqHeaderInfo::expect},
    {"Last-Modified", &ReqHeaderInfo::last_modified},
    {"From", &ReqHeaderInfo::from},
    {"User-Agent", &ReqHeaderInfo::user_agent},
};

constexpr TextHeader<ResHeaderInfo> kResponseHeaders[] = {
    {"Connection", &ResHeaderInfo::connection},
    {"Content-Language", &ResHeaderInfo::content_language},
    {"Content-Type", &ResHeaderInfo::content_type},
    {"Date", &ResHeaderInfo::date},
    {"Transfer-Encoding", &ResHeaderInfo::transfer_encoding},
    {"Accept-Ranges", &ResHeaderInfo::accept_ranges},
    {"Last-Modified", &ResHeaderInfo::last_modified},
    {"Server", &ResHeaderInfo::server},
};

long long LengthFrom(const std::string& text) {
  long long length = 0;
  if (!ToNumber(text, length)) {
    VEX_LOG(kLogMajor, kTagStreaming, "bad conversion.. making length 0!");
    return 0;
  }
  return length;
}

// Takes a header over when the record knows it. A repeated header keeps its last value.
template <typename Record, std::size_t kCount>
bool TakeHeader(const NameValue& header, const TextHeader<Record> (&known)[kCount],
                Record* record) {
  if (SameName(header.name, "Content-Length")) {
    record->content_length = LengthFrom(header.value);
    return true;
  }
  for (const TextHeader<Record>& candidate : known) {
    if (!SameName(header.name, candidate.name)) continue;
    std::free(record->*candidate.field);
    record->*candidate.field = utils::StringUtils::GetValue(header.value);
    return true;
  }
  return false;
}

template <typename Record, std::size_t kCount>
void TakeHeaders(std::vector<NameValue*>& headers, const TextHeader<Record> (&known)[kCount],
                 Record* record) {
  headers.erase(
      std::remove_if(headers.begin(), headers.end(),
                     [&](const NameValue* header) { return TakeHeader(*header, known, record); }),
      headers.end());
}

const char* VersionText(HTTPVersion version) {
  if (version == HTTP_1_1) return "HTTP/1.1";
  if (version == HTTP_1_0) return "HTTP/1.0";
  return nullptr;
}

bool IsVersion(const HTTPInfo& info, int wanted_major, int wanted_minor) {
  int http_major = 0;
  int http_minor = 0;
  info.GetHTTPVersion(http_major, http_minor);
  return http_major == wanted_major && http_minor == wanted_minor;
}

template <typename Callbacks>
Callbacks* Duplicate(const Callbacks* callbacks) {
  if (callbacks == nullptr) return nullptr;
  Callbacks* const copy = static_cast<Callbacks*>(std::malloc(sizeof(Callbacks)));
  if (copy != nullptr) *copy = *callbacks;
  return copy;
}

}  // namespace

const char* GetRequest(const utils::HTTPRequest& request) {
  switch (request) {
    case utils::HTTP_GET:
      return "GET ";
    case utils::HTTP_HEAD:
      return "HEAD ";
    case utils::HTTP_POST:
      return "POST ";
    default:
      return nullptr;
  }
}

const char* GetStatusString(const unsigned int& status) {
  for (const StatusRow& row : kStatusTable) {
    if (row.status == status) return row.text;
  }
  return nullptr;
}

bool IsChunked(const char* transfer_encoding) {
  return transfer_encoding != nullptr && EqualsIgnoringCase(transfer_encoding, kChunked);
}

void AppendHeader(const char* name, const char* value, std::string& out) {
  if (name == nullptr || value == nullptr) return;
  out.append(name).append(": ").append(value).append(kLineEnd);
}

void AppendHeader(const stArgument* headers, std::string& out) {
  for (; headers != nullptr; headers = headers->next) {
    AppendHeader(headers->name, headers->value, out);
  }
}

void GetContentLengthHeader(const long long& length, const char* transfer_encoding,
                            std::string& out) {
  if (length == 0 || IsChunked(transfer_encoding)) return;
  AppendHeader("Content-Length", std::to_string(length).c_str(), out);
}

void GetTransferEncodingHeader(const char* transfer_encoding, const HTTPVersion& version,
                               std::string& out) {
  if (version == HTTP_1_1) AppendHeader("Transfer-Encoding", transfer_encoding, out);
}

int FormReqHeader(const ReqHeaderInfo*& request, std::string& out) {
  const char* const method = GetRequest(request->request_type);
  if (method == nullptr) {
    VEX_LOG(kLogMajor, kTagStreaming, "Invalid request type!");
    return result::kFailure;
  }
  const char* const version = VersionText(request->http_version);
  if (version == nullptr) {
    VEX_LOG(kLogMajor, kTagStreaming, "Invalid http version!");
    return result::kFailure;
  }
  out.append(method);
  if (request->uri != nullptr) out.append(request->uri);
  out.append(" ").append(version).append(kLineEnd);
  AppendHeader("Accept", request->accept, out);
  out.append("Accept-Language: en-us\r\n");
  AppendHeader("Connection", request->connection, out);
  GetContentLengthHeader(request->content_length, request->transfer_encoding, out);
  AppendHeader("Content-Type", request->content_type, out);
  AppendHeader("Date", request->date, out);
  AppendHeader("Expect", request->expect, out);
  AppendHeader("From", request->from, out);
  AppendHeader("Host", request->host, out);
  AppendHeader("Last-Modified", request->last_modified, out);
  GetTransferEncodingHeader(request->transfer_encoding, request->http_version, out);
  AppendHeader("User-Agent", request->user_agent, out);
  AppendHeader(request->additional_headers, out);
  out.append(kLineEnd);
  return result::kOk;
}

int FormResHeader(const ResHeaderInfo*& response, std::string& out) {
  const char* const version = VersionText(response->http_version);
  if (version == nullptr) {
    VEX_LOG(kLogMajor, kTagStreaming, "Invalid params.");
    return result::kStreamingInvalidParams;
  }
  const char* const text = GetStatusString(response->status_code);
  if (text == nullptr) {
    VEX_LOG(kLogMajor, kTagStreaming, "Status string is null.");
    return result::kStreamingInvalidParams;
  }
  out.assign(version).append(" ");
  out.append(std::to_string(response->status_code)).append(" ").append(text).append(kLineEnd);
  AppendHeader("Accept-Ranges", response->accept_ranges, out);
  AppendHeader("Connection", response->connection, out);
  AppendHeader("Content-Language", response->content_language, out);
  GetContentLengthHeader(response->content_length, response->transfer_encoding, out);
  AppendHeader("Content-Type", response->content_type, out);
  AppendHeader("Date", response->date, out);
  AppendHeader("Last-Modified", response->last_modified, out);
  GetTransferEncodingHeader(response->transfer_encoding, response->http_version, out);
  AppendHeader("Server", response->server, out);
  AppendHeader(response->additional_headers, out);
  out.append(kLineEnd);
  return result::kOk;
}

void GetHeaderValues(std::vector<NameValue*>& headers, ReqHeaderInfo* request) {
  TakeHeaders(headers, kRequestHeaders, request);
}

void GetHeaderValues(std::vector<NameValue*>& headers, ResHeaderInfo* response) {
  TakeHeaders(headers, kResponseHeaders, response);
}

void FormAdditionalHeaders(std::vector<NameValue*>& headers, stArgument** additional) {
  stArgument* head = nullptr;
  stArgument* tail = nullptr;
  for (const NameValue* header : headers) {
    FreePtr<stArgument> argument(CallocRecord<stArgument>());
    if (!argument) continue;
    FreePtr<char> name(utils::StringUtils::GetValue(header->name));
    FreePtr<char> value(utils::StringUtils::GetValue(header->value));
    if (!name || (!value && !header->value.empty())) continue;
    argument->name = name.release();
    argument->value = value.release();
    AppendNode(head, tail, argument.release());
  }
  headers.clear();
  *additional = head;
}

namespace {

template <typename Record>
std::unique_ptr<Record, FreeHeader> MakeRecord(void (*initialize)(Record*)) {
  std::unique_ptr<Record, FreeHeader> record;
  Record* const block = static_cast<Record*>(std::malloc(sizeof(Record)));
  if (block == nullptr) {
    VEX_LOG(kLogMajor, kTagStreaming, "ALLOC FAILURE!");
    return record;
  }
  initialize(block);
  record.reset(block);
  return record;
}

}  // namespace

RequestRecord FormRequestHeaderInfo(const boost::shared_ptr<HTTPInfo>& info) {
  RequestRecord request = MakeRecord(InitializeRequestHeaderInfo);
  if (!request) return request;
  request->request_type = info->GetRequestType();
  std::string uri;
  if (info->GetURI(uri) != result::kOk) {
    VEX_LOG(kLogMajor, kTagStreaming, "GetURI failed");
  } else {
    request->uri = utils::StringUtils::GetValue(uri);
    if (request->uri == nullptr) return RequestRecord();
  }
  request->http_version = IsVersion(*info, 1, 0) ? HTTP_1_0 : HTTP_1_1;
  std::vector<NameValue*> headers;
  if (info->GetHeader(headers) != result::kOk) return RequestRecord();
  GetHeaderValues(headers, request.get());
  FormAdditionalHeaders(headers, &request->additional_headers);
  return request;
}

ResponseRecord FormResponseHeaderInfo(const boost::shared_ptr<HTTPInfo>& info) {
  ResponseRecord response = MakeRecord(InitializeResponseInfo);
  if (!response) return response;
  // KEPT: an unknown version counts as 1.0 here and as 1.1 in a request; hosts decide by it whether
  // a connection may stay open.
  response->http_version = IsVersion(*info, 1, 1) ? HTTP_1_1 : HTTP_1_0;
  response->status_code = info->GetStatusCode();
  std::vector<NameValue*> headers;
  if (info->GetHeader(headers) != result::kOk) return ResponseRecord();
  GetHeaderValues(headers, response.get());
  FormAdditionalHeaders(headers, &response->additional_headers);
  return response;
}

FreePtr<char> TakeBody(HTTPInfo& info, unsigned int& length) {
  FreePtr<char> body(info.GetBody(length));
  if (!body && length != 0) throw std::bad_alloc();
  return body;
}

unsigned long long CalculateChunkedBufferLength(const unsigned int& length, const bool& final) {
  const unsigned long long chunks = length / kMediaBlock + (length % kMediaBlock != 0 ? 1 : 0);
  return length + chunks * kChunkOverhead + (final ? kLastChunkLength : 0);
}

void FormChunkedPacket(char* out, const char* data, const unsigned int& length,
                       unsigned int& total) {
  char size_line[16];
  const int size_length = std::snprintf(size_line, sizeof(size_line), "%X\r\n", length);
  std::memcpy(out, size_line, static_cast<std::size_t>(size_length));
  out += size_length;
  std::memcpy(out, data, length);
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result): bytes of a message, not a text.
  std::memcpy(out + length, kLineEnd, 2);
  total += static_cast<unsigned int>(size_length) + length + 2;
}

char* FrameChunked(const void* data, unsigned int length, bool final, unsigned int& framed_length) {
  const unsigned long long size = CalculateChunkedBufferLength(length, final);
  // A byte more, since a payload without bytes and without the end marker frames to nothing.
  if (size >= std::numeric_limits<unsigned int>::max()) return nullptr;
  char* const framed = static_cast<char*>(std::malloc(static_cast<std::size_t>(size) + 1));
  if (framed == nullptr) return nullptr;
  const char* const bytes = static_cast<const char*>(data);
  unsigned int total = 0;
  for (unsigned int done = 0; done < length;) {
    const unsigned int piece = std::min(kMediaBlock, length - done);
    FormChunkedPacket(framed + total, bytes + done, piece, total);
    done += piece;
  }
  if (final) {
    std::memcpy(framed + total, kLastChunk, kLastChunkLength);
    total += static_cast<unsigned int>(kLastChunkLength);
  }
  framed_length = total;
  return framed;
}

bool HeaderTooLong(const HTTPInfo& info) { return !utils::HeaderFits(info); }

ClientAppCallbacks* DupClientCallbacks(const ClientAppCallbacks* callbacks) {
  return Duplicate(callbacks);
}

ServerAppCallbacks* DupServerCallbacks(const ServerAppCallbacks* callbacks) {
  return Duplicate(callbacks);
}

bool ValidateClientCallbacks(const ClientAppCallbacks* callbacks) {
  return callbacks != nullptr && callbacks->on_status != nullptr &&
         callbacks->on_response != nullptr && callbacks->on_data != nullptr &&
         callbacks->on_write_complete != nullptr;
}

bool ValidateServerCallbacks(const ServerAppCallbacks* callbacks) {
  return callbacks != nullptr && callbacks->on_connect != nullptr &&
         callbacks->on_status != nullptr && callbacks->on_request != nullptr &&
         callbacks->on_data != nullptr && callbacks->on_write_complete != nullptr;
}

bool AddServerInfo(const int& server_id, const std::string& ip, const std::string& interface_name,
                   const int& port, stServer** chain) {
  std::unique_ptr<stServer> server(new (std::nothrow) stServer);
  FreePtr<char> ip_text(MallocString(ip));
  FreePtr<char> name_text(MallocString(interface_name));
  if (!server || (!ip_text && !ip.empty()) || (!name_text && !interface_name.empty())) return false;
  server->server_id = server_id;
  server->ip = ip_text.release();
  server->interface_name = name_text.release();
  server->port = port;
  while (*chain != nullptr) chain = &(*chain)->next;
  *chain = server.release();
  return true;
}

}  // namespace streaming
}  // namespace vex_upnp

#ifndef VEXUPNPCP_SRC_STREAMING_UTILS_H_
#define VEXUPNPCP_SRC_STREAMING_UTILS_H_

#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/streaming.h>
#include <vexupnpcp/streaming_types.h>

#include "base/host_memory.h"

namespace vex_upnp {
namespace streaming {

constexpr unsigned int HTTP_CONTINUE = 100;
constexpr unsigned int HTTP_BAD_REQUEST = 400;
constexpr unsigned int HTTP_INTERNAL_ERROR = 500;

// Size of a session's read buffer and of the longest chunk that is written.
constexpr unsigned int kMediaBlock = 524288;

// Between the plain records of the host and the wire.

// Appends a request header to `out`. 0, or 1 for a request type or version that cannot be sent.
int FormReqHeader(const ReqHeaderInfo*& request, std::string& out);
// Replaces `out` by a response header. 0, or kStreamingInvalidParams.
int FormResHeader(const ResHeaderInfo*& response, std::string& out);

// What is on its way to the host: released by the host in the end, by these until it has it.
struct FreeHeader {
  void operator()(ReqHeaderInfo* request) const { FreeRequestHeader(request); }
  void operator()(ResHeaderInfo* response) const { FreeResponseHeader(response); }
};
using RequestRecord = std::unique_ptr<ReqHeaderInfo, FreeHeader>;
using ResponseRecord = std::unique_ptr<ResHeaderInfo, FreeHeader>;

// Records from a parsed message; null, or std::bad_alloc, without memory.
RequestRecord FormRequestHeaderInfo(const boost::shared_ptr<utils::HTTPInfo>& info);
ResponseRecord FormResponseHeaderInfo(const boost::shared_ptr<utils::HTTPInfo>& info);

// What has arrived of the body, null when nothing has. Throws std::bad_alloc: a host that is given
// a length without its bytes would read from null.
FreePtr<char> TakeBody(utils::HTTPInfo& info, unsigned int& length);

// Move the known headers into the record and out of the list.
void GetHeaderValues(std::vector<utils::NameValue*>& headers, ReqHeaderInfo* request);
void GetHeaderValues(std::vector<utils::NameValue*>& headers, ResHeaderInfo* response);
// Moves what is left into a chain.
void FormAdditionalHeaders(std::vector<utils::NameValue*>& headers, stArgument** additional);

// Header lines; nothing is written for a null name or value.
void AppendHeader(const char* name, const char* value, std::string& out);
void AppendHeader(const stArgument* headers, std::string& out);
void GetContentLengthHeader(const long long& length, const char* transfer_encoding,
                            std::string& out);
void GetTransferEncodingHeader(const char* transfer_encoding, const HTTPVersion& version,
                               std::string& out);

// "GET ", "HEAD " or "POST ", with the blank; null for anything else.
const char* GetRequest(const utils::HTTPRequest& request);
// The text of a status, null for one that cannot be sent. Apart from the message model's table:
// this one has two rows less and no text for unknown codes.
const char* GetStatusString(const unsigned int& status);

// Bytes to allocate for a payload of `length` bytes framed in chunks.
unsigned long long CalculateChunkedBufferLength(const unsigned int& length, const bool& final);
// Writes one chunk to `out` and adds its framed length to `total`.
void FormChunkedPacket(char* out, const char* data, const unsigned int& length,
                       unsigned int& total);
// The whole payload in chunks, with the end marker if `final`, in a block from malloc; null without
// memory or when the framed length does not fit.
char* FrameChunked(const void* data, unsigned int length, bool final, unsigned int& framed_length);

// The last block of a body, which is the library's from the moment its write is posted.
struct LastPayload {
  FreePtr<void> block;
};

// "chunked" without regard to case.
bool IsChunked(const char* transfer_encoding);

// Whether a message's header has outgrown what a header may cost.
bool HeaderTooLong(const utils::HTTPInfo& info);

// malloc'd copies of callback tables; null without memory.
ClientAppCallbacks* DupClientCallbacks(const ClientAppCallbacks* callbacks);
ServerAppCallbacks* DupServerCallbacks(const ServerAppCallbacks* callbacks);
bool ValidateClientCallbacks(const ClientAppCallbacks* callbacks);
bool ValidateServerCallbacks(const ServerAppCallbacks* callbacks);

// Appends a server to the end of the chain, or starts it. False without memory.
bool AddServerInfo(const int& server_id, const std::string& ip, const std::string& interface_name,
                   const int& port, stServer** chain);

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_STREAMING_UTILS_H_

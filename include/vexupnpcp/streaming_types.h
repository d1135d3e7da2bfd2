#ifndef VEXUPNPCP_STREAMING_TYPES_H_
#define VEXUPNPCP_STREAMING_TYPES_H_

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace streaming {

/// Version of an HTTP message.
enum HTTPVersion : int { HTTP_1_0 = 0, HTTP_1_1 = 1 };

/// One additional header; a list through `next`, in the order of the message.
struct stArgument {
  char* name;
  /// Null for an empty value; such a header is not written.
  char* value;
  stArgument* next;
};

/// The header of a request (RFC 9110). Texts are NUL-terminated or null where the header is absent.
/// What the library hands out comes from malloc and goes back by FreeRequestHeader; what a host
/// hands in stays the host's. Fresh records come from InitializeRequestHeaderInfo.
struct ReqHeaderInfo {
  /// HTTP_GET, HTTP_HEAD or HTTP_POST; HTTP_UNKNOWN_REQUEST in a fresh record.
  utils::HTTPRequest request_type;
  /// Request target, as it stands in the request line; null when a peer's request has none.
  char* uri;
  HTTPVersion http_version;
  char* accept;
  char* connection;
  /// Bytes; 0 writes no Content-Length.
  long long content_length;
  char* content_type;
  char* date;
  char* expect;
  char* from;
  char* host;
  char* last_modified;
  char* transfer_encoding;
  char* user_agent;
  /// All other headers.
  stArgument* additional_headers;
};

/// The header of a response. Memory as in ReqHeaderInfo; released with FreeResponseHeader, fresh
/// records from InitializeResponseInfo.
struct ResHeaderInfo {
  HTTPVersion http_version;
  /// A status without a standard text cannot be sent.
  unsigned int status_code;
  char* accept_ranges;
  char* connection;
  char* content_language;
  /// Bytes; 0 writes no Content-Length.
  long long content_length;
  char* content_type;
  char* date;
  char* last_modified;
  char* transfer_encoding;
  char* server;
  /// All other headers.
  stArgument* additional_headers;
};

/// One running server; a list through `next`, released with FreeServerInfoList.
struct stServer : public VEXUncopyable {
  stServer() = default;
  ~stServer() override = default;

  int server_id = 0;
  /// The address it listens on; from malloc.
  char* ip = nullptr;
  /// From malloc.
  char* interface_name = nullptr;
  int port = 0;
  stServer* next = nullptr;
};

/// One running streaming session; a list through `next`, released with FreeRunningSession.
struct stRunningSession {
  /// The peer's address in dotted form, or what StartClient was given, which may be a name; never
  /// null in a list that the library gave out.
  char* ip;
  /// 1 for a session of a client of ours, 0 for a connection to a server of ours.
  int type;
  /// The next session, null at the end.
  stRunningSession* next;
};

/// What happened to a session, or, with session id 0, to a server.
enum StreamingStatus : int {
  /// Session 0: the interface of this server went away, and the server stopped.
  STREAMING_SERVER_STOPPED = 0,
  /// Connect, read or write failed, or the peer closed before the end of the body.
  STREAMING_SOCKET_FAILED = 4,
  /// The response could not be parsed, or its header is larger than 256 KiB or 1,000 lines.
  STREAMING_PARSE_FAILED = 6,
  /// There was no memory for the response's record.
  STREAMING_OUT_OF_MEMORY = 8,
  /// Session 0: a server was started on an interface that appeared; the first argument is its id.
  STREAMING_SERVER_STARTED = 9
};

/// Callbacks of a server, all required; they come on pool threads with none of the library's locks
/// held; of on_write_complete one kind does not, see there. Only on_status with session 0 comes on
/// the thread that tells of interfaces: servers may be configured from it, but it must not wait for
/// another thread that does. `server_id` and `session_id` name the connection. Records and blocks
/// given to on_request and on_data are the receiver's: FreeRequestHeader, Free.
struct ServerAppCallbacks {
  /// A connection was accepted; `reserved` is 0.
  void (*on_connect)(int server_id, int session_id, int reserved);
  /// `code` is a StreamingStatus.
  void (*on_status)(int server_id, int session_id, int code);
  /// A complete request header and the first part of the body, null with length 0 if none came yet.
  /// SendHTTPResponse must be called before this returns, or, while a body is still to come, from
  /// on_data: a response given later is never sent.
  void (*on_request)(int server_id, int session_id, ReqHeaderInfo* request, void* body,
                     unsigned int length, bool final);
  /// More body.
  void (*on_data)(int server_id, int session_id, void* data, unsigned int length, bool final);
  /// A write finished: 0 for a response header, the payload's length for a payload. For a payload
  /// of length 0 that is not the last it comes on the thread that called SendHTTPPayload, inside
  /// the call.
  void (*on_write_complete)(int server_id, int session_id, unsigned int length);
};

/// Callbacks of an asynchronous client, all required; they come on pool threads, one at a time for
/// a session, with none of the library's locks held. `handler_id` is the fixed client handler id, 0
/// before SendHTTPRequest; `client_id` names the session. Records and blocks are the receiver's:
/// FreeResponseHeader, Free.
struct ClientAppCallbacks {
  /// The session failed and has ended; `code` is a StreamingStatus. Comes at most once.
  void (*on_status)(int handler_id, int client_id, int code);
  /// A complete response header and the first part of the body.
  void (*on_response)(int handler_id, int client_id, ResHeaderInfo* response, void* body,
                      unsigned int length, bool final);
  /// More body.
  void (*on_data)(int handler_id, int client_id, void* data, unsigned int length, bool final);
  /// A write finished: 0 for the header, the payload's length for a payload.
  void (*on_write_complete)(int handler_id, int client_id, unsigned int length);
};

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_TYPES_H_

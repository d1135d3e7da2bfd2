#ifndef VEXUPNPCP_STREAMING_H_
#define VEXUPNPCP_STREAMING_H_

#include <string>

#include <vexupnpcp/export.h>
#include <vexupnpcp/streaming_types.h>

/// A plain HTTP transport for media, apart from the UPnP control traffic. What holds for all of its
/// functions:
///
/// 1. Start and stop. `InitializeStreamingManager` takes a reference, `TerminateStreamingManager`
///    gives one back; the control point profile takes one of its own while it runs. Every function
///    works without a reference too: the manager is built at its first use. It needs the framework
///    to be initialised to hear of interface changes.
/// 2. Strings and lists. Texts are NUL-terminated. Lists are linked through `next` and end in null;
///    an empty list is a null pointer.
/// 3. Memory. What is passed in stays the caller's and is read during the call only, payloads of
///    SendHTTPPayload excepted. What is given out, by functions and to callbacks, is the caller's
///    and goes back by the Free function that the comment names; all Free functions accept null.
/// 4. Threads. The functions may be called from any thread.
/// 5. Results are the `kStreaming...` constants of result_codes.h, 0 for success. Beside those that
///    are named, each function may give kStreamingNotInitialized, when there is no manager and none
///    could be made, and kStreamingOutOfMemory. Nothing throws.
namespace vex_upnp {
namespace streaming {

/// Takes a reference on the streaming manager, building it if there is none.
///
/// @return 0; kStreamingInitFailed when the manager could not be made.
VEX_EXPORT int InitializeStreamingManager();

/// Gives a reference back and ends the manager when none is left.
///
/// The reference that brings the count to exactly 0 stops everything that streams. A call without a
/// reference to give back is counted all the same: it ends the manager, and the next
/// `InitializeStreamingManager` only makes up for it.
/// An end of the manager waits for the callbacks that run on other threads; nothing is called back
/// after it. A callback may end it too, and its thread ends behind the callback; on_status with
/// session 0 may not, since it would wait for itself.
/// @return 0; kStreamingTerminateFailed when there is no manager and none could be made.
VEX_EXPORT int TerminateStreamingManager();

/// Starts HTTP servers, on one interface or on all active ones; they follow the interfaces.
///
/// A server whose interface goes stops and is told by on_status with session 0 and
/// STREAMING_SERVER_STOPPED; when the interface comes (back), a new one is told by
/// STREAMING_SERVER_STARTED with its new id. Starts the thread pool at its first use.
/// Once 85 per cent of the process' soft limit on descriptors are in use, a new connection is
/// closed at once and without on_connect. A request that is no HTTP, or whose header is larger than
/// 256 KiB or 1,000 lines, is refused in silence: it gets no answer and no callback, and its
/// connection stays until the peer goes or the host stops it.
/// @param callbacks         All five must be set; copied.
/// @param interface_ip      Address of one of our interfaces, or null for all of them.
/// @param port              Port asked for, not negative; a taken one moves on to the next free one
///                          of a hundred.
/// @param servers           Receives the started servers, appended to the chain it points at (a
///                          null pointer starts one); released with FreeServerInfoList. Not null.
/// @param configuration_id  Receives the handle of this call, from 100. Not null.
/// @return 0; kFailure (no threads), kStreamingInvalidParams, kStreamingOutOfMemory; for one
///         interface also kStreamingNoInterface and kStreamingBindFailed, the latter for a port
///         above 65535 too. For all interfaces 0 says only that the call is noted: where no
///         interface is active, or none gives a server, `servers` stays as it was.
VEX_EXPORT int StartServers(const ServerAppCallbacks* callbacks, const char* interface_ip, int port,
                            stServer** servers, int* configuration_id);

/// Tells about one server.
/// @return a new record, released with FreeServerInfoList; null for a negative or unknown id.
VEX_EXPORT stServer* GetConfiguredServers(int server_id);

/// Tells the port of a configuration's server on one address.
/// @return 0; kStreamingInvalidParams (a null argument, an id below 1), kStreamingNoServer.
VEX_EXPORT int GetStreamingServerPort(int configuration_id, const char* ip, int* port);

/// Stops all servers of one StartServers call, with their connections and without a callback.
/// @return 0; kStreamingInvalidParams (an id below 1), kStreamingNoServer.
VEX_EXPORT int StopServers(int configuration_id);

/// Ends one connection to a server, without a callback; an unknown session is no fault.
/// @return 0; kStreamingInvalidParams (a negative id), kStreamingNoServer.
VEX_EXPORT int StopServerTransfer(int server_id, int session_id);

/// Starts an asynchronous client: one connection, one request, one response.
///
/// Returns as soon as the connection is under way; its failure comes by on_status. The session ends
/// by itself behind its last callback. Starts the thread pool at its first use. A server that keeps
/// the connection open behind a body that does not fill the last block of 524288 bytes leaves the
/// session waiting: ask for "Connection: close", or end it with StopClientTransfer.
/// There is no time-out: a server that falls silent, or whose network goes, keeps the session until
/// StopClientTransfer.
/// @param callbacks  All four must be set; copied.
/// @param ip         Address of the server; a name is resolved during the call. Not null.
/// @param port       Not negative.
/// @param client_id  Receives the id of the session, 101 to 999, then again from 101. Not null. Set
///                   also when the connection fails at once; the session is then there until
///                   StopClientTransfer.
/// @return 0; kFailure (no threads), kStreamingInvalidParams, kStreamingConnectFailed,
///         kStreamingInvalidPort, kStreamingOutOfMemory.
VEX_EXPORT int StartClient(const ClientAppCallbacks* callbacks, const char* ip, int port,
                           int* client_id);

/// Sends a client's request header, now or as soon as the connection stands.
///
/// A GET or HEAD, and a request with Expect, then waits for the response; any other is followed by
/// payloads once on_write_complete has come with 0.
/// @param request  The caller's; read during the call.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, or kFailure for a type or version that
///         cannot be sent.
VEX_EXPORT int SendHTTPRequest(int client_id, const ReqHeaderInfo* request);

/// Ends a client of either kind, at any time and from any thread; nothing is called back after it
/// but a callback that is running. An unknown id is no fault.
/// @return 0; kStreamingInvalidParams for a negative id.
VEX_EXPORT int StopClientTransfer(int client_id);

/// Gives a server's answer; to be called from on_request, or from on_data with `final` set.
///
/// A response that cannot be formed, for its version, its status or for want of memory, is replaced
/// by a bare status 500 that ends the connection; a further call replaces that.
/// @param response  The caller's; read during the call.
/// @param final     The response ends with its header, and the connection with it.
/// @return 0; kStreamingInvalidParams and kStreamingOutOfMemory, also for a response that cannot be
///         formed; kStreamingNoServer, kStreamingNoSession.
VEX_EXPORT int SendHTTPResponse(int server_id, int session_id, const ResHeaderInfo* response,
                                bool final);

/// Sends a piece of body, for a client's session when the first argument is the handler id of its
/// callbacks, else for a server's. One piece at a time: the next one after on_write_complete.
/// For a piece of length 0 without `final` a server's on_write_complete comes during the call, on
/// the caller's thread.
/// @param data    From malloc. With `final` it passes to the library on success; earlier pieces
///                stay the caller's and may be used again after on_write_complete.
/// @param length  Bytes. 0 with `final` ends the body.
/// @return 0; kStreamingInvalidParams (a negative id, or null data with a length),
/// kStreamingNoServer, kStreamingNoSession,
///         kStreamingOutOfMemory.
VEX_EXPORT int SendHTTPPayload(int server_or_handler_id, int session_id, void* data,
                               unsigned int length, bool final);

/// Starts a synchronous client, which the caller drives by the blocking calls below on a thread of
/// its own. Once connected, they wait for the peer for as long as it takes; StopClientTransfer,
/// from any thread, ends the client and whatever blocks. It connects on the thread pool, which
/// StartServers or StartClient must have started.
/// @return 0; kStreamingInvalidParams for a null argument.
VEX_EXPORT int StartSyncClient(int* client_id);

/// Connects, within 5 seconds.
/// @param ip    Address of the server, or a name. Not null.
/// @param port  0 to 65535.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, kStreamingConnectFailed,
///         kStreamingInvalidPort.
VEX_EXPORT int ConnectSyncClient(int client_id, const char* ip, int port);

/// Writes the request header, and nothing of one that was given before. Without a connection it
/// sends nothing and gives 0.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, kSocketFailed, kFailure.
VEX_EXPORT int SendSyncHTTPRequest(int client_id, const ReqHeaderInfo* request);

/// Writes a piece of body, which stays the caller's in every case.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, kSocketFailed, kStreamingOutOfMemory.
VEX_EXPORT int SendSyncHTTPPayload(int client_id, void* data, unsigned int length, bool final);

/// Waits for the response header, for as long as it takes.
/// @param response  Receives the record; FreeResponseHeader.
/// @param body      Receives the first part of the body, null if there is none; Free.
/// @param length    Its bytes.
/// @param final     Set to true when the message ends here; not touched otherwise. An interim
///                  answer with status 100 is final: send the body and call again.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, kSocketFailed, kStreamingOutOfMemory;
///         kBadHttp, also for a header larger than 256 KiB or 1,000 lines.
VEX_EXPORT int ReadHTTPHeader(int client_id, ResHeaderInfo** response, void** body,
                              unsigned int& length, bool& final);

/// Waits for more body.
/// @param data   Receives a block, null when only framing came; Free.
/// @param final  Whether the body ends here. A body without a length ends with kSocketFailed.
/// @return 0; kStreamingInvalidParams, kStreamingNoSession, kSocketFailed, kBadHttp.
VEX_EXPORT int ReadHTTPData(int client_id, void** data, unsigned int& length, bool& final);

/// Releases a body block. Null is accepted, as by all functions that release.
VEX_EXPORT void Free(void* block);
/// Releases a list of servers.
VEX_EXPORT void FreeServerInfoList(stServer* servers);
/// Releases a list of additional headers.
VEX_EXPORT void FreeAdditionalHeaders(stArgument* headers);
/// Releases a request record with its texts.
VEX_EXPORT void FreeRequestHeader(ReqHeaderInfo* request);
/// Releases a response record with its texts.
VEX_EXPORT void FreeResponseHeader(ResHeaderInfo* response);

/// Decodes %XX in place (RFC 3986); a % without two hexadecimal digits behind it stays.
/// @param text  NUL-terminated; null is accepted.
VEX_EXPORT void UnEscapeURI(char* text);

/// Looks an additional header up, without regard to case.
/// @param value  Written on success only.
/// @return 1 when found, 0 otherwise and without memory.
VEX_EXPORT int GetResponseAdditionalHeaders(const stArgument* headers, const std::string& name,
                                            std::string& value);

/// Lists the sessions that stream now: those of clients first, then the peers of all servers.
///
/// @param sessions  Receives the list, null when nothing streams; released with FreeRunningSession.
///                  Not null. Written on success only.
/// @return 0; kStreamingInvalidParams for a null argument; kFailure when there is no manager or no
///         memory.
VEX_EXPORT int GetRunningSessionInfo(stRunningSession** sessions);

/// Releases a list from GetRunningSessionInfo.
///
/// @param sessions  The head of the list; null is ignored.
VEX_EXPORT void FreeRunningSession(stRunningSession* sessions);

/// Makes a fresh request record: everything absent, `request_type` HTTP_UNKNOWN_REQUEST.
///
/// @param request  Not read; null is ignored. Texts that it held are not released.
VEX_EXPORT void InitializeRequestHeaderInfo(ReqHeaderInfo* request);

/// Makes a fresh response record: everything absent, status 0, HTTP/1.0.
///
/// @param response  Not read; null is ignored. Texts that it held are not released.
VEX_EXPORT void InitializeResponseInfo(ResHeaderInfo* response);

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_H_

#include <vexupnpcp/streaming.h>

#include <cstdlib>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/shared_ptr.hpp>

#include <vexupnpcp/result_codes.h>
#include "base/current_exception.h"
#include "base/host_memory.h"
#include "base/log.h"
#include "src/streaming_manager.h"
#include "src/streaming_outgoing_sync_session.h"
#include "src/streaming_utils.h"

namespace vex_upnp {
namespace streaming {

using log::kTagStreaming;

namespace {

boost::shared_ptr<StreamingManager> Manager() {
  boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  if (!manager) VEX_LOG(kLogMajor, kTagStreaming, "Streaming manager not initialized.");
  return manager;
}

int InvalidParams(const LogSite& site) {
  if (log::IsOpen()) log::WriteLine(site, kLogMajor, kTagStreaming, "Invalid params.");
  return result::kStreamingInvalidParams;
}

// Nothing thrown leaves the library; what can throw here is memory.
template <typename Result, typename Call>
Result Guarded(Result without_memory, Call call) {
  try {
    return call();
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, kTagStreaming, "Exception: %s",
                        "Unknown Exception");
    return without_memory;
  }
}

template <typename Call>
int Guarded(Call call) {
  return Guarded<int>(result::kStreamingOutOfMemory, call);
}

// Runs one blocking call on a synchronous client, which stays alive for as long as the call takes.
template <typename Call>
int OnSyncClient(int client_id, Call call) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (client_id < 0) return InvalidParams(VEX_LOG_SITE);
  const boost::shared_ptr<OutgoingSyncSession> session = manager->GetSyncClient(client_id);
  if (!session) {
    VEX_LOG(kLogMajor, kTagStreaming, "Session not found for client id %d.", client_id);
    return result::kStreamingNoSession;
  }
  return Guarded([&] { return call(*session, manager->client_handler_id()); });
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int InitializeStreamingManager() {
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  if (!manager) return result::kStreamingInitFailed;
  manager->AddReference();
  return result::kOk;
}

int TerminateStreamingManager() {
  {
    // KEPT: built anew for a surplus call, which drives the count below 0 and takes effect on the
    // next Initialize. Hosts that pair their calls never see it.
    const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
    if (!manager) return result::kStreamingTerminateFailed;
    manager->DeleteReference();
  }
  StreamingManager::DestroyInstance();
  return result::kOk;
}

int StartServers(const ServerAppCallbacks* callbacks, const char* interface_ip, int port,
                 stServer** servers, int* configuration_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (servers == nullptr || configuration_id == nullptr || port < 0 ||
      !ValidateServerCallbacks(callbacks)) {
    return InvalidParams(VEX_LOG_SITE);
  }
  return Guarded([&] {
    return manager->StartServers(callbacks, interface_ip, port, servers, configuration_id);
  });
}

stServer* GetConfiguredServers(int server_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager || server_id < 0) return nullptr;
  return Guarded<stServer*>(nullptr, [&] { return manager->GetConfiguredServers(server_id); });
}

int GetStreamingServerPort(int configuration_id, const char* ip, int* port) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (configuration_id < 1 || ip == nullptr || port == nullptr) return InvalidParams(VEX_LOG_SITE);
  return Guarded([&] { return manager->GetStreamingServerPort(configuration_id, ip, port); });
}

int StopServers(int configuration_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (configuration_id < 1) return InvalidParams(VEX_LOG_SITE);
  return manager->StopServers(configuration_id);
}

int StopServerTransfer(int server_id, int session_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (server_id < 0 || session_id < 0) return InvalidParams(VEX_LOG_SITE);
  return manager->StopServerTransfer(server_id, session_id);
}

int StartClient(const ClientAppCallbacks* callbacks, const char* ip, int port, int* client_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (ip == nullptr || client_id == nullptr || port < 0 || !ValidateClientCallbacks(callbacks)) {
    return InvalidParams(VEX_LOG_SITE);
  }
  return Guarded([&] { return manager->StartClient(callbacks, ip, port, client_id); });
}

int SendHTTPRequest(int client_id, const ReqHeaderInfo* request) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (client_id < 0 || request == nullptr) return InvalidParams(VEX_LOG_SITE);
  return Guarded([&] { return manager->SendHTTPRequest(client_id, request); });
}

int StopClientTransfer(int client_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (client_id < 0) return InvalidParams(VEX_LOG_SITE);
  return manager->StopClientTransfer(client_id);
}

int SendHTTPResponse(int server_id, int session_id, const ResHeaderInfo* response, bool final) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (server_id < 0 || session_id < 0 || response == nullptr) return InvalidParams(VEX_LOG_SITE);
  return Guarded([&] { return manager->SendHTTPResponse(server_id, session_id, response, final); });
}

int SendHTTPPayload(int server_or_handler_id, int session_id, void* data, unsigned int length,
                    bool final) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (server_or_handler_id < 0 || session_id < 0) return InvalidParams(VEX_LOG_SITE);
  return Guarded([&] {
    return manager->SendHTTPPayload(server_or_handler_id, session_id, data, length, final);
  });
}

int StartSyncClient(int* client_id) {
  const boost::shared_ptr<StreamingManager> manager = Manager();
  if (!manager) return result::kStreamingNotInitialized;
  if (client_id == nullptr) return InvalidParams(VEX_LOG_SITE);
  return Guarded([&] { return manager->StartSyncClient(client_id); });
}

int ConnectSyncClient(int client_id, const char* ip, int port) {
  if (ip == nullptr) return InvalidParams(VEX_LOG_SITE);
  return OnSyncClient(client_id,
                      [&](OutgoingSyncSession& session, int) { return session.Connect(ip, port); });
}

int SendSyncHTTPRequest(int client_id, const ReqHeaderInfo* request) {
  if (request == nullptr) return InvalidParams(VEX_LOG_SITE);
  return OnSyncClient(client_id, [&](OutgoingSyncSession& session, int handler_id) {
    session.SetClientHandlerId(handler_id);
    return session.Write(request);
  });
}

int SendSyncHTTPPayload(int client_id, void* data, unsigned int length, bool final) {
  if (data == nullptr && length > 0) return InvalidParams(VEX_LOG_SITE);
  return OnSyncClient(client_id, [&](OutgoingSyncSession& session, int) {
    return session.Write(data, length, final);
  });
}

int ReadHTTPHeader(int client_id, ResHeaderInfo** response, void** body, unsigned int& length,
                   bool& final) {
  if (response == nullptr || body == nullptr) return InvalidParams(VEX_LOG_SITE);
  return OnSyncClient(client_id, [&](OutgoingSyncSession& session, int) {
    return session.ReadHeader(response, body, length, final);
  });
}

int ReadHTTPData(int client_id, void** data, unsigned int& length, bool& final) {
  if (data == nullptr) return InvalidParams(VEX_LOG_SITE);
  return OnSyncClient(client_id, [&](OutgoingSyncSession& session, int) {
    return session.ReadData(data, length, final);
  });
}

void Free(void* block) { std::free(block); }

void FreeServerInfoList(stServer* servers) {
  FreeChain(servers, [](stServer* server) {
    std::free(server->ip);
    std::free(server->interface_name);
    delete server;
  });
}

void FreeAdditionalHeaders(stArgument* headers) {
  FreeChain(headers, [](stArgument* header) {
    std::free(header->name);
    std::free(header->value);
    std::free(header);
  });
}

void FreeRequestHeader(ReqHeaderInfo* request) {
  if (request == nullptr) return;
  for (char* text : {request->uri, request->accept, request->connection, request->content_type,
                     request->date, request->expect, request->from, request->host,
                     request->last_modified, request->transfer_encoding, request->user_agent}) {
    std::free(text);
  }
  FreeAdditionalHeaders(request->additional_headers);
  std::free(request);
}

void FreeResponseHeader(ResHeaderInfo* response) {
  if (response == nullptr) return;
  for (char* text : {response->accept_ranges, response->connection, response->content_language,
                     response->content_type, response->date, response->last_modified,
                     response->transfer_encoding, response->server}) {
    std::free(text);
  }
  FreeAdditionalHeaders(response->additional_headers);
  std::free(response);
}

void UnEscapeURI(char* text) {
  if (text == nullptr) return;
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in, ++out) {
    const int high = in[0] == '%' ? HexDigit(in[1]) : -1;
    const int low = high >= 0 ? HexDigit(in[2]) : -1;
    if (low < 0) {
      *out = *in;
      continue;
    }
    *out = static_cast<char>(high * 16 + low);
    in += 2;
  }
  *out = '\0';
}

int GetResponseAdditionalHeaders(const stArgument* headers, const std::string& name,
                                 std::string& value) {
  if (name.empty()) return result::kNo;
  return Guarded<int>(result::kNo, [&] {
    for (; headers != nullptr; headers = headers->next) {
      if (headers->name == nullptr || !boost::iequals(headers->name, name)) continue;
      value = headers->value == nullptr ? "" : headers->value;
      return result::kYes;
    }
    return result::kNo;
  });
}

int GetRunningSessionInfo(stRunningSession** sessions) {
  if (sessions == nullptr) return InvalidParams(VEX_LOG_SITE);
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  if (!manager) return result::kFailure;
  return Guarded<int>(result::kFailure, [&] { return manager->GetRunningSessionInfo(sessions); });
}

void InitializeRequestHeaderInfo(ReqHeaderInfo* request) {
  if (request == nullptr) return;
  *request = ReqHeaderInfo();
  request->request_type = utils::HTTP_UNKNOWN_REQUEST;
}

void InitializeResponseInfo(ResHeaderInfo* response) {
  if (response != nullptr) *response = ResHeaderInfo();
}

void FreeRunningSession(stRunningSession* sessions) {
  FreeChain(sessions, [](stRunningSession* session) {
    std::free(session->ip);
    std::free(session);
  });
}

}  // namespace streaming
}  // namespace vex_upnp
